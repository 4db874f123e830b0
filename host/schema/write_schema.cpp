#include <sagleme/schema_document.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

std::string Field(char const* name, std::string const& text) {
  return text.empty() ? "" : ", \"" + std::string(name) + "\": " + JsonString(text);
}

template <typename Doc>
std::string FormerName(Doc const& entry) {
  return entry.is_new ? ", \"was\": null" : Field("was", entry.was);
}

std::string Identity(std::uint64_t id) { return id == 0 ? "" : ", \"id\": " + std::to_string(id); }

std::string ColumnJson(ColumnDoc const& column) {
  std::string json = "{\"name\": " + JsonString(column.name) + Identity(column.id);
  json += FormerName(column);
  json += Field("type", std::string(TypeName(column.type)));
  json += Field("target", column.target);
  // Types that always take null do not say so.
  if (column.nullable && !MustBeNullable(column.type)) json += ", \"nullable\": true";
  if (!IsNull(column.fallback)) json += ", \"default\": " + ValueJson(column.fallback);
  if (column.on_delete != OnDelete::kKeep) {
    json += Field("on_delete", std::string(OnDeleteName(column.on_delete)));
  }
  json += Field("comment", column.comment);
  return json + "}";
}

std::string IndexJson(IndexDoc const& index) {
  std::string json = "{\"name\": " + JsonString(index.name);
  if (index.unique) json += ", \"unique\": true";
  json += Field("comment", index.comment);
  json += ", \"columns\": [";
  for (std::size_t i = 0; i < index.columns.size(); ++i) {
    IndexColumnDoc const& column = index.columns[i];
    if (i != 0) json += ", ";
    json += column.descending ? "{\"name\": " + JsonString(column.name) + ", \"descending\": true}"
                              : JsonString(column.name);
  }
  return json + "]}";
}

template <typename T, typename ToJson>
std::string List(char const* name, std::vector<T> const& entries, ToJson&& to_json) {
  if (entries.empty()) return "";
  std::string json = ",\n     \"" + std::string(name) + "\": [";
  for (std::size_t i = 0; i < entries.size(); ++i) {
    json += (i == 0 ? "\n       " : ",\n       ") + to_json(entries[i]);
  }
  return json + "]";
}

std::string TableJson(TableDoc const& table) {
  std::string json = "{\"name\": " + JsonString(table.name) + Identity(table.id);
  json += FormerName(table) + Field("base", table.base);
  if (table.abstract) json += ", \"abstract\": true";
  json += Field("comment", table.comment);
  json += List("columns", table.columns, ColumnJson);
  json += List("indexes", table.indexes, IndexJson);
  return json + "}";
}

}  // namespace

std::string SchemaJson(SchemaDoc const& schema) {
  std::string json = "{\n  \"schema\": 1,\n";
  if (schema.database != 0) json += "  \"database\": " + std::to_string(schema.database) + ",\n";
  if (!schema.part.empty()) json += "  \"part\": " + JsonString(schema.part) + ",\n";
  json += "  \"tables\": [";
  for (std::size_t i = 0; i < schema.tables.size(); ++i) {
    json += (i == 0 ? "\n    " : ",\n    ") + TableJson(schema.tables[i]);
  }
  return json + "]\n}\n";
}

}  // namespace sagleme
