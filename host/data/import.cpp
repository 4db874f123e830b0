#include <fmt/format.h>

#include <algorithm>
#include <sagleme/host/duplicates.hpp>
#include <sagleme/host/import.hpp>
#include <sagleme/host/references.hpp>

#include "text/json_value.h"

namespace sagleme {
namespace {

bool IsNumber(std::string const& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

RowField const* FindField(std::vector<RowField> const& row, std::string_view name) {
  for (RowField const& field : row) {
    if (field.name == name) return &field;
  }
  return nullptr;
}

}  // namespace

void Importer::Add(std::vector<RowField> const& row) {
  TablePtr const table = TableOf(row);
  ObjectId const id = IdOf(row);
  std::vector<Assignment> const assignments = Assignments(*table, row);
  FilePlace const place = row.empty() ? FilePlace{} : row.front().place;
  std::optional<Object> object;
  try {
    object = Object::CreateWithId(transaction_, *table, id);
  } catch (Error const& error) {
    throw BadRow(place, error.what());
  }
  try {
    for (Assignment const& assignment : assignments) {
      Write(*object, *table, assignment, assignments);
    }
  } catch (BadRow const&) {
    object->Delete();
    throw;
  }
}

void Importer::Write(Object& object, Table const& table, Assignment const& assignment,
                     std::vector<Assignment> const& all) {
  try {
    // With their ids kept objects may refer to rows that come later.
    if (keep_ids_ && assignment.column->type == Type::kReference) {
      detail::PutValue(
          {transaction_.context(), object.id().value, table.layout, assignment.column->ordinal},
          Type::kReference, assignment.value);
    } else {
      object.Set(table, *assignment.column, assignment.value);
    }
  } catch (Error const& error) {
    if (error.status() == LSCOREDB_DUPLICATE_KEY) RefuseDuplicate(object, table, assignment, all);
    throw BadRow(assignment.place,
                 fmt::format("column {}: {}", ToUtf8(assignment.column->name), error.what()));
  }
}

// Returns when no other object can be found that has the key.
void Importer::RefuseDuplicate(Object const& object, Table const& table,
                               Assignment const& assignment, std::vector<Assignment> const& all) {
  std::vector<NewValue> values;
  for (Assignment const& each : all) values.push_back({each.column, each.value});
  std::string const text = DescribeDuplicate(transaction_, object, table, values);
  if (!text.empty()) throw BadRow(assignment.place, text);
}

void Importer::CheckNames(std::vector<RowField> const& names) const {
  bool const many_tables = FindField(names, kTableField) != nullptr;
  std::vector<TablePtr> tables{table_};
  for (TablePtr const& table : transaction_.Tables()) {
    if (many_tables && table->IsA(*table_)) tables.push_back(table);
  }
  for (RowField const& field : names) {
    if (field.name == kIdField || field.name == kTableField) continue;
    std::u16string const name = ToUtf16(field.name);
    bool const known = std::any_of(tables.begin(), tables.end(), [&](auto const& table) {
      Column const* const column = table->FindColumn(name);
      return column != nullptr && !column->system();
    });
    if (!known) {
      throw BadRow(field.place,
                   fmt::format("table {} has no column {}", ToUtf8(table_->name), field.name));
    }
  }
  if (!names.empty()) RequireColumns(*table_, names);
}

// A column without a value would silently become zero.
void Importer::RequireColumns(Table const& table, std::vector<RowField> const& row) const {
  for (Column const& column : table.columns) {
    if (column.nullable || column.system()) continue;
    std::string const name = ToUtf8(column.name);
    if (FindField(row, name) != nullptr) continue;
    throw BadRow(row.empty() ? FilePlace{} : row.front().place,
                 fmt::format("column {} of table {} is missing, and takes no null", name,
                             ToUtf8(table.name)));
  }
}

TablePtr Importer::TableOf(std::vector<RowField> const& row) const {
  RowField const* const field = FindField(row, kTableField);
  // A column of that name goes before.
  if (field == nullptr || field->null || table_->FindColumn(u"table") != nullptr) return table_;
  TablePtr const table = transaction_.Find(ToUtf16(field->text));
  if (table != nullptr && table->IsA(*table_)) return table;
  throw BadRow(field->place, fmt::format("{} is neither {} nor derived from it", field->text,
                                         ToUtf8(table_->name)));
}

ObjectId Importer::IdOf(std::vector<RowField> const& row) const {
  RowField const* const field = FindField(row, kIdField);
  if (!keep_ids_ || field == nullptr || field->null) return {};
  if (!IsNumber(field->text)) throw BadRow(field->place, "the id is not a number");
  try {
    return {std::get<std::uint64_t>(ParseValue(Type::kULong, field->text))};
  } catch (BadValue const& error) {
    throw BadRow(field->place, error.what());
  }
}

std::vector<Importer::Assignment> Importer::Assignments(Table const& table,
                                                        std::vector<RowField> const& row) {
  RequireColumns(table, row);
  std::vector<Assignment> assignments;
  for (RowField const& field : row) {
    Column const* const column = table.FindColumn(ToUtf16(field.name));
    if (column != nullptr && !column->system()) {
      assignments.push_back({column, ParseField(*column, field), field.place});
    } else if (field.name != kIdField && field.name != kTableField) {
      throw BadRow(field.place,
                   fmt::format("table {} has no column {}", ToUtf8(table.name), field.name));
    }
  }
  return assignments;
}

Value Importer::ParseField(Column const& column, RowField const& field) {
  try {
    if (column.type == Type::kReference && !field.null && !IsNumber(field.text)) {
      return ReferencedObject(transaction_, column, field.text);
    }
    Value value = field.parse(column.type);
    if (!IsNull(value) || column.nullable) return value;
    throw BadValue("a value is needed; the column takes no null");
  } catch (BadValue const& error) {
    throw BadRow(field.place, fmt::format("column {}: {}", field.name, error.what()));
  }
}

}  // namespace sagleme
