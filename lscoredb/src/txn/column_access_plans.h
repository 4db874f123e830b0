#ifndef LSCOREDB_SRC_COLUMN_ACCESS_PLANS_H
#define LSCOREDB_SRC_COLUMN_ACCESS_PLANS_H

// Where columns were found in images of rows, so that the next read need not look. One thread at a
// time.

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
// A fixed column stands behind those before it that are present, so its offset depends on the
// presence bits below its own. The plan keeps them and the offset as the last row had them. For
// the column of bit 4, planned from a row that lacks column 2:
//
//   bit       5 4 3 2 1 0
//   mask      0 1 1 1 1 1   its own bit and all below
//   pattern   0 1 1 0 1 1   of the row
//   image     | header 16 | bits 8 | c0 | c1 | c3 | c4 | ...   offset = 16 + 8 + 3 * 8 = 48
//
// The next row has        and so
//   x 1 1 0 1 1           the pattern: the value is at 48, without counting
//   x 1 1 1 1 1           4 bits below, 3 in the pattern: the value is at 48 + 8 * (4 - 3)
//   x 0 1 1 1 1           not more than mask >> 1: its own bit is clear, there is no value
struct ColumnAccessPlan {
  Layout const* layout = nullptr;  // of the images
  std::uint64_t mask = 0;          // the presence bits up to its own, in the first word
  std::uint64_t pattern = 0;       // as the last row that was looked at had them
  std::uint32_t key = 0;           // the layout that the column is named by, its number there
  std::uint16_t offset = 0;        // of a fixed column in such images; of others their number
  std::uint16_t type = 0;          // a TypeSet of one
};

class ColumnAccessPlans {
 public:
  // Null: not planned, or the type is not among those.
  ColumnAccessPlan const* Find(Layout const& layout, LayoutNumber as, std::uint32_t column,
                               TypeSet types) const {
    ColumnAccessPlan const& plan = plans_[SlotOf(layout, as, column)];
    bool const same = plan.layout == &layout && plan.key == KeyOf(as, column);
    return same && (types & plan.type) != 0 ? &plan : nullptr;
  }

  // Plans a column of `named` by its number there, from an image under `layout` that has it.
  // `as`: how `named` is named, kNoLayout where it is the image's own. Plans nothing of layouts
  // that are not committed, since they may go.
  void Note(RowImage image, Layout const& layout, Layout const& named, LayoutNumber as,
            std::uint32_t column);

 private:
  static constexpr std::size_t kPlans = 128;

  static constexpr std::uint64_t KeyOf(LayoutNumber as, std::uint32_t column) {
    return std::uint64_t{column} << 16 | Raw(as);
  }
  // Layouts of one tree have numbers that follow one another, and so have their columns.
  static std::size_t SlotOf(Layout const& layout, LayoutNumber as, std::uint32_t column) {
    return (Raw(layout.number()) * 13u + Raw(as) * 5u + column) % kPlans;
  }

  std::array<ColumnAccessPlan, kPlans> plans_{};  // of committed layouts, and so for good
};

}  // namespace lscore

#endif
