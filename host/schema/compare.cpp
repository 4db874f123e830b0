#include <algorithm>
#include <map>
#include <sagleme/schema_plan.hpp>
#include <set>

#include "schema/annotation_changes.h"
#include "schema/matching.h"
#include "schema/renames.h"
#include "schema/table_moves.h"

namespace sagleme {
namespace {

class Comparison {
 public:
  Comparison(SchemaDoc const& from, SchemaDoc const& to) : from_(from), to_(to), kept_(from, to) {}

  Plan Make() {
    RefuseDoubts(kept_.doubts(), "");
    DropIndexes();
    DropColumns();
    DropTables();
    AddRenames(from_, to_, kept_, plan_);
    for (TableDoc const& table : to_.tables) CreateTable(table);
    MoveColumns();
    ChangeColumns();
    AddColumns();
    CreateIndexes();
    AddAnnotations(to_, kept_, plan_);
    return std::move(plan_);
  }

 private:
  // Those of dropped tables too: they may hold a column that a base of theirs loses first.
  void DropIndexes() {
    for (TableDoc const& table : from_.tables) {
      for (IndexDoc const& index : table.indexes) {
        if (!kept_.KeepsIndex(index.name)) plan_.push_back(change::DropIndex{index.name});
      }
    }
  }

  // Before the tables: a reference whose target is gone can no longer be dropped.
  void DropColumns() {
    for (TableDoc const& table : from_.tables) {
      if (kept_.NewTable(table.name) == nullptr) continue;
      for (ColumnDoc const& column : table.columns) {
        if (kept_.NewColumn(column) == nullptr) {
          plan_.push_back(change::DropColumn{table.name, column.name, column.on_delete});
        }
      }
    }
  }

  // Descendants first.
  void DropTables() {
    for (auto table = from_.tables.rbegin(); table != from_.tables.rend(); ++table) {
      if (kept_.NewTable(table->name) == nullptr) plan_.push_back(change::DropTable{table->name});
    }
  }

  // Bases first.
  void CreateTable(TableDoc const& table) {
    if (kept_.OldTable(table.name) != nullptr || !created_.insert(table.name).second) return;
    if (TableDoc const* const base = to_.Find(table.base)) CreateTable(*base);
    plan_.push_back(change::CreateTable{WithoutMoved(table)});
  }

  // A new table inherits the columns that are pushed down to it until then.
  TableDoc WithoutMoved(TableDoc table) const {
    TableDoc const& whole = *to_.Find(table.name);
    std::erase_if(table.columns, [&](ColumnDoc const& column) {
      return kept_.IsMoved(*whole.FindColumn(column.name));
    });
    return table;
  }

  // Down first: what goes up may take the name of what leaves.
  void MoveColumns() {
    for (PushedDown const& move : kept_.moves().down) {
      change::PushDownColumn change{NewName(move.from), move.from.column->name, {}};
      for (Declaration const& to : move.to) change.tables.push_back(to.table->name);
      plan_.push_back(std::move(change));
    }
    for (PulledUp const& move : kept_.moves().up) Relax(move);
    for (PulledUp const& move : kept_.moves().up) {
      change::PullUpColumn change{move.from[0].column->name, {}, move.to.table->name};
      for (Declaration const& from : move.from) change.tables.push_back(NewName(from));
      plan_.push_back(std::move(change));
    }
    for (PulledUp const& move : kept_.moves().up) {
      std::string const& name = move.from[0].column->name;
      if (name == move.to.column->name) continue;
      plan_.push_back(change::RenameColumn{move.to.table->name, name, move.to.column->name});
    }
  }
  // A column that is to take null does so before it goes up: the objects that get it there have no
  // value, not zero.
  void Relax(PulledUp const& move) {
    if (!move.to.column->nullable || move.from[0].column->nullable) return;
    for (Declaration const& from : move.from) {
      ColumnDoc after = *move.to.column;
      after.name = from.column->name;
      plan_.push_back(ChangeOf(NewName(from), *from.column, std::move(after)));
    }
    changed_.insert(move.to.column);
  }
  std::string NewName(Declaration const& before) const {
    return kept_.NewTable(before.table->name)->name;
  }

  void ChangeColumns() {
    for (TableDoc const& table : to_.tables) {
      for (ColumnDoc const& column : table.columns) {
        ColumnDoc const* const old = kept_.OldColumn(column);
        if (old == nullptr || kept_.ShapeStays(*old, column)) continue;
        if (!changed_.contains(&column)) plan_.push_back(ChangeOf(table.name, *old, column));
      }
    }
  }
  change::ChangeColumn ChangeOf(std::string const& table, ColumnDoc before, ColumnDoc after) const {
    before.name = after.name;
    if (TableDoc const* const target = kept_.NewTable(before.target)) before.target = target->name;
    return {table, std::move(before), std::move(after)};
  }

  void AddColumns() {
    for (TableDoc const& table : to_.tables) {
      if (kept_.OldTable(table.name) == nullptr) continue;
      std::vector<ColumnDoc> columns;
      for (ColumnDoc const& column : table.columns) {
        if (kept_.OldColumn(column) == nullptr) columns.push_back(column);
      }
      if (!columns.empty()) plan_.push_back(change::AddColumns{table.name, std::move(columns)});
    }
  }

  void CreateIndexes() {
    for (TableDoc const& table : to_.tables) {
      for (IndexDoc const& index : table.indexes) {
        if (!kept_.KeepsIndex(index.name)) {
          plan_.push_back(change::CreateIndex{table.name, index});
        }
      }
    }
  }

  SchemaDoc const& from_;
  SchemaDoc const& to_;
  Matching kept_;
  std::set<std::string> created_;
  std::set<ColumnDoc const*> changed_;  // of `to`, before they move
  Plan plan_;
};

}  // namespace

namespace {

std::vector<Doubt> TableDoubts(Matching const& kept) {
  std::vector<Doubt> doubts = kept.doubts();
  std::erase_if(doubts, [](Doubt const& doubt) { return !doubt.table.empty(); });
  return doubts;
}

}  // namespace

// The columns of tables are compared where these come to be.
std::vector<Doubt> FindDoubts(SchemaDoc const& from, SchemaDoc const& to) {
  Matching const kept(from, to);
  std::vector<Doubt> const doubts = TableDoubts(kept);
  if (!doubts.empty()) return doubts;
  return Matching(MoveTables(from, to, kept).schema, to).doubts();
}

// Indexes go first: one that is no longer wanted must not refuse the objects of a table that moves.
Plan CompareSchemas(SchemaDoc const& from, SchemaDoc const& to) {
  return CompareAsTheyStand(from, WithReferrerIndexes(to));
}

Plan CompareAsTheyStand(SchemaDoc const& from, SchemaDoc const& to) {
  Matching const kept(from, to);
  RefuseDoubts(TableDoubts(kept), "");
  TableMoves moves = MoveTables(from, to, kept);
  Plan plan = Comparison(moves.schema, to).Make();
  auto const behind_indexes = std::find_if_not(plan.begin(), plan.end(), [](Change const& change) {
    return std::holds_alternative<change::DropIndex>(change);
  });
  plan.insert(behind_indexes, moves.plan.begin(), moves.plan.end());
  return plan;
}

}  // namespace sagleme
