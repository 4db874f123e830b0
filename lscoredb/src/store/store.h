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
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "blind_batch.h"
#include "change_source.h"
#include "entry_page.h"
#include "foreign_commits.h"
#include "ids.h"
#include "layout_reservations.h"
#include "status.h"
#include "store_options.h"

namespace lscore {

// Keys of kRows are numbers of eight bytes, little endian, in the order of the numbers. All others
// are in the order of their bytes and are 1 to kMaxKeySize long.
enum class Tree : std::uint8_t { kRows, kOverflow, kIndex, kDefinitions, kMeta };
inline constexpr std::size_t kTreeCount = 5;
inline constexpr std::size_t kMaxKeySize = 511;

struct TreeKey {
  Tree tree;
  std::string key;
  bool seek = false;  // for a cursor; otherwise for Get
};

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

class Store;

// A store's part of a Cursor, which keeps the current entry; each call moves it.
class TreeCursor {
 public:
  TreeCursor(TreeCursor const&) = delete;
  TreeCursor& operator=(TreeCursor const&) = delete;
  virtual ~TreeCursor() = default;

  // Each returns whether there is such an entry; `*entry` is set iff there is.
  virtual bool Seek(std::string_view key, KeyValue* entry) = 0;  // the first not below `key`
  virtual bool First(KeyValue* entry) = 0;
  virtual bool Last(KeyValue* entry) = 0;
  // REQUIRES: `*entry` came from this cursor or from a page that it gave.
  virtual bool Next(KeyValue* entry) = 0;
  virtual bool Previous(KeyValue* entry) = 0;
  // Enters the page around `entry`, valid as long as the snapshot. Returns false if there is none;
  // each step is then a call of Next or Previous.
  virtual bool EnterPage(KeyValue const& entry, EntryPage* page) = 0;

  // Appends entries from `entry` on, in that direction, that are at hand without a round trip; only
  // a remote store has any. A hint: there may be more.
  virtual void Upcoming(KeyValue const& /* entry */, bool /* forward */, std::size_t /* most */,
                        std::vector<KeyValue>* /* out */) const {}

  bool IsOf(Store const& store) const { return store_ == &store; }

 protected:
  TreeCursor() = default;
  explicit TreeCursor(Store const& store) : store_(&store) {}

 private:
  Store const* store_ = nullptr;
};

// What a snapshot and a batch have in common: reading.
class View {
 public:
  View(View const&) = delete;
  View& operator=(View const&) = delete;
  virtual ~View() = default;

  // Returns whether the key is there; `*value` is set iff it is.
  virtual bool Get(Tree tree, std::string_view key, std::string_view* value) const = 0;
  // Get for each key; a remote store takes one round trip. REQUIRES: as many values as keys.
  virtual void GetMany(Tree tree, std::span<std::string_view const> keys,
                       std::span<std::optional<std::string_view>> values) const;
  // Whether a read may take a round trip to a server. The view then keeps what it has read.
  virtual bool far() const { return false; }
  // Announces that cursors will seek these keys and look at an entry or two there. A remote store
  // then takes one round trip for all.
  virtual void PrefetchSeeks(Tree /* tree */, std::vector<std::string> const& /* keys */) const {}
  // Creates a cursor over the tree, or reuses the one in `cursor` if the store can.
  virtual void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const = 0;

  // The number of the state that is read; for a batch, of the state that its commit makes. Later
  // states have higher numbers.
  CommitId id() const { return id_; }

 protected:
  View() = default;
  void set_id(CommitId id) { id_ = id; }

 private:
  CommitId id_{0};
};

// A committed state of the store, which lives from Store::Begin to Store::End. Until End the state
// does not change, and all bytes that it returned stay valid and where they are. A long snapshot
// keeps the store from reusing space that it needs.
class Snapshot : public View {};

// Identifies a commit whose outcome is unknown, for Store::AskOutcome.
struct CommitInDoubt {
  std::string ticket;  // empty: none
  CommitId state{0};
};

// The one open batch of writes of the store. It reads its own writes. The store is unchanged unless
// Commit returned. Bytes that it returned are valid until its next write.
class Batch : public View {
 public:
  virtual void Put(Tree tree, std::string_view key, std::string_view value) = 0;
  // Returns false, with nothing changed, when the key exists.
  virtual bool PutNew(Tree tree, std::string_view key, std::string_view value) = 0;
  // As Put, and packs pages. REQUIRES: `key` is above all keys of the tree.
  virtual void Append(Tree tree, std::string_view key, std::string_view value) = 0;
  // Returns whether the key existed.
  virtual bool Delete(Tree tree, std::string_view key) = 0;
  // As Delete without the answer, which saves a remote store a round trip.
  virtual void Remove(Tree tree, std::string_view key) { Delete(tree, key); }
  // Whether the store keeps notes of its commits now; one of what a transaction of this batch
  // changed. Other stores ignore it.
  virtual bool takes_notes() const { return false; }
  virtual void Note(std::string_view /* note */) {}
  // Deletes the keys from `low` on and below `high`. A remote store sends one statement, with the
  // commit. REQUIRES: the tree is not kRows, `high` is not empty.
  virtual void RemoveRange(Tree tree, std::string_view low, std::string_view high);
  // All or nothing; ends the batch in either case. REQUIRES: no cursor over it is open.
  virtual void Commit() = 0;
  // After a commit that threw LSCOREDB_COMMIT_UNKNOWN.
  virtual CommitInDoubt in_doubt() const { return {}; }

  // Commit syncs the batch, and all before it, even in a store that need not.
  void AskForSync() { asks_for_sync_ = true; }

 protected:
  bool asks_for_sync() const { return asks_for_sync_; }

 private:
  bool asks_for_sync_ = false;
};

// Scans a tree in key order. May be reopened; over snapshots of one store that allocates nothing.
// After a call that returned false it has no entry, and only Seek, First and Last are allowed. Over
// a batch, a write invalidates its entry.
class Cursor {
 public:
  void Open(View const& view, Tree tree) {
    page_.Leave();
    view.OpenCursor(tree, cursor_);
  }
  // Closes and frees. Needed before a batch ends.
  void Close() {
    page_.Leave();
    cursor_.reset();
  }

  // Each moves the cursor and returns whether it has an entry.
  bool Seek(std::string_view key) {
    page_.Leave();
    return cursor_->Seek(key, &entry_);
  }
  bool First() {
    page_.Leave();
    return cursor_->First(&entry_);
  }
  bool Last() {
    page_.Leave();
    return cursor_->Last(&entry_);
  }
  bool Next() { return (EnterPage() && page_.Next(&entry_)) || NextPage(); }
  bool Previous() { return (EnterPage() && page_.Previous(&entry_)) || PreviousPage(); }

  // A step that stays in the page. False, without a step, where there is none.
  bool StepInPage(bool forward) {
    return page_.inside() && (forward ? page_.Next(&entry_) : page_.Previous(&entry_));
  }
  // As many such steps as lead to the page's last entry, and returns their number; 0, without a
  // step, if they are more than `most`.
  std::size_t SkipInPage(bool forward, std::size_t most) {
    std::size_t const left = page_.inside() ? page_.Left(forward) : 0;
    return left != 0 && left <= most && page_.SkipLeft(forward, &entry_) ? left : 0;
  }
  // The key of the page's last entry in that direction. False when it is not known.
  bool PageEnd(bool forward, std::string_view* key) const {
    KeyValue first;
    KeyValue last;
    if (!page_.Ends(&first, &last)) return false;
    *key = forward ? last.key : first.key;
    return true;
  }

  // A nearby entry `ahead` steps further, if the cursor is inside a page. Its bytes are not
  // checked.
  bool Peek(std::size_t ahead, bool forward, KeyValue* entry) const {
    return page_.inside() && page_.Peek(ahead, forward, entry);
  }

  // See TreeCursor::Upcoming. REQUIRES: the cursor has an entry.
  void Upcoming(bool forward, std::size_t most, std::vector<KeyValue>* out) const {
    cursor_->Upcoming(entry_, forward, most, out);
  }

  std::string_view key() const { return entry_.key; }
  std::string_view value() const { return entry_.value; }

 private:
  bool EnterPage() { return page_.inside() || cursor_->EnterPage(entry_, &page_); }
  bool NextPage() {
    page_.Leave();
    return cursor_->Next(&entry_);
  }
  bool PreviousPage() {
    page_.Leave();
    return cursor_->Previous(&entry_);
  }

  std::unique_ptr<TreeCursor> cursor_;
  KeyValue entry_;
  EntryPage page_;
};

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
