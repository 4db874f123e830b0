#include "commands/objects.h"

#include <fmt/format.h>

#include "cli/failure.h"
#include "cli/interrupt.h"
#include "commands/names.h"
#include "output/value_text.h"

namespace tool {
namespace {

std::vector<std::string> Heading(sagleme::Table const& table) {
  std::vector<std::string> heading{"id", "table"};
  for (sagleme::Column const* const column : UserColumns(table)) {
    heading.push_back(sagleme::ToUtf8(column->name));
  }
  return heading;
}

std::string TableName(sagleme::Object const& object) {
  sagleme::TablePtr const table = object.table();
  return table == nullptr ? "(dropped)" : sagleme::ToUtf8(table->name);
}

void AddProperties(sagleme::Object const& object, std::string const& prefix,
                   Properties& properties) {
  properties.Add(prefix + "id", Cell::Number(object.id().value));
  properties.Add(prefix + "table", Cell::Text(TableName(object)));
  sagleme::TablePtr const table = object.table();
  if (table == nullptr) return;
  for (sagleme::Column const* const column : UserColumns(*table)) {
    properties.Add(prefix + sagleme::ToUtf8(column->name), ValueCell(object.Get(*table, *column)));
  }
}

// The object at the end of a path of references; nothing when one of them is null or dangles.
std::optional<sagleme::Object> Follow(sagleme::Object at, std::string_view path) {
  while (!path.empty()) {
    auto const dot = path.find('.');
    std::string const name(path.substr(0, dot));
    path.remove_prefix(dot == std::string_view::npos ? path.size() : dot + 1);
    sagleme::TablePtr const table = at.table();
    if (table == nullptr) return std::nullopt;
    sagleme::Column const& column = ColumnNamed(*table, name);
    if (column.type != sagleme::Type::kReference) {
      throw Failure(Exit::kUsage, fmt::format("column {} is no reference", name));
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

std::vector<sagleme::Column const*> UserColumns(sagleme::Table const& table) {
  std::vector<sagleme::Column const*> columns;
  for (sagleme::Column const& column : table.columns) {
    if (!column.system()) columns.push_back(&column);
  }
  return columns;
}

ObjectList::ObjectList(Output const& output, sagleme::TablePtr table)
    : table_(std::move(table)), writer_(output, Heading(*table_)) {}

void ObjectList::Add(sagleme::Object const& object) {
  CheckInterrupt();
  std::vector<Cell> row{Cell::Number(object.id().value), Cell::Text(TableName(object))};
  for (sagleme::Column const* const column : UserColumns(*table_)) {
    row.push_back(ValueCell(object.Get(*table_, *column)));
  }
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
