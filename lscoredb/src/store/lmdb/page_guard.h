#ifndef LSCOREDB_SRC_PAGE_GUARD_H
#define LSCOREDB_SRC_PAGE_GUARD_H

// Checks pages before the store's library writes based on their content.
//
// The library follows numbers in pages without asking; where it writes, a wrong one reaches the
// memory of the process. So the list of free pages is read once before the first batch, and in each
// batch those of its parts, oldest first, that the library may get to: it takes the pages that it
// needs from them in that order, so that as many are looked at as the writes may need. Every page
// from the root to the leaf of a key that is written is looked at once in a batch, and for a key
// that is taken out those beside it, which the library may join with it. Where the order of keys
// and the bounds of the page above do not hold, that is found too.
//
// Pages are read where they lie in memory, those of the state that the batch began from: nobody
// writes over them while the batch is open. Belongs to whoever has the lock for writing.

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "store.h"
#include "store_page.h"

namespace lscore {

class PageGuard {
 public:
  // Before anything else. `map`: where the file lies in memory.
  void Open(int file, char const* map, std::size_t page_size);

  // A batch on the state that commit `state` made. This and the other calls throw LSCOREDB_DAMAGED.
  void Begin(std::uint64_t state);
  // Before `key` of a tree is read; before it is taken out, or scanned from.
  void Check(Tree tree, std::string_view key);
  void CheckAround(Tree tree, std::string_view key);
  // Before the first or the last key of a tree is looked for.
  void CheckEnd(Tree tree, bool first);
  // Before a value of that size is put under `key`; before `key` is taken out; before the commit.
  void CheckPut(Tree tree, std::string_view key, std::size_t value_size);
  void CheckDelete(Tree tree, std::string_view key);
  void CheckCommit();

 private:
  struct Step {
    pages::Page page;
    std::uint64_t number = 0;
    std::size_t at = 0;  // of the node that leads on
    pages::Bounds bounds;
  };
  // From the root down to a leaf.
  struct Path {
    std::array<Step, pages::kMaxDepth> steps;
    std::size_t size = 0;
    Step& leaf() { return steps[size - 1]; }
  };
  struct KnownTree {
    bool known = false;
    pages::TreeRecord record;
    Path last;
    bool beside = false;  // the last path's neighbours were looked at
  };

  KnownTree& Find(Tree tree);
  void ReadHeader(std::uint64_t state);
  // Before the library takes that many pages, the longest run of them being `run` pages.
  void CheckLists(std::uint64_t pages, std::uint64_t run);
  bool CheckNextList();
  std::uint64_t PagesOfWrite(KnownTree const& tree) const;
  void Forget();
  bool IsOnLeaf(KnownTree& tree, std::string_view key) const;
  void Descend(KnownTree& tree, std::string_view key);
  void Enter(std::uint64_t number, bool leaf, std::uint16_t key_kind, Step& step);
  void CheckBeside(KnownTree& tree);
  void CheckNeighbour(KnownTree& tree, std::size_t level, bool left);
  void CheckValue(pages::Node const& node);
  std::string_view BytesOf(std::uint64_t number) const;

  int file_ = -1;
  char const* map_ = nullptr;
  std::size_t page_size_ = 0;
  bool free_pages_hold_ = false;
  std::uint64_t pages_ = 0;  // of the file that can be read
  std::uint64_t last_page_ = 0;
  pages::TreeRecord trees_;
  KnownTree free_;
  std::size_t next_list_ = 0;   // on the leaf that `free_` was last led to
  std::uint64_t lists_ = 0;     // that were looked at in this batch
  std::uint64_t in_lists_ = 0;  // pages in them
  std::uint64_t may_take_ = 0;  // pages that the library may have taken
  std::uint64_t may_read_ = 0;  // lists that it may have read to find long runs
  std::array<KnownTree, kTreeCount> known_;
  std::vector<bool> looked_at_;           // in this batch, by page
  std::vector<std::uint64_t> to_forget_;  // those
};

}  // namespace lscore

#endif
