#ifndef LSCOREDB_SRC_GROUP_COMMIT_H
#define LSCOREDB_SRC_GROUP_COMMIT_H

// Group commit. Committers queue; one of them leads: it takes all who wait, validates and applies
// each in one batch of the store, and commits the batch with one sync for all. A transaction that
// fails validation has applied nothing and does not affect the others. When the batch as a whole
// fails (a full disk), each transaction is tried again alone, so that one that does not fit does
// not fail the others.

#include <chrono>
#include <span>

#include "allocators.h"
#include "build_applier.h"
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
  ObjectId object{};  // the one that the transaction wrote
  ObjectId holder{};  // the one that has the key already
  KeyBytes key;       // in the contract's key format
};

// One transaction in the queue. Owned by its thread, which waits.
struct CommitRequest : CommitTicket {
  CommitRequest(PendingChanges const& its_changes, Snapshot const& its_snapshot, CommitId version)
      : changes(its_changes), snapshot(its_snapshot), index_version(version) {}

  bool empty() const { return changes.empty() && build == nullptr; }

  PendingChanges const& changes;
  Snapshot const& snapshot;
  CommitId index_version;              // of the snapshot
  BuildChange const* build = nullptr;  // of a prepared index
  bool sync = false;                   // before it returns, whatever the store's durability
  Status status = LORV_STATUS_OK;
  RefusedKey refused;      // with LSCOREDB_DUPLICATE_KEY
  CommitInDoubt in_doubt;  // with LSCOREDB_COMMIT_UNKNOWN
};

class GroupCommit {
 public:
  GroupCommit(Store& store, IdAllocator& ids, DatabaseIdentity& identity, SharedRowCache& rows)
      : store_(store), ids_(ids), identity_(identity), rows_(rows) {}

  // Commits or fails; either way the request is not used after Run returned.
  Status Run(CommitRequest& request);

  // Syncs every commit from the next one on, at most so much later.
  void RequireSync(std::chrono::milliseconds delay);

 private:
  using Tickets = std::span<CommitTicket* const>;  // of requests

  void Lead(Tickets tickets) noexcept;
  void TryAll(Tickets tickets);
  std::unique_ptr<Batch> BeginBatch(Tickets tickets);
  static void LeaveOpen(Tickets tickets) noexcept;
  bool IsNext(CommitId snapshot, CommitId batch);
  bool TryBlind(Tickets tickets);
  // Commits the batch, of either kind.
  template <typename Work>
  static void Commit(Tickets tickets, auto const& batch, Work&& work);

  Store& store_;
  IdAllocator& ids_;
  DatabaseIdentity& identity_;
  SharedRowCache& rows_;
  CommitQueue queue_;
};

}  // namespace lscore

#endif
