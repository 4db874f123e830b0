#include "commit_queue.h"

namespace lscore {

// Three states: kIdle, nobody leads; kGathering, the first in the queue waits for others; kLed, a
// leader commits its batch. A ticket arrives in one of these ways:
//
//   kLed        waits until that batch ends; then one of the next is woken and continues below
//   enough wait leads at once, also while another gathers
//   kIdle       gathers, and leads when the time is over
//   kGathering  waits until its batch was led by another
bool CommitQueue::Enter(CommitTicket& ticket, Tickets* batch) {
  Lock lock(mutex_);
  waiting_.push_back(&ticket);
  if (!AwaitTurn(lock, ticket)) return false;
  Take(batch);
  return true;
}

bool CommitQueue::AwaitTurn(Lock& lock, CommitTicket const& ticket) {
  std::condition_variable& turn = TurnOf(batches_);
  turn.wait(lock, [&] { return ticket.done || state_ != State::kLed; });
  if (ticket.done) return false;
  if (waiting_.size() >= policy_.wanted()) return true;
  if (state_ == State::kIdle && Gather(lock, turn)) return true;
  turn.wait(lock, [&] { return ticket.done; });
  return false;
}

// Waits for others until the policy's patience ends. Returns whether the caller leads: the time is
// over and nobody completed the batch.
bool CommitQueue::Gather(Lock& lock, std::condition_variable& turn) {
  std::size_t const batch = batches_;
  auto const until = last_end_ + policy_.patience();
  if (std::chrono::steady_clock::now() >= until) return true;
  state_ = State::kGathering;
  return !turn.wait_until(lock, until, [&] { return batches_ != batch; });
}

void CommitQueue::Take(Tickets* batch) {
  waited_ = state_ == State::kGathering;
  state_ = State::kLed;
  ++batches_;
  batch->swap(waiting_);
}

// Uses no ticket after the lock is released: its thread may be gone as soon as it is done. The
// threads of the batch wake all together, of the next batch only one, which leads or gathers.
void CommitQueue::Finish(Tickets const& batch, GroupCommitPolicy::Duration took) {
  Lock lock(mutex_);
  for (CommitTicket* const ticket : batch) ticket->done = true;
  policy_.Ended({batch.size(), waiting_.size(), waited_, took});
  last_end_ = std::chrono::steady_clock::now();
  state_ = State::kIdle;
  std::size_t const size = batch.size();
  bool const more = !waiting_.empty();
  std::condition_variable& ended = TurnOf(batches_ - 1);
  std::condition_variable& next = TurnOf(batches_);
  lock.unlock();
  if (size > 1) ended.notify_all();
  if (more) next.notify_one();
  calm_.notify_all();
}

std::size_t CommitQueue::waiting() const {
  std::lock_guard const lock(mutex_);
  return waiting_.size();
}

}  // namespace lscore
