#include <fmt/format.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <sagleme/host/text.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

constexpr std::uint64_t kMillion = 1000000;

template <typename T>
using BitsOf = std::conditional_t<sizeof(T) == sizeof(std::uint32_t), std::uint32_t, std::uint64_t>;

struct ToText {
  std::string operator()(Null) const { return ""; }
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(std::uint64_t value) const { return std::to_string(value); }
  std::string operator()(Decimal value) const { return DecimalText(value); }
  std::string operator()(float value) const { return Floating(value); }
  std::string operator()(double value) const { return Floating(value); }
  std::string operator()(std::u16string const& value) const { return ToUtf8(value); }
  std::string operator()(Bytes const& value) const { return Base64(value); }
  std::string operator()(ObjectId value) const { return std::to_string(value.value); }

  // A NaN other than the usual one comes with its bits.
  template <typename T>
  static std::string NanText(T value) {
    auto const bits = std::bit_cast<BitsOf<T>>(value);
    if (bits == std::bit_cast<BitsOf<T>>(std::numeric_limits<T>::quiet_NaN())) return "nan";
    return fmt::format("nan({:0{}x})", bits, 2 * sizeof bits);
  }

  template <typename T>
  static std::string Floating(T value) {
    if (std::isnan(value)) return NanText(value);
    // JSON readers take "-0" for the integer, which has no sign.
    if (value == 0 && std::signbit(value)) return "-0.0";
    return fmt::format("{}", value);
  }
};

struct ToJson {
  std::string operator()(Null) const { return "null"; }
  std::string operator()(float value) const { return Number(value); }
  std::string operator()(double value) const { return Number(value); }
  std::string operator()(Decimal value) const { return JsonString(DecimalText(value)); }
  std::string operator()(Bytes const& value) const { return JsonString(Base64(value)); }
  std::string operator()(std::u16string const& value) const {
    return IsWellFormed(value) ? JsonString(ToUtf8(value)) : UnitsJson(value);
  }
  template <typename T>
  std::string operator()(T const& value) const {
    return ToText{}(value);
  }

  template <typename T>
  static std::string Number(T value) {
    std::string const text = ToText::Floating(value);
    return std::isfinite(value) ? text : JsonString(text);
  }
};

[[noreturn]] void ThrowOutOfRange(std::string_view text) {
  throw BadValue(fmt::format("{} is out of range", text));
}

template <typename T>
T ParseNumber(std::string_view text) {
  T value{};
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc::result_out_of_range) ThrowOutOfRange(text);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
    throw BadValue(fmt::format("\"{}\" is not a number", text));
  }
  return value;
}

// Also nan(bits), where the bits are hexadecimal digits as ValueText writes them.
template <typename T>
T ParseFloating(std::string_view text) {
  if (!text.starts_with("nan(")) return ParseNumber<T>(text);
  BitsOf<T> bits = 0;
  std::string_view const digits = text.substr(4, 2 * sizeof bits);
  auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits, 16);
  bool const whole = error == std::errc() && end == digits.data() + 2 * sizeof bits;
  auto const value = std::bit_cast<T>(bits);
  if (whole && std::isnan(value) && text.substr(4 + digits.size()) == ")") return value;
  throw BadValue(fmt::format("\"{}\" is not a number", text));
}

bool ParseBool(std::string_view text) {
  if (text == "true" || text == "1") return true;
  if (text == "false" || text == "0") return false;
  throw BadValue(fmt::format("\"{}\" is neither true nor false", text));
}

[[noreturn]] void ThrowBadDecimal(std::string_view text) {
  throw BadValue(
      fmt::format("\"{}\" is not a decimal with at most six digits after the point", text));
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
  std::string const millionths = whole + fraction;
  std::uint64_t value = 0;
  auto const read =
      std::from_chars(millionths.data(), millionths.data() + millionths.size(), value);
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (read.ec != std::errc() || value > kMost + (negative ? 1 : 0)) ThrowOutOfRange(text);
  return {static_cast<std::int64_t>(negative ? 0 - value : value)};
}

std::u16string ParseText(std::string_view text) {
  try {
    std::u16string units = ToUtf16(text);
    if (units.find(u'\0') == std::u16string::npos) return units;
  } catch (BadUtf8 const& error) {
    throw BadValue(error.what());
  }
  throw BadValue("a stored text cannot contain U+0000");
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

std::string ValueJson(Value const& value) { return std::visit(ToJson{}, value); }

Value ParseValue(Type type, std::string_view text) {
  switch (type) {
    case Type::kString:
      return ParseText(text);
    case Type::kBinary:
      return ParseBase64(text);
    case Type::kLong:
      return ParseNumber<std::int64_t>(text);
    case Type::kULong:
    case Type::kKey:
      return ParseNumber<std::uint64_t>(text);
    case Type::kDecimal:
      return ParseDecimal(text);
    case Type::kFloat:
      return ParseFloating<float>(text);
    case Type::kDouble:
      return ParseFloating<double>(text);
    case Type::kReference:
      return ObjectId{ParseNumber<std::uint64_t>(text)};
    case Type::kBool:
      return ParseBool(text);
  }
  throw BadValue("the type of the column is not known");
}

}  // namespace sagleme
