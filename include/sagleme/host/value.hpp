#ifndef SAGLEME_HOST_VALUE_HPP
#define SAGLEME_HOST_VALUE_HPP

// The values of columns, by themselves and as one variant.

#include <array>
#include <cstdint>
#include <sagleme/host/errors.hpp>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sagleme {

enum class Type : std::uint8_t {
  kString = SAGLEME_TYPE_TEXT,
  kBinary = SAGLEME_TYPE_BINARY,
  kLong = SAGLEME_TYPE_SIGNED,
  kULong = SAGLEME_TYPE_UNSIGNED,
  kDecimal = SAGLEME_TYPE_DECIMAL,
  kFloat = SAGLEME_TYPE_FLOAT,
  kDouble = SAGLEME_TYPE_DOUBLE,
  kReference = SAGLEME_TYPE_REFERENCE,
  kKey = LORV_TYPE_KEY,
  kBool = SAGLEME_TYPE_BOOL,
};

inline constexpr std::array<std::string_view, 11> kTypeNames = {
    "",      "string", "binary",    "long", "ulong", "decimal",
    "float", "double", "reference", "key",  "bool"};

inline std::string_view TypeName(Type type) { return kTypeNames[static_cast<std::size_t>(type)]; }

// Columns of these types always take null, whatever their definition says.
constexpr bool MustBeNullable(Type type) {
  return type == Type::kString || type == Type::kBinary || type == Type::kReference;
}

// A signed count of millionths.
struct Decimal {
  std::int64_t millionths = 0;
  friend bool operator==(Decimal const&, Decimal const&) = default;
  friend auto operator<=>(Decimal const&, Decimal const&) = default;
};

// The identity of an object; 0 is no object.
struct ObjectId {
  std::uint64_t value = 0;
  friend bool operator==(ObjectId const&, ObjectId const&) = default;
  friend auto operator<=>(ObjectId const&, ObjectId const&) = default;
};

using Bytes = std::vector<std::uint8_t>;
struct Null {
  friend bool operator==(Null const&, Null const&) = default;
};

// Null, or a value of one of the types. Texts are given in UTF-16 or UTF-8 and held in UTF-16.
class Value : public std::variant<Null, bool, std::int64_t, std::uint64_t, Decimal, float, double,
                                  std::u16string, Bytes, ObjectId> {
 public:
  using variant::variant;
  Value(std::u16string_view text) : variant(std::u16string(text)) {}
  Value(std::string_view utf8) : variant(ToUtf16(utf8)) {}
  Value(std::string const& utf8) : variant(ToUtf16(utf8)) {}
  Value(char const* utf8) : variant(ToUtf16(utf8)) {}
  Value(std::u8string_view utf8) : variant(ToUtf16(utf8)) {}
  Value(std::u8string const& utf8) : variant(ToUtf16(utf8)) {}
  Value(char8_t const* utf8) : variant(ToUtf16(utf8)) {}
};

inline bool IsNull(Value const& value) { return std::holds_alternative<Null>(value); }

namespace detail {

template <typename T>
struct TypeOf;
template <>
struct TypeOf<bool> {
  static bool Fits(Type type) { return type == Type::kBool; }
};
template <>
struct TypeOf<std::int64_t> {
  static bool Fits(Type type) { return type == Type::kLong; }
};
template <>
struct TypeOf<std::uint64_t> {
  static bool Fits(Type type) { return type == Type::kULong || type == Type::kKey; }
};
template <>
struct TypeOf<Decimal> {
  static bool Fits(Type type) { return type == Type::kDecimal; }
};
template <>
struct TypeOf<float> {
  static bool Fits(Type type) { return type == Type::kFloat; }
};
template <>
struct TypeOf<double> {
  static bool Fits(Type type) { return type == Type::kDouble; }
};
template <>
struct TypeOf<std::u16string> {
  static bool Fits(Type type) { return type == Type::kString; }
};
template <>
struct TypeOf<std::u16string_view> {
  static bool Fits(Type type) { return type == Type::kString; }
};
template <>
struct TypeOf<std::string> {
  static bool Fits(Type type) { return type == Type::kString; }
};
template <>
struct TypeOf<std::u8string> {
  static bool Fits(Type type) { return type == Type::kString; }
};
template <>
struct TypeOf<Bytes> {
  static bool Fits(Type type) { return type == Type::kBinary; }
};
template <>
struct TypeOf<ObjectId> {
  static bool Fits(Type type) { return type == Type::kReference; }
};

// One column of one object, as the kernel addresses it.
struct ColumnLocation {
  std::uint64_t context;
  std::uint64_t oid;
  std::uint64_t addr;
  std::uint32_t column;
};

// Each reads into its last argument and returns the kernel's status.
inline std::uint32_t Get(ColumnLocation const& at, bool& out) {
  std::uint64_t word = 0;
  auto const status = lorv_context_get_ulong(at.context, at.oid, at.addr, at.column, &word);
  out = word != 0;
  return status;
}
inline std::uint32_t Get(ColumnLocation const& at, std::int64_t& out) {
  return lorv_context_get_long(at.context, at.oid, at.addr, at.column, &out);
}
inline std::uint32_t Get(ColumnLocation const& at, std::uint64_t& out) {
  return lorv_context_get_ulong(at.context, at.oid, at.addr, at.column, &out);
}
inline std::uint32_t Get(ColumnLocation const& at, Decimal& out) {
  return lorv_context_get_decimal(at.context, at.oid, at.addr, at.column, &out.millionths);
}
inline std::uint32_t Get(ColumnLocation const& at, float& out) {
  return lorv_context_get_float(at.context, at.oid, at.addr, at.column, &out);
}
inline std::uint32_t Get(ColumnLocation const& at, double& out) {
  return lorv_context_get_double(at.context, at.oid, at.addr, at.column, &out);
}
inline std::uint32_t Get(ColumnLocation const& at, std::u16string_view& out) {
  LORV_STRING* record = nullptr;
  auto const status = lorv_context_get_string(at.context, at.oid, at.addr, at.column, &record);
  if (status == 0) out = {record->units, record->length};
  return status;
}
inline std::uint32_t Get(ColumnLocation const& at, std::u16string& out) {
  std::u16string_view view;
  auto const status = Get(at, view);
  out = view;
  return status;
}
inline std::uint32_t Get(ColumnLocation const& at, std::string& out) {
  std::u16string_view view;
  auto const status = Get(at, view);
  if (status == 0) out = ToUtf8(view);
  return status;
}
inline std::uint32_t Get(ColumnLocation const& at, std::u8string& out) {
  std::string bytes;
  auto const status = Get(at, bytes);
  if (status == 0) out.assign(bytes.begin(), bytes.end());
  return status;
}
inline std::uint32_t Get(ColumnLocation const& at, Bytes& out) {
  LORV_BINARY* record = nullptr;
  auto const status = lorv_context_get_binary(at.context, at.oid, at.addr, at.column, &record);
  if (status == 0) out.assign(record->bytes, record->bytes + record->length);
  return status;
}
inline std::uint32_t Get(ColumnLocation const& at, ObjectId& out) {
  return lorvi_context_get_refid(at.context, at.oid, at.addr, at.column, &out.value);
}

inline std::uint32_t Put(ColumnLocation const& at, Null) {
  return lorv_context_put_default(at.context, at.oid, at.addr, at.column);
}
inline std::uint32_t Put(ColumnLocation const& at, bool value) {
  return lorv_context_put_ulong(at.context, at.oid, at.addr, at.column, value ? 1 : 0);
}
inline std::uint32_t Put(ColumnLocation const& at, std::int64_t value) {
  return lorv_context_put_long(at.context, at.oid, at.addr, at.column, value);
}
inline std::uint32_t Put(ColumnLocation const& at, std::uint64_t value) {
  return lorv_context_put_ulong(at.context, at.oid, at.addr, at.column, value);
}
inline std::uint32_t Put(ColumnLocation const& at, Decimal value) {
  return lorv_context_put_decimal(at.context, at.oid, at.addr, at.column, value.millionths);
}
inline std::uint32_t Put(ColumnLocation const& at, float value) {
  return lorv_context_put_float(at.context, at.oid, at.addr, at.column, value);
}
inline std::uint32_t Put(ColumnLocation const& at, double value) {
  return lorv_context_put_double(at.context, at.oid, at.addr, at.column, value);
}
// A stored text ends at its first U+0000, so a text with one is refused rather than truncated.
inline std::uint32_t Put(ColumnLocation const& at, std::u16string const& value) {
  if (value.find(u'\0') != std::u16string::npos) return LSCOREDB_INVALID_ARGUMENT;
  return lorv_context_put_string(at.context, at.oid, at.addr, at.column, value.c_str());
}
inline std::uint32_t Put(ColumnLocation const& at, std::u16string_view value) {
  return Put(at, std::u16string(value));
}
inline std::uint32_t Put(ColumnLocation const& at, std::string const& utf8) {
  return Put(at, ToUtf16(utf8));
}
inline std::uint32_t Put(ColumnLocation const& at, std::u8string const& utf8) {
  return Put(at, ToUtf16(utf8));
}
inline std::uint32_t Put(ColumnLocation const& at, Bytes const& value) {
  static std::uint8_t const none = 0;  // an empty value is not null, which a null pointer would say
  void const* const data = value.empty() ? &none : value.data();
  return lorv_context_put_binary(at.context, at.oid, at.addr, at.column, data, value.size());
}
inline std::uint32_t Put(ColumnLocation const& at, ObjectId value) {
  return lorv_context_put_reference(at.context, at.oid, at.addr, at.column, value.value, 0);
}

template <typename T>
Value GetAs(ColumnLocation const& at) {
  T value{};
  auto const status = Get(at, value);
  if (status == LORV_STATUS_NULL) return Null{};
  CheckKernel(status);
  return value;
}

inline Value GetValue(ColumnLocation const& at, Type type) {
  switch (type) {
    case Type::kString:
      return GetAs<std::u16string>(at);
    case Type::kBinary:
      return GetAs<Bytes>(at);
    case Type::kLong:
      return GetAs<std::int64_t>(at);
    case Type::kULong:
    case Type::kKey:
      return GetAs<std::uint64_t>(at);
    case Type::kDecimal:
      return GetAs<Decimal>(at);
    case Type::kFloat:
      return GetAs<float>(at);
    case Type::kDouble:
      return GetAs<double>(at);
    case Type::kReference:
      return GetAs<ObjectId>(at);
    case Type::kBool:
      return GetAs<bool>(at);
  }
  throw Error(LSCOREDB_WRONG_TYPE, lscoredb_status_text(LSCOREDB_WRONG_TYPE));
}

// Whether a column of that type can hold the value; any can hold null.
inline bool Fits(Value const& value, Type type) {
  return std::visit(
      [type]<typename T>(T const&) {
        if constexpr (std::is_same_v<T, Null>) {
          return true;
        } else {
          return TypeOf<T>::Fits(type);
        }
      },
      value);
}

inline void PutValue(ColumnLocation const& at, Type type, Value const& value) {
  if (!Fits(value, type)) CheckKernel(LSCOREDB_WRONG_TYPE);
  CheckKernel(std::visit([&at](auto const& typed) { return Put(at, typed); }, value));
}

}  // namespace detail
}  // namespace sagleme

#endif
