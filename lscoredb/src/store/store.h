#ifndef LSCOREDB_SRC_STORE_H
#define LSCOREDB_SRC_STORE_H

// The seam between the kernel and an ordered store: what a store must do, and nothing about how.
// tests/store_conformance holds every store to it.
//
// A store keeps five ordered trees of keys and values. It gives snapshots of committed states to
// any number of readers and one batch of writes at a time. The table shows why the seam is cut as
// it is; an LMDB file is what we have, the other two must fit.
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
// step is no virtual call, gets can be asked for together, ids are reserved in batches like all
// else, and ListChanges names the objects that others changed where the store knows them.
//
// A Store is opened once per process and directory and outlives every view and cursor of it. Any
// thread may call it. Views and cursors belong to one thread at a time. All failures are thrown as
// statuses.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "entry_page.h"
#include "foreign_commits.h"
#include "ids.h"
#include "layout_reservations.h"
#include "status.h"

namespace lscore {

// Keys of kRows are numbers of eight bytes, little endian, in the order of the numbers. All others
// are in the order of their bytes and are 1 to kMaxKeySize long.
enum class Tree : std::uint8_t { kRows, kOverflow, kIndex, kDefinitions, kMeta };
inline constexpr std::size_t kTreeCount = 5;
inline constexpr std::size_t kMaxKeySize = 511;

struct TreeKey {
  Tree tree;
  std::string key;
};

// How a store may be opened: to write if that is possible, only to read, or to write or not at all.
enum class Access : std::uint8_t { kAutomatic, kRead, kWrite };

struct StoreOptions {
  Access access = Access::kAutomatic;
  bool sync = true;
  std::uint32_t max_readers = 1024;
  std::uint64_t max_file_size = std::uint64_t{64} << 30;
  bool verify = false;  // all of it, before any is trusted
  std::uint64_t row_memory = std::uint64_t{256} << 20;
  bool log = false;  // the store gets one if it has none, and nobody else knows the directory
  std::uint64_t log_limit = std::uint64_t{16} << 20;  // bytes of it that bring a checkpoint about

  // Opens the reservations of layout numbers too, before anything else of the store.
  bool reserve_layouts = false;
};

struct StoreStatistics {
  std::uint64_t file_size = 0;
  std::uint64_t max_file_size = 0;
  CommitId last_commit{0};
  CommitId oldest_commit{0};  // that anybody reads
  std::uint32_t readers = 0;
  std::uint32_t max_readers = 0;
  std::uint64_t log_size = 0;     // of commits that were appended, and not brought to their places
  std::uint64_t log_memory = 0;   // of this process, for these and for what snapshots keep of them
  std::uint64_t round_trips = 0;  // that somebody of this process waited for
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

// What a store brings for a cursor. The cursor keeps the present entry; each call moves it.
class TreeCursor {
 public:
  TreeCursor(TreeCursor const&) = delete;
  TreeCursor& operator=(TreeCursor const&) = delete;
  virtual ~TreeCursor() = default;

  // Each returns whether there is such an entry; `*entry` is set iff there is.
  virtual bool Seek(std::string_view key, KeyValue* entry) = 0;  // the first not below `key`
  virtual bool First(KeyValue* entry) = 0;
  virtual bool Last(KeyValue* entry) = 0;
  // REQUIRES: `*entry` is of this cursor or of a page that it gave.
  virtual bool Next(KeyValue* entry) = 0;
  virtual bool Previous(KeyValue* entry) = 0;
  // The page around `entry`, valid as long as the snapshot. Returns false when there is none; then
  // each step is asked for by itself.
  virtual bool EnterPage(KeyValue const& entry, EntryPage* page) = 0;

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
  // As many times Get, in one round trip where that matters. REQUIRES: as many values as keys.
  virtual void GetMany(Tree tree, std::span<std::string_view const> keys,
                       std::span<std::optional<std::string_view>> values) const;
  // Makes a cursor over the tree, out of the one that is there when the store can.
  virtual void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const = 0;

  // The number of the state that is read; of a batch, of the state that its commit makes. States
  // are numbered from one commit to the next, and a later one never bears a lower number.
  CommitId id() const { return id_; }

 protected:
  View() = default;
  void set_id(CommitId id) { id_ = id; }

 private:
  CommitId id_{0};
};

// A frozen state of the store. Bytes that it hands out stay where they are until it ends. Comes
// from Store::Begin and goes back to it.
class Snapshot : public View {};

// By which a store knows a commit whose outcome it could not tell.
struct CommitInDoubt {
  std::string ticket;  // empty: none
  CommitId state{0};
};

// The one open batch of writes of the store. It reads what it has written. Changes nothing unless
// Commit returned. Bytes that it hands out stay until its next write.
class Batch : public View {
 public:
  virtual void Put(Tree tree, std::string_view key, std::string_view value) = 0;
  // Returns false, with nothing changed, when the key is there already.
  virtual bool PutNew(Tree tree, std::string_view key, std::string_view value) = 0;
  // As Put, packed. REQUIRES: `key` is above all keys of the tree.
  virtual void Append(Tree tree, std::string_view key, std::string_view value) = 0;
  // Returns whether the key was there.
  virtual bool Delete(Tree tree, std::string_view key) = 0;
  // As Delete, for those who do not ask, which saves a round trip where there are any.
  virtual void Remove(Tree tree, std::string_view key) { Delete(tree, key); }
  // All or nothing; afterwards the batch is over either way. REQUIRES: no cursor over it is open.
  virtual void Commit() = 0;
  // After a commit that threw LSCOREDB_COMMIT_UNKNOWN.
  virtual CommitInDoubt in_doubt() const { return {}; }
};

// Goes through a tree in key order. May be opened over and over; over snapshots of one store that
// costs no allocation. After a call that returned false it stands on no entry, and only Seek, First
// and Last are allowed. Over a batch, a write ends what it stands on.
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

  // Each moves the cursor and returns whether it stands on an entry.
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

  // An entry that many further on, when the cursor has come by steps and it is near. The bytes are
  // as little checked as those of any other.
  bool Peek(std::size_t ahead, bool forward, KeyValue* entry) const {
    return page_.inside() && page_.Peek(ahead, forward, entry);
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

// A new store holds the record of the format in kMeta (format.h) and nothing else.
class Store {
 public:
  Store();
  Store(Store const&) = delete;
  Store& operator=(Store const&) = delete;
  virtual ~Store() = default;

  // The newest committed state.
  virtual std::unique_ptr<Snapshot> Begin() = 0;
  virtual void End(std::unique_ptr<Snapshot> snapshot) noexcept = 0;
  // Waits until no other batch is open, in whatever process.
  virtual std::unique_ptr<Batch> BeginBatch() = 0;
  // Whether round trips are saved by saying what a batch is going to get; and such a batch.
  virtual bool takes_hints() const { return false; }
  virtual std::unique_ptr<Batch> BeginBatch(std::vector<TreeKey> const& /* hints */) {
    return BeginBatch();
  }

  // A snapshot whose every part was checked. Where faults were reported, what a part of it gives is
  // not to be relied upon.
  virtual std::unique_ptr<Snapshot> BeginVerified(FaultReport const& report) = 0;
  // Throws LSCOREDB_DAMAGED when the newest state does not hold together.
  virtual void Verify() = 0;

  virtual StoreStatistics Statistics() const = 0;

  // Whether it was opened only to be read: then BeginBatch throws LSCOREDB_READ_ONLY_DATABASE.
  virtual bool read_only() const { return false; }

  // Whether a commit took place; if not, it never will. Throws LSCOREDB_COMMIT_UNKNOWN if that
  // cannot be found out.
  virtual bool AskOutcome(CommitInDoubt const& /* commit */) const {
    Throw(LSCOREDB_COMMIT_UNKNOWN);
  }

  // Takes the lock for creating the contents of a new database, and returns it; null if the store
  // has none. Throws LSCOREDB_CANNOT_OPEN, and notes why, if another process does not release it.
  std::shared_ptr<void> LockCreation();

  // Removes everything from a server, where no directory can be removed, and ends the lock, so that
  // nobody else creates what is about to go. REQUIRES: `lock` is of LockCreation.
  virtual void Discard(std::shared_ptr<void> /* lock */) {}

  // From now on every commit is synced. REQUIRES: no batch is open.
  virtual void RequireSync() = 0;

  // Frees the slots of readers whose processes died without a word, and with them the space that
  // they kept from being used again. Returns whether there were any.
  virtual bool FreeDeadReaders() = 0;

  // Work that commits have put off. Called now and then by one who has committed and holds nothing.
  virtual void Upkeep() noexcept {}

  // Reservations that all processes share which have the store open; without
  // StoreOptions::reserve_layouts, or of a store in memory, those of this object alone. They last
  // as long as somebody holds them, also longer than the store.
  std::shared_ptr<LayoutReservations> const& layout_reservations() const { return reservations_; }

  // What this process knows of the commits of others.
  ForeignCommits& foreign_commits() { return foreign_commits_; }
  // Whether all that leads to the snapshot's state is accounted for; see ForeignCommits::Notice.
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

  // Appends the objects that the commits after `after` changed, whoever made them, up to the state
  // that `view` reads; of a batch, up to the state that it began from. It may name others too.
  // Returns false when it cannot list them, or had better not since they are many: then the process
  // forgets all rows that it has in memory. A failure counts as false.
  virtual bool ListChanges(View const& view, CommitId after, std::vector<ObjectId>* changed) const;

  // While opening.
  void UseReservations(std::shared_ptr<LayoutReservations> reservations) {
    reservations_ = std::move(reservations);
  }

 private:
  ForeignCommits foreign_commits_;
  std::shared_ptr<LayoutReservations> reservations_;
};

}  // namespace lscore

#endif
