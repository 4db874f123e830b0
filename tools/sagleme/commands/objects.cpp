#include "commands/objects.h"

#include <fmt/format.h>

#include <algorithm>
#include <sagleme/host/own_columns.hpp>

#include "base/failure.h"
#include "base/interrupt.h"
#include "output/value_text.h"
#include "query/names.h"

namespace tool {
namespace {

// The table's columns, then those that its descendants add; two descendants may have columns of one
// name.
std::vector<std::u16string> ColumnNames(sagleme::Transaction& transaction,
                                        sagleme::Table const& table, Columns columns) {
  std::vector<std::u16string> names;
  auto const add = [&](sagleme::Table const& from) {
    for (sagleme::Column const* const column : UserColumns(from)) {
      bool const there = std::find(names.begin(), names.end(), column->name) != names.end();
      if (!there) names.push_back(column->name);
    }
  };
  add(table);
  if (columns == Columns::kOfTable) return names;
  for (sagleme::TablePtr const& each : transaction.Tables()) {
    if (each->IsA(table)) add(*each);
  }
  return names;
}

std::vector<std::string> Heading(sagleme::OwnColumns const& own,
                                 std::vector<std::u16string> const& columns) {
  std::vector<std::string> heading{own.id, own.table};
  for (std::u16string const& name : columns) heading.push_back(sagleme::ToUtf8(name));
  return heading;
}

std::string TableName(sagleme::Object const& object) {
  sagleme::TablePtr const table = object.table();
  return table == nullptr ? "(dropped)" : sagleme::ToUtf8(table->name);
}

void AddProperties(sagleme::Object const& object, std::string const& prefix,
                   Properties& properties) {
  sagleme::TablePtr const table = object.table();
  sagleme::OwnColumns const own = table == nullptr
                                      ? sagleme::OwnColumns{}
                                      : sagleme::OwnColumnsOf(object.transaction(), *table);
  properties.Add(prefix + own.id, Cell::Number(object.id().value));
  properties.Add(prefix + own.table, Cell::Text(TableName(object)));
  if (table == nullptr) return;
  for (sagleme::Column const* const column : UserColumns(*table)) {
    properties.Add(prefix + sagleme::ToUtf8(column->name), ValueCell(object.Get(*table, *column)));
  }
}

// The object at the end of a path of references; nothing if one of them is null or dangling.
std::optional<sagleme::Object> Follow(sagleme::Object at, std::string_view path) {
  while (!path.empty()) {
    auto const dot = path.find('.');
    std::string const name(path.substr(0, dot));
    path.remove_prefix(dot == std::string_view::npos ? path.size() : dot + 1);
    sagleme::TablePtr const table = at.table();
    if (table == nullptr) return std::nullopt;
    sagleme::Column const& column = ColumnNamed(*table, name);
    if (column.type != sagleme::Type::kReference) {
      throw Failure(Exit::kUsage, fmt::format("column {} is not a reference", name));
    }
    auto const value = at.Get(*table, column);
    auto const* const id = std::get_if<sagleme::ObjectId>(&value);
    auto const target = id == nullptr ? std::nullopt : sagleme::Object::Find(at.transaction(), *id);
    if (!target) return std::nullopt;
    at = *target;
  }
  return at;
}

}  // namespace

ObjectList::ObjectList(Output const& output, sagleme::Transaction& transaction,
                       sagleme::TablePtr table, Columns columns)
    : table_(std::move(table)),
      columns_(ColumnNames(transaction, *table_, columns)),
      writer_(output, Heading(sagleme::OwnColumnsOf(transaction, *table_), columns_)) {}

Cell ObjectList::CellOf(sagleme::Object const& object, sagleme::TablePtr const& own,
                        std::u16string const& column) const {
  if (sagleme::Column const* const shared = table_->FindColumn(column)) {
    return ValueCell(object.Get(*table_, *shared));
  }
  sagleme::Column const* const added = own == nullptr ? nullptr : own->FindColumn(column);
  return added == nullptr ? Cell{} : ValueCell(object.Get(*own, *added));
}

void ObjectList::Add(sagleme::Object const& object) {
  CheckInterrupt();
  sagleme::TablePtr const own = object.table();
  std::vector<Cell> row{Cell::Number(object.id().value), Cell::Text(TableName(object))};
  for (std::u16string const& column : columns_) row.push_back(CellOf(object, own, column));
  writer_.Add(std::move(row));
}

Properties ObjectProperties(sagleme::Object const& object, std::vector<std::string> const& follow) {
  Properties properties;
  AddProperties(object, "", properties);
  for (std::string const& path : follow) {
    if (auto const target = Follow(object, path)) AddProperties(*target, path + ".", properties);
  }
  return properties;
}

}  // namespace tool
