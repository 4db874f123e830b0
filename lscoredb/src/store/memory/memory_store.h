#ifndef LSCOREDB_SRC_MEMORY_STORE_H
#define LSCOREDB_SRC_MEMORY_STORE_H

// A small store in the memory of one process, whole trees at a time: each commit makes new ones of
// those it changed. It keeps the seam honest; it is not meant to be fast. Not part of the library.
// A second store over the same data plays another process, whose changes the store lists.

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "layout_board.h"
#include "store.h"

namespace lscore {

// The order of keys of a tree.
struct MemoryOrder {
  using is_transparent = void;
  bool numbers = false;
  bool operator()(std::string_view a, std::string_view b) const;
};

using MemoryEntries = std::map<std::string, std::string, MemoryOrder>;

// The entries of a tree in one committed state, with the pages in which small ones are handed out.
class MemoryTree {
 public:
  explicit MemoryTree(MemoryEntries entries);

  MemoryEntries const& entries() const { return entries_; }
  bool EnterPage(KeyValue const& entry, EntryPage* page) const;

 private:
  struct Page {
    std::string bytes;
    std::vector<std::uint16_t> offsets;
  };

  MemoryEntries entries_;
  std::map<std::string_view, Page, MemoryOrder> pages_;  // by first key
};

struct MemoryState {
  CommitId id{0};
  std::array<std::shared_ptr<MemoryTree const>, kTreeCount> trees;
};

// What the stores over the same data share.
struct MemoryData {
  std::mutex batch_mutex;  // held by the open batch
  std::mutex mutex;        // of what follows
  std::shared_ptr<MemoryState const> newest;
  std::multiset<CommitId> readers;
  std::map<CommitId, std::vector<ObjectId>> changed;  // by each commit
  std::shared_ptr<LayoutBoard> const layouts = std::make_shared<LayoutBoard>();
};

class MemoryStore final : public Store {
 public:
  explicit MemoryStore(StoreOptions const& options = {});
  // Another store over the same data.
  std::unique_ptr<MemoryStore> Beside() const;

  std::unique_ptr<Snapshot> Begin() override;
  void End(std::unique_ptr<Snapshot> snapshot) noexcept override;
  std::unique_ptr<Batch> BeginBatch() override;
  std::unique_ptr<Snapshot> BeginVerified(FaultReport const& report) override;
  void Verify() override {}
  StoreStatistics Statistics() const override;
  void RequireSync() override {}
  void Sync() override {}
  bool FreeDeadReaders() override { return false; }

  // How many rows the snapshots of this store gave.
  std::size_t rows_given() const { return rows_given_; }

 protected:
  bool ListChanges(View const& view, CommitId after, std::vector<ObjectId>* changed) const override;

 private:
  friend class MemoryBatch;
  friend class MemorySnapshot;

  MemoryStore(StoreOptions const& options, std::shared_ptr<MemoryData> data)
      : options_(options), data_(std::move(data)) {
    UseReservations(std::make_shared<MemoryReservations>(data_->layouts));
  }

  StoreOptions const options_;
  std::shared_ptr<MemoryData> const data_;
  std::atomic<std::size_t> mutable rows_given_{0};
};

}  // namespace lscore

#endif
