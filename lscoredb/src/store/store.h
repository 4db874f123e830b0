#ifndef LSCOREDB_SRC_STORE_H
#define LSCOREDB_SRC_STORE_H

// The seam between the kernel and an ordered store: what a store must do, and nothing about how.
// tests/store_conformance holds every store to it.
//
// A store keeps five ordered trees of keys and values. It gives snapshots of committed states to
// any number of readers and one batch of writes at a time. The seam is designed from what three
// kinds of stores need:
//
//                     LMDB file                 log over a file           SQL server
//   snapshot          read transaction          image + overlay version   REPEATABLE READ
//   entries           pages of the map, as is   merged pages, built once  result sets, as pages
//   one get           tree descent              overlay, then image       a round trip
//   many gets         as many descents          as many look-ups          one round trip
//   batch             write transaction         one append, one sync      one transaction
//   reserving ids     a small batch             a small batch             a small batch
//   layout numbers    a mapped file, locked     the same                  rows of a table
//   state number      transaction id            position in the log       a row of the schema
//   others' commits   unknown: all may differ   the log lists objects     a table lists objects
//
// Hence: bytes are valid as long as their snapshot, entries come in pages (entry_page.h) so that a
// step is no virtual call, many gets can be one call, ids are reserved by ordinary batches, and
// ListChanges names the objects that others changed if the store knows them.
//
// A Store is opened once per process and directory and outlives every view and cursor of it. Any
// thread may call it. Views and cursors belong to one thread at a time. All failures are thrown as
// statuses.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "blind_batch.h"
#include "change_source.h"
#include "cursor.h"
#include "foreign_commits.h"
#include "ids.h"
#include "layout_reservations.h"
#include "status.h"
#include "store_options.h"
#include "view.h"

namespace lscore {

struct StoreStatistics {
  std::uint64_t file_size = 0;
  std::uint64_t max_file_size = 0;
  CommitId last_commit{0};
  CommitId oldest_commit{0};  // the oldest state that is being read
  std::uint32_t readers = 0;
  std::uint32_t max_readers = 0;
  std::uint64_t log_size = 0;     // bytes of commits that no checkpoint has written yet
  std::uint64_t log_memory = 0;   // memory of this process for these, and for older snapshots
  std::uint64_t round_trips = 0;  // those that this process has waited for
  CommitId synced_commit{0};      // the newest commit that is known to be on disk
};

// A part of the store that cannot be read. Keys of the tree from `low` on and below `high` are lost
// with it; empty: from the beginning, to the end.
struct StoreFault {
  enum class Area : std::uint8_t { kTree, kFreeSpace, kWhole };
  Area area = Area::kWhole;
  Tree tree = Tree::kMeta;  // of Area::kTree
  std::string_view low;
  std::string_view high;
  char const* what = "";
};

// Gets each fault. It may throw, which ends the check.
using FaultReport = std::function<void(StoreFault const&)>;

// A new store holds only the format record in kMeta (format.h).
class Store {
 public:
  Store();
  Store(Store const&) = delete;
  Store& operator=(Store const&) = delete;
  virtual ~Store() = default;

  // The newest committed state.
  virtual std::unique_ptr<Snapshot> Begin() = 0;
  virtual void End(std::unique_ptr<Snapshot> snapshot) noexcept = 0;
  // Waits until no other batch is open, in any process.
  virtual std::unique_ptr<Batch> BeginBatch() = 0;
  // Whether the store saves round trips when it knows what a batch is going to read; such a batch.
  virtual bool takes_hints() const { return false; }
  virtual std::unique_ptr<Batch> BeginBatch(std::vector<TreeKey> const& /* hints */) {
    return BeginBatch();
  }

  // Null: the store has none, or not now.
  virtual std::unique_ptr<BlindBatch> BeginBlindBatch() { return nullptr; }

  // A snapshot all of whose parts were checked. Reads of a part with a fault are not reliable.
  virtual std::unique_ptr<Snapshot> BeginVerified(FaultReport const& report) = 0;
  // Throws LSCOREDB_DAMAGED when the newest state is inconsistent.
  virtual void Verify() = 0;

  virtual StoreStatistics Statistics() const = 0;

  // Whether it was opened read-only: BeginBatch throws LSCOREDB_READ_ONLY_DATABASE.
  virtual bool read_only() const { return false; }
  // Whether, besides, nobody can write it until it is closed.
  virtual bool frozen() const { return false; }
  // As of the opening. In memory and on servers: kRefused.
  LogState log_state() const { return log_state_; }
  void SetLogState(LogState state) { log_state_ = state; }

  // Whether a commit took place; if not, it never will. Throws LSCOREDB_COMMIT_UNKNOWN if that
  // cannot be found out, or the wait was stopped.
  virtual bool AskOutcome(CommitInDoubt const& /* commit */) const {
    Throw(LSCOREDB_COMMIT_UNKNOWN);
  }

  // Takes the lock for creating the contents of a new database, and returns it; null if the store
  // has none. Throws LSCOREDB_CANNOT_OPEN, and notes why, if another process does not release it.
  std::shared_ptr<void> LockCreation();

  // Removes the database from a server, where there is no directory to remove, and then releases
  // the lock of LockCreation, so that nobody creates the database in between.
  virtual void Discard(std::shared_ptr<void> /* lock */) {}

  // ---- the feed of changes. All throw LSCOREDB_CHANGES_UNSUPPORTED if the store has none, and the
  // last two LSCOREDB_NO_CHANGES if it keeps none.
  // Takes effect with the commits after it, for good and in all processes.
  virtual void KeepChanges(Retention const& retention);
  virtual KeptChanges Kept();
  // Throws LSCOREDB_INVALID_ARGUMENT if there is no commit `after` yet.
  virtual std::unique_ptr<ChangeSource> OpenChanges(CommitId after);

  // Makes a commit visible that a process wrote whole before it died, if there is one.
  // REQUIRES: no open batch.
  virtual void Settle() { static_cast<void>(BeginBatch()); }
  // From now on every commit is synced, with a log maybe so much later. REQUIRES: no open batch.
  virtual void RequireSync() = 0;
  // The same, but leaves what was committed before as it is.
  virtual void RequireSyncFromNowOn() { RequireSync(); }
  virtual void RequireSyncWithin(std::chrono::milliseconds /* delay */) { RequireSync(); }
  // Syncs every commit that was published, also those of other processes.
  virtual void Sync() = 0;
  // Writes what is in the log into the image.
  virtual void Checkpoint() {}

  // Frees the slots of readers whose processes died, and the space that they kept from reuse.
  // Returns whether there were any.
  virtual bool FreeDeadReaders() = 0;

  // Work that commits have postponed. Called after a commit by a thread that holds no lock.
  virtual void Upkeep() noexcept {}

  // The reservations shared by all processes that have the store open; without
  // StoreOptions::reserve_layouts, or for a store in memory, those of this object alone. They may
  // outlive the store.
  std::shared_ptr<LayoutReservations> const& layout_reservations() const { return reservations_; }

  // What this process knows of the commits of others.
  ForeignCommits& foreign_commits() { return foreign_commits_; }
  // See ForeignCommits::Notice.
  bool Notice(Snapshot const& snapshot) {
    return foreign_commits_.Notice(snapshot.id(),
                                   [&](CommitId after, std::vector<ObjectId>* changed) {
                                     return ListChanges(snapshot, after, changed);
                                   });
  }

  // For the store's batches, around a commit that changes something.
  void BeginOwnCommit(Batch const& batch);
  void EndOwnCommit(Batch const& batch, bool succeeded);

 protected:
  // For messages.
  virtual std::string ShownName() const { return "the database"; }

  // Throws LSCOREDB_CONFLICT if another process does not release the lock.
  virtual std::shared_ptr<void> WaitForCreationLock() { return nullptr; }

  // Appends the objects that commits of any process changed after `after`, up to the state that
  // `view` reads; for a batch, up to the state that it began from. May name others too. Returns
  // false when it cannot list them or when they are too many: the process then ignores all cached
  // rows. A failure counts as false.
  virtual bool ListChanges(View const& view, CommitId after, std::vector<ObjectId>* changed) const;

  // While opening.
  void UseReservations(std::shared_ptr<LayoutReservations> reservations) {
    reservations_ = std::move(reservations);
  }

 private:
  ForeignCommits foreign_commits_;
  std::shared_ptr<LayoutReservations> reservations_;
  std::atomic<LogState> log_state_{LogState::kRefused};
};

}  // namespace lscore

#endif
