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

// Works in one transaction, which has to outlive it, and keeps its memory from object to object.
class RowWriter {
 public:
  explicit RowWriter(Transaction& transaction) : transaction_(transaction) {}

  // A new object of a table, with the identity given unless that is 0. Error when it cannot have
  // it. REQUIRES: the last object was finished or given up.
  void Begin(Table const& table, ObjectId id);
  ObjectId id() const { return {id_}; }
  // BadValue when it is no value of the column. REQUIRES: `column` is the table's.
  void Put(Column const& column, RowValue const& value);
  void Put(Column const& column, Value const& value) {
    detail::PutValue(At(column), column.type, value);
  }
  // Error with LSCOREDB_DUPLICATE_KEY when a unique index refuses the object, which is still there
  // then, outside of the indexes.
  void Finish();
  // Takes the object away again.
  void GiveUp();
  // The object at hand, for those who want to read it.
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
