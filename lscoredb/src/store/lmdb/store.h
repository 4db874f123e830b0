#ifndef LSCOREDB_SRC_STORE_H
#define LSCOREDB_SRC_STORE_H

// The narrow seam to the ordered store below: snapshots to read, cursors over ordered keys, one
// atomic batch of writes at a time. Only the store's own source files know what library does it.
//
// A Store is opened once per process and directory and outlives every view and cursor of it. Views
// and cursors belong to one thread at a time. Bytes that a view hands out stay where they are until
// the snapshot ends, those of a batch until its next write. All failures are thrown.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "foreign_commits.h"
#include "ids.h"
#include "store_leaf.h"
#include "store_pages.h"

struct MDB_env;
struct MDB_txn;
struct MDB_cursor;

namespace lscore {

enum class Tree : std::uint8_t { kRows, kOverflow, kIndex, kDefinitions, kMeta };
inline constexpr std::size_t kTreeCount = 5;

struct StoreOptions {
  bool sync = true;
  std::uint32_t max_readers = 1024;
  std::uint64_t max_file_size = std::uint64_t{64} << 30;
  bool verify = false;  // all pages, before any is trusted
  std::uint64_t row_memory = std::uint64_t{256} << 20;
};

struct StoreStatistics {
  std::uint64_t file_size = 0;
  std::uint64_t max_file_size = 0;
  CommitId last_commit{0};
  CommitId oldest_commit{0};  // that anybody reads
  std::uint32_t readers = 0;
  std::uint32_t max_readers = 0;
};

class Store;

// What a snapshot and a batch have in common: reading.
class View {
 public:
  View(View const&) = delete;
  View& operator=(View const&) = delete;

  // Returns whether the key is there; `*value` is set iff it is.
  bool Get(Tree tree, std::string_view key, std::string_view* value) const;
  // The number of the state that is read; of a batch, of the state that its commit makes.
  CommitId id() const;

 protected:
  View(Store& store, MDB_txn* txn, bool frozen) : store_(&store), txn_(txn), frozen_(frozen) {}
  ~View() = default;

  // Throws LSCOREDB_DAMAGED when the bytes do not lie in the file that a snapshot reads.
  void CheckPlace(std::string_view bytes) const {
    auto const at = reinterpret_cast<std::uintptr_t>(bytes.data());
    if (frozen_ && (at < begin_ || at > end_ || bytes.size() > end_ - at)) [[unlikely]] {
      ThrowDamaged();
    }
  }
  [[noreturn]] static void ThrowDamaged();

  Store* store_;
  MDB_txn* txn_;
  bool frozen_;  // a snapshot
  std::uintptr_t begin_ = 0;
  std::uintptr_t end_ = 0;

 private:
  friend class Cursor;
  friend class Store;
};

// A frozen state of the store. Comes from Store::Begin and goes back to it.
class Snapshot : public View {
 public:
  Snapshot(Store& store, MDB_txn* txn) : View(store, txn, true) {}
  ~Snapshot();

 private:
  friend class Store;
};

// The one open write transaction of the store. Changes nothing unless Commit returned.
class Batch : public View {
 public:
  explicit Batch(Store& store);
  ~Batch();

  void Put(Tree tree, std::string_view key, std::string_view value);
  // Returns false, with nothing changed, when the key is there already.
  bool PutNew(Tree tree, std::string_view key, std::string_view value);
  // As Put, packed. REQUIRES: `key` is above all keys of the tree.
  void Append(Tree tree, std::string_view key, std::string_view value);
  // Returns whether the key was there.
  bool Delete(Tree tree, std::string_view key);
  // REQUIRES: no cursor over this batch is open.
  void Commit();

 private:
  bool changed_ = false;
};

// Walks a tree in key order. May be opened over and over; over snapshots that costs no allocation.
class Cursor {
 public:
  Cursor() = default;
  ~Cursor() { Close(); }
  Cursor(Cursor const&) = delete;
  Cursor& operator=(Cursor const&) = delete;

  void Open(View const& view, Tree tree);
  // Closes and frees. Needed before a batch ends.
  void Close();

  // Each moves the cursor and returns whether it stands on an entry.
  bool Seek(std::string_view key);  // the first entry that is not below `key`
  bool First();
  bool Last();
  bool Next();
  bool Previous();

  // An entry that many further on, when the cursor has come by steps and it is near. The bytes are
  // as little checked as those of any other.
  bool Peek(std::size_t ahead, bool forward, std::string_view* key, std::string_view* value) const {
    return leaf_.inside() && leaf_.Peek(ahead, forward, key, value);
  }

  std::string_view key() const { return key_; }
  std::string_view value() const { return value_; }

 private:
  bool Move(int operation);
  bool Step(int operation);
  bool EnterLeaf();

  MDB_cursor* cursor_ = nullptr;
  View const* view_ = nullptr;
  Tree tree_ = Tree::kRows;
  bool of_snapshot_ = false;
  std::string_view key_;
  std::string_view value_;
  LeafScan leaf_;        // of a snapshot, once it is walked
  bool behind_ = false;  // the store's cursor stands where the walk of the leaf began
};

class Store {
 public:
  // Opens the store in `directory`, which exists; null opens a new one in memory.
  static std::unique_ptr<Store> Open(char const* directory, StoreOptions const& options);
  ~Store();
  Store(Store const&) = delete;
  Store& operator=(Store const&) = delete;

  std::unique_ptr<Snapshot> Begin();
  // A snapshot after a walk of all its pages. Where faults were told, what a part of it gives is
  // not to be relied upon, and reading may end the process.
  std::unique_ptr<Snapshot> BeginWalked(PageReport const& report);
  void End(std::unique_ptr<Snapshot> snapshot) noexcept;
  // Throws LSCOREDB_DAMAGED when pages of the newest state do not hold together.
  void Verify();

  // Writes the newest committed state into a store in an empty directory, without places that are
  // free, while others read and write. The copy goes on counting states where this store stands.
  void Copy(char const* directory);

  StoreStatistics Statistics() const;
  ForeignCommits& watch() { return watch_; }

  // From now on every commit is synced. REQUIRES: no batch is open.
  void RequireSync();

  // Frees the places of readers whose processes died without a word, and with them the pages that
  // they kept from being used again. Returns whether there were any.
  bool FreeDeadReaders();

 private:
  friend class View;
  friend class Batch;
  friend class Cursor;
  friend class StoreOpener;

  Store() = default;
  unsigned Handle(Tree tree) const { return trees_[static_cast<std::size_t>(tree)]; }
  // These give the store's own codes.
  int NewSnapshot(std::unique_ptr<Snapshot>* out);
  int TakeSnapshot(std::unique_ptr<Snapshot>* out);
  std::unique_ptr<Snapshot> BeginBetweenCommits(std::unique_ptr<Snapshot> snapshot);
  // Notes where the file lies. Whether the view is of the newest state there.
  bool NoteFile(View& view) const;
  void NoteGrowth() noexcept;

  MDB_env* env_ = nullptr;
  std::uintptr_t map_begin_ = 0;  // where the file lies in memory
  std::size_t page_size_ = 0;
  std::uint64_t states_before_ = 0;  // that the file counts no more
  unsigned trees_[kTreeCount] = {};
  ForeignCommits watch_;
  std::atomic<std::uint64_t> last_page_{0};  // of the file, when it was last looked at
  std::mutex idle_mutex_;
  std::vector<std::unique_ptr<Snapshot>> idle_;  // ended, ready to be begun again
};

}  // namespace lscore

#endif
