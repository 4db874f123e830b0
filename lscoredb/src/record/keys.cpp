#include "keys.h"

#include <lscoredb/lscoredb.h>

#include <algorithm>
#include <bit>

// The kernel's form of a column, in which memcmp gives index order. A descending column has all its
// bytes inverted.
//
//   null      00
//   number    01, then 8 bytes, big endian: unsigned as it is, signed with the sign bit inverted,
//             float and double as OrderedBits gives them
//   text      01, the bytes of its units (WriteUnit), 00
//   binary    01, its bytes with 00 written as 01 01 and 01 as 01 02, 00
//
// So "a" < "ab", since 00 is below every byte of a text; and the binary 00 < the binary 00 00,
// since 01 01 00 is below 01 01 01 01 00.

namespace lscore {
namespace {

// First byte of a column in the kernel's form. Null is below every value.
constexpr char kNull = 0x00;
constexpr char kValue = 0x01;

// Ends a text or a binary in the kernel's form. It is below every byte that can follow otherwise,
// so that a prefix sorts first. Texts have no such byte; binaries escape it, and the escape itself.
constexpr char kEnd = 0x00;
constexpr char kEscape = 0x01;
constexpr char kEscapedEnd = 0x01;
constexpr char kEscapedEscape = 0x02;

// The byte format of the contract.
constexpr std::uint8_t kKeyInteger = 0x28;
constexpr std::uint8_t kKeyNull = 0x60;
constexpr std::uint8_t kKeyText = 0x20;
constexpr std::uint8_t kKeyTextEnd = 0x80;
constexpr std::uint8_t kKeyEnd = 0xC0;
constexpr std::uint8_t kMaxChunk = 31;

constexpr std::uint64_t kSignBit = std::uint64_t{1} << 63;

// The descending form of what was appended since `start`.
void InvertSince(KeyBytes& out, std::size_t start) {
  for (std::size_t i = start; i < out.size(); ++i) out[i] = static_cast<char>(~out[i]);
}

void InvertIf(bool descending, KeyBytes& out, std::size_t start) {
  if (descending) InvertSince(out, start);
}

void AppendEscaped(KeyBytes& out, std::uint8_t byte) {
  if (byte > static_cast<std::uint8_t>(kEscape)) {
    out.push_back(static_cast<char>(byte));
    return;
  }
  out.push_back(kEscape);
  out.push_back(byte == static_cast<std::uint8_t>(kEnd) ? kEscapedEnd : kEscapedEscape);
}

bool IsText(std::uint8_t type) { return type == LORV_TYPE_STRING; }
bool IsChunked(std::uint8_t type) { return IsText(type) || type == LORV_TYPE_BINARY; }

// Reads one key field by field. A byte is read only after all bytes before it were found valid,
// since the key's length is known only from its bytes.
class KeyReader {
 public:
  KeyReader(void const* key, KeyBytes& out)
      : next_(static_cast<std::uint8_t const*>(key)), out_(out) {}

  bool AtEnd() const { return *next_ == kKeyEnd; }
  bool ReadColumn(KeyColumn column);

 private:
  bool ReadValue(std::uint8_t type);
  bool ReadInteger();
  bool ReadChunks(bool text);
  bool ReadTextBytes(std::size_t count);
  void ReadBinaryBytes(std::size_t count);

  std::uint8_t const* next_;
  KeyBytes& out_;
};

bool KeyReader::ReadColumn(KeyColumn column) {
  std::size_t const start = out_.size();
  if (*next_ == kKeyNull) {
    ++next_;
    out_.push_back(kNull);
  } else {
    out_.push_back(kValue);
    if (!ReadValue(column.type)) return false;
  }
  InvertIf(column.descending, out_, start);
  return true;
}

bool KeyReader::ReadValue(std::uint8_t type) {
  if (!IsChunked(type)) return ReadInteger();
  if (!ReadChunks(IsText(type))) return false;
  out_.push_back(kEnd);
  return true;
}

// The contract's numbers are in order already.
bool KeyReader::ReadInteger() {
  if (*next_ != kKeyInteger) return false;
  ++next_;
  out_.append(reinterpret_cast<char const*>(next_), sizeof(std::uint64_t));
  next_ += sizeof(std::uint64_t);
  return true;
}

bool KeyReader::ReadChunks(bool text) {
  if (*next_ < kKeyText || *next_ > kKeyText + kMaxChunk) return false;
  std::size_t count = *next_++ - std::size_t{kKeyText};
  while (true) {
    if (!text) {
      ReadBinaryBytes(count);
    } else if (!ReadTextBytes(count)) {
      return false;
    }
    if (*next_ == kKeyTextEnd) break;
    // Only a full chunk is followed by another one, and that one is not empty.
    if (count != kMaxChunk || *next_ == 0 || *next_ > kMaxChunk) return false;
    count = *next_++;
  }
  ++next_;
  return true;
}

// A zero byte cannot be part of a text, which also keeps the reader inside a key that was cut.
bool KeyReader::ReadTextBytes(std::size_t count) {
  std::uint8_t const* const end = std::find(next_, next_ + count, std::uint8_t{0});
  out_.append(reinterpret_cast<char const*>(next_), static_cast<std::size_t>(end - next_));
  bool const whole = end == next_ + count;
  next_ = end;
  return whole;
}

void KeyReader::ReadBinaryBytes(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) AppendEscaped(out_, *next_++);
}

void AppendBigEndian(KeyBytes& out, std::uint64_t value, std::size_t bytes) {
  char buffer[sizeof value];
  for (std::size_t i = bytes; i > 0; value >>= 8) buffer[--i] = static_cast<char>(value & 0xFF);
  out.append(buffer, bytes);
}

// Reads a key in the kernel's form and writes it in the contract's.
class KeyTranslator {
 public:
  explicit KeyTranslator(std::string_view encoded) : rest_(encoded) {}

  void Column(KeyColumn column);
  KeyBytes Finish();

 private:
  char Take();
  void Integer();
  KeyBytes TakeBytes(bool text);
  void Chunks(std::string_view bytes);

  std::string_view rest_;
  bool descending_ = false;
  KeyBytes out_;
};

char KeyTranslator::Take() {
  char const byte = rest_.front();
  rest_.remove_prefix(1);
  return descending_ ? static_cast<char>(~byte) : byte;
}

void KeyTranslator::Column(KeyColumn column) {
  descending_ = column.descending;
  if (Take() == kNull) {
    out_.push_back(static_cast<char>(kKeyNull));
  } else if (IsChunked(column.type)) {
    Chunks(TakeBytes(IsText(column.type)));
  } else {
    Integer();
  }
}

void KeyTranslator::Integer() {
  out_.push_back(static_cast<char>(kKeyInteger));
  for (std::size_t i = 0; i < sizeof(std::uint64_t); ++i) out_.push_back(Take());
}

KeyBytes KeyTranslator::TakeBytes(bool text) {
  KeyBytes bytes;
  for (char byte = Take(); byte != kEnd; byte = Take()) {
    if (!text && byte == kEscape) byte = Take() == kEscapedEnd ? kEnd : kEscape;
    bytes.push_back(byte);
  }
  return bytes;
}

void KeyTranslator::Chunks(std::string_view bytes) {
  std::uint8_t tag = kKeyText;
  do {
    std::string_view const chunk = bytes.substr(0, kMaxChunk);
    out_.push_back(static_cast<char>(tag + chunk.size()));
    out_.append(chunk);
    bytes.remove_prefix(chunk.size());
    tag = 0;
  } while (!bytes.empty());
  out_.push_back(static_cast<char>(kKeyTextEnd));
}

KeyBytes KeyTranslator::Finish() {
  out_.push_back(static_cast<char>(kKeyEnd));
  out_.resize((out_.size() + 7) / 8 * 8);
  return std::move(out_);
}

// Ids up to here take one byte. A first byte above it counts the bytes that follow.

std::size_t SignificantBytes(std::uint64_t value) {
  return (static_cast<std::size_t>(std::bit_width(value)) + 7) / 8;
}

}  // namespace

void AppendNull(KeyBytes& out, bool descending) {
  out.push_back(descending ? static_cast<char>(~kNull) : kNull);
}

void AppendUnsigned(KeyBytes& out, std::uint64_t value, bool descending) {
  out.push_back(descending ? static_cast<char>(~kValue) : kValue);
  AppendBigEndian(out, descending ? ~value : value, sizeof value);
}

void AppendSigned(KeyBytes& out, std::int64_t value, bool descending) {
  AppendUnsigned(out, static_cast<std::uint64_t>(value) ^ kSignBit, descending);
}

void AppendFloat(KeyBytes& out, float value, bool descending) {
  AppendDouble(out, static_cast<double>(value), descending);
}

void AppendDouble(KeyBytes& out, double value, bool descending) {
  AppendUnsigned(out, OrderedBits(value), descending);
}

// Collects the bytes of units in a buffer, since appending byte by byte costs more.
void AppendText(KeyBytes& out, std::u16string_view text, bool descending) {
  std::size_t const start = out.size();
  out.push_back(kValue);
  std::uint8_t buffer[128];
  std::uint8_t* to = buffer;
  auto const flush = [&] {
    out.append(reinterpret_cast<char const*>(buffer), static_cast<std::size_t>(to - buffer));
    to = buffer;
  };
  for (char16_t const unit : text) {
    if (unit == 0) break;
    if (to > buffer + sizeof buffer - kMaxUnitBytes) flush();
    to = WriteUnit(unit, to);
  }
  flush();
  out.push_back(kEnd);
  InvertIf(descending, out, start);
}

void AppendBinary(KeyBytes& out, std::span<std::uint8_t const> bytes, bool descending) {
  std::size_t const start = out.size();
  out.push_back(kValue);
  for (std::uint8_t const byte : bytes) AppendEscaped(out, byte);
  out.push_back(kEnd);
  InvertIf(descending, out, start);
}

bool AppendContractKey(KeyBytes& out, void const* key, std::span<KeyColumn const> columns) {
  if (key == nullptr) return false;
  std::size_t const start = out.size();
  KeyReader reader(key, out);
  for (KeyColumn const column : columns) {
    if (reader.AtEnd()) return true;
    if (!reader.ReadColumn(column)) {
      out.resize(start);
      return false;
    }
  }
  if (reader.AtEnd()) return true;
  out.resize(start);
  return false;
}

KeyBytes ContractKey(std::string_view encoded, std::span<KeyColumn const> columns) {
  KeyTranslator translator(encoded);
  for (KeyColumn const column : columns) translator.Column(column);
  return translator.Finish();
}

// Positive values get the sign bit, so that they are above all negative ones, of which all bits are
// inverted, since their magnitudes are in reverse order. Every NaN becomes one value above
// infinity.
std::uint64_t OrderedBits(double value) {
  constexpr std::uint64_t kAboveInfinity = 0xFFF8000000000000;
  if (value != value) return kAboveInfinity;
  std::uint64_t const bits = std::bit_cast<std::uint64_t>(value + 0.0);  // -0 + 0 is 0
  return bits & kSignBit ? ~bits : bits | kSignBit;
}

void AppendOrderedId(KeyBytes& out, std::uint64_t id) {
  if (id <= kMaxShortId) {
    out.push_back(static_cast<char>(id));
    return;
  }
  std::size_t const count = SignificantBytes(id);
  out.push_back(static_cast<char>(kMaxShortId + count));
  AppendBigEndian(out, id, count);
}

std::size_t ReadOrderedId(std::string_view bytes, std::uint64_t* id) {
  if (bytes.empty()) return 0;
  std::uint8_t const first = static_cast<std::uint8_t>(bytes[0]);
  if (first <= kMaxShortId) {
    *id = first;
    return 1;
  }
  std::size_t const count = static_cast<std::size_t>(first - kMaxShortId);
  if (bytes.size() <= count) return 0;
  std::uint64_t value = 0;
  for (char const byte : bytes.substr(1, count))
    value = value << 8 | static_cast<std::uint8_t>(byte);
  if (value <= kMaxShortId || bytes[1] == 0) return 0;  // one number has one form
  *id = value;
  return count + 1;
}

}  // namespace lscore
