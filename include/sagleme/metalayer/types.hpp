#ifndef SAGLEME_METALAYER_TYPES_HPP
#define SAGLEME_METALAYER_TYPES_HPP

// The vocabularies of column types: SQL names, logical codes, kernel codes. Static tables, built
// with the library and never changed.

#include <map>
#include <sagleme/metalayer/records.hpp>
#include <set>
#include <string>

namespace metalayer {

// Logical type codes.
inline constexpr unsigned char kLogicalReference = 8;
inline constexpr unsigned char kLogicalBool = 10;

// The case-insensitive order of ucs2_icmp.
struct SAGLEME_API ucs2_ci_comparator {
  bool operator()(std::u16string const& a, std::u16string const& b) const;
};

using SqlTypeMap = std::map<std::u16string const, unsigned char const, ucs2_ci_comparator>;

SAGLEME_API extern SqlTypeMap const sql_db_type_map;
SAGLEME_API extern std::set<std::u16string> const sql_unsupported_set;
SAGLEME_API extern std::map<unsigned char const, bool const> const db_type_nullable;

SAGLEME_API bool MapStr2Uint(SqlTypeMap const& map, char16_t const* name, unsigned char& out);
SAGLEME_API bool MapSqlToDbType(char16_t const* name, unsigned char& out);
SAGLEME_API bool CheckUnsopportedSqlType(char16_t const* name);
SAGLEME_API bool IsDbTypeNullable(unsigned char type);

// Throws 4226.
[[noreturn]] SAGLEME_API void ThrowInvalidLogicalType();

inline unsigned char LogicalTypeToKernelType(unsigned char logical) {
  if (logical == 0 || logical > kLogicalBool) ThrowInvalidLogicalType();
  return logical == kLogicalBool ? static_cast<unsigned char>(LORV_TYPE_ULONG) : logical;
}

// The logical code of a column's type reference; kLogicalReference when it is a table.
SAGLEME_API unsigned char PrimTypeByTypeRef(LS_OBJ_REF const& type);

}  // namespace metalayer

#endif
