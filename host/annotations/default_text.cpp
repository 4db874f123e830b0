#include "annotations/default_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace sagleme::annotations {
namespace {

using Json = nlohmann::json;

// A text that UTF-8 cannot hold: {"utf16": [units]}.
std::u16string UnitsOf(Json const& json) {
  std::u16string units;
  bool const alone = json.size() == 1 && json.contains("utf16") && json.at("utf16").is_array();
  if (!alone) throw BadValue("an object is not a value");
  for (Json const& unit : json.at("utf16")) {
    if (!unit.is_number_unsigned() || unit.get<std::uint64_t>() > 0xFFFF) {
      throw BadValue(unit.dump() + " is not a unit of UTF-16");
    }
    units.push_back(static_cast<char16_t>(unit.get<std::uint64_t>()));
  }
  return units;
}

[[noreturn]] void RefuseFor(Type type, std::string const& what) {
  throw BadValue(what + " is not a " + std::string(TypeName(type)));
}

// A number or a truth value. Texts and bytes stand in quotes.
Value ParseBare(Type type, std::string const& text) {
  if (type == Type::kString || type == Type::kBinary) RefuseFor(type, text);
  return ParseValue(type, text);
}

// A number with a fraction or an exponent as ParseValue reads it: the text itself, for a double
// would lose digits. A decimal has no exponent; one of few digits is written without it.
std::string DigitsOf(Type type, Json const& json, std::string const& text) {
  constexpr std::ptrdiff_t kDigitsOfDouble = 15;
  bool const exponent = text.find_first_of("eE") != std::string::npos;
  auto const digits =
      std::count_if(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  bool const rewritten = type == Type::kDecimal && exponent && digits <= kDigitsOfDouble;
  return rewritten ? json.dump() : text;
}

void RefuseNul(Value const& value) {
  auto const* const text = std::get_if<std::u16string>(&value);
  if (text != nullptr && text->find(u'\0') != std::u16string::npos) {
    throw BadValue("a stored text cannot contain U+0000");
  }
}

Value ParseAny(Type type, Json const& json, std::string const& text) {
  switch (json.type()) {
    case Json::value_t::null:
      return Null{};
    case Json::value_t::string:
      return ParseValue(type, json.get<std::string>());
    case Json::value_t::boolean:
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
      return ParseBare(type, json.dump());
    case Json::value_t::number_float:
      return ParseBare(type, DigitsOf(type, json, text));
    case Json::value_t::object:
      if (type != Type::kString) RefuseFor(type, "a text");
      return UnitsOf(json);
    default:
      throw BadValue("an array is not a value");
  }
}

}  // namespace

Value ParseJsonValue(Type type, std::string const& json) {
  Json const parsed = Json::parse(json, nullptr, false);
  if (parsed.is_discarded()) throw BadValue(json + " is not JSON");
  Value value = ParseAny(type, parsed, json);
  RefuseNul(value);
  return value;
}

Value StoredDefault(Type type, std::string const& json) {
  try {
    return ParseJsonValue(type, json);
  } catch (BadValue const&) {
    return Null{};
  }
}

}  // namespace sagleme::annotations
