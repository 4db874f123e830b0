#include "output/value_text.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <sagleme/host/text.hpp>

#include "output/text.h"

namespace tool {
namespace {

using sagleme::Decimal;
using sagleme::Value;

constexpr std::uint64_t kMillion = 1000000;

struct ToText {
  std::string operator()(sagleme::Null) const { return ""; }
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(std::uint64_t value) const { return std::to_string(value); }
  std::string operator()(Decimal value) const { return DecimalText(value); }
  std::string operator()(float value) const { return Floating(value); }
  std::string operator()(double value) const { return Floating(value); }
  std::string operator()(std::u16string const& value) const { return sagleme::ToUtf8(value); }
  std::string operator()(sagleme::Bytes const& value) const { return Base64(value); }
  std::string operator()(sagleme::ObjectId value) const { return std::to_string(value.value); }

  template <typename T>
  static std::string Floating(T value) {
    return std::isnan(value) ? "nan" : fmt::format("{}", value);  // a sign of nan says nothing
  }
};

struct KindOf {
  Cell::Kind operator()(sagleme::Null) const { return Cell::Kind::kNull; }
  Cell::Kind operator()(bool) const { return Cell::Kind::kBool; }
  Cell::Kind operator()(std::int64_t) const { return Cell::Kind::kNumber; }
  Cell::Kind operator()(std::uint64_t) const { return Cell::Kind::kNumber; }
  Cell::Kind operator()(sagleme::ObjectId) const { return Cell::Kind::kNumber; }
  Cell::Kind operator()(float value) const { return Finite(static_cast<double>(value)); }
  Cell::Kind operator()(double value) const { return Finite(value); }
  template <typename T>
  Cell::Kind operator()(T const&) const {
    return Cell::Kind::kText;
  }

  static Cell::Kind Finite(double value) {
    return std::isfinite(value) ? Cell::Kind::kNumber : Cell::Kind::kText;
  }
};

template <typename T>
T ParseNumber(std::string_view text) {
  T value{};
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc::result_out_of_range) {
    throw BadValue(fmt::format("{} is out of range", text));
  }
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
    throw BadValue(fmt::format("\"{}\" is not a number", text));
  }
  return value;
}

bool ParseBool(std::string_view text) {
  if (text == "true" || text == "1") return true;
  if (text == "false" || text == "0") return false;
  throw BadValue(fmt::format("\"{}\" is neither true nor false", text));
}

[[noreturn]] void ThrowBadDecimal(std::string_view text) {
  throw BadValue(
      fmt::format("\"{}\" is not a decimal with at most six digits behind the point", text));
}

Decimal ParseDecimal(std::string_view text) {
  bool const negative = text.starts_with('-');
  std::string_view const digits = text.substr(negative ? 1 : 0);
  auto const point = digits.find('.');
  std::string fraction(point == std::string_view::npos ? "" : digits.substr(point + 1));
  std::string const whole(digits.substr(0, point));
  bool const only_digits = (whole + fraction).find_first_not_of("0123456789") == std::string::npos;
  if (whole.empty() || !only_digits || fraction.size() > 6) ThrowBadDecimal(text);
  fraction.resize(6, '0');
  auto const value = ParseNumber<std::uint64_t>(whole + fraction);
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (value > kMost + (negative ? 1 : 0)) throw BadValue(fmt::format("{} is out of range", text));
  return {static_cast<std::int64_t>(negative ? 0 - value : value)};
}

std::u16string ParseText(std::string_view text) {
  try {
    std::u16string units = sagleme::ToUtf16(text);
    if (units.find(u'\0') == std::u16string::npos) return units;
  } catch (sagleme::BadUtf8 const& error) {
    throw BadValue(error.what());
  }
  throw BadValue("the text holds U+0000, which no stored text can");
}

std::u16string ParseUnits(nlohmann::json const& json) {
  std::u16string units;
  for (auto const& unit : json.at("utf16")) {
    if (!unit.is_number_unsigned() || unit.get<std::uint64_t>() - 1 >= 0xFFFF) {
      throw BadValue(unit.dump() + " is no unit of UTF-16 text");
    }
    units.push_back(unit.get<char16_t>());
  }
  return units;
}

}  // namespace

std::string DecimalText(Decimal value) {
  bool const negative = value.millionths < 0;
  auto const magnitude = negative ? 0 - static_cast<std::uint64_t>(value.millionths)
                                  : static_cast<std::uint64_t>(value.millionths);
  std::string text = fmt::format("{}{}", negative ? "-" : "", magnitude / kMillion);
  if (magnitude % kMillion == 0) return text;
  text += fmt::format(".{:06}", magnitude % kMillion);
  text.erase(text.find_last_not_of('0') + 1);
  return text;
}

std::string ValueText(Value const& value) { return std::visit(ToText{}, value); }

Cell ValueCell(Value const& value) {
  auto const* const text = std::get_if<std::u16string>(&value);
  bool const lone = text != nullptr && !sagleme::IsWellFormed(*text);
  return {std::visit(KindOf{}, value), ValueText(value), lone};
}

std::string ValueJson(Value const& value) { return ValueCell(value).Json(); }

Value ParseValue(sagleme::Type type, std::string_view text) {
  switch (type) {
    case sagleme::Type::kString:
      return ParseText(text);
    case sagleme::Type::kBinary:
      return ParseBase64(text);
    case sagleme::Type::kLong:
      return ParseNumber<std::int64_t>(text);
    case sagleme::Type::kULong:
    case sagleme::Type::kKey:
      return ParseNumber<std::uint64_t>(text);
    case sagleme::Type::kDecimal:
      return ParseDecimal(text);
    case sagleme::Type::kFloat:
      return ParseNumber<float>(text);
    case sagleme::Type::kDouble:
      return ParseNumber<double>(text);
    case sagleme::Type::kReference:
      return sagleme::ObjectId{ParseNumber<std::uint64_t>(text)};
    case sagleme::Type::kBool:
      return ParseBool(text);
  }
  throw BadValue("the column's type is not known");
}

Value ParseJsonValue(sagleme::Type type, nlohmann::json const& json) {
  if (json.is_null()) return sagleme::Null{};
  if (json.is_object() && json.contains("utf16") && type == sagleme::Type::kString) {
    return ParseUnits(json);
  }
  if (json.is_string()) return ParseValue(type, json.get_ref<std::string const&>());
  if (type == sagleme::Type::kString || json.is_structured()) {
    throw BadValue(json.dump() + " is not a " + std::string(sagleme::TypeName(type)));
  }
  if (type == sagleme::Type::kDouble && json.is_number()) return json.get<double>();
  if (type == sagleme::Type::kFloat && json.is_number()) return json.get<float>();
  return ParseValue(type, json.dump());
}

}  // namespace tool
