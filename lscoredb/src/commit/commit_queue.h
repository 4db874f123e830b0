#ifndef LSCOREDB_SRC_COMMIT_QUEUE_H
#define LSCOREDB_SRC_COMMIT_QUEUE_H

// The queue of committers, which elects leaders. A leader takes all who wait as one batch, and no
// other batch is led until it has finished. Before a batch starts, the first in the queue may wait
// for others; whoever completes the batch leads it, so that no thread has to be woken first.
//
// Any thread. A ticket belongs to its thread, which waits; nobody else uses it once it is done.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "group_commit_policy.h"

namespace lscore {

struct CommitTicket {
  bool done = false;
};

class CommitQueue {
 public:
  using Tickets = std::vector<CommitTicket*>;

  // `longest`: nobody waits longer for others.
  explicit CommitQueue(GroupCommitPolicy::Duration longest = GroupCommitPolicy::kLongest)
      : policy_(longest) {}

  // Queues the ticket and waits. Returns whether the caller leads: then `*batch` has the tickets to
  // commit, its own among them, and the caller must call Finish. Otherwise another thread led the
  // batch, and the ticket is done.
  bool Enter(CommitTicket& ticket, Tickets* batch);
  // `took`: the time since Enter returned.
  void Finish(Tickets const& batch, GroupCommitPolicy::Duration took);

  // The number of tickets in the queue, without the batch that is being led.
  std::size_t waiting() const;

  // Runs `work` while no batch is led.
  template <typename Work>
  void BetweenBatches(Work&& work) {
    std::unique_lock lock(mutex_);
    calm_.wait(lock, [this] { return state_ != State::kLed; });
    work();
  }

 private:
  enum class State { kIdle, kGathering, kLed };
  using Lock = std::unique_lock<std::mutex>;

  bool AwaitTurn(Lock& lock, CommitTicket const& ticket);
  bool Gather(Lock& lock, std::condition_variable& turn);
  void Take(Tickets* batch);
  // Two condition variables in turn: the tickets of a batch wait on one, those of the next batch on
  // the other, so that the end of a batch wakes only its own and one of the next.
  std::condition_variable& TurnOf(std::size_t batch) { return turn_[batch % 2]; }

  std::mutex mutable mutex_;
  std::condition_variable turn_[2];
  std::condition_variable calm_;
  State state_ = State::kIdle;
  std::size_t batches_ = 0;  // that were led
  Tickets waiting_;
  GroupCommitPolicy policy_;
  std::chrono::steady_clock::time_point last_end_;
  bool waited_ = false;  // whether the batch that is being led waited for others before it started
};

}  // namespace lscore

#endif
