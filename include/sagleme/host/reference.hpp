#ifndef SAGLEME_HOST_REFERENCE_HPP
#define SAGLEME_HOST_REFERENCE_HPP

// Which objects a reference may lead to when it is written: existing objects of the column's target
// table or of its descendants. Deleting an object does not look for references to it, so a
// reference may become dangling later; the check of <sagleme/check.hpp> finds it. The layer itself
// maintains references in the catalogue.

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

// What a property keeps of its column, to look at references before they are written.
template <typename T>
class TargetRule {
 public:
  TargetRule(Table const&, Column const&) {}
  void Require(Transaction&, T const&) const {}
};
template <>
class TargetRule<ObjectId> {
 public:
  TargetRule(Table const& table, Column const& column)
      : table_(table.name), column_(column), exempt_(table.system) {}
  void Require(Transaction& transaction, ObjectId value) const {
    if (!exempt_) RequireTarget(transaction, table_, column_, value);
  }

 private:
  std::u16string table_;
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
