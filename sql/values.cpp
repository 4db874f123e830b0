#include "values.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>

#include "failure.h"
#include "numbers.h"
#include "text.h"

namespace sagleme::sql {
namespace {

bool IsNull(sqlite3_context* result, std::uint32_t status) {
  if (status == LORV_STATUS_OK) return false;
  if (status != LORV_STATUS_NULL) detail::CheckKernel(status);
  sqlite3_result_null(result);
  return true;
}

// What the kernel hands out inside is given back at the end, so that a scan keeps nothing.
class Scope {
 public:
  explicit Scope(std::uint64_t context) : context_(context) { lscoredb_read_scope_begin(context); }
  ~Scope() { lscoredb_read_scope_end(context_); }
  Scope(Scope const&) = delete;
  Scope& operator=(Scope const&) = delete;

 private:
  std::uint64_t context_;
};

void TextResult(sqlite3_context* result, ValueLocation const& at) {
  Scope const scope(at.context);
  LORV_STRING* record = nullptr;
  if (IsNull(result, lorv_context_get_string(at.context, at.oid, at.addr, at.column, &record))) {
    return;
  }
  thread_local std::string text;
  ToSqlText({record->units, record->length}, text);
  sqlite3_result_text64(result, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  if (text.capacity() > 1u << 16) std::string().swap(text);
}

void BinaryResult(sqlite3_context* result, ValueLocation const& at) {
  Scope const scope(at.context);
  LORV_BINARY* record = nullptr;
  if (IsNull(result, lorv_context_get_binary(at.context, at.oid, at.addr, at.column, &record))) {
    return;
  }
  sqlite3_result_blob64(result, record->bytes, record->length, SQLITE_TRANSIENT);
}

void PutUnsigned(sqlite3_context* result, std::uint64_t value) {
  if (value > static_cast<std::uint64_t>(INT64_MAX)) {
    sqlite3_result_double(result, static_cast<double>(value));
  } else {
    sqlite3_result_int64(result, static_cast<sqlite3_int64>(value));
  }
}

void UnsignedResult(sqlite3_context* result, ValueLocation const& at) {
  std::uint64_t value = 0;
  if (IsNull(result, lorv_context_get_ulong(at.context, at.oid, at.addr, at.column, &value))) {
    return;
  }
  PutUnsigned(result, value);
}

void PutReference(sqlite3_context* result, std::uint64_t oid, unsigned attachment) {
  if (oid == 0) {
    sqlite3_result_null(result);
  } else {
    IdResult(result, oid, attachment);
  }
}

void ReferenceResult(sqlite3_context* result, ValueLocation const& at, unsigned attachment) {
  std::uint64_t oid = 0;
  if (IsNull(result, lorvi_context_get_refid(at.context, at.oid, at.addr, at.column, &oid))) return;
  PutReference(result, oid, attachment);
}

void BlobOfWord(sqlite3_context* result, std::uint64_t word) {
  unsigned char bytes[8];
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(word >> (56 - 8 * i));
  sqlite3_result_blob(result, bytes, sizeof bytes, SQLITE_TRANSIENT);
}

template <typename T>
bool Get(sqlite3_context* result, ValueLocation const& at, T& value) {
  return !IsNull(
      result, detail::Get(detail::ColumnLocation{at.context, at.oid, at.addr, at.column}, value));
}

void ExactText(sqlite3_context* result, ValueLocation const& at) {
  std::u16string text;
  if (!Get(result, at, text)) return;
  std::string bytes;
  for (char16_t const unit : text) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  sqlite3_result_blob64(result, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
}

std::string_view Bytes8(sqlite3_value* value) {
  auto const* const bytes = static_cast<char const*>(sqlite3_value_blob(value));
  return {bytes, bytes == nullptr ? 0 : static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

std::string_view TypeOfValue(sqlite3_value* value) {
  constexpr std::string_view kNames[] = {"an integer", "a real number", "a text", "a blob", "NULL"};
  return kNames[sqlite3_value_type(value) - 1];
}

[[noreturn]] void Refuse(ShapeColumn const& column, sqlite3_value* value) {
  std::string text = "Column " + column.name + " of type " + std::string(TypeName(column.type)) +
                     " does not take " + std::string(TypeOfValue(value));
  int const type = sqlite3_value_type(value);
  if (type != SQLITE_BLOB && type != SQLITE_NULL) {
    text.append(" ").append(TextBytes(value));
  }
  throw Failure(SQLITE_MISMATCH, text + ".");
}

// What ExactResult gave, read again.
std::optional<std::uint64_t> WordIn(sqlite3_value* value) {
  if (sqlite3_value_type(value) != SQLITE_BLOB) return std::nullopt;
  std::string_view const bytes = Bytes8(value);
  if (bytes.size() != 8) return std::nullopt;
  std::uint64_t word = 0;
  for (char const byte : bytes) word = word << 8 | static_cast<unsigned char>(byte);
  return word;
}

std::optional<std::u16string> UnitsIn(sqlite3_value* value) {
  std::string_view const bytes = Bytes8(value);
  if (sqlite3_value_type(value) != SQLITE_BLOB || bytes.size() % 2 != 0) return std::nullopt;
  std::u16string text;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    text += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                  static_cast<unsigned char>(bytes[i + 1]) << 8);
  }
  if (text.find(u'\0') != std::u16string::npos) return std::nullopt;
  return text;
}

Value TextValue(ShapeColumn const& column, sqlite3_value* value) {
  if (auto exact = UnitsIn(value)) return *exact;
  if (sqlite3_value_type(value) == SQLITE_BLOB) Refuse(column, value);
  auto text = TextIn(value);
  if (text.has_value()) return *text;
  throw Failure(SQLITE_MISMATCH,
                "The text for column " + column.name + " is not UTF-8, or has a zero byte in it.");
}

Value BinaryValue(ShapeColumn const& column, sqlite3_value* value) {
  if (sqlite3_value_type(value) != SQLITE_BLOB) Refuse(column, value);
  std::string_view const bytes = Bytes8(value);
  return Bytes(bytes.begin(), bytes.end());
}

// An integer, also as a real number or a text that is one.
std::int64_t IntegerIn(ShapeColumn const& column, sqlite3_value* value) {
  auto const number = NumberIn(value);
  if (!number.has_value()) Refuse(column, value);
  if (number->is_integer) return number->integer;
  if (!(number->real >= -9223372036854775808.0 && number->real < 9223372036854775808.0) ||
      number->real != std::trunc(number->real)) {
    Refuse(column, value);
  }
  return static_cast<std::int64_t>(number->real);
}

std::optional<std::uint64_t> UnsignedText(sqlite3_value* value) {
  if (sqlite3_value_type(value) != SQLITE_TEXT) return std::nullopt;
  char const* const text = TextBytes(value);
  char const* const end = text + sqlite3_value_bytes(value);
  std::uint64_t parsed = 0;
  auto const result = std::from_chars(text, end, parsed);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return parsed;
}

std::uint64_t UnsignedIn(ShapeColumn const& column, sqlite3_value* value) {
  if (auto const word = WordIn(value)) return *word;
  if (auto const digits = UnsignedText(value)) return *digits;
  auto const number = NumberIn(value);
  if (!number.has_value()) Refuse(column, value);
  double const real = number->real;
  bool const large = !number->is_integer && real >= 9223372036854775808.0;
  if (large && real < 18446744073709551616.0) return static_cast<std::uint64_t>(real);
  if (real == 18446744073709551616.0) return UINT64_MAX;  // as what the highest numbers read
  std::int64_t const integer = IntegerIn(column, value);
  if (integer < 0) Refuse(column, value);
  return static_cast<std::uint64_t>(integer);
}

Decimal DecimalIn(ShapeColumn const& column, sqlite3_value* value) {
  if (auto const word = WordIn(value)) return {static_cast<std::int64_t>(*word)};
  auto const number = NumberIn(value);
  if (!number.has_value()) Refuse(column, value);
  if (number->is_integer || sqlite3_value_type(value) == SQLITE_TEXT) {
    char const* const text = TextBytes(value);
    if (auto const exact = ParseDecimal(text)) return *exact;
    if (number->is_integer) Refuse(column, value);
  }
  double const millionths = std::nearbyint(number->real * 1e6);
  if (millionths == 9223372036854775808.0) return {INT64_MAX};  // as what the highest reads
  if (!(millionths >= -9223372036854775808.0 && millionths < 9223372036854775808.0)) {
    Refuse(column, value);
  }
  return {static_cast<std::int64_t>(millionths)};
}

double DoubleIn(ShapeColumn const& column, sqlite3_value* value) {
  if (auto const word = WordIn(value)) return std::bit_cast<double>(*word);
  auto const number = NumberIn(value);
  if (!number.has_value()) Refuse(column, value);
  return number->AsReal();
}

Value ValueIn(ShapeColumn const& column, sqlite3_value* value) {
  if (sqlite3_value_type(value) == SQLITE_NULL) {
    if (column.nullable) return Null{};
    throw Failure(SQLITE_CONSTRAINT, "NOT NULL constraint failed: " + column.name);
  }
  switch (column.type) {
    case Type::kString:
      return TextValue(column, value);
    case Type::kBinary:
      return BinaryValue(column, value);
    case Type::kLong:
      return IntegerIn(column, value);
    case Type::kULong:
    case Type::kKey:
      return UnsignedIn(column, value);
    case Type::kDecimal:
      return DecimalIn(column, value);
    case Type::kFloat:
      return static_cast<float>(DoubleIn(column, value));
    case Type::kDouble:
      return DoubleIn(column, value);
    case Type::kReference:
      return ObjectId{UnsignedIn(column, value)};
    case Type::kBool: {
      std::int64_t const integer = IntegerIn(column, value);
      if (integer != 0 && integer != 1) Refuse(column, value);
      return integer == 1;
    }
  }
  Refuse(column, value);
}

}  // namespace

void IdResult(sqlite3_context* result, std::uint64_t oid, unsigned attachment) {
  sqlite3_result_int64(result, static_cast<sqlite3_int64>(oid));
  if (attachment < kMostAttachments) {
    sqlite3_result_subtype(result, kReferenceSubtype + attachment);
  }
}

void Result(sqlite3_context* result, ValueLocation const& at, Type type, unsigned attachment) {
  switch (type) {
    case Type::kString:
      return TextResult(result, at);
    case Type::kBinary:
      return BinaryResult(result, at);
    case Type::kLong: {
      std::int64_t value = 0;
      if (Get(result, at, value)) sqlite3_result_int64(result, value);
      return;
    }
    case Type::kULong:
    case Type::kKey:
    case Type::kBool:
      return UnsignedResult(result, at);
    case Type::kDecimal: {
      Decimal value;
      if (Get(result, at, value)) sqlite3_result_double(result, DecimalAsReal(value.millionths));
      return;
    }
    case Type::kFloat: {
      float value = 0;
      if (Get(result, at, value)) sqlite3_result_double(result, static_cast<double>(value));
      return;
    }
    case Type::kDouble: {
      double value = 0;
      if (Get(result, at, value)) sqlite3_result_double(result, value);
      return;
    }
    case Type::kReference:
      return ReferenceResult(result, at, attachment);
  }
}

void WordResult(sqlite3_context* result, std::uint64_t bits, Type type, unsigned attachment) {
  switch (type) {
    case Type::kULong:
    case Type::kKey:
    case Type::kBool:
      return PutUnsigned(result, bits);
    case Type::kDecimal:
      return sqlite3_result_double(result, DecimalAsReal(static_cast<std::int64_t>(bits)));
    case Type::kFloat: {
      auto const word = static_cast<std::uint32_t>(bits);
      return sqlite3_result_double(result, static_cast<double>(std::bit_cast<float>(word)));
    }
    case Type::kDouble:
      return sqlite3_result_double(result, std::bit_cast<double>(bits));
    case Type::kReference:
      return PutReference(result, bits, attachment);
    default:
      return sqlite3_result_int64(result, static_cast<sqlite3_int64>(bits));
  }
}

void ExactResult(sqlite3_context* result, ValueLocation const& at, Type type) {
  switch (type) {
    case Type::kString:
      return ExactText(result, at);
    case Type::kULong:
    case Type::kKey: {
      std::uint64_t value = 0;
      if (Get(result, at, value)) BlobOfWord(result, value);
      return;
    }
    case Type::kDecimal: {
      Decimal value;
      if (Get(result, at, value)) BlobOfWord(result, static_cast<std::uint64_t>(value.millionths));
      return;
    }
    case Type::kFloat: {
      float value = 0;
      if (Get(result, at, value)) {
        BlobOfWord(result, std::bit_cast<std::uint64_t>(static_cast<double>(value)));
      }
      return;
    }
    case Type::kDouble: {
      double value = 0;
      if (Get(result, at, value)) BlobOfWord(result, std::bit_cast<std::uint64_t>(value));
      return;
    }
    default:
      return Result(result, at, type, kMostAttachments);
  }
}

Input::Input(ShapeColumn const& column, sqlite3_value* value) : value_(ValueIn(column, value)) {}

std::uint32_t Input::Put(ValueLocation const& at) const {
  return std::visit(
      [&at](auto const& typed) {
        return detail::Put(detail::ColumnLocation{at.context, at.oid, at.addr, at.column}, typed);
      },
      value_);
}

std::optional<Decimal> ParseDecimal(std::string_view text) {
  bool const negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  auto const point = text.find('.');
  std::string digits(text.substr(0, point));
  std::string places(point == std::string_view::npos ? "" : text.substr(point + 1));
  if (digits.empty() || places.size() > 6) return std::nullopt;
  places.resize(6, '0');
  digits += places;
  if (negative) digits.insert(digits.begin(), '-');
  std::int64_t millionths = 0;
  auto const* const end = digits.data() + digits.size();
  auto const result = std::from_chars(digits.data(), end, millionths);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return Decimal{millionths};
}

}  // namespace sagleme::sql
