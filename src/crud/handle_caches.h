#ifndef CRUD_HANDLE_CACHES_H
#define CRUD_HANDLE_CACHES_H

// The two caches of a database that own the records behind its handles.
//
// Each has one lock, held across the kernel calls of a miss and of a refresh; no path holds both.
// The functions work in the thread's context and fail by exception, with the lock released.

#include "crud/handles.h"
#include "frame/database_state.h"

namespace metalayer::crud {

// The highest bit of a create handle's key: objects are made by the kernel's system insert.
inline constexpr unsigned long kSystemCreate = 1UL << 63;

// The record of a property; created on the first request, returned unchanged on every later one.
PropertyAccessInfo* PropertyHandle(LS_OBJ_REF const& view, LS_OBJ_REF const& column);

// The record of a table by type id, with kSystemCreate added for system inserts. Null when an
// earlier request for the key failed before it had a record.
CreateInfo* create_handle_from_typeid(unsigned long context, unsigned long key);

// Brings all records up to date with the catalogue, and frees those whose table or column is gone.
void RefreshPropertyHandles();
void RefreshCreateHandles();

// Throws LORV_STATUS_FOREIGN_DATABASE, with its text, for a handle of another database than that of
// the thread's context.
template <typename Handle>
void RequireOwn(Handle const* handle) {
  DatabaseState const* const of = handle->database;
  if (of != nullptr && of != &DatabaseState::Current()) exceptions::ThrowForeignHandle();
}

// True for the statuses that say that a row does not exist, or not any more.
inline bool IsGone(unsigned int status) {
  return status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE;
}

}  // namespace metalayer::crud

#endif
