#ifndef SAGLEME_HOST_COLUMNS_CONVERT_H
#define SAGLEME_HOST_COLUMNS_CONVERT_H

// Values of one type as values of another.

#include <optional>
#include <sagleme/column_changes.hpp>

namespace sagleme::columns {

struct Converted {
  Value value;
  bool exact = true;  // otherwise the nearest value that the type holds
};

// The definition that values shall fit.
struct Wanted {
  Type type = Type::kString;
  bool nullable = true;
  ObjectId target;  // of a reference: the row of its table
};

// Nothing if there is no such value. Does not look at targets.
std::optional<Converted> ConvertNumber(Value const& value, Type from, Type to);

// Converts the values of one column of one transaction.
class Converter {
 public:
  Converter(Transaction& transaction, Column const& from, Wanted const& wanted)
      : transaction_(transaction),
        from_(from.type),
        wanted_(wanted),
        kept_(from.type == wanted.type &&
              (from.type != Type::kReference || from.target_id == wanted.target)) {}

  // What an object gets for `value`; exact if nothing of it is lost.
  Converted operator()(Value const& value) const;

 private:
  std::optional<Converted> Convert(Value const& value) const;
  std::optional<Converted> FromText(std::u16string const& text) const;
  std::optional<Converted> ToReference(Value const& value) const;
  Value Empty() const;

  Transaction& transaction_;
  Type from_;
  Wanted wanted_;
  bool kept_;  // values stay as they are
};

// Writes a value that was converted, without looking at the target of a reference again.
void PutConverted(Transaction& transaction, Object const& object, Table const& table,
                  Column const& column, Value const& value);

// Zero, false or empty: what a column without null holds instead of it.
Value ZeroOf(Type type);

// Whether two values are stored alike: a NaN is equal to itself, and the two zeros differ.
bool SameValue(Value const& a, Value const& b);

}  // namespace sagleme::columns

#endif
