#ifndef SAGLEME_METALAYER_TYPES_HPP
#define SAGLEME_METALAYER_TYPES_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
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

// From SQL type name to logical code.
SAGLEME_API extern SqlTypeMap const sql_db_type_map;
// SQL type names that are known and refused, in lower case only.
SAGLEME_API extern std::set<std::u16string> const sql_unsupported_set;
// By logical code: true if the kernel has no form of the type without null.
SAGLEME_API extern std::map<unsigned char const, bool const> const db_type_nullable;

// The code of a name in any case. Returns false and leaves `out` for an unknown one. A null
// `name` throws std::logic_error, here and below.
SAGLEME_API bool MapStr2Uint(SqlTypeMap const& map, char16_t const* name, unsigned char& out);
SAGLEME_API bool MapSqlToDbType(char16_t const* name, unsigned char& out);
// True for a name of sql_unsupported_set; case counts.
SAGLEME_API bool CheckUnsopportedSqlType(char16_t const* name);
// A code without an entry throws std::out_of_range.
SAGLEME_API bool IsDbTypeNullable(unsigned char type);

// Throws SAGLEME_INVALID_TYPE.
[[noreturn]] SAGLEME_API void ThrowInvalidLogicalType();

// The kernel's code: the logical one, except for bool, which is stored as an unsigned number. Codes
// out of range throw SAGLEME_INVALID_TYPE.
inline unsigned char LogicalTypeToKernelType(unsigned char logical) {
  if (logical == 0 || logical > kLogicalBool) ThrowInvalidLogicalType();
  return logical == kLogicalBool ? static_cast<unsigned char>(LORV_TYPE_ULONG) : logical;
}

// The logical code of a column's type reference: that of a DbPrimitiveType row, or
// kLogicalReference for a RawView row. Throws SAGLEME_INVALID_TYPE for a row of any other table and
// SAGLEME_TYPE_IS_GONE for one that this transaction deleted. The null reference ends the process.
SAGLEME_API unsigned char PrimTypeByTypeRef(LS_OBJ_REF const& type);

}  // namespace metalayer

#endif
