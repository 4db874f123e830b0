#include "data/row_writer.h"

namespace sagleme {

void RowWriter::Begin(Table const& table, ObjectId id) {
  detail::RequireOwn(transaction_, table);
  std::uint64_t const context = transaction_.context();
  id_ = id.value;
  table_ = &table;
  detail::CheckKernel(id_ == 0 ? lorv_context_insert(context, table.layout, &id_)
                               : lorvi_context_insert_with_id(context, table.layout, id_));
}

void RowWriter::Put(Column const& column, RowValue const& value) {
  if (column.type == Type::kString && value.kind == RowValue::Kind::kText) {
    PutText(column, value.text);
  } else {
    Put(column, ParseRowValue(column.type, value));
  }
}

void RowWriter::PutText(Column const& column, std::string_view text) {
  // Most texts are all ASCII.
  std::size_t at = 0;
  units_.resize(text.size());
  for (; at < text.size() && static_cast<unsigned char>(text[at]) < 0x80; ++at) {
    units_[at] = static_cast<unsigned char>(text[at]);
  }
  units_.resize(at);
  try {
    while (at < text.size()) detail::AppendUtf16(units_, detail::NextPoint(text, at));
  } catch (BadUtf8 const& error) {
    throw BadValue(error.what());
  }
  if (units_.find(u'\0') != std::u16string::npos) {
    throw BadValue("a stored text cannot contain U+0000");
  }
  detail::ColumnLocation const to = At(column);
  detail::CheckKernel(
      lorv_context_put_string(to.context, to.oid, to.addr, to.column, units_.c_str()));
}

void RowWriter::Finish() {
  detail::CheckKernel(lorv_context_put_setspec(transaction_.context(), id_, table_->layout,
                                               table_->setspec.c_str()));
}

void RowWriter::GiveUp() {
  detail::CheckKernel(lorv_context_delete(transaction_.context(), id_, table_->layout));
}

}  // namespace sagleme
