// Columns as the model sees them: added, dropped, renamed, all down the subtree.

#include <algorithm>
#include <set>

#include "model/expect.h"

namespace sagleme_model {

namespace {

constexpr std::uint32_t kNameTaken = SAGLEME_COLUMN_NAME_TAKEN;
constexpr std::uint32_t kNoColumn = SAGLEME_NO_SUCH_COLUMN;
constexpr std::uint32_t kInherited = SAGLEME_COLUMN_INHERITED;
constexpr std::uint32_t kIndexed = SAGLEME_COLUMN_INDEXED;
constexpr std::uint32_t kMapped = SAGLEME_COLUMN_MAPPED;
constexpr std::uint32_t kReferenced = SAGLEME_TABLE_REFERENCED;

// ---- adding -----------------------------------------------------------------------------------

// All obstacles at one table, in one text.
void CheckAddedNames(Table const& table, std::vector<ColumnDef> const& columns, bool descendant) {
  std::set<std::pair<Text, bool>> existing;
  std::set<Text> below;
  std::vector<Text> parts;
  std::vector<Text> added;
  std::set<Text> seen;
  for (ColumnDef const& column : columns) {
    if (!seen.insert(column.name).second) added.push_back(column.name);
    Column const* const taken = table.FindColumn(column.name);
    if (taken == nullptr) continue;
    if (descendant) {
      below.insert(column.name);
    } else {
      existing.insert({column.name, taken->inherited()});
    }
  }
  for (auto const& [name, inherited] : existing) {
    parts.push_back(u"added column " + name + u" conflicts with " +
                    (inherited ? u"inherited" : u"existing") + u" column");
  }
  for (Text const& name : below) {
    parts.push_back(u"added column " + name + u" conflicts with column from descendant table " +
                    table.name);
  }
  if (parts.empty() && added.empty()) return;
  Text text = u"Table " + table.name + u": ";
  for (std::size_t i = 0; i < parts.size(); ++i) text += (i == 0 ? u"" : u"; ") + parts[i];
  for (Text const& name : added) {
    text += (parts.empty() ? u"" : u"; ") + Text(u"added column ") + name +
            u" conflicts with other added column";
  }
  throw Failure{kNameTaken, text + u"."};
}

void CheckRoom(Table const& table, std::size_t count) {
  if (table.columns.size() + count > kMaxColumns) ThrowTooManyColumns(table.name);
}

// The columns stand behind those that the parent had, and push the child's own ones up.
void AddInherited(Model& model, Uid child_row, std::vector<ColumnDef> const& definitions,
                  std::vector<Column> const& columns, std::size_t at) {
  Table& child = model.table(child_row);
  CheckAddedNames(child, definitions, true);
  CheckOwnTypes(model, child);
  CheckRoom(child, columns.size());
  model.Write();
  auto where = child.columns.begin() + static_cast<std::ptrdiff_t>(at);
  for (Column column : columns) {
    column.row = model.NextRow();
    where = child.columns.insert(where, column) + 1;
  }
  model.RequestMove(child);
  for (Uid const grandchild : model.ChildrenOf(child_row)) {
    AddInherited(model, grandchild, definitions, columns, at);
  }
}

// ---- dropping ---------------------------------------------------------------------------------

Text OnTable(Table const& table, std::size_t count) {
  Text const tail = count == 2 ? u" and one other" : count > 2 ? u" and others" : u"";
  return u" on table " + table.name + tail + u".";
}

void CheckUses(Model const& model, Table const& table, Column const& column) {
  std::vector<Text> indexes;
  for (auto const& [row, index] : model.indexes) {
    bool const holds = std::any_of(index.columns.begin(), index.columns.end(),
                                   [&](IndexColumn const& part) { return part.row == column.row; });
    if (holds) indexes.push_back(index.name);
  }
  if (!indexes.empty()) {
    throw Failure{kIndexed, u"Column " + column.name + u" is a part of index " + indexes[0] +
                                OnTable(table, indexes.size())};
  }
  std::vector<Text> mappings;
  for (auto const& [row, mapping] : model.mappings) {
    if (mapping.column_row == column.row) mappings.push_back(mapping.name);
  }
  if (!mappings.empty()) {
    throw Failure{kMapped, u"Column " + column.name + u" is mapped by " + mappings[0] +
                               OnTable(table, mappings.size())};
  }
}

void DropFrom(Model& model, Uid row, std::size_t ordinal) {
  Table& table = model.table(row);
  Column const column = table.columns[ordinal];
  CheckNoClass(model, table);
  CheckUses(model, table, column);
  CheckOwnTypes(model, table, column.declared);
  model.Write();
  table.columns.erase(table.columns.begin() + static_cast<std::ptrdiff_t>(ordinal));
  model.RequestMove(table);
  for (Uid const child : model.ChildrenOf(row)) DropFrom(model, child, ordinal);
  ++model.generation;
}

// ---- renaming ---------------------------------------------------------------------------------

Column const& OwnColumn(Table const& table, Text const& name) {
  Column const* const column = table.FindColumn(name);
  if (column == nullptr) {
    throw Failure{kNoColumn, u"Column " + name + u" isn't found in table " + table.name + u"."};
  }
  if (column->inherited()) {
    throw Failure{kInherited, u"Column " + name + u" is inherited by table " + table.name + u"."};
  }
  return *column;
}

Text DeclaringTable(Model const& model, Column const& column) {
  for (auto const& [row, table] : model.tables) {
    for (Column const& each : table.columns) {
      if (each.row == column.declared) return table.name;
    }
  }
  return u"";
}

void CheckNewName(Model const& model, Table const& table, Text const& name) {
  Column const* const taken = table.FindColumn(name);
  if (taken == nullptr) return;
  Text const place = taken->inherited() ? u" in ancestor table " + DeclaringTable(model, *taken)
                                        : u" in the table " + table.name;
  throw Failure{kNameTaken,
                u"New column name " + name + u" conflicts with existing column" + place + u"."};
}

void RenameBelow(Model& model, Uid row, std::size_t ordinal, Text const& name,
                 std::vector<Text>& conflicts) {
  for (Uid const child_row : model.ChildrenOf(row)) {
    Table& child = model.table(child_row);
    Column const* const taken = child.FindColumn(name);
    if (taken != nullptr && !taken->inherited()) conflicts.push_back(child.name);
    child.columns[ordinal].name = name;
    RenameBelow(model, child_row, ordinal, name, conflicts);
  }
}

void ReportConflicts(Text const& name, std::vector<Text> const& conflicts) {
  if (conflicts.empty()) return;
  Text tables;
  for (Text const& each : conflicts) tables += (tables.empty() ? u"" : u", ") + each;
  throw Failure{kNameTaken, u"New column name " + name + u" conflicts with existing column in " +
                                u"exactly " + Decimal(conflicts.size()) + u" descendant table" +
                                (conflicts.size() > 1 ? u"s: " : u": ") + tables + u"."};
}

}  // namespace

void Apply(Model& model, AddColumns const& operation) {
  CheckArgument(operation.table, u"full_table_name");
  if (operation.columns.size() > kMaxDefinitions) ThrowTooManyColumns(operation.table);
  Table& table = ExistingTable(model, operation.table);
  if (operation.columns.empty()) {
    throw Failure{kBadArgument, u"No column definitions provided."};
  }
  CheckAddedNames(table, operation.columns, false);
  CheckOwnTypes(model, table);
  CheckRoom(table, operation.columns.size());
  std::size_t const at = table.columns.size();
  for (ColumnDef const& column : operation.columns) PopulateColumn(model, table, column, false);
  std::vector<Column> const added(table.columns.begin() + static_cast<std::ptrdiff_t>(at),
                                  table.columns.end());
  model.RequestMove(table);
  for (Uid const child : model.ChildrenOf(table.row)) {
    AddInherited(model, child, operation.columns, added, at);
  }
  ++model.generation;
}

void Apply(Model& model, DropColumn const& operation) {
  CheckArgument(operation.table, u"full_table_name");
  CheckArgument(operation.column, u"column_name");
  Table const& table = ExistingTable(model, operation.table);
  Uid const declared = OwnColumn(table, operation.column).declared;
  DropFrom(model, table.row, table.OrdinalOf(declared));
  model.ForgetColumn(declared);
}

void Apply(Model& model, RenameColumn const& operation) {
  CheckArgument(operation.table, u"full_table_name");
  CheckArgument(operation.column, u"column_name");
  CheckArgument(operation.new_name, u"column_new_name");
  Table& table = ExistingTable(model, operation.table);
  CheckNewName(model, table, operation.new_name);
  std::size_t const ordinal = table.OrdinalOf(OwnColumn(table, operation.column).declared);
  model.Write();
  table.columns[ordinal].name = operation.new_name;
  std::vector<Text> conflicts;
  RenameBelow(model, table.row, ordinal, operation.new_name, conflicts);
  ReportConflicts(operation.new_name, conflicts);
  ++model.generation;
}

// ---- shared -----------------------------------------------------------------------------------

void CheckOwnTypes(Model const& model, Table const& table, Uid except_declared) {
  for (Column const& column : table.columns) {
    if (!column.inherited() && column.declared != except_declared) model.CheckType(column);
  }
}

void CheckNoClass(Model const& model, Table const& table) {
  std::vector<Text> names;
  for (auto const& [row, each] : model.classes) {
    if (each.mapper == table.row) names.push_back(each.name);
  }
  if (names.empty()) return;
  Text const tail = names.size() == 2 ? u" and another" : names.size() > 2 ? u" and others" : u"";
  throw Failure{kReferenced, u"Table " + table.name + u" is still referenced by clr class " +
                                 names[0] + tail + u"."};
}

}  // namespace sagleme_model
