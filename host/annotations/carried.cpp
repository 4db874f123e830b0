#include "annotations/carried.h"

#include "annotations/rules.h"

namespace sagleme::annotations {

CarriedAnnotations::CarriedAnnotations(Transaction& transaction, Text const& table,
                                       Text const& column) {
  TablePtr const owner = transaction.table(table);
  Column const& own = owner->GetColumn(column);
  comment_ = CommentOf(transaction, *owner, own);
  default_ = DefaultOf(transaction, *owner, own);
  if (own.type == Type::kReference) on_delete_ = OnDeleteOf(transaction, *owner, own);
}

void CarriedAnnotations::ConvertDefault(std::function<Value(Value const&)> const& convert) {
  if (!IsNull(default_)) default_ = convert(default_);
}

void CarriedAnnotations::GiveTo(Transaction& transaction, Text const& table,
                                Text const& column) const {
  TablePtr const owner = transaction.table(table);
  Column const& own = owner->GetColumn(column);
  if (!comment_.empty()) SetComment(transaction, *owner, column, comment_);
  bool const refers = own.type == Type::kReference;
  bool const has_rule = refers && on_delete_ != OnDelete::kKeep;
  // What the column does not keep is removed, for its row may be the one of before.
  SetDefault(transaction, *owner, column, refers ? Value(Null{}) : default_);
  WriteText(transaction, own.id, Annotation::Kind::kOnDelete,
            has_rule ? std::optional(std::string(OnDeleteName(on_delete_))) : std::nullopt);
  detail::DropStaleAnnotations(transaction);
}

}  // namespace sagleme::annotations
