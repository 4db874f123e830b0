#include "changes.h"

#include <algorithm>

namespace sql_differential {
namespace {

constexpr char const* kConflicts[] = {"", " OR IGNORE", " OR REPLACE", " OR ABORT", " OR ROLLBACK"};

std::string FullName(TableMeta const& table) { return "'Shop." + table.name + "'"; }

}  // namespace

std::vector<std::int64_t> Changes::TargetsOf(ColumnMeta const& column) {
  return column.reference() ? world_.IdsOf(column.target) : std::vector<std::int64_t>();
}

Dual Changes::Values(TableMeta const&, std::vector<ColumnMeta> const& columns) {
  Dual text;
  for (ColumnMeta const& column : columns) {
    text += ", ";
    bool const wrong = choices_.Chance(1);
    text += wrong ? Dual("NULL") : queries_.expressions().ConstantFor(column, TargetsOf(column));
  }
  return text;
}

// An id that there is, mostly.
Dual Changes::Id(TableMeta const& table) {
  auto const ids = world_.IdsOf("\"" + table.name + "\"");
  if (ids.empty() || choices_.Chance(10)) return "7";
  return std::to_string(choices_.Pick(ids));
}

Change Changes::Insert() {
  TableMeta const& table = choices_.Pick(Tables());
  std::vector<ColumnMeta> columns;
  for (ColumnMeta const& column : table.columns()) {
    if (column.required || choices_.Chance(75)) columns.push_back(column);
  }
  std::string names;
  for (ColumnMeta const& column : columns) names += ", " + column.name;
  Dual const head = std::string("INSERT") + choices_.Pick(kConflicts) + " INTO ";
  Dual const into = head + Dual("\"" + table.name + "\"", CopyOf(table) + "");
  if (choices_.Chance(50)) {
    // The id is given by our side.
    Dual const values = Values(table, columns);
    Change change{
        Dual(into.ours + "(_table" + names + ")", into.native + "(_oid, _table" + names + ")") +
            Dual(" VALUES (", " VALUES ({id}, ") + FullName(table) + values + ")",
        "{id}"};
    return change;
  }
  Dual text = into + "(_oid, _table" + names + ") VALUES ";
  auto const rows = 1 + choices_.Below(3);
  for (std::uint32_t i = 0; i < rows; ++i) {
    Dual const id = std::to_string(world_.NextId());
    text += Dual(i == 0 ? "(" : ", (") + id + ", " + FullName(table) + Values(table, columns) + ")";
  }
  return {text};
}

// Copies objects of one table into another one.
Change Changes::InsertSelected() {
  TableMeta const& from = choices_.Pick(Tables());
  std::vector<TableMeta> fitting;
  for (TableMeta const& table : Tables()) {
    if (table.root == from.root) fitting.push_back(table);
  }
  TableMeta const& into = choices_.Pick(fitting);
  std::string const shift = std::to_string(world_.NextIds());
  Dual names = "_oid, _table";
  Dual values = "s._oid % 1000000000000 + " + shift + ", " + FullName(into);
  for (ColumnMeta const& column : into.columns()) {
    if (column.unique && choices_.Chance(80)) continue;
    if (!from.Has(column.name) && !column.required) continue;
    names += ", " + column.name;
    values += ", " + (from.Has(column.name) ? Dual("s." + column.name)
                                            : queries_.expressions().ConstantFor(column, {}));
  }
  Scope const scope = queries_.ScopeOf(from, "s");
  return {Dual("INSERT") + choices_.Pick(kConflicts) + " INTO " +
          Dual("\"" + into.name + "\"", CopyOf(into)) + "(" + names + ") SELECT " + values +
          " FROM \"" + from.name + "\" AS s WHERE " + queries_.expressions().Condition(scope, 2) +
          " ORDER BY s._oid LIMIT 6"};
}

// A column that is unique is changed of one object alone: which of many succeeds depends on the
// order.
Change Changes::Update() {
  TableMeta const& table = choices_.Pick(Tables());
  std::vector<ColumnMeta> const columns = table.columns();
  bool const one = choices_.Chance(40);
  std::string const conflict = one ? choices_.Pick(kConflicts) : "";
  Scope const scope = queries_.ScopeOf(table, "t");
  Dual assigned;
  auto const count = 1 + choices_.Below(3);
  for (std::uint32_t i = 0; i < count; ++i) {
    ColumnMeta const& column = choices_.Pick(columns);
    if (column.unique && !one) continue;
    Dual value = queries_.expressions().ConstantFor(column, TargetsOf(column));
    if (column.tame && column.type == "bigint" && choices_.Chance(40)) {
      value = "t." + column.name + " % 100 + 1";
    }
    if (column.type == "text" && !column.unique && choices_.Chance(30)) {
      value = "substr(coalesce(t." + column.name + ", 'n'), 1, 3) || 'x'";
    }
    assigned += (assigned.ours.empty() ? Dual("") : Dual(", ")) + column.name + " = " + value;
  }
  if (assigned.ours.empty()) assigned = columns.front().name + " = NULL";
  Dual const where = one ? "t._oid = " + Id(table) : queries_.expressions().Condition(scope, 2);
  Dual const target("\"" + table.name + "\" AS t SET ", CopyOf(table) + " AS t SET ");
  Dual const only("", OfTable(table) + " AND ");
  return {"UPDATE" + conflict + " " + target + assigned + " WHERE " + only + "(" + where + ")"};
}

Change Changes::Delete() {
  TableMeta const& table = choices_.Pick(Tables());
  Scope const scope = queries_.ScopeOf(table, "t");
  Dual where =
      choices_.Chance(60) ? "t._oid = " + Id(table) : queries_.expressions().Condition(scope, 2);
  where = "(" + where + ") AND t._oid % 3 = " + std::to_string(choices_.Below(3));
  return {"DELETE FROM " + Dual("\"" + table.name + "\"", CopyOf(table)) + " AS t WHERE " +
          Dual("", OfTable(table) + " AND ") + where};
}

Change Changes::Control() {
  constexpr char const* kStatements[] = {
      "BEGIN",     "COMMIT",    "ROLLBACK",      "BEGIN IMMEDIATE", "SAVEPOINT a", "SAVEPOINT b",
      "RELEASE a", "RELEASE b", "ROLLBACK TO a", "ROLLBACK TO b",   "SAVEPOINT a", "BEGIN"};
  return {Dual(choices_.Pick(kStatements)), "", false};
}

Change Changes::Wrong() {
  Dual const kStatements[] = {
      {"UPDATE Item SET Year = NULL", "UPDATE Item_all SET Year = NULL"},
      {"INSERT INTO Person(Nothing) VALUES (1)", "INSERT INTO Person_all(Nothing) VALUES (1)"},
      {"INSERT INTO Person(Name) VALUES (1, 2)", "INSERT INTO Person_all(Name) VALUES (1, 2)"},
      {"INSERT INTO Person(_table, Age) VALUES ('Shop.Person', 'old')",
       "INSERT INTO Person_all(_table, Age) VALUES ('Shop.Person', 'old')"},
      {"INSERT INTO Person(_table, Score) VALUES ('Shop.Person', x'00')",
       "INSERT INTO Person_all(_table, Score) VALUES ('Shop.Person', x'00')"},
      {"UPDATE Item SET Stock = -1", "UPDATE Item_all SET Stock = -1"},
      {"UPDATE Item SET Sold = 2", "UPDATE Item_all SET Sold = 2"},
      {"UPDATE Book SET Cover = 'text'",
       "UPDATE Item_all SET Cover = 'text' WHERE " + OfTable(TableNamed("Book"))},
      {"DELETE FROM Item WHERE Nothing = 1", "DELETE FROM Item_all WHERE Nothing = 1"},
      {"DELETE FROM Nowhere", "DELETE FROM Nowhere"},
  };
  return {choices_.Pick(kStatements)};
}

Change Changes::Any() {
  switch (choices_.Below(20)) {
    case 7:
    case 8:
      return InsertSelected();
    case 9:
    case 10:
    case 11:
    case 12:
      return Update();
    case 13:
    case 14:
      return Delete();
    case 15:
    case 16:
    case 17:
    case 18:
      return Control();
    case 19:
      return Wrong();
    default:
      return Insert();
  }
}

}  // namespace sql_differential
