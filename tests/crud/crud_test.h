#ifndef SAGLEME_TESTS_CRUD_CRUD_TEST_H
#define SAGLEME_TESTS_CRUD_CRUD_TEST_H

// A database test that speaks of objects, handles and properties. What is asked for here must
// succeed.

#include <csignal>

#include "support/database.h"

namespace sagleme_test {

inline constexpr char16_t const* kSystemTable = u"Lorvenstack.Internal.Metadata.Vacuum";

class CrudTest : public DatabaseTest {
 protected:
  uint16_t CreateTable(char16_t const* name, Columns columns, char16_t const* base = nullptr) {
    uint16_t layout = 0;
    ExpectOk(lorv_create_table_by_names(context(), name, base, columns, &layout));
    return layout;
  }

  CreateInfo* Creator(char16_t const* table) {
    CreateInfo* handle = nullptr;
    ExpectOk(lorv_crud_GetCreateHandle(context(), table, &handle));
    return handle;
  }

  CreateInfo* CreatorOrSystem(char16_t const* table, bool system) {
    CreateInfo* handle = nullptr;
    ExpectOk(lorv_crud_GetCreateHandleOrSystem(context(), table, system, &handle));
    return handle;
  }

  PropertyAccessInfo* Property(char16_t const* table, char16_t const* name) {
    PropertyAccessInfo* handle = nullptr;
    ExpectOk(lorv_crud_GetPropertyHandle(context(), table, name, &handle));
    return handle;
  }

  uint64_t TypeId(char16_t const* table) {
    uint64_t type_id = 0;
    ExpectOk(lorv_crud_GetTypeId(context(), table, &type_id));
    return type_id;
  }

  LS_OBJ_REF CreateObject(char16_t const* table) {
    LS_OBJ_REF object{};
    ExpectOk(lorv_crud_CreateObject(context(), Creator(table), &object.oid, &object.addr));
    return object;
  }

  uint64_t TypeIdOf(LS_OBJ_REF const& object) {
    uint64_t type_id = 0;
    ExpectOk(lorv_crud_GetObjectTypeId(context(), object.oid, object.addr, &type_id));
    return type_id;
  }

  void WriteLong(PropertyAccessInfo const* handle, LS_OBJ_REF const& object, int64_t value) {
    ExpectOk(lorv_crud_WriteLong(context(), handle, object.oid, object.addr, value));
  }

  int64_t ReadLong(PropertyAccessInfo const* handle, LS_OBJ_REF const& object) {
    int64_t value = 0;
    ExpectOk(lorv_crud_ReadLong(context(), handle, object.oid, object.addr, &value));
    return value;
  }

  static metalayer::RawView ViewOf(char16_t const* table) {
    return metalayer::RawView::ByRawViewPK2fullname(table);
  }
};

}  // namespace sagleme_test

#endif
