#ifndef SAGLEME_SQL_SKIP_H
#define SAGLEME_SQL_SKIP_H

// Skips rows with the same value in the one column that SQLite wants distinct values of.
//
// Behind a row a scan may go on at the next value when nothing else of the row was asked for: what
// SQLite does with the other rows of that value is then the same, and they give nothing new. It
// does so only where values repeat, since a new scan costs as much as some tens of steps.

#include <cstdint>
#include <optional>
#include <sagleme/host.hpp>
#include <vector>

#include "order.h"
#include "spans.h"

namespace sagleme::sql {

class EqualRowSkip {
 public:
  // `same`: the column, and others that have one value in all rows. `falling`: values fall along
  // the scan.
  void Start(OrderColumn const& column, bool falling, std::vector<std::uint16_t> same);
  void Stop() { on_ = false; }
  bool on() const { return on_; }

  // SQLite has asked for a column of the present row, or for what is no column.
  void NoteRead(std::uint16_t ordinal);
  void NoteOtherRead() { other_read_ = true; }
  // Once a row, when SQLite is done with it. The least value, the greatest of a falling scan, that
  // may come behind the row; nothing where the scan is to go on step by step.
  std::optional<Bound> Behind(std::uint64_t context, RowId const& row);

 private:
  bool on_ = false;
  OrderColumn column_;
  bool falling_ = false;
  std::vector<std::uint16_t> same_;
  bool other_read_ = false;
  unsigned steps_ = 0;
  std::optional<Value> before_;  // of the row so many steps before
};

}  // namespace sagleme::sql

#endif
