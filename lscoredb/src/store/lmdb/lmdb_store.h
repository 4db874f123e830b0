#ifndef LSCOREDB_SRC_LMDB_STORE_H
#define LSCOREDB_SRC_LMDB_STORE_H

// The store in an LMDB file. Snapshots are read transactions, kept and renewed; their pages are
// those of the memory map; a batch is the library's write transaction.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "page_guard.h"
#include "store.h"
#include "store_header.h"
#include "store_locks.h"

struct MDB_env;
struct MDB_txn;
struct MDB_cursor;

namespace lscore {

class LmdbStore;

// A transaction of the library and how it is read; of a snapshot, also where its file is mapped.
class LmdbView {
 public:
  LmdbView(LmdbStore const& store, bool frozen) : store_(store), frozen_(frozen) {}

  bool Get(Tree tree, std::string_view key, std::string_view* value) const;
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const;

  // Throws LSCOREDB_DAMAGED when the bytes do not lie in the file that a snapshot reads.
  void CheckPlace(std::string_view bytes) const {
    auto const at = reinterpret_cast<std::uintptr_t>(bytes.data());
    if (frozen_ && (at < begin_ || at > end_ || bytes.size() > end_ - at)) [[unlikely]] {
      ThrowDamaged();
    }
  }
  [[noreturn]] static void ThrowDamaged();

  CommitId id() const;
  LmdbStore const& store() const { return store_; }
  bool frozen() const { return frozen_; }
  std::uintptr_t begin() const { return begin_; }

  MDB_txn* txn = nullptr;

  // Notes where the file lies. Whether the view is of the newest state there.
  bool NoteFile();

 private:
  LmdbStore const& store_;
  bool frozen_;  // a snapshot
  std::uintptr_t begin_ = 0;
  std::uintptr_t end_ = 0;
};

class LmdbSnapshot final : public Snapshot {
 public:
  explicit LmdbSnapshot(LmdbStore const& store) : view_(store, true) {}
  // Of the newest state, without a place in the table of readers: no one commits until it ends, by
  // the thread that made it. `writing` is an empty transaction for writing.
  LmdbSnapshot(LmdbStore const& store, MDB_txn* writing);
  ~LmdbSnapshot() override;

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override {
    return view_.Get(tree, key, value);
  }
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override {
    view_.OpenCursor(tree, cursor);
  }

  // These give the library's own codes.
  int BeginNew();
  int Renew();
  // The transaction of the library reads nothing until it is renewed.
  void Reset();

  MDB_txn* txn() const { return view_.txn; }
  bool NoteFile() { return view_.NoteFile(); }
  bool stops_writing() const { return stops_writing_; }

 private:
  int Began(int code);

  LmdbView view_;
  bool stops_writing_ = false;
};

class LmdbBatch final : public Batch {
 public:
  explicit LmdbBatch(LmdbStore& store);
  ~LmdbBatch() override;

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override;
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override {
    view_.OpenCursor(tree, cursor);
  }
  void Put(Tree tree, std::string_view key, std::string_view value) override;
  bool PutNew(Tree tree, std::string_view key, std::string_view value) override;
  void Append(Tree tree, std::string_view key, std::string_view value) override;
  bool Delete(Tree tree, std::string_view key) override;
  void Commit() override;

 private:
  // Runs a call that changes pages. When it meets a broken page the batch is gone, and with it all
  // writing of the store.
  template <typename Write>
  int CallWriting(Write const& write);
  int PutWith(unsigned flags, Tree tree, std::string_view key, std::string_view value);

  LmdbStore& store_;
  LmdbView view_;
  bool changed_ = false;
};

class LmdbCursor final : public TreeCursor {
 public:
  LmdbCursor(LmdbView const& view, Tree tree);
  ~LmdbCursor() override;

  // Over another snapshot. Returns whether that can be.
  bool Renew(LmdbView const& view, Tree tree);

  bool Seek(std::string_view key, KeyValue* entry) override;
  bool First(KeyValue* entry) override;
  bool Last(KeyValue* entry) override;
  bool Next(KeyValue* entry) override;
  bool Previous(KeyValue* entry) override;
  bool EnterPage(KeyValue const& entry, EntryPage* page) override;

 private:
  bool Move(int operation, KeyValue* entry);
  bool Step(int operation, KeyValue* entry);

  MDB_cursor* cursor_ = nullptr;
  LmdbView const* view_;
  Tree tree_;
  bool of_snapshot_;
  char const* given_ = nullptr;  // the key that the library's cursor stands on
};

class LmdbStore final : public Store {
 public:
  // Opens the store in `directory`, which exists; null opens a new one in memory.
  static std::unique_ptr<LmdbStore> Open(char const* directory, StoreOptions const& options);
  ~LmdbStore() override;

  std::unique_ptr<Snapshot> Begin() override { return BeginSnapshot(); }
  void End(std::unique_ptr<Snapshot> snapshot) noexcept override;
  std::unique_ptr<Batch> BeginBatch() override { return std::make_unique<LmdbBatch>(*this); }
  // Goes through all pages that the state uses, and the list of those that are free.
  std::unique_ptr<Snapshot> BeginVerified(FaultReport const& report) override;
  void Verify() override;
  StoreStatistics Statistics() const override;
  void RequireSync() override;
  bool FreeDeadReaders() override;
  bool read_only() const override { return read_only_; }

  // For the other classes of this folder.
  MDB_env* env() const { return env_; }
  unsigned Handle(Tree tree) const { return trees_[static_cast<std::size_t>(tree)]; }
  std::uintptr_t map_begin() const { return map_begin_; }
  std::size_t page_size() const { return page_size_; }
  std::uint64_t states_before() const { return states_before_; }
  void NoteGrowth() noexcept;
  PageGuard& guard() const { return guard_; }
  // After a write that the library cannot take back: no batch begins any more, and other processes
  // may write. REQUIRES: this thread has the lock for writing.
  void GiveUpWriting() noexcept;
  bool given_up() const { return given_up_; }
  // Before a batch changes anything: whether its commit is synced. REQUIRES: this thread has the
  // lock for writing.
  void SetSyncOfBatch();

 private:
  friend class StoreOpener;

  LmdbStore() = default;
  // Gives the library's own codes.
  int TakeSnapshot(std::unique_ptr<LmdbSnapshot>* out);
  std::unique_ptr<LmdbSnapshot> BeginSnapshot();
  std::unique_ptr<LmdbSnapshot> BeginBetweenCommits(std::unique_ptr<LmdbSnapshot> snapshot);
  // A snapshot of the newest state with that state's header, which no one was writing.
  std::unique_ptr<LmdbSnapshot> BeginWithHeader(pages::Header* header);
  std::unique_ptr<LmdbSnapshot> BeginBesideWriters(pages::Header* header);

  StoreLocks locks_;
  bool sync_ = false;
  bool read_only_ = false;
  MDB_env* env_ = nullptr;
  std::vector<int> files_;   // that the library has open
  PageGuard mutable guard_;  // of the batch that is open
  std::atomic<bool> given_up_{false};
  std::uintptr_t map_begin_ = 0;  // where the file lies in memory
  std::size_t page_size_ = 0;
  std::uint64_t states_before_ = 0;  // that the file counts no more
  unsigned trees_[kTreeCount] = {};
  std::atomic<std::uint64_t> last_page_{0};  // of the file, when it was last looked at
  std::mutex idle_mutex_;
  std::vector<std::unique_ptr<LmdbSnapshot>> idle_;  // ended, ready to be begun again
};

}  // namespace lscore

#endif
