#include "definition.h"

#include <algorithm>
#include <array>
#include <sagleme/hierarchy.hpp>
#include <sagleme/value_text.hpp>
#include <set>

#include "failure.h"
#include "literals.h"
#include "schema.h"

namespace sagleme::sql {
namespace {

TablePtr TableNamed(Transaction& transaction, std::string const& name) {
  try {
    return transaction.Resolve(ToUtf16(name));
  } catch (Error const& error) {
    if (error.status() == SAGLEME_TABLE_NOT_FOUND) return nullptr;
    throw;
  }
}

TablePtr RequireTable(Transaction& transaction, std::string const& name) {
  if (TablePtr const found = TableNamed(transaction, name)) return found;
  throw Failure(SQLITE_ERROR, "no such table: " + name);
}

std::u16string FullName(Transaction& transaction, std::string const& name) {
  return RequireTable(transaction, name)->name;
}

// The target of a reference may be made later, by a name that is then its full one.
ColumnSpec SpecOf(Transaction& transaction, ColumnDefinition const& column) {
  ColumnSpec spec{ToUtf16(column.name), column.type, column.nullable, ToUtf16(column.target)};
  if (column.type != Type::kReference) return spec;
  if (TablePtr const target = TableNamed(transaction, column.target)) spec.target = target->name;
  return spec;
}

// The definition that the column shall have. One of another type keeps whether it takes null, where
// the type lets it.
ColumnSpec AlteredSpec(Transaction& transaction, AlterColumnStatement const& it) {
  Column const& present = RequireTable(transaction, it.table)->GetColumn(ToUtf16(it.column.name));
  if (!it.retypes) return {present.name, present.type, it.column.nullable, present.target};
  ColumnSpec spec = SpecOf(transaction, it.column);
  spec.nullable = present.nullable || MustBeNullable(spec.type);
  return spec;
}

ColumnDoc DocOf(Column const& column) {
  ColumnDoc doc;
  doc.name = ToUtf8(column.name);
  doc.type = column.type;
  doc.nullable = column.nullable;
  doc.target = ToUtf8(column.target);
  return doc;
}

// The annotation as plans have it, of a column of that type.
change::Annotate AnnotationFor(std::string const& table, ColumnDefinition const& column,
                               Annotation::Kind kind) {
  change::Annotate made{table, column.name, {}, kind, {}};
  if (kind == Annotation::Kind::kDefault) {
    Value const value = ParseLiteral(column.type, column.fallback);
    if (!IsNull(value)) made.text = ValueJson(value);
  } else if (column.on_delete != OnDelete::kKeep) {
    made.text = OnDeleteName(column.on_delete);
  }
  return made;
}

// What the options of new columns annotate.
Plan AnnotationsOf(std::string const& table, std::vector<ColumnDefinition> const& columns) {
  Plan plan;
  for (ColumnDefinition const& column : columns) {
    for (auto const kind : {Annotation::Kind::kDefault, Annotation::Kind::kOnDelete}) {
      bool const given = kind == Annotation::Kind::kDefault ? !column.fallback.empty()
                                                            : column.on_delete != OnDelete::kKeep;
      if (!given) continue;
      change::Annotate annotation = AnnotationFor(table, column, kind);
      if (annotation.text) plan.push_back(std::move(annotation));
    }
  }
  return plan;
}

Plan PlanOfAnnotation(Transaction& transaction, AnnotateStatement const& it) {
  change::Annotate made{"", it.column, it.index, it.kind, {}};
  if (it.index.empty()) {
    made.table = ToUtf8(FullName(transaction, it.table));
  } else {
    auto const index = transaction.FindIndex(ToUtf16(it.index));
    if (!index) throw Failure(SQLITE_ERROR, "no such index: " + it.index);
    made.table = ToUtf8(index->table);
  }
  if (it.kind == Annotation::Kind::kDefault) {
    Column const& column = RequireTable(transaction, it.table)->GetColumn(ToUtf16(it.column));
    Value const value = ParseLiteral(column.type, it.text);
    if (!IsNull(value)) made.text = ValueJson(value);
  } else if (it.kind == Annotation::Kind::kComment) {
    std::string const text = it.removes ? "" : TextOfLiteral(it.text);
    if (!text.empty()) made.text = text;
  } else if (it.kind == Annotation::Kind::kOnDelete) {
    if (it.text != OnDeleteName(OnDelete::kKeep)) made.text = it.text;
  } else if (!it.removes) {
    made.text = "";
  }
  return {made};
}

std::vector<TablePtr> Subtree(Transaction& transaction, TablePtr const& top) {
  std::vector<TablePtr> tables{top};
  for (TablePtr const& child : transaction.Children(*top)) {
    auto const below = Subtree(transaction, child);
    tables.insert(tables.end(), below.begin(), below.end());
  }
  return tables;
}

std::vector<std::u16string> IndexesOfSubtree(Transaction& transaction, TablePtr const& top) {
  std::vector<std::u16string> names;
  for (TablePtr const& table : Subtree(transaction, top)) {
    for (Index const& index : table->indexes) names.push_back(index.name);
  }
  return names;
}

class Applier {
 public:
  explicit Applier(Transaction& transaction) : transaction_(transaction) {}

  void operator()(CreateTableStatement const& it) const {
    if (it.if_not_exists && transaction_.Find(ToUtf16(it.table)) != nullptr) return;
    if (transaction_.Find(ToUtf16(it.table)) != nullptr) {
      throw Failure(SQLITE_ERROR, "table " + it.table + " already exists");
    }
    std::vector<ColumnSpec> specs;
    for (ColumnDefinition const& column : it.columns) {
      specs.push_back(SpecOf(transaction_, column));
      if (specs.back().target == ToUtf16(it.table)) continue;
      RequireTarget(column);
    }
    std::u16string const base = it.base.empty() ? u"" : FullName(transaction_, it.base);
    CreateTable(transaction_, ToUtf16(it.table), base, specs);
    FinishReferences(transaction_);
    ApplyPlan(transaction_, AnnotationsOf(it.table, it.columns));
  }
  void operator()(AddColumnStatement const& it) const {
    RequireTarget(it.column);
    AddColumns(transaction_, FullName(transaction_, it.table),
               std::array{SpecOf(transaction_, it.column)});
    ApplyPlan(transaction_, AnnotationsOf(ToUtf8(FullName(transaction_, it.table)), {it.column}));
  }
  void operator()(DropColumnStatement const& it) const {
    DropColumn(transaction_, FullName(transaction_, it.table), ToUtf16(it.column));
  }
  void operator()(RenameColumnStatement const& it) const {
    RenameColumn(transaction_, FullName(transaction_, it.table), ToUtf16(it.column),
                 ToUtf16(it.new_name));
  }
  void operator()(AlterColumnStatement const& it) const {
    if (it.retypes) RequireTarget(it.column);
    ChangeColumnType(transaction_, FullName(transaction_, it.table), AlteredSpec(transaction_, it));
  }
  void operator()(RenameTableStatement const& it) const {
    RenameTable(transaction_, FullName(transaction_, it.table), ToUtf16(it.new_name));
  }
  void operator()(SetParentStatement const& it) const {
    std::u16string const base = it.base.empty() ? u"" : FullName(transaction_, it.base);
    SetBase(transaction_, FullName(transaction_, it.table), base,
            {.referring = Referring::kRefuse, .merge = true});
  }
  void operator()(DropTableStatement const& it) const {
    if (it.if_exists && TableNamed(transaction_, it.table) == nullptr) return;
    DropTable(transaction_, FullName(transaction_, it.table),
              {.children = it.cascade, .force = it.cascade});
  }
  void operator()(CreateIndexStatement const& it) const {
    if (transaction_.FindIndex(it.index).has_value()) {
      if (it.if_not_exists) return;
      throw Failure(SQLITE_ERROR, "index " + it.index + " already exists");
    }
    std::vector<IndexColumnSpec> parts;
    for (auto const& part : it.parts) parts.push_back({ToUtf16(part.column), !part.descending});
    CreateIndex(transaction_, ToUtf16(it.index), FullName(transaction_, it.table), parts,
                it.unique ? Uniqueness::kUnique : Uniqueness::kAny);
  }
  void operator()(AnnotateStatement const& it) const {
    ApplyPlan(transaction_, PlanOfAnnotation(transaction_, it));
  }
  void operator()(DropIndexStatement const& it) const {
    if (it.if_exists && !transaction_.FindIndex(ToUtf16(it.index)).has_value()) return;
    DropIndex(transaction_, ToUtf16(it.index));
  }

 private:
  void RequireTarget(ColumnDefinition const& column) const {
    if (column.type == Type::kReference) RequireTable(transaction_, column.target);
  }

  Transaction& transaction_;
};

// The changes that a statement makes, in the words of schema plans.
class Planner {
 public:
  explicit Planner(Transaction& transaction) : transaction_(transaction) {}

  Plan operator()(CreateTableStatement const& it) const {
    TableDoc table;
    table.name = it.table;
    if (!it.base.empty()) table.base = Full(it.base);
    return Together(change::CreateTable{table}, AnnotationsOf(it.table, it.columns));
  }
  Plan operator()(AddColumnStatement const& it) const {
    ColumnDoc column;
    column.name = it.column.name;
    return Together(change::AddColumns{Full(it.table), {column}},
                    AnnotationsOf(Full(it.table), {it.column}));
  }
  Plan operator()(DropColumnStatement const& it) const {
    TablePtr const table = RequireTable(transaction_, it.table);
    Column const* const column = table->FindColumn(ToUtf16(it.column));
    OnDelete const rule =
        column == nullptr ? OnDelete::kKeep : OnDeleteOf(transaction_, *table, *column);
    return {change::DropColumn{ToUtf8(table->name), it.column, rule}};
  }
  Plan operator()(RenameColumnStatement const& it) const {
    return {change::RenameColumn{Full(it.table), it.column, it.new_name}};
  }
  Plan operator()(AlterColumnStatement const& it) const {
    TablePtr const table = RequireTable(transaction_, it.table);
    if (it.retypes && it.column.type == Type::kReference) {
      RequireTable(transaction_, it.column.target);
    }
    ColumnSpec const spec = AlteredSpec(transaction_, it);
    ColumnDoc const before = DocOf(table->GetColumn(spec.name));
    ColumnDoc after = before;
    after.type = spec.type;
    after.nullable = spec.nullable;
    after.target = ToUtf8(spec.target);
    if (after.SameShape(before)) return {};
    return Together(change::ChangeColumn{ToUtf8(table->name), before, after},
                    ChangedAnnotations(*table, spec));
  }
  Plan operator()(RenameTableStatement const& it) const {
    return {change::RenameTable{Full(it.table), it.new_name}};
  }
  Plan operator()(SetParentStatement const& it) const {
    std::string const base = it.base.empty() ? "" : Full(it.base);
    PlanSetBase(transaction_, ToUtf16(Full(it.table)), ToUtf16(base), {.merge = true});
    return {change::SetBase{Full(it.table), base}};
  }
  Plan operator()(DropTableStatement const& it) const {
    if (it.if_exists && TableNamed(transaction_, it.table) == nullptr) return {};
    TablePtr const top = RequireTable(transaction_, it.table);
    Plan plan;
    for (std::u16string const& index : IndexesOfSubtree(transaction_, top)) {
      plan.push_back(change::DropIndex{ToUtf8(index)});
    }
    for (TablePtr const& table : Subtree(transaction_, top)) {
      plan.push_back(change::DropTable{ToUtf8(table->name)});
      if (!it.cascade) break;
    }
    return plan;
  }
  Plan operator()(CreateIndexStatement const& it) const {
    IndexDoc index{it.index, it.unique, {}};
    for (auto const& part : it.parts) index.columns.push_back({part.column, part.descending});
    return {change::CreateIndex{Full(it.table), std::move(index)}};
  }
  Plan operator()(DropIndexStatement const& it) const { return {change::DropIndex{it.index}}; }
  Plan operator()(AnnotateStatement const& it) const { return PlanOfAnnotation(transaction_, it); }

 private:
  // Of a column that gets another definition.
  Plan ChangedAnnotations(Table const& table, ColumnSpec const& spec) const {
    Plan plan;
    Column const& column = table.GetColumn(spec.name);
    change::Annotate changed{
        ToUtf8(table.name), ToUtf8(spec.name), "", Annotation::Kind::kDefault, {}};
    Value const before = DefaultOf(transaction_, table, column);
    Value const after =
        IsNull(before) ? Value(Null{}) : DefaultAfter(transaction_, table.name, spec);
    if (ValueJson(before) != ValueJson(after)) {
      if (!IsNull(after)) changed.text = ValueJson(after);
      plan.push_back(changed);
    }
    bool const was_reference = column.type == Type::kReference && spec.type != Type::kReference;
    if (was_reference && OnDeleteOf(transaction_, table, column) != OnDelete::kKeep) {
      changed.kind = Annotation::Kind::kOnDelete;
      changed.text.reset();
      plan.push_back(changed);
    }
    return plan;
  }
  static Plan Together(Change first, Plan const& rest) {
    Plan plan{std::move(first)};
    plan.insert(plan.end(), rest.begin(), rest.end());
    return plan;
  }
  std::string Full(std::string const& table) const { return ToUtf8(FullName(transaction_, table)); }

  Transaction& transaction_;
};

// The name of a type that the grammar reads as just that type.
std::string_view SqlTypeName(Type type) {
  switch (type) {
    case Type::kString:
      return "text";
    case Type::kBinary:
      return "binary";
    case Type::kLong:
      return "bigint";
    case Type::kULong:
    case Type::kKey:
      return "uint";
    case Type::kDecimal:
      return "decimal";
    case Type::kFloat:
      return "real";
    case Type::kDouble:
      return "double";
    case Type::kBool:
      return "boolean";
    case Type::kReference:
      break;
  }
  return "ref";
}

std::string ColumnText(Column const& column) {
  std::string text = Quoted(ToUtf8(column.name)) + " ";
  if (column.type == Type::kReference) return text + "REF(" + Quoted(ToUtf8(column.target)) + ")";
  text += SqlTypeName(column.type);
  return column.nullable || MustBeNullable(column.type) ? text : text + " NOT NULL";
}

std::string ColumnText(Transaction& transaction, Table const& table, Column const& column) {
  Value const value = DefaultOf(transaction, table, column);
  return IsNull(value) ? ColumnText(column) : ColumnText(column) + " DEFAULT " + Literal(value);
}

bool IsLater(Column const& column, std::set<std::u16string> const& made) {
  return column.type == Type::kReference && !made.contains(column.target);
}

std::string TableText(Transaction& transaction, Table const& table, bool derived,
                      std::set<std::u16string> const& made) {
  std::string columns;
  for (Column const& column : table.columns) {
    if (column.inherited || column.system() || IsLater(column, made)) continue;
    columns += (columns.empty() ? "\n  " : ",\n  ") + ColumnText(transaction, table, column);
  }
  std::string text = "CREATE TABLE " + Quoted(ToUtf8(table.name)) + " (" + columns + ")";
  if (derived) text += " UNDER " + Quoted(ToUtf8(table.base));
  return text + ";\n";
}

std::string IndexText(Index const& index) {
  std::string text = index.unique ? "CREATE UNIQUE INDEX " : "CREATE INDEX ";
  text += Quoted(ToUtf8(index.name)) + " ON " + Quoted(ToUtf8(index.table)) + " (";
  for (std::size_t i = 0; i < index.columns.size(); ++i) {
    text += (i == 0 ? "" : ", ") + Quoted(ToUtf8(index.columns[i].name));
    text += index.columns[i].ascending ? "" : " DESC";
  }
  return text + ");\n";
}

std::string_view SqlRule(OnDelete rule) {
  switch (rule) {
    case OnDelete::kRefuse:
      return "RESTRICT";
    case OnDelete::kSetNull:
      return "SET NULL";
    case OnDelete::kCascade:
      return "CASCADE";
    case OnDelete::kLast:
      return "LAST";
    case OnDelete::kKeep:
      break;
  }
  return "NO ACTION";
}

std::string CommentText(std::string const& what, std::string const& comment) {
  if (comment.empty()) return "";
  return "COMMENT ON " + what + " IS " + Literal(Value(comment)) + ";\n";
}

// Rules come when all indexes are there: they make one only if there is none.
std::string AnnotationText(Transaction& transaction, Table const& table) {
  std::string const name = Quoted(ToUtf8(table.name));
  std::string text;
  if (IsAbstract(transaction, table)) text += "ALTER TABLE " + name + " SET ABSTRACT;\n";
  text += CommentText("TABLE " + name, CommentOf(transaction, table));
  for (Column const& column : table.columns) {
    if (column.inherited || column.system()) continue;
    std::string const quoted = Quoted(ToUtf8(column.name));
    OnDelete const rule = OnDeleteOf(transaction, table, column);
    if (rule != OnDelete::kKeep) {
      text += "ALTER TABLE " + name + " ALTER COLUMN " + quoted + " SET ON DELETE ";
      text.append(SqlRule(rule)).append(";\n");
    }
    text += CommentText("COLUMN " + name + "." + quoted, CommentOf(transaction, table, column));
  }
  for (Index const& index : table.indexes) {
    text += CommentText("INDEX " + Quoted(ToUtf8(index.name)), CommentOf(transaction, index));
  }
  return text;
}

}  // namespace

Plan ChangesOf(Transaction& transaction, DefinitionStatement const& statement) {
  return std::visit(Planner(transaction), statement);
}

std::vector<std::string> PlanOf(Transaction& transaction, DefinitionStatement const& statement) {
  std::vector<std::string> lines;
  for (Change const& change : ChangesOf(transaction, statement)) {
    std::string const refusal = RefusalOf(transaction, change);
    std::string line(refusal.empty() ? LabelName(LabelOf(change)) : "refused");
    line.resize(13, ' ');
    line += DescribeChange(change);
    if (!refusal.empty()) line.append(": ").append(refusal);
    lines.push_back(std::move(line));
  }
  return lines;
}

void Apply(Transaction& transaction, DefinitionStatement const& statement) {
  std::visit(Applier(transaction), statement);
}

// Bases first. A reference to a table that comes later is added when all are there.
std::string DefinitionsOf(Transaction& transaction, TablePtr const& top) {
  std::vector<TablePtr> tables = transaction.Tables();
  std::sort(tables.begin(), tables.end(),
            [](TablePtr const& a, TablePtr const& b) { return a->setspec < b->setspec; });
  std::set<std::u16string> made;  // or there already
  if (top != nullptr) {
    for (TablePtr const& table : tables) {
      if (!table->IsA(*top)) made.insert(table->name);
    }
    std::erase_if(tables, [&](TablePtr const& table) { return !table->IsA(*top); });
  }
  std::string text;
  std::string later;
  std::string indexes;
  std::string annotations;
  for (TablePtr const& table : tables) {
    bool const derived = made.contains(table->base);
    made.insert(table->name);
    text += TableText(transaction, *table, derived, made);
    for (Column const& column : table->columns) {
      if (column.inherited || column.system() || !IsLater(column, made)) continue;
      later += "ALTER TABLE " + Quoted(ToUtf8(table->name)) + " ADD COLUMN " +
               ColumnText(transaction, *table, column) + ";\n";
    }
    for (Index const& index : table->indexes) indexes += IndexText(index);
    annotations += AnnotationText(transaction, *table);
  }
  return text + later + indexes + annotations;
}

}  // namespace sagleme::sql
