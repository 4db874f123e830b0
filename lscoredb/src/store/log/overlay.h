#ifndef LSCOREDB_SRC_OVERLAY_H
#define LSCOREDB_SRC_OVERLAY_H

// The changes of one generation of the log in memory: the versions of each changed entry of all
// five trees, for readers of any state since the generation began.
//
// A node is a key. It is in the skip list of its tree, for scans, and unless it is an index entry
// in a hash table, for look-ups: entries are many, and scanned. Its versions are a chain, newest
// first:
//
//   hash table -> node "k" -> commit 9: "v3" -> commit 7: deleted -> null
//                   |
//                   v next, on each level
//                 node "m" ...
//
// A search in a skip list waits for memory at each node that it looks at. So the list of index
// entries has a sparse index, the sorted keys of its taller nodes in one array, where a search
// begins. It is replaced when there are twice the entries; those since then are found from there.
//
// A reader of state 8 takes the first version that is not above 8, and finds "k" deleted. For a key
// without such a version the previous generation, or the image, decides.
//
// One thread at a time writes; any number of threads read at the same time without locks. Nodes
// stay until the overlay is destroyed, and so do the bytes of keys and values, in memory that it
// allocates (TakeBytes) or is given (Keep).

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "arena.h"
#include "deleted_runs.h"
#include "ids.h"
#include "store.h"

namespace lscore {

// A key of a tree with its first bytes as two numbers: keys are ordered by these, then by bytes. So
// most comparisons of a search need not look at the bytes, which lie elsewhere.
struct OrderedKey {
  OrderedKey(Tree its_tree, std::string_view its_bytes);

  Tree tree;
  std::uint64_t prefix;
  std::uint64_t second;  // of the bytes behind the prefix
  std::string_view bytes;

  // REQUIRES: both are of one tree.
  bool operator<(OrderedKey const& other) const {
    if (prefix != other.prefix) return prefix < other.prefix;
    if (second != other.second) return second < other.second;
    return bytes < other.bytes;
  }
  bool operator==(OrderedKey const& other) const {
    return prefix == other.prefix && second == other.second && bytes == other.bytes &&
           tree == other.tree;
  }
};

struct OverlayVersion {
  OverlayVersion* older;
  CommitId commit;
  std::string_view value;
  bool deleted;
};

class OverlayNode {
 public:
  OrderedKey const& key() const { return key_; }
  // The newest version that a reader of the state sees; null: none.
  OverlayVersion const* VersionAt(CommitId state) const {
    OverlayVersion const* version = newest_.load(std::memory_order_acquire);
    while (version != nullptr && version->commit > state) version = version->older;
    return version;
  }
  OverlayNode const* Next() const { return next_[0].load(std::memory_order_acquire); }

 private:
  friend class Overlay;
  OverlayNode(OrderedKey const& key, int height)
      : key_(key), height_(static_cast<std::uint32_t>(height)) {}

  int top() const { return static_cast<int>(height_) - 1; }
  OverlayNode* NextAt(int level) const { return next_[level].load(std::memory_order_acquire); }

  OrderedKey key_;
  std::uint32_t hash_ = 0;
  std::uint32_t height_;
  std::atomic<OverlayVersion*> newest_{nullptr};
  std::atomic<OverlayNode*> next_[1];  // one for each level of the node
};

class Overlay {
 public:
  Overlay();
  Overlay(Overlay const&) = delete;
  Overlay& operator=(Overlay const&) = delete;

  // ---- writing ----

  // REQUIRES: no version has a later commit.
  void Write(OrderedKey const& key, std::string_view value, bool deleted, CommitId commit);
  // Later writes can be rolled back.
  void BeginChanges() { changed_.clear(); }
  // Removes the versions of `commit`, all of them written since BeginChanges.
  void RollBack(CommitId commit);
  // Memory for bytes of keys and values, contiguous with what was taken before if possible.
  char* TakeBytes(std::size_t size);
  void Keep(std::unique_ptr<char[]> bytes, std::size_t size);

  // Deleted index entries, with those of the layers below.
  DeletedRuns& deleted_runs() const { return deleted_runs_; }

  // ---- reading ----

  OverlayVersion const* Find(OrderedKey const& key, CommitId state) const;
  bool HasTree(Tree tree) const { return First(tree) != nullptr; }
  OverlayNode const* First(Tree tree) const { return HeadOf(tree).Next(); }
  OverlayNode const* Last(Tree tree) const;
  OverlayNode const* NotBelow(OrderedKey const& key) const;
  OverlayNode const* Below(OrderedKey const& key) const;

  std::size_t nodes() const { return nodes_.load(std::memory_order_relaxed); }
  // Allocated memory.
  std::size_t bytes() const { return bytes_.load(std::memory_order_relaxed); }

 private:
  static constexpr int kMaxHeight = 14;
  static constexpr std::size_t kFirstSlots = 256;
  static constexpr std::size_t kFirstBytes = 4 * 1024;
  static constexpr std::size_t kMostBytes = 256 * 1024;

  struct Table {
    explicit Table(std::size_t slots)
        : mask(slots - 1), slot(std::make_unique<std::atomic<OverlayNode*>[]>(slots)) {}
    std::size_t mask;
    std::unique_ptr<std::atomic<OverlayNode*>[]> slot;
  };

  // A node of the sparse index, with the first bytes of its key.
  struct Sample {
    std::uint64_t prefix;
    std::uint64_t second;
    OverlayNode const* node;
  };
  using SparseIndex = std::vector<Sample>;
  static constexpr int kSampledHeight = 2;  // and above: one node in four
  static constexpr std::size_t kLeastSampled = 512;

  OverlayNode const& HeadOf(Tree tree) const { return *heads_[static_cast<std::size_t>(tree)]; }
  static bool IsHashed(Tree tree) { return tree != Tree::kIndex; }
  static std::uint32_t HashOf(OrderedKey const& key);
  OverlayNode const* Lookup(OrderedKey const& key) const;
  OverlayNode* FindNode(OrderedKey const& key, std::uint32_t hash) const;
  OverlayNode* NewNode(OrderedKey const& key, int height);
  bool FollowsLast(OrderedKey const& key) const;
  OverlayNode* FindOrInsert(OrderedKey const& key);
  OverlayNode* Insert(OrderedKey const& key);
  void FindPredecessors(OrderedKey const& key);
  int RandomHeight();
  void CountEntry();
  OverlayNode const* SampleBelow(OrderedKey const& key) const;
  void Link(OverlayNode* node);
  void Grow();
  static void Link(Table& table, OverlayNode* node);
  void Count(std::size_t bytes) { bytes_.fetch_add(bytes, std::memory_order_relaxed); }

  Arena arena_;
  std::vector<std::unique_ptr<char[]>> kept_;
  char* free_bytes_ = nullptr;
  std::size_t free_size_ = 0;
  std::size_t next_size_ = kFirstBytes;
  std::array<OverlayNode*, kTreeCount> heads_;
  // The predecessors of the last node inserted into each tree: the next one is often near.
  std::array<std::array<OverlayNode*, kMaxHeight>, kTreeCount> predecessors_;
  std::size_t entries_ = 0;  // of indexes
  std::size_t next_sampling_ = kLeastSampled;
  std::vector<std::unique_ptr<SparseIndex>> sparse_indexes_;  // readers may still use older ones
  std::atomic<SparseIndex const*> sparse_index_{nullptr};
  std::vector<std::unique_ptr<Table>> tables_;  // readers may still use older ones
  std::atomic<Table*> table_;
  std::size_t hashed_ = 0;
  std::vector<OverlayNode*> changed_;
  DeletedRuns mutable deleted_runs_;
  std::uint64_t random_ = 0x9E3779B97F4A7C15;
  std::atomic<std::size_t> nodes_{0};
  std::atomic<std::size_t> bytes_{0};
};

}  // namespace lscore

#endif
