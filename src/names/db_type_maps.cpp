// SQL type names, and what the logical types allow.

#include <sagleme/ucs2.h>

#include <sagleme/metalayer/types.hpp>
#include <stdexcept>

namespace metalayer {

namespace {

constexpr unsigned char kString = LORV_TYPE_STRING;
constexpr unsigned char kBinary = LORV_TYPE_BINARY;
constexpr unsigned char kLong = LORV_TYPE_LONG;
constexpr unsigned char kULong = LORV_TYPE_ULONG;
constexpr unsigned char kDecimal = LORV_TYPE_DECIMAL;
constexpr unsigned char kFloat = LORV_TYPE_FLOAT;
constexpr unsigned char kDouble = LORV_TYPE_DOUBLE;

std::u16string RequiredName(char16_t const* name) {
  if (name == nullptr) throw std::logic_error("a type name is a null pointer");
  return name;
}

}  // namespace

bool ucs2_ci_comparator::operator()(std::u16string const& a, std::u16string const& b) const {
  return ucs2_icmp(a.c_str(), b.c_str()) < 0;
}

SqlTypeMap const sql_db_type_map = {
    {u"boolean", kLogicalBool}, {u"int", kLong},        {u"integer", kLong},
    {u"smallint", kLong},       {u"bigint", kLong},     {u"uint", kULong},
    {u"real", kFloat},          {u"float", kFloat},     {u"double", kDouble},
    {u"dec", kDecimal},         {u"decimal", kDecimal}, {u"numeric", kDecimal},
    {u"bit", kBinary},          {u"varbit", kBinary},   {u"binary", kBinary},
    {u"bpchar", kString},       {u"varchar", kString},  {u"text", kString},
    {u"time", kULong},          {u"timestamp", kULong},
};

std::set<std::u16string> const sql_unsupported_set = {u"timetz", u"timestamptz", u"interval"};

// True: the type has no form without null in the kernel.
std::map<unsigned char const, bool const> const db_type_nullable = {
    {kString, true},  {kBinary, true},           {kLong, false},
    {kULong, false},  {kDecimal, false},         {kFloat, false},
    {kDouble, false}, {kLogicalReference, true}, {kLogicalBool, false},
};

bool MapStr2Uint(SqlTypeMap const& map, char16_t const* name, unsigned char& out) {
  auto const found = map.find(RequiredName(name));
  if (found == map.end()) return false;
  out = found->second;
  return true;
}

bool MapSqlToDbType(char16_t const* name, unsigned char& out) {
  return MapStr2Uint(sql_db_type_map, name, out);
}

bool CheckUnsopportedSqlType(char16_t const* name) {
  return sql_unsupported_set.contains(RequiredName(name));
}

bool IsDbTypeNullable(unsigned char type) { return db_type_nullable.at(type); }

}  // namespace metalayer
