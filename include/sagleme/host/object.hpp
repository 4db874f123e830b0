#ifndef SAGLEME_HOST_OBJECT_HPP
#define SAGLEME_HOST_OBJECT_HPP

// Objects and their properties.
//
// An Object is a reference and its transaction; it owns nothing and is valid until the transaction
// ends.

#include <iterator>
#include <memory>
#include <optional>
#include <sagleme/host/reference.hpp>
#include <sagleme/host/transaction.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sagleme {

class Object {
 public:
  Object(Transaction& transaction, LS_OBJ_REF reference)
      : transaction_(&transaction), reference_(reference) {}

  // Creates an object of exactly this table. Its columns have their defaults, or are null or zero.
  // SAGLEME_ABSTRACT_TABLE if the table has no objects of its own (<sagleme/annotations.hpp>).
  static Object Create(Transaction& transaction, Table const& table);
  // The same with an identity that was never used.
  static Object CreateWithId(Transaction& transaction, Table const& table, ObjectId id);
  // Returns nothing if there is no such object.
  static std::optional<Object> Find(Transaction& transaction, ObjectId id);

  ObjectId id() const { return {reference_.oid}; }
  LS_OBJ_REF reference() const { return reference_; }
  std::uint16_t layout() const { return metalayer::LayoutOf(reference_); }
  Transaction& transaction() const { return *transaction_; }
  std::u16string setspec() const;
  // Returns null if the object's table was dropped.
  TablePtr table() const { return transaction_->BySetspec(setspec()); }

  // A column of the object's table or of an ancestor; `table` declares or inherits `column`.
  Value Get(Table const& table, Column const& column) const {
    return detail::GetValue(At(table, column), column.type);
  }
  Value Get(TextView const& column) const;
  // Null sets a column that is not nullable to zero. A reference must lead to an object of the
  // column's target, see <sagleme/host/reference.hpp>.
  void Set(Table const& table, Column const& column, Value const& value);
  void Set(TextView const& column, Value const& value);
  // Follows the rules of the references that lead to the object (<sagleme/annotations.hpp>): other
  // objects may go with it, or SAGLEME_OBJECT_REFERENCED refuses, and then nothing has changed.
  void Delete();

 private:
  detail::ColumnLocation At(Table const& table, Column const& column) const {
    detail::RequireOwn(*transaction_, table);
    std::uint64_t const position = reference_.addr & ~std::uint64_t{0xFFFF};
    return {transaction_->context(), reference_.oid, position | table.layout, column.ordinal};
  }
  TablePtr LiveTable() const;

  Transaction* transaction_;
  LS_OBJ_REF reference_;
};

// A typed property: a column of a table, for objects of it and of its descendants. T is bool,
// int64_t, uint64_t, Decimal, float, double, std::u16string, std::string or std::u8string (UTF-8),
// std::u16string_view (which ends with the transaction or read scope), Bytes or ObjectId, and fits
// the column's type: LSCOREDB_WRONG_TYPE otherwise. Valid as long as the table's shape, in its
// database alone: for objects of another one LORV_STATUS_FOREIGN_DATABASE.
template <typename T>
class Property {
 public:
  Property(Table const& table, TextView const& name) : Property(table, table.GetColumn(name)) {}
  // REQUIRES: the column is of the table.
  Property(Table const& table, Column const& column)
      : database_(table.database),
        layout_(table.layout),
        column_(column.ordinal),
        writer_(table, column) {
    if (!detail::TypeOf<T>::Fits(column.type)) {
      detail::CheckKernel(LSCOREDB_WRONG_TYPE);
    }
  }

  // Returns nothing for null.
  std::optional<T> Get(Object const& object) const {
    T value{};
    auto const status = detail::Get(At(object), value);
    if (status == LORV_STATUS_NULL) return std::nullopt;
    detail::CheckKernel(status);
    return value;
  }
  T GetOr(Object const& object, T fallback) const {
    return Get(object).value_or(std::move(fallback));
  }
  // A reference must lead to an object of the column's target.
  void Set(Object const& object, T const& value) const {
    writer_.Put(object.transaction(), At(object), value);
  }
  void Clear(Object const& object) const { writer_.Put(object.transaction(), At(object), Null{}); }

 private:
  detail::ColumnLocation At(Object const& object) const {
    if (object.transaction().database() != database_ && database_ != 0) [[unlikely]] {
      detail::ThrowForeign("The property");
    }
    LS_OBJ_REF const reference = object.reference();
    std::uint64_t const position = reference.addr & ~std::uint64_t{0xFFFF};
    return {object.transaction().context(), reference.oid, position | layout_, column_};
  }

  std::uint64_t database_;
  std::uint16_t layout_;
  std::uint16_t column_;
  [[no_unique_address]] detail::PropertyWriter<T> writer_;
};

// ---- bodies -------------------------------------------------------------------------------------

namespace detail {

// Throws SAGLEME_ABSTRACT_TABLE for a table without objects of its own.
SAGLEME_HOST_API void RequireConcrete(Rules const& rules, Table const& table);
// Writes the defaults of its columns into an object that is being made.
SAGLEME_HOST_API void PutDefaults(Rules const& rules, Object const& object, Table const& table);
SAGLEME_HOST_API void DeleteByRules(Rules const& rules, Transaction& transaction, ObjectId id);

}  // namespace detail

inline Object Object::CreateWithId(Transaction& transaction, Table const& table, ObjectId id) {
  detail::RequireOwn(transaction, table);
  detail::Rules const* const rules = transaction.rules();
  if (rules != nullptr) detail::RequireConcrete(*rules, table);
  std::uint64_t oid = id.value;
  if (oid == 0) {
    detail::CheckKernel(lorv_context_insert(transaction.context(), table.layout, &oid));
  } else {
    detail::CheckKernel(lorvi_context_insert_with_id(transaction.context(), table.layout, oid));
  }
  Object const made(transaction, LS_OBJ_REF{oid, table.layout});
  if (rules != nullptr) detail::PutDefaults(*rules, made, table);
  detail::CheckKernel(
      lorv_context_put_setspec(transaction.context(), oid, table.layout, table.setspec.c_str()));
  return made;
}

inline Object Object::Create(Transaction& transaction, Table const& table) {
  return CreateWithId(transaction, table, ObjectId{});
}

inline std::optional<Object> Object::Find(Transaction& transaction, ObjectId id) {
  LS_OBJ_REF reference{id.value, 0};
  if (id.value == 0) return std::nullopt;
  auto const status = lorv_context_lookup(transaction.context(), reference.oid, &reference.addr);
  if (status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE) return std::nullopt;
  detail::CheckKernel(status);
  return Object(transaction, reference);
}

inline std::u16string Object::setspec() const {
  LORV_STRING* record = nullptr;
  auto const status =
      lorv_context_get_setspec(transaction_->context(), reference_.oid, reference_.addr, &record);
  if (status == LORV_STATUS_NULL) return {};
  detail::CheckKernel(status);
  return {record->units, record->length};
}

inline TablePtr Object::LiveTable() const {
  if (TablePtr found = table()) return found;
  throw Error(SAGLEME_TABLE_NOT_FOUND,
              "The table of object " + std::to_string(reference_.oid) + " was dropped.");
}

inline Value Object::Get(TextView const& column) const {
  TablePtr const own = LiveTable();
  return Get(*own, own->GetColumn(column));
}

inline void Object::Set(Table const& table, Column const& column, Value const& value) {
  if (column.type == Type::kReference && !table.system) {
    auto const* const target = std::get_if<ObjectId>(&value);
    if (target != nullptr) RequireTarget(*transaction_, table, column, *target);
    detail::Rules const* const rules = transaction_->rules();
    if (rules != nullptr && (target != nullptr || IsNull(value))) {
      return detail::PutReference(*rules, *transaction_, At(table, column), table.setspec, column,
                                  target == nullptr ? ObjectId{} : *target);
    }
  }
  detail::PutValue(At(table, column), column.type, value);
}

inline void Object::Delete() {
  detail::Rules const* const rules = transaction_->rules();
  if (rules != nullptr) return detail::DeleteByRules(*rules, *transaction_, id());
  detail::CheckKernel(
      lorv_context_delete(transaction_->context(), reference_.oid, reference_.addr));
}

inline void Object::Set(TextView const& column, Value const& value) {
  TablePtr const own = LiveTable();
  Set(*own, own->GetColumn(column), value);
}

}  // namespace sagleme

#endif
