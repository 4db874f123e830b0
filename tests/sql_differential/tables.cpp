#include "tables.h"

#include <algorithm>
#include <map>
#include <stdexcept>

namespace sql_differential {
namespace {

constexpr char kFull[] = "Shop.";

std::string FullName(std::string const& table) { return kFull + table; }

// What our column refuses, SQLite's copy refuses too.
std::string CheckOf(ColumnMeta const& column, TableMeta const& table) {
  std::string const is = "\"" + column.name + "\"";
  std::string check = is + " IS NULL OR typeof(" + is + ") ";
  if (column.type == "uint" || column.reference()) {
    check += "= 'integer' AND " + is + " >= 0 OR typeof(" + is + ") = 'real' AND " + is +
             " >= 9223372036854775808.0 AND " + is + " <= 18446744073709551616.0";
  } else if (column.type == "boolean") {
    check += "= 'integer' AND " + is + " IN (0, 1)";
  } else {
    std::map<Kind, std::string> const types{{Kind::kInteger, "= 'integer'"},
                                            {Kind::kReal, "= 'real'"},
                                            {Kind::kText, "= 'text'"},
                                            {Kind::kBlob, "= 'blob'"}};
    check += types.at(column.kind);
  }
  std::string text = " CHECK (" + check + ")";
  if (column.required) text += " CHECK (" + is + " IS NOT NULL OR NOT " + OfTable(table) + ")";
  return text;
}

std::string NativeType(Kind kind) {
  switch (kind) {
    case Kind::kInteger:
      return "INTEGER";
    case Kind::kReal:
      return "REAL";
    case Kind::kText:
      return "TEXT";
    case Kind::kBlob:
      return "BLOB";
  }
  return "";
}

std::string ViewOf(TableMeta const& table) {
  std::string text = "CREATE VIEW \"" + table.name + "\" AS SELECT ";
  for (ColumnMeta const& column : table.columns()) text += "\"" + column.name + "\", ";
  return text + "_oid, _table FROM " + CopyOf(table) + " WHERE " + OfTable(table);
}

std::string CopyDefinition(TableMeta const& root) {
  std::string text = "CREATE TABLE " + CopyOf(root) + "(_oid INTEGER PRIMARY KEY, _table TEXT";
  for (TableMeta const& table : Tables()) {
    if (table.root != root.name) continue;
    for (ColumnMeta const& column : table.own) {
      text += ", \"" + column.name + "\" " + NativeType(column.kind) + CheckOf(column, table);
    }
  }
  return text + ")";
}

}  // namespace

std::vector<TableMeta> const& Tables() {
  using enum Kind;
  static std::vector<TableMeta> const tables{
      {"Person",
       "",
       "Person",
       {{"Name", "text", kText, true},
        {"Age", "bigint", kInteger, true},
        {"Score", "double", kReal, false},
        {"Boss", "ref", kInteger, true, false, false, "Person"}}},
      {"Item",
       "",
       "Item",
       {{"Title", "text", kText, true},
        {"Year", "bigint", kInteger, true, true},
        {"Number", "bigint", kInteger, false},
        {"Price", "decimal", kReal, true},
        {"Weight", "double", kReal, false},
        {"Stock", "uint", kInteger, false},
        {"Sold", "boolean", kInteger, true},
        {"Lender", "ref", kInteger, true, false, false, "Person"}}},
      {"Book",
       "Item",
       "Item",
       {{"Pages", "uint", kInteger, true},
        {"Isbn", "text", kText, true, false, true},
        {"Cover", "binary", kBlob, true}}},
      {"Novel",
       "Book",
       "Item",
       {{"Mood", "real", kReal, true},
        {"Sequel", "ref", kInteger, true, false, false, "Book"},
        {"Worth", "decimal", kReal, false}}},
      {"Film", "Item", "Item", {{"Minutes", "bigint", kInteger, true, true}}},
  };
  return tables;
}

TableMeta const& TableNamed(std::string const& name) {
  auto const found = std::find_if(Tables().begin(), Tables().end(),
                                  [&](TableMeta const& each) { return each.name == name; });
  if (found == Tables().end()) throw std::logic_error("no table " + name);
  return *found;
}

std::vector<ColumnMeta> TableMeta::columns() const {
  std::vector<ColumnMeta> all =
      base.empty() ? std::vector<ColumnMeta>() : TableNamed(base).columns();
  all.insert(all.end(), own.begin(), own.end());
  return all;
}

std::vector<std::string> TableMeta::subtree() const {
  std::vector<std::string> names{name};
  for (TableMeta const& table : Tables()) {
    if (std::find(names.begin(), names.end(), table.base) != names.end()) {
      names.push_back(table.name);
    }
  }
  return names;
}

bool TableMeta::Has(std::string const& column) const {
  auto const all = columns();
  return std::any_of(all.begin(), all.end(),
                     [&](ColumnMeta const& each) { return each.name == column; });
}

std::string OfTable(TableMeta const& table) {
  std::string list;
  for (std::string const& name : table.subtree()) {
    list += (list.empty() ? "'" : ", '") + FullName(name) + "'";
  }
  return "_table IN (" + list + ")";
}

std::vector<std::string> OurDefinitions() {
  std::vector<std::string> all;
  for (TableMeta const& table : Tables()) {
    std::string columns;
    for (ColumnMeta const& column : table.own) {
      columns += (columns.empty() ? "" : ", ") + column.name + " ";
      columns +=
          column.reference() ? "REF(" + FullName(column.target) + ")" : std::string(column.type);
      if (column.required) columns += " NOT NULL";
    }
    all.push_back("CREATE TABLE " + FullName(table.name) + " (" + columns + ")" +
                  (table.base.empty() ? "" : " UNDER " + FullName(table.base)));
  }
  return all;
}

std::vector<std::string> NativeDefinitions() {
  std::vector<std::string> all;
  for (TableMeta const& table : Tables()) {
    if (table.base.empty()) all.push_back(CopyDefinition(table));
    all.push_back(ViewOf(table));
  }
  return all;
}

std::vector<IndexMeta> const& Indexes() {
  static std::vector<IndexMeta> const indexes{
      {"BookByIsbn", "Book", "Isbn", true},
      {"PersonByName", "Person", "Name"},
      {"PersonByAge", "Person", "Age DESC, Name"},
      {"PersonByScore", "Person", "Score"},
      {"PersonByBoss", "Person", "Boss"},
      {"ItemByTitle", "Item", "Title, Year DESC"},
      {"ItemByTitleDown", "Item", "Title DESC"},
      {"ItemByYear", "Item", "Year"},
      {"ItemByNumber", "Item", "Number, Title"},
      {"ItemByPrice", "Item", "Price DESC"},
      {"ItemByWeight", "Item", "Weight, Year"},
      {"ItemByStock", "Item", "Stock"},
      {"ItemBySold", "Item", "Sold, Price, Title"},
      {"ItemByLender", "Item", "Lender, Year"},
      {"BookByPages", "Book", "Pages DESC, Title"},
      {"NovelByMood", "Novel", "Mood"},
      {"NovelByWorth", "Novel", "Worth"},
      {"NovelBySequel", "Novel", "Sequel"},
      {"FilmByMinutes", "Film", "Minutes DESC, Year"},
  };
  return indexes;
}

// SQLite needs its copies' indexes for what they refuse alone.
Dual DefinitionOf(IndexMeta const& index) {
  TableMeta const& table = TableNamed(index.table);
  std::string const ours = std::string("CREATE ") + (index.unique ? "UNIQUE " : "") + "INDEX " +
                           index.name + " ON " + FullName(index.table) + " (" + index.columns + ")";
  if (!index.unique) return {ours, ""};
  return {ours, "CREATE UNIQUE INDEX " + index.name + " ON " + CopyOf(table) + "(" + index.columns +
                    ") WHERE " + OfTable(table)};
}

}  // namespace sql_differential
