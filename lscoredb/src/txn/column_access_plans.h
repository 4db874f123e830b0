#ifndef LSCOREDB_SRC_COLUMN_ACCESS_PLANS_H
#define LSCOREDB_SRC_COLUMN_ACCESS_PLANS_H

// A cache of where columns lie in images of rows, so that reading a column again needs no search in
// its layout. One thread at a time.

#include <array>
#include <cstddef>
#include <cstdint>

#include "ids.h"
#include "layout.h"
#include "row.h"

namespace lscore {

// A set of column types, one bit each.
using TypeSet = std::uint32_t;
constexpr TypeSet TypeBit(std::uint32_t type) { return TypeSet{1} << type; }

// Where a column of one layout lies in images under another one, which may be the same.
//
// A fixed column follows those before it that are present, so its offset depends on the presence
// bits below its own. A plan keeps those bits and the offset of the row it was made from. For the
// column of bit 4, planned from a row that lacks column 2:
//
//   bit       5 4 3 2 1 0
//   mask      0 1 1 1 1 1   its own bit and all below
//   pattern   0 1 1 0 1 1   of the row
//   image     | header 16 | bits 8 | c0 | c1 | c3 | c4 | ...   offset = 16 + 8 + 3 * 8 = 48
//
// Another row's bits      mean
//   x 1 1 0 1 1           the pattern itself: the value is at 48, without counting
//   x 1 1 1 1 1           4 bits below, 3 in the pattern: the value is at 48 + 8 * (4 - 3)
//   x 0 1 1 1 1           not above mask >> 1: the column's own bit is clear, it has no value
struct ColumnAccessPlan {
  Layout const* layout = nullptr;  // of the images
  std::uint64_t mask = 0;          // the presence bits up to its own, in the first word
  std::uint64_t pattern = 0;       // those bits in the row it was made from
  std::uint32_t key = 0;           // column number and layout as the caller names them (KeyOf)
  std::uint16_t offset = 0;        // of a fixed column for `pattern`; of others their number
  std::uint16_t type = 0;          // a TypeSet of one
};

class ColumnAccessPlans {
 public:
  // Null: there is no plan, or the column's type is not in `types`.
  ColumnAccessPlan const* Find(Layout const& layout, LayoutNumber as, std::uint32_t column,
                               TypeSet types) const {
    ColumnAccessPlan const& plan = plans_[SlotOf(layout, as, column)];
    bool const same = plan.layout == &layout && plan.key == KeyOf(as, column);
    return same && (types & plan.type) != 0 ? &plan : nullptr;
  }

  // Plans column number `column` of `named`, from an image under `layout` that has a value for it.
  // `as`: the layout number in the caller's address, kNoLayout for the image's own. Layouts that
  // are not committed get no plan, since a rollback destroys them.
  void Note(RowImage image, Layout const& layout, Layout const& named, LayoutNumber as,
            std::uint32_t column);

 private:
  static constexpr std::size_t kPlans = 128;

  static constexpr std::uint64_t KeyOf(LayoutNumber as, std::uint32_t column) {
    return std::uint64_t{column} << 16 | Raw(as);
  }
  // Direct mapped. Related layouts have consecutive numbers, as have the columns of a layout, so
  // both factors spread them over the slots.
  static std::size_t SlotOf(Layout const& layout, LayoutNumber as, std::uint32_t column) {
    return (Raw(layout.number()) * 13u + Raw(as) * 5u + column) % kPlans;
  }

  std::array<ColumnAccessPlan, kPlans> plans_{};  // of committed layouts: they stay valid
};

}  // namespace lscore

#endif
