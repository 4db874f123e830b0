#ifndef SAGLEME_HOST_DATA_ROW_WRITER_H
#define SAGLEME_HOST_DATA_ROW_WRITER_H

// Writes whole new objects, one after the other.
//
// An object enters the indexes with its set specifier. Written last, it makes each key once, with
// all values there; written first, it would make keys of nulls that every value then replaces.

#include <sagleme/host.hpp>
#include <string>

#include "data/row_value.h"

namespace sagleme {

// Works in one transaction, which must outlive it. Reuses its memory from object to object.
class RowWriter {
 public:
  explicit RowWriter(Transaction& transaction) : transaction_(transaction) {}

  // Begins a new object of a table, with the given identity unless that is 0. Throws Error if the
  // identity is refused. REQUIRES: the last object was finished or abandoned.
  void Begin(Table const& table, ObjectId id);
  ObjectId id() const { return {id_}; }
  // Throws BadValue if the value does not fit the column. REQUIRES: `column` is the table's.
  void Put(Column const& column, RowValue const& value);
  void Put(Column const& column, Value const& value) {
    detail::PutValue(At(column), column.type, value);
  }
  // Throws Error with LSCOREDB_DUPLICATE_KEY if a unique index refuses the object, which then still
  // exists, outside the indexes.
  void Finish();
  // Deletes the object.
  void GiveUp();
  // The current object, to read it.
  Object object() const { return {transaction_, LS_OBJ_REF{id_, table_->layout}}; }

 private:
  detail::ColumnLocation At(Column const& column) const {
    return {transaction_.context(), id_, table_->layout, column.ordinal};
  }
  void PutText(Column const& column, std::string_view text);

  Transaction& transaction_;
  Table const* table_ = nullptr;
  std::uint64_t id_ = 0;
  std::u16string units_;
};

}  // namespace sagleme

#endif
