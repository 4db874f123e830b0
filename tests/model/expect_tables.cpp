// Tables as the model sees them: made, verified, renamed.

#include <algorithm>

#include "model/expect.h"

namespace sagleme_model {

namespace {

constexpr std::uint32_t kNoBase = SAGLEME_BASE_NOT_FOUND;
constexpr std::uint32_t kBadType = SAGLEME_TARGET_NOT_FOUND;
constexpr std::uint32_t kNoTable = SAGLEME_TABLE_NOT_FOUND;
constexpr std::uint32_t kMismatch = SAGLEME_SCHEMA_MISMATCH;
constexpr std::uint32_t kNotNullable = SAGLEME_COLUMN_NOT_NULLABLE;
constexpr std::uint32_t kTableExists = SAGLEME_TABLE_EXISTS;

bool ByRefs(CreateTable const& operation) { return operation.form == CreateTable::Form::kByRefs; }

// ---- an existing table ------------------------------------------------------------------------

[[noreturn]] void ThrowMismatch(Table const& table, Column const& column) {
  throw Failure{kMismatch, u"Schema of the input type does not match schema of existing type: " +
                               table.name + u" for column " + column.name + u"."};
}

[[noreturn]] void ThrowColumnCount(Table const& table, Text const& word) {
  throw Failure{kMismatch, u"Schema of the input type does not match schema of existing type: " +
                               table.name + u" " + word + u" input columns than existing."};
}

// A shortened name will do, one that fits several tables or none is a mismatch.
bool TargetMatches(Model const& model, Column const& column, ColumnDef const& definition,
                   bool by_refs) {
  if (!definition.type_name) return false;
  if (by_refs) {
    Table const* const target = model.FindTable(*definition.type_name);
    return target != nullptr && target->row == column.target;
  }
  try {
    return model.Resolve(*definition.type_name) == column.target;
  } catch (Failure const&) {
    return false;
  }
}

void VerifyColumn(Model const& model, Table const& table, Column const& column,
                  ColumnDef const& definition, bool by_refs) {
  if (column.nullable != definition.nullable) ThrowMismatch(table, column);
  model.CheckType(column);
  if (column.type != definition.type || column.name != definition.name)
    ThrowMismatch(table, column);
  if (column.type == kReference && !TargetMatches(model, column, definition, by_refs))
    ThrowMismatch(table, column);
}

void Verify(Model const& model, Table const& table, Table const* base,
            CreateTable const& operation) {
  Uid const given = base == nullptr ? Model::kRoot : base->row;
  if (table.base != given) {
    throw Failure{kMismatch, u"The existing base type of '" + table.name +
                                 u"' is different than the given base type."};
  }
  std::size_t next = 0;
  for (Column const& column : table.columns) {
    if (column.inherited()) continue;
    if (next == operation.columns.size()) ThrowColumnCount(table, u"fewer");
    VerifyColumn(model, table, column, operation.columns[next++], ByRefs(operation));
  }
  if (next != operation.columns.size()) ThrowColumnCount(table, u"more");
}

// ---- a new table ------------------------------------------------------------------------------

Table const* GivenBase(Model const& model, CreateTable const& operation) {
  if (!operation.base) return nullptr;
  Table const* const base = model.FindTable(*operation.base);
  if (base == nullptr) {
    throw Failure{kNoBase, u"Base table " + *operation.base + u" not found."};
  }
  return base;
}

Text TakeSetspec(Model& model, Table const& base, Uid table) {
  SetspecRow& parent = model.setspecs.at(base.setspec);
  Text const setspec = base.setspec + ChildLetters(parent.next_child++) + u"~";
  model.setspecs[setspec] = {table, 0};
  return setspec;
}

std::uint64_t TakeTypeId(Model& model, Uid table) {
  std::uint64_t const id = model.type_ids.rbegin()->first + 1;
  model.type_ids[id] = table;
  return id;
}

Table& WriteTable(Model& model, Text const& name, Table const& base) {
  model.Write();
  CheckReversedUidIsFree(model, name, 0);
  Table table;
  table.row = model.NextRow();
  table.base = base.row;
  table.name = name;
  table.layout_name = name;
  table.setspec = TakeSetspec(model, base, table.row);
  table.type_id = TakeTypeId(model, table.row);
  table.columns = base.columns;
  for (Column& column : table.columns) column.row = model.NextRow();
  return model.tables[table.row] = table;
}

}  // namespace

void Apply(Model& model, CreateTable const& operation) {
  CheckArgument(operation.name, u"name");
  if (operation.base && !ByRefs(operation)) CheckArgument(*operation.base, u"base_table_name");
  if (operation.columns.size() > kMaxDefinitions) ThrowTooManyColumns(operation.name);
  Table const* const given = GivenBase(model, operation);
  if (Table const* const existing = model.FindTable(operation.name)) {
    return Verify(model, *existing, given, operation);
  }
  Table const base = given == nullptr ? model.table(Model::kRoot) : *given;
  if (operation.columns.size() + base.columns.size() > kMaxColumns) {
    ThrowTooManyColumns(operation.name);
  }
  Table& table = WriteTable(model, operation.name, base);
  bool const strict = operation.form == CreateTable::Form::kCheckTypes;
  for (ColumnDef const& column : operation.columns) PopulateColumn(model, table, column, strict);
  ++model.generation;
}

void Apply(Model& model, RenameTable const& operation) {
  CheckArgument(operation.table, u"full_table_name");
  CheckArgument(operation.new_name, u"new_table_name");
  Table& table = ExistingTable(model, operation.table);
  if (model.FindTable(operation.new_name) != nullptr) {
    throw Failure{kTableExists, u"Table " + operation.new_name + u" already exists."};
  }
  model.Write();
  CheckReversedUidIsFree(model, operation.new_name, table.row);
  table.name = operation.new_name;
  for (auto& [row, other] : model.tables) {
    for (Column& column : other.columns) {
      if (column.target == table.row) column.target_name = table.name;
    }
  }
  ++model.generation;
}

// ---- shared -----------------------------------------------------------------------------------

void CheckArgument(Text const& value, Text const& name) {
  if (value.empty()) throw Failure{kBadArgument, u"Argument " + name + u" is empty."};
}

void ThrowTooManyColumns(Text const& table) {
  throw Failure{kBadArgument,
                u"Number of columns for table " + table + u" exceeds the limit of 112."};
}

Table& ExistingTable(Model& model, Text const& name) {
  Table const* const table = model.FindTable(name);
  if (table == nullptr) throw Failure{kNoTable, u"Table " + name + u" not found."};
  return model.table(table->row);
}

void CheckColumnNameIsFree(Table const& table, Text const& name) {
  if (table.FindColumn(name) != nullptr) throw Failure{kDuplicateKey, u""};
}

void CheckReversedUidIsFree(Model const& model, Text const& full_name, Uid except) {
  Text const uid = ReversedUid(full_name);
  for (auto const& [row, table] : model.tables) {
    if (row != except && ReversedUid(table.name) == uid) throw Failure{kDuplicateKey, u""};
  }
}

void PopulateColumn(Model& model, Table& table, ColumnDef const& definition, bool strict) {
  Column column;
  column.name = definition.name;
  column.type = definition.type;
  column.nullable = definition.nullable;
  if (!column.nullable && MustBeNullable(column.type)) {
    throw Failure{kNotNullable, u"Column " + column.name + u" must be nullable."};
  }
  if (column.type == kReference) {
    if (!definition.type_name) {
      throw Failure{kBadType, u"Reference type name missing in column " + column.name + u"."};
    }
    Table const* const target = model.FindTable(*definition.type_name);
    if (target == nullptr && strict) {
      throw Failure{kBadType, u"Reference type " + *definition.type_name +
                                  u" not found for column " + column.name + u"."};
    }
    column.target = target == nullptr ? 0 : target->row;
    column.target_name = *definition.type_name;
  } else if (column.type == 0 || column.type > kBool) {
    throw Failure{kBadType, u"Primitive type " + Decimal(column.type) + u" not found for column " +
                                column.name + u"."};
  }
  model.Write();
  CheckColumnNameIsFree(table, column.name);
  column.row = column.declared = model.NextRow();
  table.columns.push_back(column);
}

Text Decimal(std::uint64_t number) {
  std::string const digits = std::to_string(number);
  return Text(digits.begin(), digits.end());
}

}  // namespace sagleme_model
