#include "column_access_plans.h"

#include <algorithm>

namespace lscore {

// A plan compares only the first word of presence bits and stores small numbers, so columns beyond
// bit 63 or number 65535 get none. A fixed column's offset counts the present columns before it;
// of a variable column only its number in the image's own layout is kept.
void ColumnAccessPlans::Note(RowImage image, Layout const& layout, Layout const& named,
                             LayoutNumber as, std::uint32_t column) {
  int const own = layout.Find(named.column(column).token);
  bool const committed = std::max(layout.order(), named.order()).commit != kNotCommitted;
  if (!committed || own < static_cast<int>(kFirstStoredColumn)) return;
  Column const& at = layout.column(static_cast<std::uint32_t>(own));
  if (at.bit >= 64 || column > UINT16_MAX) return;
  ColumnAccessPlan plan{&layout,
                        0,
                        0,
                        static_cast<std::uint32_t>(KeyOf(as, column)),
                        static_cast<std::uint16_t>(own),
                        static_cast<std::uint16_t>(TypeBit(at.type))};
  plan.mask = (std::uint64_t{2} << at.bit) - 1;
  plan.pattern = image.FirstWord() & plan.mask;
  if (!image.Present(at)) return;
  if (at.fixed) {
    std::uint32_t const before = RowImage::CountBits(plan.pattern & (plan.mask >> 1));
    plan.offset = static_cast<std::uint16_t>(RowImage::FixedOffset(layout) + 8 * before);
  }
  plans_[SlotOf(layout, as, column)] = plan;
}

}  // namespace lscore
