#include "model/generator.h"

#include <algorithm>

namespace sagleme_model {

namespace {

constexpr std::size_t kManyTables = 14;
constexpr std::size_t kManyObjects = 60;

std::vector<Table const*> UserTables(Model const& model) {
  std::vector<Table const*> tables;
  for (auto const& [row, table] : model.tables) {
    if (row != Model::kRoot) tables.push_back(&table);
  }
  return tables;
}

// No table of the subtree has a type that cannot be read, but for the column that goes.
bool CanChangeLayouts(Model const& model, Text const& table, Uid except_declared) {
  Table const* const top = model.FindTable(table);
  if (top == nullptr) return true;
  std::vector<Uid> const subtree = model.SubtreeOf(top->row);
  return std::none_of(subtree.begin(), subtree.end(),
                      [&](Uid row) { return model.HasDeferredOwnColumn(row, except_declared); });
}

std::vector<Object const*> LiveObjects(Model const& model) {
  std::vector<Object const*> objects;
  for (auto const& [row, object] : model.objects) {
    if (model.tables.contains(object.table)) objects.push_back(&object);
  }
  return objects;
}

}  // namespace

Operation Generator::Draw(Model const& model) {
  bool const schema = UserTables(model).size() < 3 || Chance(45);
  return schema ? DrawSchemaChange(model) : DrawObjectOperation(model);
}

Operation Generator::DrawSchemaChange(Model const& model) {
  std::size_t const tables = UserTables(model).size();
  if (tables < 3) return DrawCreateTable(model);
  if (tables > kManyTables && Chance(50)) return DrawDrop(model);
  switch (Below(24)) {
    case 0:
    case 1:
    case 2:
    case 3:
      return DrawCreateTable(model);
    case 4:
    case 5:
    case 6:
      return DrawAddColumns(model);
    case 7:
    case 8:
    case 9:
      return DrawDropColumn(model);
    case 10:
    case 11:
    case 12:
      return DrawRename(model);
    case 13:
    case 14:
    case 15:
    case 16:
    case 17:
      return DrawCreateIndex(model);
    case 18:
      return DrawDropIndex(model);
    case 19:
      return DrawMapping(model);
    case 20:
      return UpdateReferences{};
    default:
      return DrawDrop(model);
  }
}

Operation Generator::DrawObjectOperation(Model const& model) {
  std::vector<Object const*> const live = LiveObjects(model);
  if (live.empty() || (model.objects.size() < kManyObjects && Chance(20))) {
    return DrawCreateObject(model);
  }
  if (Chance(7)) {
    auto at = model.objects.begin();
    std::advance(at, static_cast<std::ptrdiff_t>(Below(model.objects.size())));
    return DeleteObject{at->first};
  }
  if (Chance(4)) return AskProperty{AnyTable(model), ColumnName()};
  return DrawWrite(model);
}

// ---- names ------------------------------------------------------------------------------------

Text Generator::NewName() {
  static std::vector<Text> const spaces = {u"", u"A.", u"App.Model.", u"Shop.", u"A.B."};
  static std::vector<Text> const names = {u"Customer", u"Cust", u"CustomerOrder",
                                          u"Order",    u"Item", u"Part",
                                          u"Node",     u"Raw",  u"\u00c4rger"};
  Text const end = Chance(3) ? u"." : u"";
  return OneOf(spaces) + OneOf(names) + (Chance(40) ? u"2" : u"") + end;
}

Text Generator::AnyTable(Model const& model) {
  std::vector<Table const*> const tables = UserTables(model);
  if (Chance(1)) return u"";
  return tables.empty() || Chance(3) ? NewName() : OneOf(tables)->name;
}

Text Generator::Shortened(Text const& full_name) {
  std::vector<Text> const segments = SplitName(full_name);
  if (segments.empty()) return full_name;
  Text text;
  for (std::size_t i = Below(segments.size()); i < segments.size(); ++i) {
    text += (text.empty() ? u"" : u".") + segments[i];
  }
  if (Chance(10) && text.size() > 2) text.pop_back();
  return text;
}

Text Generator::ColumnName() {
  static std::vector<Text> const names = {u"Name", u"name", u"Price", u"Count", u"Next",
                                          u"Flag", u"Data", u"Extra", u"Ratio", u"\u00df"};
  if (Chance(1)) return u"__id";
  return OneOf(names) + (Chance(50) ? Text(1, static_cast<char16_t>(u'0' + Below(4))) : u"");
}

Text Generator::ColumnOf(Model const& model, Text const& table, bool own) {
  Table const* const found = model.FindTable(table);
  if (found == nullptr || Chance(5)) return ColumnName();
  std::vector<Text> names;
  for (Column const& column : found->columns) {
    if (!own || !column.inherited() || Chance(5)) names.push_back(column.name);
  }
  return names.empty() ? ColumnName() : OneOf(names);
}

// ---- columns ----------------------------------------------------------------------------------

ColumnDef Generator::DrawColumn(Model const& model, bool by_refs) {
  ColumnDef column;
  column.name = ColumnName();
  std::vector<Table const*> const tables = UserTables(model);
  column.type = static_cast<std::uint8_t>(1 + Below(kBool));
  if (column.type == kReference && by_refs && tables.empty()) column.type = kLong;
  if (column.type == kReference) {
    bool const missing = !by_refs && (tables.empty() || Chance(15));
    column.type_name = missing ? NewName() : OneOf(tables)->name;
    if (!by_refs && Chance(2)) column.type_name.reset();
  }
  if (!by_refs && Chance(1)) column.type = static_cast<std::uint8_t>(kBool + 1 + Below(3));
  column.nullable = MustBeNullable(column.type) || column.type >= kKey || Chance(70);
  if (column.type == kBool) column.nullable = Chance(50);
  if (!by_refs && MustBeNullable(column.type) && Chance(2)) column.nullable = false;
  return column;
}

std::vector<ColumnDef> Generator::DrawColumns(Model const& model, std::size_t most, bool by_refs) {
  std::vector<ColumnDef> columns(Below(most + 1));
  for (ColumnDef& column : columns) {
    column = DrawColumn(model, by_refs);
    bool const taken = std::count_if(columns.begin(), columns.end(), [&](ColumnDef const& each) {
                         return each.name == column.name;
                       }) > 1;
    if (taken && Chance(95)) column.name += u"'";
  }
  return columns;
}

// What a table was made with, or something close to it.
std::vector<ColumnDef> Generator::SameColumns(Model const& model, Table const& table,
                                              bool by_refs) {
  std::vector<ColumnDef> columns;
  for (Column const& column : table.columns) {
    if (column.inherited()) continue;
    ColumnDef definition{column.name, column.type, column.nullable, std::nullopt};
    if (column.type == kReference) {
      auto const target = model.tables.find(column.target);
      bool const gone = target == model.tables.end();
      definition.type_name = gone ? table.name : target->second.name;
      if (!by_refs && !gone && Chance(50)) definition.type_name = Shortened(*definition.type_name);
    }
    if (Chance(3)) definition.name = ColumnName();
    if (Chance(3) && !MustBeNullable(column.type)) definition.nullable = !definition.nullable;
    columns.push_back(definition);
  }
  if (Chance(5)) columns.push_back(DrawColumn(model, by_refs));
  if (Chance(5) && !columns.empty()) columns.pop_back();
  return columns;
}

// ---- tables and columns -----------------------------------------------------------------------

Operation Generator::DrawCreateTable(Model const& model) {
  CreateTable operation;
  operation.form = static_cast<CreateTable::Form>(Below(3));
  bool const by_refs = operation.form == CreateTable::Form::kByRefs;
  std::vector<Table const*> const tables = UserTables(model);
  operation.name = NewName();
  if (!tables.empty() && Chance(70)) operation.base = OneOf(tables)->name;
  if (Chance(5)) operation.base = kRootName;
  if (!by_refs && Chance(2)) operation.base = NewName();
  operation.columns = DrawColumns(model, 4, by_refs);
  Table const* existing = model.FindTable(operation.name);
  if (existing == nullptr && !tables.empty() && Chance(8)) existing = OneOf(tables);
  if (existing == nullptr) return operation;
  if (model.HasDeferredOwnColumn(existing->row)) return UpdateReferences{};
  operation.name = existing->name;
  if (Chance(90)) operation.base = model.table(existing->base).name;
  operation.columns = SameColumns(model, *existing, by_refs);
  return operation;
}

Operation Generator::DrawAddColumns(Model const& model) {
  AddColumns operation{AnyTable(model), DrawColumns(model, 3, false)};
  if (operation.columns.empty() && Chance(80)) {
    operation.columns.push_back(DrawColumn(model, false));
  }
  if (Chance(2)) {
    operation.columns.assign(113, ColumnDef());
    for (std::size_t i = 0; i < operation.columns.size(); ++i) {
      operation.columns[i].name = u"many" + Text(i, u'x');
    }
    if (Chance(50)) operation.columns.pop_back();
  }
  Table const* const table = model.FindTable(operation.table);
  bool const fits =
      table != nullptr && operation.columns.size() > 100 && table->columns.size() == 3;
  if (fits) operation.columns.clear();
  if (!CanChangeLayouts(model, operation.table, 0)) return UpdateReferences{};
  return operation;
}

Operation Generator::DrawDropColumn(Model const& model) {
  Text const table = AnyTable(model);
  DropColumn const operation{table, ColumnOf(model, table, true)};
  Table const* const found = model.FindTable(table);
  Column const* const column = found == nullptr ? nullptr : found->FindColumn(operation.column);
  Uid const declared = column == nullptr ? 0 : column->declared;
  if (!CanChangeLayouts(model, table, declared)) return UpdateReferences{};
  return operation;
}

Operation Generator::DrawRename(Model const& model) {
  Text const table = AnyTable(model);
  if (Chance(30)) return RenameTable{table, Chance(5) ? Shortened(table) : NewName()};
  return RenameColumn{table, ColumnOf(model, table, true), ColumnName()};
}

Operation Generator::DrawDrop(Model const& model) {
  if (Chance(20)) return DropTableCascade{AnyTable(model)};
  bool const drop_children = Chance(40);
  bool const force = Chance(35);
  if (Chance(65)) return DropTable{AnyTable(model), drop_children, force};
  DropTables operation{{}, drop_children, force};
  for (std::size_t count = Below(4); count > 0; --count)
    operation.tables.push_back(AnyTable(model));
  return operation;
}

// ---- indexes and classes ----------------------------------------------------------------------

std::vector<IndexPart> Generator::DrawParts(Table const& table, bool unique) {
  std::vector<IndexPart> parts;
  std::size_t const most = 1 + Below(3);
  for (std::size_t i = 3; i < table.columns.size() && parts.size() < most; ++i) {
    Column const& column = table.columns[i];
    if (column.deferred() || (unique && !column.nullable) || Chance(40)) continue;
    parts.push_back({column.name, static_cast<int>(i), Chance(70)});
  }
  if (Chance(3)) parts.push_back({ColumnName() + u"?", 99, true});
  return parts;
}

Operation Generator::DrawCreateIndex(Model const& model) {
  static std::vector<Text> const names = {u"ByName", u"ByPrice", u"Index1", u"Index2",
                                          u"Index3", u"Index4",  u"Index5"};
  std::vector<Table const*> const tables = UserTables(model);
  CreateIndex operation;
  operation.form = static_cast<CreateIndex::Form>(Below(3));
  operation.name = OneOf(names);
  Table const& table = *OneOf(tables);
  operation.table = table.name;
  operation.unique = Chance(40);
  operation.parts = DrawParts(table, operation.unique);
  if (operation.parts.empty()) return DrawAddColumns(model);
  bool const by_names = operation.form == CreateIndex::Form::kByNames;
  if (by_names && Chance(5)) operation.parts.assign(16, {u"__id", 0, true});
  if (by_names && Chance(3)) operation.table = NewName();
  return operation;
}

Operation Generator::DrawDropIndex(Model const& model) {
  std::vector<Index const*> indexes;
  for (auto const& [row, index] : model.indexes) indexes.push_back(&index);
  if (indexes.empty()) return DropIndex{DropIndex::Form::kByName, u"Index1", u""};
  Index const& index = *OneOf(indexes);
  DropIndex operation{static_cast<DropIndex::Form>(Below(3)), index.name, u""};
  Text const owner = model.table(index.table).name;
  operation.table = Shortened(Chance(85) ? owner : AnyTable(model));
  if (operation.table.empty()) operation.table = owner;
  if (operation.form != DropIndex::Form::kByRef && Chance(5)) operation.name = u"NoIndex";
  return operation;
}

Operation Generator::DrawMapping(Model const& model) {
  if (Chance(35) || model.classes.size() > 3) return CleanClasses{};
  std::vector<Table const*> const tables = UserTables(model);
  Table const& table = *OneOf(tables);
  Text const number = Text(1, static_cast<char16_t>(u'a' + model.classes.size())) +
                      Text(1, static_cast<char16_t>(u'a' + model.mappings.size()));
  if (model.classes.empty() || Chance(50)) return MapClass{u"Class" + number, table.name};
  Column const& column = OneOf(table.columns);
  return MapColumn{u"Property" + number, model.classes.begin()->second.name, table.name,
                   column.name};
}

// ---- objects ----------------------------------------------------------------------------------

Operation Generator::DrawCreateObject(Model const& model) {
  std::vector<Table const*> const tables = UserTables(model);
  return CreateObject{tables.empty() || Chance(3) ? NewName() : OneOf(tables)->name};
}

Operation Generator::DrawWrite(Model const& model) {
  Object const& object = *OneOf(LiveObjects(model));
  Table const& table = model.table(object.table);
  if (table.columns.size() <= 3) return DrawCreateObject(model);
  Column const& column = table.columns[3 + Below(table.columns.size() - 3)];
  if (Chance(12)) return WriteDefault{object.row, column.name};
  return WriteValue{object.row, column.name, DrawValue(model, column.type)};
}

Value Generator::DrawValue(Model const& model, std::uint8_t type) {
  static std::vector<Text> const texts = {
      u"", u"a", u"ab", u"b", u"B", u"\u00e4", u"~", Text(1, 0xD800), u"\uffff", Text(200, u'l')};
  static std::vector<std::string> const bytes = {"", "a", std::string("\0", 1),
                                                 std::string("\xff\x80", 2), "ab"};
  static std::vector<std::int64_t> const numbers = {0, 1, -1, 2, 1000000, INT64_MIN, INT64_MAX};
  static std::vector<double> const doubles = {0.0, 1.5, -1.5, 1e300, -1e-300};
  switch (type) {
    case kString:
      return Chance(10) ? Value() : Value(OneOf(texts));
    case kBinary:
      return OneOf(bytes);
    case kLong:
    case kDecimal:
      return OneOf(numbers);
    case kFloat:
      return static_cast<float>(Below(5)) - 2.5f;
    case kDouble:
      return OneOf(doubles);
    case kBool:
      return std::uint64_t{Below(2)};
    case kReference: {
      if (Chance(10)) return Value();
      auto at = model.objects.begin();
      std::advance(at, static_cast<std::ptrdiff_t>(Below(model.objects.size())));
      return Reference{at->first};
    }
    default:
      return static_cast<std::uint64_t>(OneOf(numbers));
  }
}

}  // namespace sagleme_model
