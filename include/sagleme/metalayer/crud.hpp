#ifndef SAGLEME_METALAYER_CRUD_HPP
#define SAGLEME_METALAYER_CRUD_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// What stands behind the handles of object access. Handles are addresses of these records; two
// caches of their database own them. lorv_crud_RefreshIssuedHandles frees those of what is gone,
// and the last close of the database all of them.

#include <sagleme/sagleme.h>

#include <sagleme/metalayer/records.hpp>
#include <string>
#include <utility>

namespace metalayer::crud {

// The RawView row of a table by its full name.
SAGLEME_API LS_OBJ_REF RawViewByCrudName(char16_t const* name);
SAGLEME_API unsigned long GetTypeId(char16_t const* name);
// (column row, view row)
SAGLEME_API std::pair<LS_OBJ_REF, LS_OBJ_REF> GetPropertyViewAndColumn(
    char16_t const* class_name, char16_t const* property_name);
// The type id of an object's table; 0 when the object or its table is gone.
SAGLEME_API unsigned long GetObjectTypeId(LS_OBJ_REF object);

}  // namespace metalayer::crud

#endif
