#ifndef PACKAGES_CATALOGUE_H
#define PACKAGES_CATALOGUE_H

// What a transaction sees of tables and packages, as values that outlive it and can be compared.
//
// Unlike the rest of the program this knows no table but Debian.Package beforehand: it reads from
// the catalogue which tables and columns there are.

#include <cstdint>
#include <map>
#include <sagleme/host.hpp>
#include <string>
#include <utility>
#include <vector>

#include "session.h"

namespace packages {

struct ColumnView {
  std::string name;
  sagleme::Type type;
  bool nullable;
  bool operator==(ColumnView const&) const = default;
};

struct TableView {
  std::string base;  // empty for none of the program's
  uint16_t layout;
  std::vector<ColumnView> columns;  // inherited ones first
  std::vector<std::string> indexes;
  bool operator==(TableView const&) const = default;
};

struct PackageView {
  uint64_t type_id;                 // 0: its table was dropped
  std::string table;                // empty then
  std::vector<std::string> values;  // as the columns of the table; null is an empty text
  bool operator==(PackageView const&) const = default;
};

struct View {
  uint64_t generation;
  std::map<std::string, TableView> tables;   // by full name
  std::map<uint64_t, PackageView> packages;  // by object id
  bool operator==(View const&) const = default;
};

// Every value of every package is read, through handles that are asked for now.
View ViewOf(sagleme::Transaction& transaction);

// One property of an object as a text; null is an empty one.
std::string ReadText(uint64_t context, PropertyAccessInfo const* handle, sagleme::Type type,
                     LS_OBJ_REF const& object);

// The tables, one a line, children below their base and set in.
void PrintTables(View const& view);

}  // namespace packages

#endif
