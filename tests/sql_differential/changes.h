#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_CHANGES_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_CHANGES_H

// Statements that change data, and transactions.

#include "queries.h"
#include "world.h"

namespace sql_differential {

struct Change {
  Dual text;
  // The id that our side gave stands for this in SQLite's text; empty when none is wanted.
  std::string placeholder = {};
  // Whether both count alike what was changed.
  bool counted = true;
};

class Changes {
 public:
  Changes(Choices& choices, World& world) : choices_(choices), world_(world), queries_(choices) {}

  Change Any();
  Change Insert();

 private:
  Change InsertSelected();
  Change Update();
  Change Delete();
  Change Control();
  Change Wrong();
  Dual Values(TableMeta const& table, std::vector<ColumnMeta> const& columns);
  Dual Id(TableMeta const& table);
  std::vector<std::int64_t> TargetsOf(ColumnMeta const& column);

  Choices& choices_;
  World& world_;
  Queries queries_;
};

}  // namespace sql_differential

#endif
