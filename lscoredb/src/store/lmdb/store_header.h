#ifndef LSCOREDB_SRC_STORE_HEADER_H
#define LSCOREDB_SRC_STORE_HEADER_H

// The bytes of pages, as the store's library (version 1 of its file format) writes them. Little
// endian throughout.
//
//   page    0  own number (8)      8  unused (2)    10  kind (2)
//          12  end of the node table (2)            14  beginning of the nodes (2)
//          12  instead, on overflow pages: number of pages in the run (4)
//          16  node table: the offset of each node (2 each), in key order
//   node    0  size of the value (4), or with kind (2) the number of a child page (6)
//           4  kind of the value (2)                 6  size of the key (2)
//           8  the key, then the value, or the number of the overflow page (8) that begins it
//   tree    0  unused (4)          4  key kind (2)   6  depth (2)
//           8  branch pages (8)   16  leaf pages (8)    24  overflow pages (8)
//          32  entries (8)        40  root (8), all bits set when there is none
//   header  0  mark (4)            4  version (4)    8  unused (8)   16  size of the map (8)
//          24  tree of free pages, its first 4 bytes the page size   72  tree of trees
//         120  last page (8)     128  commit (8)
//
// The header follows the page head of page 0 and of page 1; commits write them in turn.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace lscore::pages {

// The trees of a database by their names in the file, in the order of enum Tree.
inline constexpr std::array<char const*, 5> kTreeNames = {"rows", "parts", "index", "definitions",
                                                          "meta"};
inline constexpr char const* kFreeTreeName = "free";  // in reports, the list of free pages

inline constexpr std::size_t kPageHead = 16;
inline constexpr std::size_t kKindOffset = 10;
inline constexpr std::size_t kSlotsEndOffset = 12;
inline constexpr std::size_t kNodeHead = 8;
inline constexpr std::size_t kTreeSize = 48;
inline constexpr std::size_t kHeaderSize = 136;

inline constexpr std::uint16_t kBranch = 1;
inline constexpr std::uint16_t kLeaf = 2;
inline constexpr std::uint16_t kOverflow = 4;
inline constexpr std::uint16_t kHeaderPage = 8;

inline constexpr std::uint16_t kPlainValue = 0;
inline constexpr std::uint16_t kValueOnOverflow = 1;
inline constexpr std::uint16_t kValueIsTree = 2;

inline constexpr std::uint16_t kByteKeys = 0;
inline constexpr std::uint16_t kIntegerKeys = 8;

inline constexpr std::uint64_t kNoPage = ~std::uint64_t{0};
inline constexpr std::uint64_t kHeaderPages = 2;
inline constexpr std::uint16_t kMaxDepth = 32;
inline constexpr std::size_t kMaxKey = 511;

struct TreeRecord {
  std::uint16_t key_kind = 0;
  std::uint16_t depth = 0;
  std::uint64_t branch_pages = 0;
  std::uint64_t leaf_pages = 0;
  std::uint64_t overflow_pages = 0;
  std::uint64_t entries = 0;
  std::uint64_t root = kNoPage;

  friend bool operator==(TreeRecord const&, TreeRecord const&) = default;
};
TreeRecord ReadTree(char const* bytes);

struct Header {
  std::size_t page_size = 0;
  TreeRecord free;
  TreeRecord trees;
  std::uint64_t last_page = 0;
  std::uint64_t commit = 0;

  friend bool operator==(Header const&, Header const&) = default;
};

// Both headers. Throws LSCOREDB_NOT_A_DATABASE or LSCOREDB_DAMAGED when one is not well formed.
std::array<Header, 2> ReadHeaders(int file);
// The header of commit `commit`; none if later commits have overwritten it.
// REQUIRES: nobody writes the headers meanwhile, or the caller reads them again.
std::optional<Header> FindHeader(int file, std::uint64_t commit);

// Reads up to `size` bytes, fewer at the end of the file.
void ReadAt(int file, std::uint64_t offset, std::size_t size, std::string& bytes);

}  // namespace lscore::pages

#endif
