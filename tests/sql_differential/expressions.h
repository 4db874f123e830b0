#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_EXPRESSIONS_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_EXPRESSIONS_H

// Expressions over columns that are in reach.
//
// What depends on the order in which SQLite happens to look at rows is left out: functions that can
// fail, sums that round, and values that are equal but look different.

#include <functional>
#include <string>
#include <vector>

#include "choices.h"
#include "dual.h"
#include "tables.h"

namespace sql_differential {

struct Reachable {
  std::string text;  // alias.column
  Kind kind;
  bool tame = false;
  std::string target = {};  // of a reference that comes straight from a table
};
using Scope = std::vector<Reachable>;

class Expressions {
 public:
  // Makes a query of one column of a kind, of at most one row when it stands for a value.
  enum class Use { kValue, kList };
  using Subquery = std::function<Dual(Scope const& outer, Kind kind, Use use, int depth)>;
  Expressions(Choices& choices, Subquery subquery)
      : choices_(choices), subquery_(std::move(subquery)) {}

  Dual Condition(Scope const& scope, int depth);
  Dual Value(Scope const& scope, Kind kind, int depth);
  // A value that sums are exact of; no subqueries.
  Dual Tame(Scope const& scope);
  Dual Constant(Kind kind);
  // A value for a column of a table.
  Dual ConstantFor(ColumnMeta const& column, std::vector<std::int64_t> const& targets);
  Kind AnyKind();

 private:
  Dual Column(Scope const& scope, Kind kind);
  Dual Integer(Scope const& scope, int depth);
  Dual Real(Scope const& scope, int depth);
  Dual Text(Scope const& scope, int depth);
  Dual Comparison(Scope const& scope, int depth);
  Dual AgainstConstant(Scope const& scope);
  Dual Pattern(Scope const& scope, int depth);
  Dual Membership(Scope const& scope, int depth);
  Dual OfReference(Scope const& scope);
  Dual RowValues(Scope const& scope, int depth);
  Dual Operator();

  Choices& choices_;
  Subquery subquery_;
};

}  // namespace sql_differential

#endif
