#ifndef LSCOREDB_SRC_LMDB_STORE_H
#define LSCOREDB_SRC_LMDB_STORE_H

// The store in an LMDB file. A snapshot is a read transaction of the library, kept and renewed,
// which keeps its pages as they are; it reads them by itself (mapped_state.h). A batch is the
// library's write transaction, of which a guard looks at each page first (page_guard.h).

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "mapped_state.h"
#include "page_guard.h"
#include "store.h"
#include "store_header.h"
#include "store_locks.h"

struct MDB_env;
struct MDB_txn;
struct MDB_cursor;

namespace lscore {

class LmdbStore;

class LmdbSnapshot final : public Snapshot {
 public:
  explicit LmdbSnapshot(LmdbStore const& store) : store_(store) {}
  // Reads the newest state without a slot in the table of readers. Nobody commits until it ends, in
  // the thread that made it. `writing`: an empty write transaction.
  LmdbSnapshot(LmdbStore const& store, MDB_txn* writing, WriteTurn turn);
  ~LmdbSnapshot() override;

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override {
    return state_.Get(tree, key, value);
  }
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override;

  // These return the library's codes.
  int BeginNew();
  int Renew();
  // Ends reading but keeps the library's transaction and its slot for Renew.
  void Reset();

  // Copies the state's description. Returns whether the state is the newest of the file.
  bool CopyHeader();
  // Throws LSCOREDB_DAMAGED when the trees are not there. REQUIRES: the copy is consistent.
  void OpenTrees();

  // The library's number of the state.
  std::uint64_t state() const;
  bool stops_writing() const { return stops_writing_; }

 private:
  int Began(int code);

  LmdbStore const& store_;
  WriteTurn turn_;
  MDB_txn* txn_ = nullptr;
  MappedState state_;
  bool trees_open_ = false;  // those of `state_`
  bool stops_writing_ = false;
};

class LmdbBatch final : public Batch {
 public:
  explicit LmdbBatch(LmdbStore& store);
  ~LmdbBatch() override;

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override;
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override;
  void Put(Tree tree, std::string_view key, std::string_view value) override;
  bool PutNew(Tree tree, std::string_view key, std::string_view value) override;
  void Append(Tree tree, std::string_view key, std::string_view value) override;
  bool Delete(Tree tree, std::string_view key) override;
  void Commit() override;

 private:
  // Runs a call that changes pages. After a broken page the batch is gone, and the store writes no
  // more.
  template <typename Write>
  int CallWriting(Write const& write);
  int PutWith(unsigned flags, Tree tree, std::string_view key, std::string_view value);

  LmdbStore& store_;
  WriteTurn turn_;
  MDB_txn* txn_ = nullptr;
  bool changed_ = false;
  std::uint64_t writes_ = 0;
};

// A cursor over a batch.
class LmdbCursor final : public TreeCursor {
 public:
  LmdbCursor(LmdbStore const& store, MDB_txn* txn, Tree tree);
  ~LmdbCursor() override;

  bool Seek(std::string_view key, KeyValue* entry) override;
  bool First(KeyValue* entry) override;
  bool Last(KeyValue* entry) override;
  bool Next(KeyValue* entry) override { return Step(true, entry); }
  bool Previous(KeyValue* entry) override { return Step(false, entry); }
  bool EnterPage(KeyValue const&, EntryPage*) override { return false; }

 private:
  bool Move(int operation, KeyValue* entry);
  bool Step(bool forward, KeyValue* entry);

  LmdbStore const& store_;
  Tree tree_;
  MDB_cursor* cursor_ = nullptr;
};

class LmdbStore final : public Store {
 public:
  // Opens the store in `directory`, which exists; null opens a new one in memory.
  static std::unique_ptr<LmdbStore> Open(char const* directory, StoreOptions const& options);
  ~LmdbStore() override;

  std::unique_ptr<Snapshot> Begin() override { return BeginSnapshot(); }
  void End(std::unique_ptr<Snapshot> snapshot) noexcept override;
  std::unique_ptr<Batch> BeginBatch() override { return std::make_unique<LmdbBatch>(*this); }
  // Checks all pages that the state uses, and the lists of free pages.
  std::unique_ptr<Snapshot> BeginVerified(FaultReport const& report) override;
  void Verify() override;
  StoreStatistics Statistics() const override;
  void Settle() override;
  void RequireSync() override;
  void RequireSyncFromNowOn() override;
  void Sync() override;
  bool FreeDeadReaders() override;
  bool read_only() const override { return read_only_; }
  bool frozen() const override { return read_only_ && locks_.lock_file() < 0; }

  // For the other classes of this folder.
  StoreLocks& locks() { return locks_; }
  MDB_env* env() const { return env_; }
  unsigned Handle(Tree tree) const { return trees_[static_cast<std::size_t>(tree)]; }
  char const* map() const { return map_; }
  std::size_t page_size() const { return page_size_; }
  std::uint64_t states_before() const { return states_before_; }
  // The number of pages in the file. Asks the system only if that known is below `claimed`.
  std::uint64_t FilePages(std::uint64_t claimed) const;
  void NoteGrowth() noexcept;
  // A batch wrote so many records. The library keeps the memory of its pages for the next one, as
  // long as the store is open.
  void NoteWrites(std::uint64_t records) noexcept;
  PageGuard& guard() const { return guard_; }
  // After a write that the library cannot roll back: begins no more batches, and releases the lock
  // so that other processes can write. REQUIRES: this thread has the write lock.
  void GiveUpWriting() noexcept;
  bool given_up() const { return given_up_; }
  // Decides, before a batch changes anything, whether its commit is synced. REQUIRES: this thread
  // has the write lock.
  void SetSyncOfBatch();
  // Decides that it is. REQUIRES: likewise.
  void SyncBatch();

 private:
  friend class StoreOpener;

  LmdbStore() = default;
  void SyncName() const;
  // These return the library's codes.
  int BeginInTurn(LmdbSnapshot& snapshot);
  int TakeSnapshot(std::unique_ptr<LmdbSnapshot>* out);
  std::unique_ptr<LmdbSnapshot> BeginSnapshot();
  std::unique_ptr<LmdbSnapshot> BeginBetweenCommits(std::unique_ptr<LmdbSnapshot> snapshot);
  // A snapshot of the newest state with that state's header, read while nobody wrote it.
  std::unique_ptr<LmdbSnapshot> BeginWithHeader(pages::Header* header);
  std::unique_ptr<LmdbSnapshot> BeginBesideWriters(pages::Header* header);

  StoreLocks locks_;
  bool sync_ = false;
  bool read_only_ = false;
  bool in_memory_ = false;
  MDB_env* env_ = nullptr;
  std::vector<int> files_;   // the library's descriptors
  PageGuard mutable guard_;  // of the open batch
  std::atomic<bool> given_up_{false};
  char const* map_ = nullptr;  // the mapped file
  std::size_t page_size_ = 0;
  std::uint64_t states_before_ = 0;  // of the store that this one was copied from
  unsigned trees_[kTreeCount] = {};
  std::atomic<std::uint64_t> last_page_{0};           // of the file, as of the last commit here
  std::atomic<std::uint64_t> mutable file_pages_{0};  // as last seen; a file never shrinks
  std::atomic<bool> wrote_much_{false};
  std::mutex idle_mutex_;
  std::vector<std::unique_ptr<LmdbSnapshot>> idle_;  // ended, to be renewed
};

}  // namespace lscore

#endif
