#include "foreign_commits.h"

#include "status.h"

namespace lscore {

void ForeignCommits::BeginCommit(CommitId state, Changes const& changes) {
  std::lock_guard const lock(mutex_);
  NoteForeign(CommitId{Raw(state) - 1}, changes);
  committing_ = state;
}

void ForeignCommits::EndCommit(CommitId state, bool succeeded) {
  std::lock_guard const lock(mutex_);
  committing_ = CommitId{0};
  if (succeeded && state > accounted_) accounted_ = state;
}

void ForeignCommits::NoteOwnCommit(CommitId state, Changes const& changes,
                                   std::function<void(CommitId)> const& evict) {
  std::lock_guard const lock(mutex_);
  NoteForeign(CommitId{Raw(state) - 1}, changes);
  evict(state);
  if (state > accounted_) accounted_ = state;
}

bool ForeignCommits::NoticeNew(CommitId state, Changes const& changes) {
  std::lock_guard const lock(mutex_);
  if (state == committing_) return false;
  NoteForeign(state, changes);
  return true;
}

// A reader of an older state may be about to cache an old version of a listed object. The listener
// gets the state, so that the cache refuses such a version.
void ForeignCommits::NoteForeign(CommitId state, Changes const& changes) {
  if (state <= accounted_) return;
  std::vector<ObjectId> changed;
  bool listed = false;
  Status const status = Guarded([&] {
    listed = accounted_ != CommitId{0} && changes(accounted_, &changed);
    return LORV_STATUS_OK;
  });
  if (status != LORV_STATUS_OK || !listed) {
    unlisted_ = state;
  } else if (listener_ != nullptr) {
    listener_(changed, state);
  }
  accounted_ = state;
}

}  // namespace lscore
