#include "text/key_values.h"

#include <bit>
#include <optional>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

constexpr unsigned char kNull = 0x60;
constexpr unsigned char kNumber = 0x28;
constexpr unsigned char kChunks = 0x20;
constexpr unsigned char kChunksEnd = 0x80;
constexpr std::size_t kMaxChunk = 31;
constexpr std::uint64_t kSignBit = std::uint64_t{1} << 63;

double DoubleOf(std::uint64_t ordered) {
  return std::bit_cast<double>(ordered & kSignBit ? ordered ^ kSignBit : ~ordered);
}

std::int64_t SignedOf(std::uint64_t ordered) {
  return static_cast<std::int64_t>(ordered ^ kSignBit);
}

Value NumberOf(Type type, std::uint64_t ordered) {
  switch (type) {
    case Type::kLong:
      return SignedOf(ordered);
    case Type::kDecimal:
      return Decimal{SignedOf(ordered)};
    case Type::kFloat:
      return static_cast<float>(DoubleOf(ordered));
    case Type::kDouble:
      return DoubleOf(ordered);
    case Type::kReference:
      return ObjectId{ordered};
    case Type::kBool:
      return ordered != 0;
    default:
      return ordered;
  }
}

// Surrogates are encoded separately, each in three bytes.
std::u16string TextOf(std::string_view packed) {
  std::u16string text;
  for (std::size_t at = 0; at < packed.size();) {
    auto const next = [&] { return at < packed.size() ? packed[at++] & 0x3F : 0; };
    auto const first = static_cast<unsigned char>(packed[at++]);
    int unit = first;
    if (first >= 0xE0) {
      unit = (first & 0x0F) << 12;
      unit |= next() << 6;
      unit |= next();
    } else if (first >= 0xC0) {
      unit = (first & 0x1F) << 6 | next();
    }
    text.push_back(static_cast<char16_t>(unit));
  }
  return text;
}

class KeyReader {
 public:
  explicit KeyReader(std::string_view key) : rest_(key) {}

  // Nothing if the bytes are not of that type.
  std::optional<Value> Read(Type type) {
    if (rest_.empty()) return std::nullopt;
    if (First() == kNull) {
      rest_.remove_prefix(1);
      return Null{};
    }
    if (type != Type::kString && type != Type::kBinary) return ReadNumber(type);
    auto const bytes = ReadChunks();
    if (!bytes) return std::nullopt;
    if (type == Type::kBinary) return Bytes(bytes->begin(), bytes->end());
    return TextOf(*bytes);
  }

 private:
  unsigned char First() const { return static_cast<unsigned char>(rest_.front()); }

  std::optional<Value> ReadNumber(Type type) {
    if (First() != kNumber || rest_.size() <= sizeof(std::uint64_t)) return std::nullopt;
    std::uint64_t number = 0;
    for (char const byte : rest_.substr(1, sizeof number)) {
      number = number << 8 | static_cast<unsigned char>(byte);
    }
    rest_.remove_prefix(1 + sizeof number);
    return NumberOf(type, number);
  }

  std::optional<std::string> ReadChunks() {
    std::string bytes;
    unsigned char tag = kChunks;
    do {
      if (First() < tag || First() > tag + kMaxChunk) return std::nullopt;
      std::size_t const count = First() - std::size_t{tag};
      rest_.remove_prefix(1);
      if (rest_.size() <= count) return std::nullopt;
      bytes.append(rest_.substr(0, count));
      rest_.remove_prefix(count);
      tag = 0;
    } while (First() != kChunksEnd);
    rest_.remove_prefix(1);
    return bytes;
  }

  std::string_view rest_;
};

}  // namespace

std::vector<Value> KeyValues(Index const& index, std::string_view key) {
  std::vector<Value> values;
  KeyReader reader(key);
  for (IndexedColumn const& column : index.columns) {
    std::optional<Value> value = reader.Read(column.type);
    if (!value) return {};
    values.push_back(std::move(*value));
  }
  return values;
}

std::string KeyText(std::vector<Value> const& key) {
  std::string text;
  for (Value const& value : key) {
    if (!text.empty()) text += ", ";
    std::string const part = ValueText(value);
    if (std::holds_alternative<std::u16string>(value)) {
      text.append("\"").append(Visible(part)).append("\"");
    } else {
      text += part;
    }
  }
  return text;
}

}  // namespace sagleme
