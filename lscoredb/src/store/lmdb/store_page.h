#ifndef LSCOREDB_SRC_STORE_PAGE_H
#define LSCOREDB_SRC_STORE_PAGE_H

// One page of a tree, checked before anything in it is followed. Refers to bytes that must outlive
// it. store_header.h draws the bytes of pages.

#include <cstdint>
#include <string_view>

#include "store_header.h"

namespace lscore::pages {

// Keys from `low` on and below `high`. Empty: no bound.
struct Bounds {
  std::string_view low;
  std::string_view high;
};

// One node of a page, whose offsets Page::Load has checked.
struct Node {
  std::string_view key;
  std::uint16_t value_kind = 0;
  std::uint64_t child = 0;       // on a branch page
  std::uint64_t value_size = 0;  // on a leaf
  char const* value = nullptr;   // likewise; on overflow pages: their number
};

class Page {
 public:
  // Null if the bytes are a page of that kind with all nodes inside it; otherwise what is wrong.
  char const* Load(std::uint64_t number, std::size_t page_size, bool leaf, std::string_view bytes);
  // As Load. REQUIRES: the bytes were loaded before and have not changed.
  void Reload(bool leaf, std::string_view bytes);

  std::size_t count() const { return count_; }
  Node At(std::size_t i) const;

 private:
  std::uint16_t Short(std::size_t at) const;
  std::size_t Offset(std::size_t i) const { return Short(kPageHead + 2 * i); }
  // The bytes that a node takes, 0 when it does not fit into the page.
  std::size_t NodeSize(std::size_t at) const;

  std::string_view bytes_;
  bool leaf_ = false;
  std::size_t count_ = 0;
};

// Whether `a` is below `b`. REQUIRES: both are valid keys of that kind.
bool IsBelow(std::uint16_t key_kind, std::string_view a, std::string_view b);
// Whether the page's keys are of that kind, ascend, and lie within the bounds.
bool KeysHold(Page const& page, bool leaf, std::uint16_t key_kind, Bounds bounds);

}  // namespace lscore::pages

#endif
