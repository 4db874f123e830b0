#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_QUERIES_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_QUERIES_H

// Queries, and what of their results has to be equal.

#include <cstddef>
#include <vector>

#include "expressions.h"

namespace sql_differential {

struct Query {
  enum class Compared {
    kRows,      // the rows in any order
    kSequence,  // the rows in their order
    kKeys,      // the columns that they are ordered by, in order, and the rows in any order
    kKeysOnly,  // those columns alone: which of the equal rows a limit leaves is open
    kCount,     // how many rows there are
  };
  Dual text;
  std::vector<Kind> kinds;
  Compared compared = Compared::kRows;
  std::vector<std::size_t> keys;
};

class Queries {
 public:
  explicit Queries(Choices& choices);

  Query Any();
  // Conditions and values for statements that change a table under an alias.
  Expressions& expressions() { return expressions_; }
  Scope ScopeOf(TableMeta const& table, std::string const& alias) const;
  // Inside, no subquery reads these tables.
  void Avoid(std::string const& root) { avoided_ = root; }

 private:
  struct Source {
    std::string alias;
    bool table = true;
  };
  struct Body {
    Dual from;
    std::vector<Source> sources;
    Scope scope;
  };

  Query Select(int depth);
  Query Plain(int depth, bool limited);
  Query Grouped(int depth);
  Query Windowed(int depth);
  Query Compound(int depth);
  Query Common(int depth);
  Query Wrong();
  Body From(int most, int depth);
  void AddSource(Body& body, int depth);
  Dual JoinCondition(Body const& body, Scope const& added, int depth);
  Dual Where(Scope const& scope, int depth);
  void OrderByColumn(Query& query, Body const& body, Scope const& keys);
  void OrderByAll(Query& query);
  void Limit(Query& query);
  Dual Subselect(Scope const& outer, Kind kind, Expressions::Use use, int depth);
  Dual Aggregate(Scope const& scope, Kind& kind);
  TableMeta const& AnyTable();
  std::string NewAlias() { return "t" + std::to_string(++aliases_); }

  Choices& choices_;
  Expressions expressions_;
  std::string avoided_;
  int aliases_ = 0;
};

}  // namespace sql_differential

#endif
