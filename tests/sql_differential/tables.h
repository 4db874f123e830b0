#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_TABLES_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_TABLES_H

// The tables that statements are made for: people, and a tree of items.
//
// SQLite's copy of a tree is one table of all columns with a view for each table of the tree. The
// views have the names of our tables and the columns `_oid` and `_table`, so most statements are
// the same text for both.

#include <string>
#include <vector>

#include "dual.h"

namespace sql_differential {

enum class Kind { kInteger, kReal, kText, kBlob };

struct ColumnMeta {
  std::string name;
  std::string type;  // in a definition of ours
  Kind kind;
  // Sums of it are exact in any order, and it has no zero below 0.
  bool tame = false;
  bool required = false;
  bool unique = false;
  std::string target = {};  // of a reference

  bool reference() const { return !target.empty(); }
};

struct TableMeta {
  std::string name;
  std::string base;
  std::string root;
  std::vector<ColumnMeta> own;

  std::vector<ColumnMeta> columns() const;  // with those of the tables above
  std::vector<std::string> subtree() const;
  bool Has(std::string const& column) const;
};

std::vector<TableMeta> const& Tables();
TableMeta const& TableNamed(std::string const& name);
// The condition on SQLite's copy that objects are of the table.
std::string OfTable(TableMeta const& table);
inline std::string CopyOf(TableMeta const& table) { return table.root + "_all"; }

// Statements of sagleme_exec that define the tables, and those that define SQLite's copies.
std::vector<std::string> OurDefinitions();
std::vector<std::string> NativeDefinitions();

struct IndexMeta {
  std::string name;
  std::string table;
  std::string columns;
  bool unique = false;
};
std::vector<IndexMeta> const& Indexes();
// Its two definitions; ours without sagleme_exec around it.
Dual DefinitionOf(IndexMeta const& index);

}  // namespace sql_differential

#endif
