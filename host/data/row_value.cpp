#include "data/row_value.h"

#include <string>

namespace sagleme {
namespace {

using Kind = RowValue::Kind;

std::string Shown(RowValue const& value) {
  switch (value.kind) {
    case Kind::kArray:
      return "an array";
    case Kind::kObject:
      return "an object";
    case Kind::kUnits:
      return "a text";
    default:
      return std::string(value.text);
  }
}

bool Fits(Type type, Kind kind) {
  if (kind == Kind::kUnits) return type == Type::kString;
  if (kind == Kind::kArray || kind == Kind::kObject) return false;
  bool const text = type == Type::kString || type == Type::kBinary;
  return kind == Kind::kText || !text;
}

}  // namespace

Value ParseRowValue(Type type, RowValue const& value) {
  if (value.kind == Kind::kNull) return Null{};
  if (!Fits(type, value.kind)) {
    throw BadValue(Shown(value) + " is not a " + std::string(TypeName(type)));
  }
  if (value.kind == Kind::kUnits) return std::u16string(value.units);
  return ParseValue(type, value.text);
}

}  // namespace sagleme
