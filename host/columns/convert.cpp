#include "columns/convert.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <sagleme/value_text.hpp>

namespace sagleme {

namespace {

bool IsNumber(Type type) {
  return type == Type::kLong || type == Type::kULong || type == Type::kKey ||
         type == Type::kDecimal || type == Type::kFloat || type == Type::kDouble;
}

bool IsId(Type type) { return type == Type::kLong || type == Type::kULong || type == Type::kKey; }

// Every value of a type in another one: by range and by precision.
bool HoldsAll(Type to, Type from) {
  if (from == Type::kBool) return IsNumber(to);
  if (from == Type::kFloat) return to == Type::kDouble;
  if (from == Type::kReference) return IsId(to);
  bool const unsigned_number = from == Type::kULong || from == Type::kKey;
  return unsigned_number && (to == Type::kULong || to == Type::kKey);
}

}  // namespace

Conversion ConversionOf(Type from, Type to) {
  if (from == to) return from == Type::kReference ? Conversion::kSome : Conversion::kAll;
  if (to == Type::kString) return Conversion::kAll;
  if (from == Type::kString) return Conversion::kSome;
  if (from == Type::kBinary || to == Type::kBinary) return Conversion::kNone;
  if (HoldsAll(to, from)) return Conversion::kAll;
  if (from == Type::kReference) return IsNumber(to) ? Conversion::kSome : Conversion::kNone;
  if (to == Type::kReference) return IsId(from) ? Conversion::kSome : Conversion::kNone;
  return Conversion::kSome;
}

namespace columns {
namespace {

constexpr long double kMillion = 1000000.0L;

// A long double holds every integer of 64 bits, and a decimal's millionths.
struct ToNumber {
  std::optional<long double> operator()(bool value) const { return value ? 1.0L : 0.0L; }
  std::optional<long double> operator()(std::int64_t value) const {
    return static_cast<long double>(value);
  }
  std::optional<long double> operator()(std::uint64_t value) const {
    return static_cast<long double>(value);
  }
  std::optional<long double> operator()(Decimal value) const {
    return static_cast<long double>(value.millionths) / kMillion;
  }
  std::optional<long double> operator()(float value) const {
    return static_cast<long double>(value);
  }
  std::optional<long double> operator()(double value) const {
    return static_cast<long double>(value);
  }
  std::optional<long double> operator()(ObjectId value) const {
    return static_cast<long double>(value.value);
  }
  template <typename T>
  std::optional<long double> operator()(T const&) const {
    return std::nullopt;
  }
};

// The nearest integer of the type, nothing outside of its range.
template <typename Integer>
std::optional<Integer> Nearest(long double number) {
  long double const whole = std::nearbyint(number);
  constexpr auto kLowest = static_cast<long double>(std::numeric_limits<Integer>::min());
  constexpr auto kAbove = static_cast<long double>(std::numeric_limits<Integer>::max()) + 1.0L;
  if (!(whole >= kLowest) || !(whole < kAbove)) return std::nullopt;
  return static_cast<Integer>(whole);
}

template <typename Real>
std::optional<Value> NearestReal(long double number) {
  auto const nearest = static_cast<Real>(number);
  if (std::isinf(nearest) && !std::isinf(number)) return std::nullopt;
  return Value(nearest);
}

std::optional<Value> FromNumber(Type type, long double number) {
  switch (type) {
    case Type::kLong:
      if (auto const whole = Nearest<std::int64_t>(number)) return Value(*whole);
      return std::nullopt;
    case Type::kULong:
    case Type::kKey:
      if (auto const whole = Nearest<std::uint64_t>(number)) return Value(*whole);
      return std::nullopt;
    case Type::kDecimal:
      if (auto const whole = Nearest<std::int64_t>(number * kMillion)) {
        return Value(Decimal{*whole});
      }
      return std::nullopt;
    case Type::kFloat:
      return NearestReal<float>(number);
    case Type::kDouble:
      return NearestReal<double>(number);
    case Type::kBool:
      if (number == 0 || number == 1) return Value(number == 1);
      return std::nullopt;
    case Type::kReference:
      if (auto const whole = Nearest<std::uint64_t>(number)) return Value(ObjectId{*whole});
      return std::nullopt;
    case Type::kString:
    case Type::kBinary:
      break;
  }
  return std::nullopt;
}

// Of a real number, zeros too.
bool IsNegative(Value const& value) {
  auto const* const narrow = std::get_if<float>(&value);
  return narrow != nullptr ? std::signbit(*narrow) : std::signbit(std::get<double>(value));
}

}  // namespace

bool SameValue(Value const& a, Value const& b) {
  if (a.index() != b.index()) return false;
  bool const real = std::holds_alternative<float>(a) || std::holds_alternative<double>(a);
  if (!real) return a == b;
  return a == b ? IsNegative(a) == IsNegative(b) : ValueText(a) == ValueText(b);
}

// What comes back as the same value was held exactly. So 0.1 is the same as a decimal and as a
// double, but not as a float.
std::optional<Converted> ConvertNumber(Value const& value, Type from, Type to) {
  std::optional<long double> const number = std::visit(ToNumber{}, value);
  if (!number) return std::nullopt;
  std::optional<Value> converted = FromNumber(to, *number);
  if (!converted) return std::nullopt;
  std::optional<Value> const back = FromNumber(from, *std::visit(ToNumber{}, *converted));
  bool const exact = back && (*back == value || SameValue(*back, value));  // zeros are equal
  return Converted{*converted, exact};
}

void PutConverted(Transaction& transaction, Object const& object, Table const& table,
                  Column const& column, Value const& value) {
  std::uint64_t const position = object.reference().addr & ~std::uint64_t{0xFFFF};
  detail::PutValue(
      {transaction.context(), object.id().value, position | table.layout, column.ordinal},
      column.type, value);
}

Value ZeroOf(Type type) {
  switch (type) {
    case Type::kString:
      return std::u16string();
    case Type::kBinary:
      return Bytes();
    case Type::kReference:
      return Null{};
    default:
      return FromNumber(type, 0).value();
  }
}

Value Converter::Empty() const { return wanted_.nullable ? Value(Null{}) : ZeroOf(wanted_.type); }

Converted Converter::operator()(Value const& value) const {
  if (IsNull(value)) return {Empty(), wanted_.nullable};
  if (auto converted = Convert(value)) return *std::move(converted);
  return {Empty(), false};
}

std::optional<Converted> Converter::Convert(Value const& value) const {
  if (kept_) return Converted{value};
  if (ConversionOf(from_, wanted_.type) == Conversion::kNone) return std::nullopt;
  if (wanted_.type == Type::kReference) return ToReference(value);
  if (wanted_.type == Type::kString) return Converted{ToUtf16(ValueText(value))};
  if (auto const* const text = std::get_if<std::u16string>(&value)) return FromText(*text);
  return ConvertNumber(value, from_, wanted_.type);
}

std::optional<Converted> Converter::FromText(std::u16string const& text) const {
  try {
    return Converted{ParseValue(wanted_.type, ToUtf8(text))};
  } catch (BadValue const&) {
    return std::nullopt;
  }
}

// A reference that leads nowhere stays as it is.
std::optional<Converted> Converter::ToReference(Value const& value) const {
  auto const* const text = std::get_if<std::u16string>(&value);
  auto const id = text != nullptr ? FromText(*text) : ConvertNumber(value, from_, Type::kReference);
  if (!id || !id->exact) return std::nullopt;
  auto const object = Object::Find(transaction_, std::get<ObjectId>(id->value));
  if (!object) return from_ == Type::kReference ? id : std::nullopt;
  return transaction_.Holds(wanted_.target, object->reference()) ? id : std::nullopt;
}

}  // namespace columns
}  // namespace sagleme
