// Type ids never come back, so that in a long life they pass the number of places that processes
// keep for them. Handles of such tables work as others do.

#include "crud/crud_test.h"
#include "crud/handles.h"

namespace sagleme_test {
namespace {

using metalayer::TypeIdsMeta;

constexpr uint64_t kPlaces = 65536;

class LargeTypeIdTest : public CrudTest {
 protected:
  // The tables made from now on have the ids behind `last`.
  void GoOnBehind(uint64_t last) {
    CreateTable(u"Last", Columns());
    metalayer::PutULong(TypeIdsMeta::ByTypeIdsMeta_Type(ViewOf(u"Last")),
                        TypeIdsMeta::kTypeIdsMeta_Id, last);
  }
};

TEST_F(LargeTypeIdTest, BothCreateHandles_MakeObjectsOfTheTable) {
  GoOnBehind(kPlaces - 2);
  char16_t const* const tables[] = {u"Before", u"First", u"Second"};
  uint64_t expected = kPlaces - 1;
  for (char16_t const* const table : tables) {
    SCOPED_TRACE(Utf8(table));
    uint16_t const layout = CreateTable(table, Columns().Long(u"Weight"));
    EXPECT_EQ(expected, TypeId(table));
    for (bool const system : {false, true, false, true}) {
      CreateInfo* const handle = CreatorOrSystem(table, system);
      EXPECT_EQ(system, handle->is_system);
      EXPECT_EQ(layout, handle->layout.load());
      LS_OBJ_REF object{};
      ExpectOk(lorv_crud_CreateObject(context(), handle, &object.oid, &object.addr));
      EXPECT_EQ(expected, TypeIdOf(object));
      WriteLong(Property(table, u"Weight"), object, 5);
      EXPECT_EQ(5, ReadLong(Property(table, u"Weight"), object));
    }
    EXPECT_NE(CreatorOrSystem(table, true), CreatorOrSystem(table, false));
    EXPECT_EQ(Creator(table), CreatorOrSystem(table, false));
    ++expected;
  }
}

TEST_F(LargeTypeIdTest, HandlesOfADroppedTable_GoAtTheRefresh) {
  GoOnBehind(kPlaces);
  CreateTable(u"Far", Columns());
  CreatorOrSystem(u"Far", true);
  ExpectOk(lorv_drop_table_by_name(context(), u"Far", false, false));
  ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
  CreateInfo* gone = nullptr;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Far not found.",
                lorv_crud_GetCreateHandleOrSystem(context(), u"Far", true, &gone));
  CreateTable(u"Far", Columns());
  EXPECT_EQ(kPlaces + 2, TypeId(u"Far"));
  CreateObject(u"Far");
}

}  // namespace
}  // namespace sagleme_test
