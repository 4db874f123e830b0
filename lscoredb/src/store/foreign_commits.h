#ifndef LSCOREDB_SRC_FOREIGN_COMMITS_H
#define LSCOREDB_SRC_FOREIGN_COMMITS_H

// Distinguishes commits of this process from those of others, by their numbers, and passes on what
// the others changed.
//
// What a process caches of the newest state stays valid through its own commits, which update it.
// After a commit of another process the store may list the objects that it changed: they are
// reported to the listener, and the rest stays valid. If the store cannot list them, nothing that
// was cached before is valid for that state and later ones. Any thread.

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "ids.h"

namespace lscore {

class ForeignCommits {
 public:
  // Appends the objects that commits of any process changed after `after`, up to the state in
  // question. May name others too. Returns false when it cannot list them.
  using Changes = std::function<bool(CommitId after, std::vector<ObjectId>* changed)>;
  // Gets the objects whose earlier versions are not valid for `state`, before Notice returns true
  // for it. Must not throw or call this object.
  using Listener = std::function<void(std::vector<ObjectId> const& changed, CommitId state)>;

  // REQUIRES: no other thread uses this object. Null: no listener.
  void SetListener(Listener listener) { listener_ = std::move(listener); }

  // Whether the cache accounts for all commits up to `state`, which a snapshot has just begun to
  // read: each was made here or reported as foreign. False while a commit of this process with that
  // number is in progress. `changes`, of the type Changes, is called once for each new foreign
  // state, under a lock that the other calls wait for.
  template <typename List>
  bool Notice(CommitId state, List&& changes) {
    return state <= accounted_.load(std::memory_order_acquire) || NoticeNew(state, changes);
  }

  // What was cached before this state is not valid for it and for later ones.
  CommitId unlisted() const { return unlisted_.load(std::memory_order_acquire); }

  // Around a commit of this process that makes `state`. `changes`: up to the state before it.
  // REQUIRES: the caller of the first holds the store's write lock.
  void BeginCommit(CommitId state, Changes const& changes);
  void EndCommit(CommitId state, bool succeeded);

  // After a commit of this process made `state`, a number that was not known before. `changes`: up
  // to the state before it. `evict` evicts what the commit itself replaced, before Notice returns
  // true for the state, unless it did already and reported the commit as foreign.
  void NoteOwnCommit(CommitId state, Changes const& changes,
                     std::function<void(CommitId)> const& evict);

 private:
  bool NoticeNew(CommitId state, Changes const& changes);
  void NoteForeign(CommitId state, Changes const& changes);

  std::atomic<CommitId> accounted_{CommitId{0}};
  std::atomic<CommitId> unlisted_{CommitId{0}};
  std::mutex mutex_;
  CommitId committing_{0};
  Listener listener_;
};

}  // namespace lscore

#endif
