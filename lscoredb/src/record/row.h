#ifndef LSCOREDB_SRC_ROW_H
#define LSCOREDB_SRC_ROW_H

// Rows: the stored image, and the editable cells that a transaction writes. An image is read in
// place; cells point into the image or into the memory of their transaction. Nothing here owns
// memory.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "bytes.h"
#include "format.h"
#include "ids.h"
#include "layout.h"
#include "text.h"

namespace lscore {

// The value of one column.
struct Cell {
  std::uint64_t bits = 0;      // a fixed column's value
  char const* data = nullptr;  // a variable column's bytes
  std::size_t size = 0;
  bool present = false;  // otherwise null, or zero where the column is not nullable
  bool wide = false;     // of a text

  std::string_view bytes() const { return {data, size}; }
  PackedText text() const { return {bytes(), wide}; }
};

// An image in place. It was valid once, but the file may have been damaged since, so each offset is
// compared with the size; LSCOREDB_DAMAGED is thrown when one leads outside.
class RowImage {
 public:
  // REQUIRES: the bytes have a whole head; for all members below commit(), Validate returned true.
  explicit RowImage(std::string_view bytes) : bytes_(bytes.data()), size_(bytes.size()) {}

  LayoutNumber layout() const {
    return LayoutNumber{Load<std::uint16_t>(bytes_ + format::kLayoutOffset)};
  }
  CommitId commit() const { return CommitId{Load<std::uint64_t>(bytes_ + format::kCommitOffset)}; }
  bool Present(Column const& column) const {
    return ((Word(column.bit / 64) >> (column.bit % 64)) & 1) != 0;
  }
  // REQUIRES: Present(column), column.fixed.
  std::uint64_t Fixed(Layout const& layout, Column const& column) const {
    return FixedAt(FixedOffset(layout) + 8 * CountBelow(column.bit));
  }
  std::uint64_t FixedAt(std::size_t offset) const {
    if (offset + sizeof(std::uint64_t) > size_) [[unlikely]]
      ThrowDamaged();
    return Load<std::uint64_t>(bytes_ + offset);
  }
  // How many bits are set. Inline, since the instruction for it cannot be taken for granted and the
  // compiler would call a function.
  static std::uint32_t CountBits(std::uint64_t word) {
    word -= (word >> 1) & 0x5555555555555555;
    word = (word & 0x3333333333333333) + ((word >> 2) & 0x3333333333333333);
    word = (word + (word >> 4)) & 0x0F0F0F0F0F0F0F0F;
    return static_cast<std::uint32_t>((word * 0x0101010101010101) >> 56);
  }
  std::uint64_t FirstWord() const { return Load<std::uint64_t>(bytes_ + format::kHeaderSize); }
  static std::size_t FixedOffset(Layout const& layout) {
    return format::kHeaderSize + (layout.bit_count() + 63) / 64 * 8;
  }
  // The value of a stored column, absent ones included.
  Cell Read(Layout const& layout, Column const& column) const;
  Cell Setspec(Layout const& layout) const;

  // Whether `bytes` are an image of that object under `layout`: checksum and inner lengths.
  static bool Validate(std::string_view bytes, ObjectId id, Layout const& layout);
  // The checksum of such an image, of which the first bytes are left out.
  static std::uint32_t Checksum(std::string_view bytes, ObjectId id, Layout const& layout);

 private:
  std::uint64_t Word(std::uint32_t index) const {
    return Load<std::uint64_t>(bytes_ + format::kHeaderSize + 8 * index);
  }
  // How many presence bits below `bit` are set.
  std::uint32_t CountBelow(std::uint32_t bit) const {
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < bit / 64; ++i) count += CountBits(Word(i));
    std::uint64_t const below = (std::uint64_t{1} << (bit % 64)) - 1;
    if (below == 0) return count;
    std::uint64_t const word = Word(bit / 64) & below;
    return count + (word == below ? bit % 64 : CountBits(word));  // rows without nulls are common
  }
  std::uint16_t flags() const { return Load<std::uint16_t>(bytes_ + format::kFlagsOffset); }
  // Where the values of variable size are. The set specifier, when there is one, is the first.
  struct Variable {
    std::size_t ends;    // offset
    std::size_t values;  // offset
    std::uint32_t count;
    std::uint32_t columns_from;  // 1 after a set specifier
  };
  Variable FindVariable(Layout const& layout) const;
  [[noreturn, gnu::cold]] static void ThrowDamaged();
  std::uint64_t End(std::size_t ends, std::uint32_t index, bool* wide) const;
  void ReadVariable(Variable const& all, std::uint32_t index, Cell& cell) const;

  friend class ImageCheck;

  char const* bytes_;
  std::size_t size_;
};

// Whether stored bytes are a stub: the head of an image that is in overflow chunks.
bool IsStub(std::string_view bytes);
std::uint64_t WholeSize(std::string_view stub);
// Whether the checksum of a stub is right, so that WholeSize can be trusted.
bool StubHolds(std::string_view stub);

// Builds images one after another, reusing its memory.
class ImageBuilder {
 public:
  // `cells` are those of the columns from kFirstStoredColumn on.
  std::string_view Build(ObjectId id, Layout const& layout, CommitId commit, Cell const& setspec,
                         std::span<Cell const> cells);
  // The stub for the tree "rows" of an image that goes to "parts".
  static std::string Stub(std::string_view image);

 private:
  std::string image_;
};

}  // namespace lscore

#endif
