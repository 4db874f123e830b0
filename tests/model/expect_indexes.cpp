// Indexes, deferred references and the classes of the language level.

#include <algorithm>

#include "model/expect.h"

namespace sagleme_model {

namespace {

constexpr std::uint32_t kIndexExists = SAGLEME_INDEX_EXISTS;
constexpr std::uint32_t kNoIndex = SAGLEME_INDEX_NOT_FOUND;
constexpr std::uint32_t kNoColumn = SAGLEME_COLUMN_NOT_FOUND;
constexpr std::uint32_t kNotOfTable = SAGLEME_INDEX_OF_ANOTHER_TABLE;
constexpr std::uint32_t kBadIndexColumns = SAGLEME_BROKEN_CATALOGUE;
constexpr std::uint32_t kBadType = SAGLEME_TARGET_NOT_FOUND;
constexpr std::size_t kMaxIndexColumns = 15;

Column const& NamedColumn(Table const& table, Text const& name) {
  Column const* const column = table.FindColumn(name);
  if (column != nullptr) return *column;
  throw Failure{kNoColumn, u"Column " + name + u" isn't found in table " + table.name +
                               u" and ancestor tables."};
}

Column const& ColumnAt(Table const& table, int ordinal, Text const& index) {
  if (static_cast<std::size_t>(ordinal) < table.columns.size()) {
    return table.columns[static_cast<std::size_t>(ordinal)];
  }
  throw Failure{kBadIndexColumns, u"Raw column " + Decimal(static_cast<std::uint64_t>(ordinal)) +
                                      u" doesn't exist for index " + index + u"."};
}

std::vector<Column> ColumnsByName(Table const& table, CreateIndex const& operation) {
  std::vector<Column> columns;
  for (IndexPart const& part : operation.parts) {
    if (columns.size() > kMaxIndexColumns) break;
    columns.push_back(NamedColumn(table, part.column));
  }
  if (columns.size() <= kMaxIndexColumns) return columns;
  throw Failure{kBadIndexColumns, u"Number of columns in index " + operation.name + u" for table " +
                                      table.name + u" doesn't fit into 16 bit sort mask."};
}

// Index entries of the objects that are there.
void CheckNoDuplicates(Model const& model, Index const& index) {
  for (Object const* object : model.ObjectsUnder(index.setspec)) {
    if (!model.KeyIsFree(index, *object)) throw Failure{kDuplicateKey, u""};
  }
}

Uid FirstOpen(Model const& model, bool* more) {
  for (auto const& [row, column] : model.ReferenceColumns()) {
    if (!column->deferred()) continue;
    *more = true;
    return column->row;
  }
  *more = false;
  return 0;
}

Column& ColumnByRow(Model& model, Uid column_row) {
  for (auto& [row, table] : model.tables) {
    for (Column& column : table.columns) {
      if (column.row == column_row) return column;
    }
  }
  throw Failure{0, u"no such column in the model"};
}

}  // namespace

void Apply(Model& model, CreateIndex const& operation) {
  bool const by_names = operation.form == CreateIndex::Form::kByNames;
  Table const& table = ExistingTable(model, operation.table);
  std::vector<Column> columns;
  if (by_names) columns = ColumnsByName(table, operation);
  if (model.FindIndex(operation.name) != nullptr) {
    throw Failure{kIndexExists, u"Index " + operation.name + u" already exists."};
  }
  for (std::size_t i = 0; i < operation.parts.size(); ++i) {
    if (!by_names) columns.push_back(ColumnAt(table, operation.parts[i].ordinal, operation.name));
    model.CheckType(columns[i]);
  }
  model.Write();
  Index index{model.NextRow(), operation.name, table.row, table.setspec, operation.unique, {}};
  for (std::size_t i = 0; i < columns.size(); ++i) {
    index.columns.push_back({columns[i].row, columns[i].declared, operation.parts[i].ascending});
  }
  if (index.unique) CheckNoDuplicates(model, index);
  if (columns.size() > kMaxIndexColumns) {
    throw Failure{kBadIndexColumns, u"Number of columns in index " + operation.name +
                                        u" doesn't fit into 16 bit sort mask."};
  }
  model.indexes[index.row] = index;
  ++model.generation;
}

void Apply(Model& model, DropIndex const& operation) {
  Uid table = 0;
  bool const with_table = operation.form == DropIndex::Form::kByTableAndName;
  if (with_table) table = model.Resolve(operation.table);
  Index const* const index = model.FindIndex(operation.name);
  if (index == nullptr) throw Failure{kNoIndex, u"Index " + operation.name + u" not found."};
  if (with_table && index->table != table) {
    throw Failure{kNotOfTable, u"Index " + operation.name + u" doesn't belong to the table " +
                                   model.table(table).name + u"."};
  }
  RemoveIndex(model, index->row);
}

void Apply(Model& model, UpdateReferences const&) {
  bool more = false;
  for (Uid row = FirstOpen(model, &more); more; row = FirstOpen(model, &more)) {
    Column& column = ColumnByRow(model, row);
    Table const* const target = model.FindTable(column.target_name);
    if (target == nullptr) {
      throw Failure{kBadType, u"Column " + column.name + u" refers to an unknown type " +
                                  column.target_name + u"."};
    }
    model.Write();
    column.target = target->row;
  }
}

void Apply(Model& model, CleanClasses const&) {
  model.mappings.clear();
  model.classes.clear();
}

void Apply(Model& model, MapClass const& operation) {
  Uid const row = model.NextRow();
  model.classes[row] = {row, operation.name, ExistingTable(model, operation.table).row};
}

void Apply(Model& model, MapColumn const& operation) {
  Uid const row = model.NextRow();
  Uid class_row = 0;
  for (auto const& [each, known] : model.classes) {
    if (known.name == operation.class_name) class_row = each;
  }
  Column const& column = NamedColumn(ExistingTable(model, operation.table), operation.column);
  model.mappings[row] = {row, operation.name, class_row, column.row};
}

void RemoveIndex(Model& model, Uid index) {
  model.Write();
  model.indexes.erase(index);
  ++model.generation;
}

}  // namespace sagleme_model
