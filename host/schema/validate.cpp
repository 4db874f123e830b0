#include <fmt/format.h>

#include <map>
#include <sagleme/failure.hpp>
#include <sagleme/schema_document.hpp>
#include <set>

namespace sagleme {

ColumnDoc const* TableDoc::FindColumn(std::string const& column) const {
  for (ColumnDoc const& each : columns) {
    if (each.name == column) return &each;
  }
  return nullptr;
}

TableDoc const* SchemaDoc::Find(std::string const& table) const {
  for (TableDoc const& each : tables) {
    if (each.name == table) return &each;
  }
  return nullptr;
}

SchemaDoc CompletedSchema(SchemaDoc const& wanted, SchemaDoc const& present) {
  SchemaDoc whole = wanted;
  if (wanted.part.empty()) return whole;
  std::set<std::string> inside{wanted.part};
  for (TableDoc const& table : present.tables) {  // bases come first
    if (inside.contains(table.base)) inside.insert(table.name);
    if (!inside.contains(table.name)) whole.tables.push_back(table);
  }
  return whole;
}

namespace {

// Besides those that every table has.
constexpr std::size_t kMostColumns = metalayer::kMaxColumns - 3;

class Validator {
 public:
  Validator(SchemaDoc const& schema, std::string const& source) : source_(source) {
    for (TableDoc const& table : schema.tables) {
      if (!tables_.emplace(table.name, &table).second)
        Refuse("table {} is defined twice", table.name);
    }
  }

  void Check(TableDoc const& table) {
    CheckBases(table);
    CheckColumns(table);
    for (IndexDoc const& index : table.indexes) CheckIndex(table, index);
  }

 private:
  template <typename... Arguments>
  [[noreturn]] void Refuse(fmt::format_string<Arguments...> text, Arguments&&... arguments) const {
    throw Failure(Failure::Kind::kBadInput,
                  source_ + ": " + fmt::format(text, std::forward<Arguments>(arguments)...));
  }

  // Null for one of the catalogue and for the root.
  TableDoc const* Base(TableDoc const& table) const {
    auto const found = tables_.find(table.base);
    return found == tables_.end() ? nullptr : found->second;
  }
  bool Exists(std::string const& table) const {
    return tables_.contains(table) || detail::IsSystemTable(ToUtf16(table));
  }

  void CheckBases(TableDoc const& table) const {
    std::set<std::string> seen;
    for (TableDoc const* at = &table; at != nullptr; at = Base(*at)) {
      if (!seen.insert(at->name).second) Refuse("table {} derives from itself", table.name);
      if (!at->base.empty() && !Exists(at->base)) {
        Refuse("the base {} of table {} is not defined", at->base, at->name);
      }
    }
  }

  void CheckColumns(TableDoc const& table) const {
    std::map<std::string, std::string> seen;
    for (TableDoc const* at = &table; at != nullptr; at = Base(*at)) {
      for (ColumnDoc const& column : at->columns) {
        if (!seen.emplace(column.name, at->name).second) {
          Refuse("table {} would have two columns {}", table.name, column.name);
        }
      }
      if (seen.size() > kMostColumns) {
        Refuse(
            "table {} would have {} columns, and a table has at most {}, inherited ones included",
            table.name, seen.size(), kMostColumns);
      }
    }
    for (ColumnDoc const& column : table.columns) {
      if (column.name.starts_with("__")) {
        Refuse("column {} of table {}: names that begin with __ are reserved", column.name,
               table.name);
      }
      if (column.type == Type::kKey && !column.nullable) {
        Refuse(
            "column {} of table {} is of type key and must be \"nullable\"; or make it a ulong, "
            "which holds the same numbers",
            column.name, table.name);
      }
      if (!column.target.empty() && !Exists(column.target)) {
        Refuse("column {} of table {} refers to {}, which is not defined", column.name, table.name,
               column.target);
      }
    }
  }

  bool HasColumn(TableDoc const& table, std::string const& column) const {
    if (column == "__id" || column == "__setspecifier" || column == "__type_id") return true;
    for (TableDoc const* at = &table; at != nullptr; at = Base(*at)) {
      if (at->FindColumn(column) != nullptr) return true;
      if (!at->base.empty() && Base(*at) == nullptr)
        return true;  // the layer knows the catalogue's
    }
    return false;
  }

  void CheckIndex(TableDoc const& table, IndexDoc const& index) {
    if (!indexes_.insert(index.name).second) Refuse("index {} is defined twice", index.name);
    if (index.columns.empty()) Refuse("index {} has no columns", index.name);
    for (IndexColumnDoc const& column : index.columns) {
      if (HasColumn(table, column.name)) continue;
      Refuse("index {}: table {} has no column {}", index.name, table.name, column.name);
    }
  }

  std::string source_;
  std::map<std::string, TableDoc const*> tables_;
  std::set<std::string> indexes_;
};

}  // namespace

void ValidateSchema(SchemaDoc const& schema, std::string const& source) {
  Validator validator(schema, source);
  for (TableDoc const& table : schema.tables) validator.Check(table);
}

}  // namespace sagleme
