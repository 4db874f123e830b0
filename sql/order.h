#ifndef SAGLEME_SQL_ORDER_H
#define SAGLEME_SQL_ORDER_H

// Rows in the order of SQLite out of rows in the order of an index.
//
// The two orders differ where SQLite sees less than the index holds, or puts it elsewhere: texts
// with units from 0xD800 on, numbers that it sees rounded, the two zeros. Call all other values
// plain. A row whose order columns are plain stands to every row alike in both orders. So rows
// between two plain ones, a run, need only be put in order among themselves, and for most tables
// there are none.

#include <cstdint>
#include <string>
#include <vector>

#include "numbers.h"
#include "plan.h"
#include "values.h"

namespace sagleme::sql {

struct RowId {
  std::uint64_t oid = 0;
  std::uint64_t addr = 0;
};

class RunOrder {
 public:
  RunOrder(std::uint64_t context, std::vector<OrderColumn> const& columns)
      : context_(context), columns_(&columns) {}

  // False when the two orders cannot differ for values of these types.
  bool needed() const;
  bool IsPlain(RowId const& row) const;
  void Sort(std::vector<RowId>& run) const;

 private:
  struct Key {
    bool null = true;
    Number number;
    std::string text;
  };

  Key KeyOf(RowId const& row, OrderColumn const& column) const;
  bool IsPlain(RowId const& row, OrderColumn const& column) const;
  ValueLocation At(RowId const& row, OrderColumn const& column) const {
    return {context_, row.oid, row.addr, column.ordinal};
  }

  std::uint64_t context_;
  std::vector<OrderColumn> const* columns_;
};

}  // namespace sagleme::sql

#endif
