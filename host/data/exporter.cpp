#include "data/exporter.h"

#include "commands/objects.h"
#include "output/text.h"
#include "text/json_value.h"

namespace tool {
namespace {

std::string CsvValue(sagleme::Value const& value) {
  if (sagleme::IsNull(value)) return "";
  std::string const text = sagleme::ValueText(value);
  return text.empty() ? "\"\"" : CsvText(text);  // bare, it would be null
}

std::string TableText(sagleme::Object const& object, sagleme::Table const& fallback) {
  sagleme::TablePtr const table = object.table();
  return sagleme::ToUtf8(table == nullptr ? fallback.name : table->name);
}

}  // namespace

std::string CsvHeading(sagleme::Table const& table, bool table_column) {
  std::string line = table_column ? "id,table" : "id";
  for (sagleme::Column const* const column : sagleme::UserColumns(table)) {
    line += "," + CsvText(sagleme::ToUtf8(column->name));
  }
  return line + "\n";
}

std::string CsvLine(sagleme::Object const& object, sagleme::Table const& table, bool table_column) {
  std::string line = std::to_string(object.id().value);
  if (table_column) line += "," + CsvText(TableText(object, table));
  for (sagleme::Column const* const column : sagleme::UserColumns(table)) {
    line += "," + CsvValue(object.Get(table, *column));
  }
  return line + "\n";
}

std::string JsonLine(sagleme::Object const& object, sagleme::Table const& table,
                     bool table_column) {
  std::string line = "{\"id\": " + std::to_string(object.id().value);
  if (table_column) line += ", \"table\": " + JsonString(TableText(object, table));
  for (sagleme::Column const* const column : sagleme::UserColumns(table)) {
    sagleme::Value const value = object.Get(table, *column);
    if (sagleme::IsNull(value)) continue;
    line += ", " + JsonString(sagleme::ToUtf8(column->name)) + ": " + sagleme::ValueJson(value);
  }
  return line + "}\n";
}

}  // namespace tool
