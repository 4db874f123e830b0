#include "schema.h"

#include <algorithm>
#include <sagleme/annotations.hpp>
#include <set>

namespace sagleme::sql {
namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

std::string_view DeclaredType(Type type) {
  switch (type) {
    case Type::kString:
      return "TEXT";
    case Type::kBinary:
      return "BLOB";
    case Type::kDecimal:
    case Type::kFloat:
    case Type::kDouble:
      return "REAL";
    case Type::kLong:
    case Type::kULong:
    case Type::kReference:
    case Type::kKey:
    case Type::kBool:
      return "INTEGER";
  }
  return "";
}

// A number that is none reads as NULL, so these columns promise nothing.
bool NeverNull(ShapeColumn const& column) {
  return !column.nullable && column.type != Type::kFloat && column.type != Type::kDouble;
}

std::string HiddenName(Hidden which) {
  return which == Hidden::kId ? "_oid" : which == Hidden::kTable ? "_table" : "_version";
}

std::string_view HiddenType(Hidden which) { return which == Hidden::kTable ? "TEXT" : "INTEGER"; }

std::vector<ShapeColumn> ColumnsOf(Table const& table) {
  std::vector<ShapeColumn> columns;
  std::set<std::string, NameLess> taken;
  for (Column const& column : table.columns) {
    if (column.system()) continue;
    ShapeColumn made{ToUtf8(column.name), column.type, column.ordinal, column.nullable};
    if (!taken.insert(made.name).second) made.name += " (" + std::to_string(column.ordinal) + ")";
    taken.insert(made.name);
    columns.push_back(std::move(made));
  }
  return columns;
}

// A column of the table's own takes the name from a hidden one.
std::vector<Hidden> HiddenOf(std::vector<ShapeColumn> const& columns) {
  std::set<std::string, NameLess> taken;
  for (ShapeColumn const& column : columns) taken.insert(column.name);
  std::vector<Hidden> hidden;
  for (Hidden const each : {Hidden::kId, Hidden::kTable, Hidden::kVersion}) {
    if (!taken.contains(HiddenName(each))) hidden.push_back(each);
  }
  return hidden;
}

std::string DeclarationOf(Shape const& shape) {
  std::string text = "CREATE TABLE x(";
  for (ShapeColumn const& column : shape.columns) {
    text += Quoted(column.name) + " ";
    text += DeclaredType(column.type);
    text += NeverNull(column) ? " NOT NULL, " : ", ";
  }
  for (Hidden const each : shape.hidden) {
    text += Quoted(HiddenName(each)) + " ";
    text += HiddenType(each);
    text += shape.columns.empty() ? ", " : " HIDDEN, ";  // one at least is to be seen
  }
  text.replace(text.size() - 2, 2, ")");
  return text;
}

int PositionOf(Shape const& shape, std::uint16_t ordinal) {
  for (std::size_t i = 0; i < shape.columns.size(); ++i) {
    if (shape.columns[i].ordinal == ordinal) return static_cast<int>(i);
  }
  return -1;
}

ShapeIndex IndexOf(Shape const& shape, Index const& index, bool own) {
  ShapeIndex made{ToUtf8(index.name), index.handle, index.unique, own, {}};
  for (IndexedColumn const& part : index.columns) {
    Column const* const column = shape.table->FindColumn(part.name);
    int const position = column == nullptr ? -1 : PositionOf(shape, column->ordinal);
    made.parts.push_back({position, part.type, part.ascending});
  }
  return made;
}

void FindDefaults(Transaction& transaction, Shape& shape) {
  for (ShapeColumn& column : shape.columns) {
    Column const& own = shape.table->columns[column.ordinal];
    column.has_default = !IsNull(DefaultOf(transaction, *shape.table, own));
  }
}

struct Tree {
  std::map<std::u16string, TablePtr> by_name;
  std::map<std::u16string, TablePtr> by_setspec;  // a table precedes those derived from it
  std::map<std::uint64_t, std::uint64_t> tokens;  // of a table's layouts, by the catalogue's row
  Transaction* annotated = nullptr;               // null: there are no annotations
};

void AddIndexes(Shape& shape, Tree const& tree) {
  for (TablePtr at = shape.table; at != nullptr;) {
    for (Index const& index : at->indexes) {
      bool const own = at == shape.table && (!shape.only || shape.leaf);
      if (index.handle != 0) shape.indexes.push_back(IndexOf(shape, index, own));
    }
    auto const base = tree.by_name.find(at->base);
    at = base == tree.by_name.end() ? nullptr : base->second;
  }
}

ShapePtr MakeShape(TablePtr const& table, bool only, Tree const& tree) {
  auto shape = std::make_shared<Shape>();
  shape->table = table;
  shape->only = only;
  shape->columns = ColumnsOf(*table);
  shape->hidden = HiddenOf(shape->columns);
  auto const below = tree.by_setspec.upper_bound(table->setspec);
  shape->leaf = below == tree.by_setspec.end() || !below->second->IsA(*table);
  shape->layout_tokens.push_back(tree.tokens.at(table->row.oid));
  for (auto at = below; !only && at != tree.by_setspec.end() && at->second->IsA(*table); ++at) {
    shape->layout_tokens.push_back(tree.tokens.at(at->second->row.oid));
  }
  AddIndexes(*shape, tree);
  if (tree.annotated != nullptr) FindDefaults(*tree.annotated, *shape);
  shape->declaration = DeclarationOf(*shape);
  return shape;
}

std::uint64_t LayoutToken(std::uint64_t context, std::uint16_t layout) {
  LORVI_LAYOUT_INFO info{};
  detail::CheckKernel(lorvi_context_get_layout_info(context, layout, &info));
  return info.token;
}

std::vector<std::string> Suffixes(std::string const& full) {
  std::vector<std::string> suffixes;
  for (auto dot = full.rfind('.'); dot != std::string::npos && dot > 0;
       dot = full.rfind('.', dot - 1)) {
    suffixes.push_back(full.substr(dot + 1));
  }
  suffixes.push_back(full);
  return suffixes;
}

// SQLite keeps such names to itself.
bool Reserved(std::string_view name) {
  constexpr std::string_view kBeginning = "sqlite_";
  return name.size() >= kBeginning.size() &&
         !NameLess()(name.substr(0, kBeginning.size()), kBeginning) &&
         !NameLess()(kBeginning, name.substr(0, kBeginning.size()));
}

using Uses = std::map<std::string, int, NameLess>;

Uses CountUses(std::vector<TablePtr> const& tables, bool system) {
  Uses uses;
  for (TablePtr const& table : tables) {
    if (table->system && !system) continue;
    for (std::string const& suffix : Suffixes(ToUtf8(table->name))) ++uses[suffix];
  }
  return uses;
}

std::string ShortestName(Table const& table, Uses const& uses) {
  std::string const full = ToUtf8(table.name);
  for (std::string const& suffix : Suffixes(full)) {
    if (!suffix.empty() && uses.at(suffix) == 1 && !Reserved(suffix)) return suffix;
  }
  return full + " (" + std::to_string(table.row.oid) + ")";
}

}  // namespace

bool NameLess::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return static_cast<unsigned char>(Lower(x)) < static_cast<unsigned char>(Lower(y));
  });
}

std::string Quoted(std::string_view name) {
  std::string text = "\"";
  for (char const c : name) {
    text += c;
    if (c == '"') text += c;
  }
  return text + "\"";
}

ShapeColumn const* Shape::FindColumn(std::string_view name) const {
  NameLess const less;
  for (ShapeColumn const& column : columns) {
    if (!less(column.name, name) && !less(name, column.name)) return &column;
  }
  return nullptr;
}

void Schema::AddTable(TablePtr const& table, std::string const& name, ShapePtr const& whole,
                      ShapePtr const& only) {
  std::string const full = ToUtf8(table->name);
  names_[table->row.oid] = name;
  shapes_[table->row.oid] = whole;
  by_setspec_[table->setspec] = table;
  entries_.emplace(name, Entry{whole, !table->system});
  entries_.emplace(name + " only", Entry{only, false});
  entries_.emplace(full, Entry{whole, false});
  entries_.emplace(full + " only", Entry{only, false});
}

SchemaPtr Schema::Read(Transaction& transaction) {
  std::shared_ptr<Schema> schema(new Schema);
  schema->generation_ = transaction.Generation();
  std::vector<TablePtr> const tables = transaction.Tables(true);
  Tree tree;
  if (!Annotations(transaction).empty()) tree.annotated = &transaction;
  for (TablePtr const& table : tables) {
    tree.by_name[table->name] = table;
    tree.by_setspec[table->setspec] = table;
    std::uint64_t const token = LayoutToken(transaction.context(), table->layout);
    tree.tokens[table->row.oid] = token;
    schema->layout_tokens_.insert(token);
  }
  // Names of the library's own tables never stand in the way of others.
  for (bool const system : {false, true}) {
    Uses const uses = CountUses(tables, system);
    for (TablePtr const& table : tables) {
      if (table->system != system) continue;
      schema->AddTable(table, ShortestName(*table, uses), MakeShape(table, false, tree),
                       MakeShape(table, true, tree));
    }
  }
  return schema;
}

Entry const* Schema::Find(std::string_view name) const {
  auto const found = entries_.find(name);
  return found == entries_.end() ? nullptr : &found->second;
}

TablePtr Schema::BySetspec(std::u16string_view setspec) const {
  auto const found = by_setspec_.find(setspec);
  return found == by_setspec_.end() ? nullptr : found->second;
}

std::string Schema::NameOf(Table const& table) const { return names_.at(table.row.oid); }

}  // namespace sagleme::sql
