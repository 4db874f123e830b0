#include "hierarchy/column_annotations.h"

namespace sagleme {

ColumnAnnotations::ColumnAnnotations(Transaction& transaction, std::vector<Shape> const& shapes)
    : transaction_(transaction) {
  for (Shape const& shape : shapes) {
    for (std::u16string const& name : shape.kept) Take(*shape.table, shape.table->GetColumn(name));
    for (std::u16string const& name : shape.merged) {
      Column const& column = shape.table->GetColumn(name);
      if (!column.inherited) Remove(*shape.table, column);
    }
  }
}

void ColumnAnnotations::Take(Table const& table, Column const& column) {
  Entry entry{table.name, column.name, CommentOf(transaction_, table, column),
              DefaultOf(transaction_, table, column), OnDelete::kKeep};
  if (column.type == Type::kReference) {
    entry.on_delete = OnDeleteOf(transaction_, table, column);
  }
  bool const any =
      !entry.comment.empty() || !IsNull(entry.standard) || entry.on_delete != OnDelete::kKeep;
  if (any) entries_.push_back(std::move(entry));
}

void ColumnAnnotations::Remove(Table const& table, Column const& column) const {
  if (!CommentOf(transaction_, table, column).empty()) {
    SetComment(transaction_, table, column.name, "");
  }
  if (!IsNull(DefaultOf(transaction_, table, column))) {
    SetDefault(transaction_, table, column.name, Null{});
  }
  if (column.type == Type::kReference &&
      OnDeleteOf(transaction_, table, column) != OnDelete::kKeep) {
    SetOnDelete(transaction_, table, column.name, OnDelete::kKeep);
  }
}

void ColumnAnnotations::Restore() const {
  for (Entry const& entry : entries_) {
    TablePtr const table = transaction_.table(entry.table);
    if (!entry.comment.empty()) SetComment(transaction_, *table, entry.column, entry.comment);
    if (!IsNull(entry.standard)) SetDefault(transaction_, *table, entry.column, entry.standard);
    if (entry.on_delete != OnDelete::kKeep) {
      SetOnDelete(transaction_, *table, entry.column, entry.on_delete);
    }
  }
}

}  // namespace sagleme
