#ifndef LSCOREDB_SRC_FOREIGN_COMMITS_H
#define LSCOREDB_SRC_FOREIGN_COMMITS_H

// Tells commits of this process from those of others, by their numbers, and passes on what the
// others changed.
//
// What a process keeps in memory of the newest state stays true through its own commits, which
// report what they change. After a commit of another process the store may list the objects that
// differ: these are reported to the listener, and the rest stays true. A store that cannot list
// them says so: then nothing that was known before holds for states from there on. Any thread.

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "ids.h"

namespace lscore {

class ForeignCommits {
 public:
  // Appends the objects that the commits after `after` changed, whoever made them, up to the state
  // in question. It may name others too. Returns false when it cannot list them: any may differ.
  using Changes = std::function<bool(CommitId after, std::vector<ObjectId>* changed)>;
  // Gets objects whose versions of before do not hold for `state`, before any reader of it is told
  // that all is accounted for. Must not throw, nor call this object.
  using Listener = std::function<void(std::vector<ObjectId> const& changed, CommitId state)>;

  // REQUIRES: no other thread uses this object yet, or any more. Null: nobody listens.
  void SetListener(Listener listener) { listener_ = std::move(listener); }

  // Whether all that leads to `state`, which a snapshot has just begun to read, is accounted for:
  // it is an own commit, or before it, or reported as foreign. False while an own commit of that
  // number is not known to have succeeded. `changes` is of the type Changes; it is called under a
  // lock that the other calls wait for, once for each foreign state that is new here.
  template <typename List>
  bool Notice(CommitId state, List&& changes) {
    return state <= accounted_.load(std::memory_order_acquire) || NoticeNew(state, changes);
  }

  // What was known before this state does not hold for it and for later ones.
  CommitId unlisted() const { return unlisted_.load(std::memory_order_acquire); }

  // Around an own commit that makes `state`. `changes`: up to the state before. REQUIRES: the
  // store's lock for writing is held at the first, and `state` comes to be iff the commit succeeds.
  void BeginCommit(CommitId state, Changes const& changes);
  void EndCommit(CommitId state, bool succeeded);

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
