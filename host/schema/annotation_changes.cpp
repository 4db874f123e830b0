#include "schema/annotation_changes.h"

#include <fmt/format.h>

#include <algorithm>

#include "annotations/default_text.h"
#include "annotations/referrers.h"
#include "annotations/rules.h"

namespace sagleme {
namespace {

using Kind = Annotation::Kind;
using Text = std::optional<std::string>;

Text Comment(std::string const& comment) { return comment.empty() ? Text() : comment; }
Text Default(Value const& value) { return IsNull(value) ? Text() : ValueJson(value); }
Text Abstract(bool abstract) { return abstract ? Text("") : std::nullopt; }
Text Rule(OnDelete rule) {
  return rule == OnDelete::kKeep ? Text() : std::string(OnDeleteName(rule));
}

IndexDoc const* FindIndexDoc(TableDoc const* table, std::string const& name) {
  if (table == nullptr) return nullptr;
  auto const found = std::find_if(table->indexes.begin(), table->indexes.end(),
                                  [&](IndexDoc const& each) { return each.name == name; });
  return found == table->indexes.end() ? nullptr : &*found;
}

class Changes {
 public:
  Changes(Matching const& kept, Plan& plan) : kept_(kept), plan_(plan) {}

  void Add(TableDoc const& table) {
    TableDoc const* const old = kept_.OldTable(table.name);
    TableDoc const before = old == nullptr ? TableDoc() : *old;
    change::Annotate const of_table{table.name, {}, {}, Kind::kComment, {}};
    Put(of_table, Kind::kComment, Comment(before.comment), Comment(table.comment));
    Put(of_table, Kind::kAbstract, Abstract(before.abstract), Abstract(table.abstract));
    for (ColumnDoc const& column : table.columns) Add(table, column);
    for (IndexDoc const& index : table.indexes) Add(table, index, old);
  }

 private:
  void Add(TableDoc const& table, ColumnDoc const& column) {
    ColumnDoc const* const old = kept_.OldColumn(column);
    ColumnDoc const before = old == nullptr ? ColumnDoc() : *old;
    change::Annotate const of_column{table.name, column.name, {}, Kind::kComment, {}};
    Put(of_column, Kind::kComment, Comment(before.comment), Comment(column.comment));
    Put(of_column, Kind::kDefault, Default(before.fallback), Default(column.fallback));
    Put(of_column, Kind::kOnDelete, Rule(before.on_delete), Rule(column.on_delete));
  }
  void Add(TableDoc const& table, IndexDoc const& index, TableDoc const* old_table) {
    bool const stays = kept_.KeepsIndex(index.name);
    IndexDoc const* const old = stays ? FindIndexDoc(old_table, index.name) : nullptr;
    change::Annotate const of_index{table.name, {}, index.name, Kind::kComment, {}};
    Put(of_index, Kind::kComment, Comment(old == nullptr ? "" : old->comment),
        Comment(index.comment));
  }
  void Put(change::Annotate change, Kind kind, Text const& before, Text const& after) {
    if (before == after) return;
    change.kind = kind;
    change.text = after;
    plan_.push_back(std::move(change));
  }

  Matching const& kept_;
  Plan& plan_;
};

std::string NameOf(change::Annotate const& it) {
  if (!it.index.empty()) return "index " + it.index;
  if (!it.column.empty()) return "column " + it.column + " of " + it.table;
  return "table " + it.table;
}

Index IndexNamed(Transaction& transaction, std::string const& name) {
  if (auto const index = transaction.FindIndex(ToUtf16(name))) return *index;
  throw Error(SAGLEME_INDEX_NOT_FOUND, "There is no index " + name + ".");
}

ObjectId SubjectOf(Transaction& transaction, change::Annotate const& it) {
  if (!it.index.empty()) return IndexNamed(transaction, it.index).id;
  TablePtr const table = transaction.table(ToUtf16(it.table));
  return it.column.empty() ? table->id() : table->GetColumn(ToUtf16(it.column)).id;
}

void ApplyComment(Transaction& transaction, change::Annotate const& it) {
  std::string const comment = it.text.value_or("");
  if (!it.index.empty()) return SetComment(transaction, IndexNamed(transaction, it.index), comment);
  TablePtr const table = transaction.table(ToUtf16(it.table));
  if (it.column.empty()) return SetComment(transaction, *table, comment);
  SetComment(transaction, *table, it.column, comment);
}

}  // namespace

SchemaDoc WithReferrerIndexes(SchemaDoc schema) {
  for (TableDoc& table : schema.tables) {
    for (ColumnDoc const& column : table.columns) {
      if (column.on_delete == OnDelete::kKeep) continue;
      bool const there =
          std::any_of(table.indexes.begin(), table.indexes.end(), [&](IndexDoc const& index) {
            return !index.columns.empty() && index.columns.front().name == column.name;
          });
      if (there) continue;
      table.indexes.push_back(
          {detail::ReferrerIndexName(table.name, column.name), false, {{column.name, false}}, {}});
    }
  }
  return schema;
}

SchemaDoc WithoutAnnotations(SchemaDoc schema) {
  for (TableDoc& table : schema.tables) {
    table.comment.clear();
    table.abstract = false;
    for (IndexDoc& index : table.indexes) index.comment.clear();
    for (ColumnDoc& column : table.columns) {
      column.comment.clear();
      column.fallback = Null{};
      column.on_delete = OnDelete::kKeep;
    }
  }
  return schema;
}

void AddAnnotations(SchemaDoc const& to, Matching const& kept, Plan& plan) {
  Changes changes(kept, plan);
  for (TableDoc const& table : to.tables) changes.Add(table);
}

bool ReadsObjects(change::Annotate const& change) {
  return change.kind == Kind::kOnDelete && change.text.has_value();
}

std::string DescribeAnnotation(change::Annotate const& it) {
  switch (it.kind) {
    case Kind::kComment:
      return it.text ? fmt::format("comment on {}: {}", NameOf(it), JsonString(*it.text))
                     : fmt::format("remove the comment on {}", NameOf(it));
    case Kind::kDefault:
      return it.text ? fmt::format("let {} default to {}", NameOf(it), *it.text)
                     : fmt::format("remove the default of {}", NameOf(it));
    case Kind::kAbstract:
      return it.text ? fmt::format("make {} abstract, provided that it has no objects", NameOf(it))
                     : fmt::format("let {} have objects of its own", NameOf(it));
    case Kind::kOnDelete:
      break;
  }
  return it.text ? fmt::format("on deletion of the target of {}: {}; its references are verified",
                               NameOf(it), *it.text)
                 : fmt::format("on deletion of the target of {}: keep", NameOf(it));
}

void ApplyAnnotation(Transaction& transaction, change::Annotate const& it) {
  TablePtr const table = transaction.table(ToUtf16(it.table));
  std::u16string const column = ToUtf16(it.column);
  switch (it.kind) {
    case Kind::kComment:
      return ApplyComment(transaction, it);
    case Kind::kDefault: {
      Value const value = it.text
                              ? annotations::ParseJsonValue(table->GetColumn(column).type, *it.text)
                              : Value(Null{});
      return SetDefault(transaction, *table, column, value);
    }
    case Kind::kAbstract:
      return SetAbstract(transaction, *table, it.text.has_value());
    case Kind::kOnDelete:
      // The rule of a column that is no reference any more went with its type.
      if (!it.text && table->GetColumn(column).type != Type::kReference) return;
      return SetOnDelete(transaction, *table, column,
                         ParseOnDelete(it.text.value_or("keep")).value());
  }
}

void RestoreAnnotation(Transaction& transaction, change::Annotate const& it) {
  annotations::WriteText(transaction, SubjectOf(transaction, it), it.kind, it.text);
}

}  // namespace sagleme
