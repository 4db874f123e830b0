#ifndef SAGLEME_METALAYER_CRUD_HPP
#define SAGLEME_METALAYER_CRUD_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// The records behind the handles of object access. A handle is the address of such a record; two
// caches of the database own them. lorv_crud_RefreshIssuedHandles frees records whose table or
// column no longer exists, and the database's last close frees all.

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
// The type id of an object's table; 0 if the object or its table no longer exists.
SAGLEME_API unsigned long GetObjectTypeId(LS_OBJ_REF object);

}  // namespace metalayer::crud

#endif
