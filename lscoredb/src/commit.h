#ifndef LSCOREDB_SRC_COMMIT_H
#define LSCOREDB_SRC_COMMIT_H

// How transactions become part of the store. Committers line up; the first one leads: it takes all
// who wait, checks and applies each in one batch of the store, and ends that with one sync for all.
// Whoever fails its checks has applied nothing and does not hold up the others. When the batch as a
// whole fails, each is tried again alone, so that one that does not fit takes nobody with it.

#include <condition_variable>
#include <mutex>
#include <vector>

#include "allocators.h"
#include "definitions.h"
#include "pending.h"
#include "status.h"
#include "store.h"

namespace lscore {

// One transaction's wish to be committed. Owned by its thread, which waits.
struct CommitRequest {
  PendingChanges const& changes;
  Snapshot const& snapshot;
  CommitId index_version;  // of the snapshot
  Status status = LORV_STATUS_OK;
  bool done = false;
};

class CommitQueue {
 public:
  CommitQueue(Store& store, IdAllocator& ids) : store_(store), ids_(ids) {}

  // Commits or fails; either way nothing of the request is used afterwards.
  Status Run(CommitRequest& request);

  // From the next commit on every one is synced.
  void RequireSync();

 private:
  void Lead(std::vector<CommitRequest*> const& requests) noexcept;
  void TryAll(std::vector<CommitRequest*> const& requests);

  Store& store_;
  IdAllocator& ids_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<CommitRequest*> waiting_;
  bool leading_ = false;
};

}  // namespace lscore

#endif
