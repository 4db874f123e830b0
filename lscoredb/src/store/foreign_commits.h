#ifndef LSCOREDB_SRC_FOREIGN_COMMITS_H
#define LSCOREDB_SRC_FOREIGN_COMMITS_H

// Tells commits of this process from those of others, by their numbers alone.
//
// What a process keeps in memory of the newest state stays true through its own commits, which say
// what they change. A commit of another process says nothing: what was known before it is of no use
// for states from there on. Any thread.

#include <atomic>
#include <mutex>

#include "ids.h"

namespace lscore {

class ForeignCommits {
 public:
  // Whether all that leads to `state`, which a snapshot has just begun to read, is accounted for:
  // it is an own commit, or before it, or noted as foreign. False while an own commit of that
  // number is not known to have succeeded.
  bool Notice(CommitId state) {
    return state <= accounted_.load(std::memory_order_acquire) || NoticeNew(state);
  }

  // What was known before this state does not hold for it and for later ones.
  CommitId foreign() const { return foreign_.load(std::memory_order_acquire); }

  // Around an own commit that makes `state`. REQUIRES: the store's lock for writing is held at the
  // first, and `state` comes to be iff the commit succeeds.
  void BeginCommit(CommitId state) {
    std::lock_guard const lock(mutex_);
    NoteForeign(CommitId{Raw(state) - 1});
    committing_ = state;
  }
  void EndCommit(CommitId state, bool succeeded) {
    std::lock_guard const lock(mutex_);
    committing_ = CommitId{0};
    if (succeeded && state > accounted_) accounted_ = state;
  }

 private:
  bool NoticeNew(CommitId state) {
    std::lock_guard const lock(mutex_);
    if (state == committing_) return false;
    NoteForeign(state);
    return true;
  }
  void NoteForeign(CommitId state) {
    if (state <= accounted_) return;
    foreign_ = state;
    accounted_ = state;
  }

  std::atomic<CommitId> accounted_{CommitId{0}};
  std::atomic<CommitId> foreign_{CommitId{0}};
  std::mutex mutex_;
  CommitId committing_{0};
};

}  // namespace lscore

#endif
