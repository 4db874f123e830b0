#include "annotations/default_text.h"

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

void RefuseNul(Value const& value) {
  auto const* const text = std::get_if<std::u16string>(&value);
  if (text != nullptr && text->find(u'\0') != std::u16string::npos) {
    throw BadValue("a stored text cannot contain U+0000");
  }
}

Value ParseAny(Type type, Json const& json) {
  switch (json.type()) {
    case Json::value_t::null:
      return Null{};
    case Json::value_t::string:
      return ParseValue(type, json.get<std::string>());
    case Json::value_t::boolean:
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float:
      return ParseBare(type, json.dump());
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
  Value value = ParseAny(type, parsed);
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
