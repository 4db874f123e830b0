#ifndef LSCOREDB_SRC_GROUP_COMMIT_H
#define LSCOREDB_SRC_GROUP_COMMIT_H

// How transactions become part of the store. Committers line up; the first one leads: it takes all
// who wait, checks and applies each in one batch of the store, and ends that with one sync for all.
// Whoever fails its checks has applied nothing and does not hold up the others. When the batch as a
// whole fails, each is tried again alone, so that one that does not fit takes nobody with it.

#include <span>

#include "allocators.h"
#include "commit_queue.h"
#include "definitions.h"
#include "identity.h"
#include "pending.h"
#include "shared_row_cache.h"
#include "status.h"
#include "store.h"

namespace lscore {

// The key for which a unique index refuses a transaction.
struct RefusedKey {
  IndexId index{};
  ObjectId object{};  // that the transaction wrote
  ObjectId holder{};  // that has the key too
  KeyBytes key;       // as the contract has it
};

// One transaction's wish to be committed. Owned by its thread, which waits.
struct CommitRequest : CommitTicket {
  CommitRequest(PendingChanges const& its_changes, Snapshot const& its_snapshot, CommitId version)
      : changes(its_changes), snapshot(its_snapshot), index_version(version) {}

  PendingChanges const& changes;
  Snapshot const& snapshot;
  CommitId index_version;  // of the snapshot
  Status status = LORV_STATUS_OK;
  RefusedKey refused;      // with LSCOREDB_DUPLICATE_KEY
  CommitInDoubt in_doubt;  // with LSCOREDB_COMMIT_UNKNOWN
};

class GroupCommit {
 public:
  GroupCommit(Store& store, IdAllocator& ids, DatabaseIdentity& identity, SharedRowCache& rows)
      : store_(store), ids_(ids), identity_(identity), rows_(rows) {}

  // Commits or fails; either way nothing of the request is used afterwards.
  Status Run(CommitRequest& request);

  // From the next commit on every one is synced.
  void RequireSync();

 private:
  using Tickets = std::span<CommitTicket* const>;  // of requests

  void Lead(Tickets tickets) noexcept;
  void TryAll(Tickets tickets);
  std::unique_ptr<Batch> BeginBatch(Tickets tickets);
  static void LeaveOpen(Tickets tickets) noexcept;
  bool IsNext(CommitId snapshot, CommitId batch);
  static void Commit(Batch& batch, Tickets tickets);

  Store& store_;
  IdAllocator& ids_;
  DatabaseIdentity& identity_;
  SharedRowCache& rows_;
  CommitQueue queue_;
};

}  // namespace lscore

#endif
