// Logical types, from the code in a definition and from the reference in a column row.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

#include "metaschema/setspec.h"

namespace metalayer {

namespace {

constexpr unsigned int kInvalidType = SAGLEME_INVALID_TYPE;
constexpr unsigned int kTypeIsGone = SAGLEME_TYPE_IS_GONE;

// Rows of a table, or of a descendant of it.
template <typename Metaclass>
bool IsRowOf(LS_OBJ_REF const& row) {
  return LayoutOf(row) == Metaclass::metaclass_layout_handle() ||
         SetspecBeginsWith(row, Metaclass::setspec());
}

unsigned char ReadLogicalType(LS_OBJ_REF const& type) {
  if (IsRowOf<DbPrimitiveType>(type)) {
    return static_cast<unsigned char>(GetULong(type, DbPrimitiveType::kPrimitiveType));
  }
  if (IsRowOf<RawView>(type)) return kLogicalReference;
  Throw(kInvalidType);
}

}  // namespace

unsigned char PrimTypeByTypeRef(LS_OBJ_REF const& type) try {
  if (type.oid == 0) FatalError();
  return ReadLogicalType(type);
} catch (db_util::db_exception const& failure) {
  if (failure.code() != LORV_STATUS_UNREACHABLE) throw;
  Throw(kTypeIsGone);
}

}  // namespace metalayer
