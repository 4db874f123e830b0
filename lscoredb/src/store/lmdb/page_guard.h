#ifndef LSCOREDB_SRC_PAGE_GUARD_H
#define LSCOREDB_SRC_PAGE_GUARD_H

// Checks pages before the store's library writes based on their content.
//
// The library follows page numbers unchecked; when it writes, a wrong one corrupts the memory of
// the process. So every page that a call of the library may follow is checked before the call:
//
//   free pages    the whole list once, before the first batch. In each batch again the lists that
//                 the library may read: it takes pages from the oldest list first, so as many lists
//                 are checked as hold the pages that the writes may need
//   put           the pages from the root to the leaf of the key, once in a batch
//   delete, scan  also the neighbours on each level, with which the library may merge a page
//
// A check covers the page's own structure, the order of its keys, and that they lie within the
// bounds of its parent.
//
// Pages are read in the memory map, in the state that the batch began from, which nobody overwrites
// while the batch is open. Used by the thread that holds the write lock.

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "store.h"
#include "store_page.h"

namespace lscore {

class PageGuard {
 public:
  // Called before everything else. `map`: the address of the mapped file.
  void Open(int file, char const* map, std::size_t page_size);

  // Begins a batch on the state of commit `state`. This and all other calls throw LSCOREDB_DAMAGED.
  void Begin(std::uint64_t state);
  // Check: before `key` is read. CheckAround: before `key` is deleted, or a scan begins there.
  void Check(Tree tree, std::string_view key);
  void CheckAround(Tree tree, std::string_view key);
  // Before the first or the last key of a tree is looked up.
  void CheckEnd(Tree tree, bool first);
  // Before a value of that size is put under `key`, before `key` is deleted, before the commit.
  void CheckPut(Tree tree, std::string_view key, std::size_t value_size);
  void CheckDelete(Tree tree, std::string_view key);
  void CheckCommit();

 private:
  struct Step {
    pages::Page page;
    std::uint64_t number = 0;
    std::size_t at = 0;  // the node whose child is the next step
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
    bool beside = false;  // the neighbours of the last path were checked
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
  std::uint64_t pages_ = 0;  // readable pages of the file
  std::uint64_t last_page_ = 0;
  pages::TreeRecord trees_;
  KnownTree free_;
  std::size_t next_list_ = 0;   // the node of the next list, on the leaf where `free_` is
  std::uint64_t lists_ = 0;     // lists checked in this batch
  std::uint64_t in_lists_ = 0;  // pages in them
  std::uint64_t may_take_ = 0;  // pages that the library may take in this batch, at most
  std::uint64_t may_read_ = 0;  // lists that it may read in search of long runs, at most
  std::array<KnownTree, kTreeCount> known_;
  std::vector<bool> looked_at_;           // by page: checked in this batch
  std::vector<std::uint64_t> to_forget_;  // the pages set in it
};

}  // namespace lscore

#endif
