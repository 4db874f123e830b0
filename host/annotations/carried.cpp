#include "annotations/carried.h"

#include <sagleme/value_text.hpp>

#include "annotations/default_text.h"
#include "annotations/rules.h"

namespace sagleme::annotations {

CarriedAnnotations::CarriedAnnotations(Transaction& transaction, Text const& table,
                                       Text const& column) {
  TablePtr const owner = transaction.table(table);
  Column const& own = owner->GetColumn(column);
  comment_ = CommentOf(transaction, *owner, own);
  Value const value = DefaultOf(transaction, *owner, own);
  if (!IsNull(value)) default_json_ = ValueJson(value);
  if (own.type == Type::kReference) on_delete_ = OnDeleteOf(transaction, *owner, own);
}

void CarriedAnnotations::GiveTo(Transaction& transaction, Text const& table,
                                Text const& column) const {
  TablePtr const owner = transaction.table(table);
  Column const& own = owner->GetColumn(column);
  if (!comment_.empty()) SetComment(transaction, *owner, column, comment_);
  if (!default_json_.empty() && own.type != Type::kReference) {
    SetDefault(transaction, *owner, column, StoredDefault(own.type, default_json_));
  }
  if (on_delete_ != OnDelete::kKeep && own.type == Type::kReference) {
    WriteText(transaction, own.id, Annotation::Kind::kOnDelete,
              std::string(OnDeleteName(on_delete_)));
  }
  detail::DropStaleAnnotations(transaction);
}

}  // namespace sagleme::annotations
