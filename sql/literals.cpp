#include "literals.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <sagleme/value_text.hpp>

#include "failure.h"

namespace sagleme::sql {
namespace {

std::string Blob(std::string const& bytes) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text = "X'";
  for (char const c : bytes) {
    auto const byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  return text + "'";
}

std::string QuotedText(std::string const& text) {
  std::string quoted = "'";
  for (char const c : text) {
    quoted += c;
    if (c == '\'') quoted += c;
  }
  return quoted + "'";
}

std::string BytesOfWord(std::uint64_t word) {
  std::string bytes;
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(word >> shift);
  return bytes;
}

std::string BytesOfUnits(std::u16string const& units) {
  std::string bytes;
  for (char16_t const unit : units) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}

struct ToLiteral {
  std::string operator()(Null) const { return "NULL"; }
  std::string operator()(bool value) const { return value ? "1" : "0"; }
  std::string operator()(std::u16string const& value) const {
    return IsWellFormed(value) ? QuotedText(ToUtf8(value)) : Blob(BytesOfUnits(value));
  }
  std::string operator()(Bytes const& value) const {
    return Blob(std::string(value.begin(), value.end()));
  }
  std::string operator()(Decimal value) const { return QuotedText(DecimalText(value)); }
  std::string operator()(std::uint64_t value) const {
    bool const large = value > static_cast<std::uint64_t>(INT64_MAX);
    return large ? QuotedText(std::to_string(value)) : std::to_string(value);
  }
  std::string operator()(float value) const { return Real(value, ValueText(value)); }
  std::string operator()(double value) const { return Real(value, ValueText(value)); }
  template <typename T>
  std::string operator()(T const& value) const {
    return ValueText(value);
  }

  static std::string Real(double value, std::string const& digits) {
    return std::isfinite(value) ? digits : Blob(BytesOfWord(std::bit_cast<std::uint64_t>(value)));
  }
};

int DigitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  return (c | 0x20) - 'a' + 10;
}

Bytes BytesOf(std::string_view blob) {
  Bytes bytes;
  for (std::size_t i = 2; i + 2 < blob.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(DigitOf(blob[i]) << 4 | DigitOf(blob[i + 1])));
  }
  return bytes;
}

Value FromBytes(Type type, Bytes const& bytes) {
  if (type == Type::kBinary) return bytes;
  if (type == Type::kString && bytes.size() % 2 == 0) {
    std::u16string units;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
      units += static_cast<char16_t>(bytes[i] | bytes[i + 1] << 8);
    }
    return units;
  }
  bool const real = type == Type::kDouble || type == Type::kFloat;
  if (!real || bytes.size() != 8) throw BadValue("it takes no such bytes");
  std::uint64_t word = 0;
  for (std::uint8_t const byte : bytes) word = word << 8 | byte;
  auto const value = std::bit_cast<double>(word);
  if (type == Type::kFloat) return static_cast<float>(value);
  return value;
}

Value Parse(Type type, std::string const& literal) {
  std::string word = literal;
  std::transform(word.begin(), word.end(), word.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
  if (word == "null") return Null{};
  if (word.starts_with("x'")) return FromBytes(type, BytesOf(literal));
  if (type == Type::kBool && (word == "1" || word == "0")) return word == "1";
  bool const quoted = literal.starts_with('\'');
  if (!quoted && type == Type::kString) throw BadValue("a text stands in single quotes");
  if (type == Type::kBinary) throw BadValue("bytes are written as X'...'");
  return ParseValue(type, quoted ? TextOfLiteral(literal) : word);
}

}  // namespace

std::string TextOfLiteral(std::string const& quoted) {
  std::string text;
  for (std::size_t i = 1; i + 1 < quoted.size(); ++i) {
    text += quoted[i];
    if (quoted[i] == '\'') ++i;
  }
  return text;
}

std::string Literal(Value const& value) {
  return std::visit(ToLiteral{}, static_cast<Value::variant const&>(value));
}

Value ParseLiteral(Type type, std::string const& literal) {
  try {
    return Parse(type, literal);
  } catch (BadValue const& error) {
    throw Failure(SQLITE_ERROR, "the default " + literal + " does not fit a column of type " +
                                    std::string(TypeName(type)) + ": " + error.what());
  }
}

}  // namespace sagleme::sql
