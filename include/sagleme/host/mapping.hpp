#ifndef SAGLEME_HOST_MAPPING_HPP
#define SAGLEME_HOST_MAPPING_HPP

// How a struct is stored: its table, its members' columns, its indexes, each named once.
//
//   struct Article {
//     std::string title;
//     std::optional<std::int64_t> price;
//   };
//   template <>
//   inline constexpr auto sagleme::mapping<Article> = sagleme::MapTable(
//       "Shop.Article", sagleme::Member("Title", &Article::title),
//       sagleme::Member("Price", &Article::price), sagleme::IndexOn("ArticleByTitle", "Title"));
//
// A struct derived from a mapped one names it with Base; its table derives from the other's.
//
//   template <>
//   inline constexpr auto sagleme::mapping<Book> = sagleme::MapTable(
//       "Library.Book", sagleme::Base<Item>(), sagleme::Member("Pages", &Book::pages));
//
// Members and their columns
//   std::string, std::u8string (UTF-8), std::u16string     string
//   bool; float; double; Decimal; Bytes                    bool; float; double; decimal; binary
//   signed and unsigned integers, enumerations             long, ulong
//   Ref<Other>, ObjectId                                   reference; 0 is null
//   std::optional of one of them                           the same, nullable
// Columns of other members take no null, except texts, binaries and references, which always do.
// A null reads as an empty text or binary, or as zero, if the member is not optional. A number
// that does not fit the member throws Error with LSCOREDB_TOO_LARGE.
//
// <sagleme/host/table_of.hpp> creates tables from mappings, and reads and writes structs.

#include <array>
#include <optional>
#include <sagleme/host/object.hpp>
#include <sagleme/host/schema.hpp>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace sagleme {

struct NotMapped {};

// Specialise it for each struct that is stored.
template <typename T>
inline constexpr NotMapped mapping{};

template <typename T>
concept Mapped = !std::is_same_v<std::remove_cvref_t<decltype(mapping<T>)>, NotMapped>;

// A reference to an object of the table of Other.
template <typename Other>
struct Ref {
  ObjectId id;

  Ref() = default;
  Ref(ObjectId target) : id(target) {}
  Ref(Object const& target) : id(target.id()) {}
  explicit operator bool() const { return id.value != 0; }
  friend bool operator==(Ref const&, Ref const&) = default;
};

template <typename Struct, typename M>
struct MemberMapping {
  std::string_view column;
  M Struct::*member;
  std::string_view target;
};

// `target` names the table that a member of type ObjectId refers to.
template <typename Struct, typename M>
constexpr MemberMapping<Struct, M> Member(std::string_view column, M Struct::*member,
                                          std::string_view target = {}) {
  return {column, member, target};
}

template <typename Struct>
struct BaseMapping {};

template <typename Struct>
constexpr BaseMapping<Struct> Base() {
  return {};
}

struct IndexPart {
  constexpr IndexPart(char const* name, bool rises = true) : column(name), ascending(rises) {}

  std::string_view column;
  bool ascending;
};

constexpr IndexPart Descending(char const* column) { return {column, false}; }

template <std::size_t kParts>
struct IndexMapping {
  std::string_view name;
  Uniqueness uniqueness;
  std::array<IndexPart, kParts> parts;
};

// An index over columns, each given as a name or as Descending(name).
template <typename... Parts>
constexpr IndexMapping<sizeof...(Parts)> IndexOn(std::string_view name, Parts... parts) {
  return {name, Uniqueness::kAny, {IndexPart(parts)...}};
}
template <typename... Parts>
constexpr IndexMapping<sizeof...(Parts)> UniqueIndexOn(std::string_view name, Parts... parts) {
  return {name, Uniqueness::kUnique, {IndexPart(parts)...}};
}

template <typename... Parts>
struct TableMapping {
  std::string_view table;
  std::tuple<Parts...> parts;
};

// `table` is the full name; parts are Base, Member, IndexOn and UniqueIndexOn.
template <typename... Parts>
constexpr TableMapping<Parts...> MapTable(std::string_view table, Parts... parts) {
  return {table, {parts...}};
}

// ---- how members are stored
// -----------------------------------------------------------------------

namespace detail {

// Stored: the type that Property uses. Zero values stand for null if the member has no other.
template <typename M>
struct Storage;

template <typename M, Type kColumnType>
struct StorageAsItIs {
  using Stored = M;
  static constexpr Type kType = kColumnType;
  static constexpr bool kNullable = MustBeNullable(kColumnType);
  static std::optional<Stored> Store(M const& value) { return value; }
  static M Restore(std::optional<Stored> stored, std::string_view) {
    return std::move(stored).value_or(M{});
  }
};
template <>
struct Storage<std::string> : StorageAsItIs<std::string, Type::kString> {};
template <>
struct Storage<std::u8string> : StorageAsItIs<std::u8string, Type::kString> {};
template <>
struct Storage<std::u16string> : StorageAsItIs<std::u16string, Type::kString> {};
template <>
struct Storage<Bytes> : StorageAsItIs<Bytes, Type::kBinary> {};
template <>
struct Storage<bool> : StorageAsItIs<bool, Type::kBool> {};
template <>
struct Storage<float> : StorageAsItIs<float, Type::kFloat> {};
template <>
struct Storage<double> : StorageAsItIs<double, Type::kDouble> {};
template <>
struct Storage<Decimal> : StorageAsItIs<Decimal, Type::kDecimal> {};

template <typename M>
struct NumberOf {
  using Number = M;
};
template <typename M>
requires std::is_enum_v<M>
struct NumberOf<M> {
  using Number = std::underlying_type_t<M>;
};
template <typename M>
requires std::is_integral_v<M> || std::is_enum_v<M>
struct Storage<M> {
  static constexpr bool kSigned = std::is_signed_v<typename NumberOf<M>::Number>;
  using Stored = std::conditional_t<kSigned, std::int64_t, std::uint64_t>;
  static constexpr Type kType = kSigned ? Type::kLong : Type::kULong;
  static constexpr bool kNullable = false;
  static std::optional<Stored> Store(M value) { return static_cast<Stored>(value); }
  static M Restore(std::optional<Stored> stored, std::string_view column) {
    M const value = static_cast<M>(stored.value_or(0));
    if (static_cast<Stored>(value) == stored.value_or(0)) return value;
    throw Error(LSCOREDB_TOO_LARGE, std::to_string(*stored) +
                                        " does not fit into the member for column " +
                                        std::string(column) + ".");
  }
};

template <typename M>
struct StorageOfReference {
  using Stored = ObjectId;
  static constexpr Type kType = Type::kReference;
  static constexpr bool kNullable = true;
  static std::optional<ObjectId> Store(ObjectId id) {
    return id.value == 0 ? std::nullopt : std::optional(id);
  }
  static M Restore(std::optional<ObjectId> stored, std::string_view) {
    return M{stored.value_or(ObjectId{})};
  }
};
template <>
struct Storage<ObjectId> : StorageOfReference<ObjectId> {};
template <typename Other>
struct Storage<Ref<Other>> : StorageOfReference<Ref<Other>> {
  static std::optional<ObjectId> Store(Ref<Other> const& reference) {
    return StorageOfReference<Ref<Other>>::Store(reference.id);
  }
};

template <typename M>
struct Storage<std::optional<M>> {
  using Stored = typename Storage<M>::Stored;
  static constexpr Type kType = Storage<M>::kType;
  static constexpr bool kNullable = true;
  static std::optional<Stored> Store(std::optional<M> const& value) {
    return value ? Storage<M>::Store(*value) : std::nullopt;
  }
  static std::optional<M> Restore(std::optional<Stored> stored, std::string_view column) {
    if (!stored) return std::nullopt;
    return Storage<M>::Restore(std::move(stored), column);
  }
};

// The name of the table that a reference points at.
template <typename M>
struct TargetOf {
  static constexpr std::string_view Name(std::string_view given) { return given; }
};
template <typename Other>
struct TargetOf<Ref<Other>> {
  static constexpr std::string_view Name(std::string_view) { return mapping<Other>.table; }
};
template <typename M>
struct TargetOf<std::optional<M>> : TargetOf<M> {};

// Throws LSCOREDB_WRONG_TYPE if the member does not fit the column.
template <typename M>
void RequireFit(Table const& table, Column const& column) {
  std::string const name = "Column " + ToUtf8(column.name) + " of table " + ToUtf8(table.name);
  if (!TypeOf<typename Storage<M>::Stored>::Fits(column.type)) {
    throw Error(LSCOREDB_WRONG_TYPE, name + " is of type " + std::string(TypeName(column.type)) +
                                         "; the struct's member is for " +
                                         std::string(TypeName(Storage<M>::kType)) + ".");
  }
  if (Storage<M>::kNullable && !column.nullable && !MustBeNullable(column.type)) {
    throw Error(LSCOREDB_WRONG_TYPE,
                name + " takes no null; the struct's member must not be optional.");
  }
}

// ---- visiting a mapping -------------------------------------------------------------------------

template <typename Part>
inline constexpr bool kIsMember = false;
template <typename Struct, typename M>
inline constexpr bool kIsMember<MemberMapping<Struct, M>> = true;
template <typename Part>
inline constexpr bool kIsIndex = false;
template <std::size_t kParts>
inline constexpr bool kIsIndex<IndexMapping<kParts>> = true;

// The struct that T's mapping derives from; void for none.
template <typename... Parts>
struct BaseAmong {
  using Struct = void;
};
template <typename Found, typename... Rest>
struct BaseAmong<BaseMapping<Found>, Rest...> {
  using Struct = Found;
};
template <typename Other, typename... Rest>
struct BaseAmong<Other, Rest...> : BaseAmong<Rest...> {};
template <typename T>
struct BaseOfMapping;
template <typename... Parts>
struct BaseOfMapping<TableMapping<Parts...>> : BaseAmong<Parts...> {};
template <typename T>
using MappedBase = typename BaseOfMapping<std::remove_cvref_t<decltype(mapping<T>)>>::Struct;

template <Mapped T, typename Visit>
constexpr void VisitOwnMembers(Visit&& visit) {
  std::apply(
      [&](auto const&... parts) {
        auto const one = [&](auto const& part) {
          if constexpr (kIsMember<std::remove_cvref_t<decltype(part)>>) visit(part);
        };
        (one(parts), ...);
      },
      mapping<T>.parts);
}

template <Mapped T, typename Visit>
constexpr void VisitIndexes(Visit&& visit) {
  std::apply(
      [&](auto const&... parts) {
        auto const one = [&](auto const& part) {
          if constexpr (kIsIndex<std::remove_cvref_t<decltype(part)>>) visit(part);
        };
        (one(parts), ...);
      },
      mapping<T>.parts);
}

}  // namespace detail
}  // namespace sagleme

#endif
