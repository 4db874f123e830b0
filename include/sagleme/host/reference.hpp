#ifndef SAGLEME_HOST_REFERENCE_HPP
#define SAGLEME_HOST_REFERENCE_HPP

// Which objects a reference may lead to when it is written: existing objects of the column's target
// table or of its descendants. What becomes of a reference when its target is deleted is the rule
// of its column, see <sagleme/annotations.hpp>. Without one the reference stays and leads nowhere;
// the check of <sagleme/check.hpp> finds it. The layer itself maintains references in the
// catalogue.

#include <sagleme/host/transaction.hpp>
#include <string>

namespace sagleme {
namespace detail {

// A column may have been read before its target was there.
inline ObjectId RowOfTarget(Transaction& transaction, Column const& column) {
  return column.target_id.value != 0 ? column.target_id : transaction.table(column.target)->id();
}

[[noreturn]] inline void RefuseTarget(Transaction& transaction, std::u16string const& table,
                                      Column const& column, LS_OBJ_REF const& object) {
  TablePtr const other = transaction.TableOf(object);
  throw Error(LSCOREDB_WRONG_TYPE,
              "Column " + ToUtf8(column.name) + " of " + ToUtf8(table) + " refers to objects of " +
                  ToUtf8(column.target) + ", and object " + std::to_string(object.oid) +
                  (other == nullptr ? " belongs to a table that was dropped."
                                    : " belongs to " + ToUtf8(other->name) + "."));
}

inline void RequireTarget(Transaction& transaction, std::u16string const& table,
                          Column const& column, ObjectId value) {
  if (column.type != Type::kReference || column.target.empty() || value.value == 0) return;
  LS_OBJ_REF object{value.value, 0};
  auto const status = lorv_context_lookup(transaction.context(), object.oid, &object.addr);
  if (status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE) {
    throw Error(status, "Column " + ToUtf8(column.name) + " of " + ToUtf8(table) +
                            " cannot refer to object " + std::to_string(value.value) +
                            ", which does not exist.");
  }
  CheckKernel(status);
  if (transaction.Holds(RowOfTarget(transaction, column), object)) return;
  RefuseTarget(transaction, table, column, object);
}

// Writes a reference, null for 0, as the rule of its column says. `setspec` is that of a table with
// the column.
SAGLEME_HOST_API void PutReference(Rules const& rules, Transaction& transaction,
                                   ColumnLocation const& at, std::u16string_view setspec,
                                   Column const& column, ObjectId value);

// Writes what a property holds, and looks at references first.
template <typename T>
class PropertyWriter {
 public:
  PropertyWriter(Table const&, Column const&) {}
  template <typename Stored>
  void Put(Transaction&, ColumnLocation const& at, Stored const& value) const {
    CheckKernel(detail::Put(at, value));
  }
};
template <>
class PropertyWriter<ObjectId> {
 public:
  PropertyWriter(Table const& table, Column const& column)
      : table_(table.name), setspec_(table.setspec), column_(column), exempt_(table.system) {}
  void Put(Transaction& transaction, ColumnLocation const& at, ObjectId value) const {
    if (!exempt_) RequireTarget(transaction, table_, column_, value);
    Write(transaction, at, value, value);
  }
  void Put(Transaction& transaction, ColumnLocation const& at, Null null) const {
    Write(transaction, at, ObjectId{}, null);
  }

 private:
  template <typename Stored>
  void Write(Transaction& transaction, ColumnLocation const& at, ObjectId target,
             Stored stored) const {
    Rules const* const rules = exempt_ ? nullptr : transaction.rules();
    if (rules != nullptr) return PutReference(*rules, transaction, at, setspec_, column_, target);
    CheckKernel(detail::Put(at, stored));
  }

  std::u16string table_;
  std::u16string setspec_;
  Column column_;
  bool exempt_;
};

}  // namespace detail

// Throws Error with LORV_STATUS_NO_OBJECT, LORV_STATUS_UNREACHABLE or LSCOREDB_WRONG_TYPE unless
// the column of `table` may refer to the object; the null reference is always allowed. Object and
// Property call this themselves.
inline void RequireTarget(Transaction& transaction, Table const& table, Column const& column,
                          ObjectId value) {
  if (!table.system) detail::RequireTarget(transaction, table.name, column, value);
}

}  // namespace sagleme

#endif
