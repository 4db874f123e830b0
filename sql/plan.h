#ifndef SAGLEME_SQL_PLAN_H
#define SAGLEME_SQL_PLAN_H

// How a statement reads a table: which index, which of its conditions, in which order.

#include <string>
#include <vector>

#include "api.h"
#include "schema.h"

namespace sagleme::sql {

// A condition on a part of an index; its value is an argument of xFilter, in the order of the uses.
struct Use {
  std::size_t part = 0;
  int op = 0;       // SQLITE_INDEX_CONSTRAINT_*
  bool in = false;  // the argument is a list
};

// A column that rows come ordered by.
struct OrderColumn {
  std::uint16_t ordinal = 0;
  Type type = Type::kString;
  bool descending = false;
};

struct Plan {
  enum class Kind { kScan, kId, kIndex };
  Kind kind = Kind::kScan;
  std::size_t index = 0;  // in Shape::indexes
  std::vector<Use> uses;
  bool reverse = false;
  bool ordered = false;  // rows come in the order that SQLite asked for
  std::vector<OrderColumn> order;
  bool skips =
      false;         // rows that equal another one in the only column of the order may be left out
  std::string text;  // what EXPLAIN QUERY PLAN shows
  bool operator==(Plan const& other) const { return text == other.text; }
};

// Chooses a plan and passes it to SQLite, except for idxNum and idxStr. `rows`: about how many
// objects there are.
void Choose(Shape const& shape, std::uint64_t rows, sqlite3_index_info* info, Plan& plan);

}  // namespace sagleme::sql

#endif
