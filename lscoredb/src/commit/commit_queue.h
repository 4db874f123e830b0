#ifndef LSCOREDB_SRC_COMMIT_QUEUE_H
#define LSCOREDB_SRC_COMMIT_QUEUE_H

// Where committers line up, and who of them leads. Whoever leads takes all who wait as one batch,
// and nobody else leads until it has finished. Before a batch starts, the first in line may wait
// for company; the one who completes it leads then, so that no thread has to be woken first.
//
// Any thread. A ticket belongs to its thread, which waits, and is of no use to others once it is
// done.

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

  // `longest`: nobody waits longer for company.
  explicit CommitQueue(GroupCommitPolicy::Duration longest = GroupCommitPolicy::kLongest)
      : policy_(longest) {}

  // Lines up. Returns whether the caller leads: `*batch` is then what it leads, its own ticket
  // among them, and Finish has to follow. Otherwise another led it, and the ticket is done.
  bool Enter(CommitTicket& ticket, Tickets* batch);
  // `took`: what the batch took since it was led.
  void Finish(Tickets const& batch, GroupCommitPolicy::Duration took);

  // How many are lined up for a batch that nobody leads yet.
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
  // Those of a batch wait on the same of the two, those of the next one on the other.
  std::condition_variable& TurnOf(std::size_t batch) { return turn_[batch % 2]; }

  std::mutex mutable mutex_;
  std::condition_variable turn_[2];
  std::condition_variable calm_;
  State state_ = State::kIdle;
  std::size_t batches_ = 0;  // that were led
  Tickets waiting_;
  GroupCommitPolicy policy_;
  std::chrono::steady_clock::time_point last_end_;
  bool waited_ = false;  // somebody, for company, before the batch that is led
};

}  // namespace lscore

#endif
