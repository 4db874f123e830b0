#include <sagleme/counts.hpp>
#include <sagleme/host/export.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

std::string CsvValue(Value const& value) {
  if (IsNull(value)) return "";
  std::string const text = ValueText(value);
  return text.empty() ? "\"\"" : CsvText(text);  // bare, it would be null
}

std::string TableText(Object const& object, Table const& fallback) {
  TablePtr const table = object.table();
  return ToUtf8(table == nullptr ? fallback.name : table->name);
}

}  // namespace

std::string CsvHeading(Table const& table, bool table_column) {
  std::string line = table_column ? "id,table" : "id";
  for (Column const* const column : UserColumns(table)) {
    line.append(",").append(CsvText(ToUtf8(column->name)));
  }
  return line + "\n";
}

std::string CsvLine(Object const& object, Table const& table, bool table_column) {
  std::string line = std::to_string(object.id().value);
  if (table_column) line.append(",").append(CsvText(TableText(object, table)));
  for (Column const* const column : UserColumns(table)) {
    line.append(",").append(CsvValue(object.Get(table, *column)));
  }
  return line + "\n";
}

std::string JsonLine(Object const& object, Table const& table, bool table_column) {
  std::string line = "{\"id\": " + std::to_string(object.id().value);
  if (table_column) line += ", \"table\": " + JsonString(TableText(object, table));
  for (Column const* const column : UserColumns(table)) {
    Value const value = object.Get(table, *column);
    if (IsNull(value)) continue;
    line += ", " + JsonString(ToUtf8(column->name)) + ": " + ValueJson(value);
  }
  return line + "}\n";
}

}  // namespace sagleme
