// Objects: made, found, typed, deleted.

#include "crud/crud_test.h"
#include "crud/handles.h"

namespace sagleme_test {
namespace {

class ObjectsTest : public CrudTest {
 protected:
  void SetUp() override {
    CrudTest::SetUp();
    CreateTable(u"Animal", Columns().Long(u"Legs").Ref(u"Friend", u"Animal"));
    CreateTable(u"Dog", Columns().String(u"Breed"), u"Animal");
  }

  std::u16string SetspecOf(LS_OBJ_REF const& object) {
    LORV_STRING* text = nullptr;
    ExpectOk(lorv_context_get_setspec(context(), object.oid, object.addr, &text));
    return text == nullptr ? std::u16string() : std::u16string(text->units, text->length);
  }

  static std::u16string SetspecOfTable(char16_t const* table) {
    return metalayer::GetText(metalayer::SetSpecifier::ByType(ViewOf(table)),
                              metalayer::SetSpecifier::kTypeId);
  }

  uint64_t Lookup(LS_OBJ_REF const& object, uint64_t* out_addr = nullptr) {
    uint64_t addr = 0;
    uint64_t type_id = 0;
    ExpectOk(lorv_crud_Lookup(context(), object.oid, &addr, &type_id));
    if (out_addr != nullptr) *out_addr = addr;
    return type_id;
  }

  void DropTable(char16_t const* table) {
    ExpectOk(lorv_drop_table_by_name(context(), table, true, true));
  }
};

TEST_F(ObjectsTest, CreateObject_GivesTheLayoutAsAddress) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  EXPECT_NE(0u, dog.oid);
  EXPECT_EQ(Creator(u"Dog")->layout.load(), dog.addr);
}

TEST_F(ObjectsTest, CreateObject_EntersTheSetOfItsTable) {
  EXPECT_EQ(SetspecOfTable(u"Dog"), SetspecOf(CreateObject(u"Dog")));
  EXPECT_EQ(SetspecOfTable(u"Animal"), SetspecOf(CreateObject(u"Animal")));
}

TEST_F(ObjectsTest, CreateObject_ThroughSystemHandle_MakesAnObjectOfTheTable) {
  CreateInfo* const plain = Creator(kSystemTable);
  CreateInfo* const system = CreatorOrSystem(kSystemTable, true);
  EXPECT_FALSE(plain->is_system);
  EXPECT_TRUE(system->is_system);
  LS_OBJ_REF row{};
  ExpectOk(lorv_crud_CreateObject(context(), system, &row.oid, &row.addr));
  EXPECT_EQ(TypeId(kSystemTable), TypeIdOf(row));
}

TEST_F(ObjectsTest, CreateObject_StaleLayout_IsTheKernelsToRefuse) {
  CreateInfo* const handle = Creator(u"Dog");
  handle->layout.store(60000);
  LS_OBJ_REF object{77, 78};
  EXPECT_EQ(LSCOREDB_UNKNOWN_LAYOUT,
            lorv_crud_CreateObject(context(), handle, &object.oid, &object.addr));
  EXPECT_EQ(77u, object.oid);
  EXPECT_EQ(78u, object.addr);
}

TEST_F(ObjectsTest, CreateObjectWithId_TakesTheId) {
  uint64_t const chosen = CreateObject(u"Dog").oid + 1'000'000;
  uint64_t addr = 0;
  ExpectOk(lorv_crud_CreateObjectWithId(context(), Creator(u"Dog"), chosen, &addr));
  EXPECT_EQ(Creator(u"Dog")->layout.load(), addr);
  EXPECT_EQ(TypeId(u"Dog"), Lookup({chosen, addr}));
  EXPECT_EQ(SetspecOfTable(u"Dog"), SetspecOf({chosen, addr}));
}

TEST_F(ObjectsTest, CreateObjectWithId_IdInUse_IsRefused) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  uint64_t addr = 77;
  EXPECT_EQ(LSCOREDB_ID_IN_USE,
            lorv_crud_CreateObjectWithId(context(), Creator(u"Dog"), dog.oid, &addr));
  EXPECT_EQ(77u, addr);
}

TEST_F(ObjectsTest, CreateObjectWithId_ThroughSystemHandle_EndsTheProcess) {
  Creator(kSystemTable);
  CreateInfo* const system = CreatorOrSystem(kSystemTable, true);
  uint64_t addr = 0;
  EXPECT_EXIT(lorv_crud_CreateObjectWithId(context(), system, 1'000'000, &addr),
              ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ObjectsTest, DeleteObject_AnyHandle_Deletes) {
  uint64_t handle = 0;
  ExpectOk(lorv_crud_GetDeleteHandle(context(), u"Dog", &handle));
  for (uint64_t const given : {handle, uint64_t{0}, uint64_t{12345}}) {
    LS_OBJ_REF const dog = CreateObject(u"Dog");
    ExpectOk(lorv_crud_DeleteObject(context(), given, dog.oid, dog.addr));
    uint64_t type_id = 0;
    EXPECT_NE(0u, lorv_crud_GetObjectTypeId(context(), dog.oid, dog.addr, &type_id));
  }
}

TEST_F(ObjectsTest, DeleteObjectNoHandle_Deletes) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  ExpectOk(lorv_crud_DeleteObject_NoHandle(context(), dog.oid, dog.addr));
  EXPECT_NE(0u, lorv_crud_DeleteObject_NoHandle(context(), dog.oid, dog.addr));
}

TEST_F(ObjectsTest, Lookup_FindsAddressAndType) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  uint64_t addr = 0;
  EXPECT_EQ(TypeId(u"Dog"), Lookup(dog, &addr));
  EXPECT_EQ(Creator(u"Dog")->layout.load(), static_cast<uint16_t>(addr));
}

TEST_F(ObjectsTest, Lookup_UnknownId_LeavesTheErrorText) {
  uint64_t type_id = 0;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Cat not found.",
                lorv_crud_GetTypeId(context(), u"Cat", &type_id));
  uint64_t addr = 77;
  type_id = 78;
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, lorv_crud_Lookup(context(), 1ull << 40, &addr, &type_id));
  EXPECT_EQ("Type Cat not found.", Utf8(LastText(context())));
  EXPECT_EQ(77u, addr);
  EXPECT_EQ(78u, type_id);
}

TEST_F(ObjectsTest, GetObjectTypeId_UnknownId_IsTheKernelsStatus) {
  uint64_t type_id = 77;
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, lorv_crud_GetObjectTypeId(context(), 1ull << 40, 0, &type_id));
  EXPECT_EQ(77u, type_id);
}

TEST_F(ObjectsTest, GetObjectTypeId_DoesNotReadTheAddress) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  EXPECT_EQ(TypeId(u"Dog"), TypeIdOf({dog.oid, 0xFFFF'FFFF'FFFF'FFFF}));
}

TEST_F(ObjectsTest, GetObjectTypeId_SupersededLayout_KeepsTheTablesType) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  uint64_t const type_id = TypeId(u"Dog");
  EXPECT_EQ(type_id, TypeIdOf(dog));
  Columns more;
  more.Long(u"Age");
  ExpectOk(lorv_alter_table_add_columns(context(), u"Animal", more, nullptr));
  EXPECT_EQ(type_id, TypeIdOf(dog));
  // The entry of the old layout is filled by now; one that never was is found by the set specifier.
  metalayer::EntryOfLayout(static_cast<uint16_t>(dog.addr)) = {};
  EXPECT_EQ(type_id, TypeIdOf(dog));
  EXPECT_EQ(ViewOf(u"Dog").oid,
            metalayer::EntryOfLayout(static_cast<uint16_t>(dog.addr)).raw_view.oid);
}

TEST_F(ObjectsTest, GetObjectTypeId_DroppedTableWithWarmEntry_IsZero) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  EXPECT_EQ(TypeId(u"Dog"), TypeIdOf(dog));
  DropTable(u"Dog");
  EXPECT_EQ(0u, TypeIdOf(dog));
  EXPECT_EQ(0u, Lookup(dog));
}

TEST_F(ObjectsTest, GetObjectTypeId_DroppedTableWithColdEntry_IsZero) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  DropTable(u"Dog");
  EXPECT_EQ(0u, TypeIdOf(dog));
  EXPECT_EQ(0u, metalayer::EntryOfLayout(static_cast<uint16_t>(dog.addr)).type_id);
}

TEST_F(ObjectsTest, GetObjectTypeId_TableDroppedAndCommitted_IsZero) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  EXPECT_EQ(TypeId(u"Dog"), TypeIdOf(dog));
  Commit();
  Begin();
  DropTable(u"Dog");
  Commit();
  Begin();
  EXPECT_EQ(0u, TypeIdOf(dog));
}

TEST_F(ObjectsTest, GetObjectTypeId_ViewWithoutLayout_IsZero) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  EXPECT_EQ(TypeId(u"Dog"), TypeIdOf(dog));
  metalayer::PutULong(ViewOf(u"Dog"), metalayer::RawView::kLayoutHandle, 0);
  EXPECT_EQ(0u, TypeIdOf(dog));
}

// Another process may have given the layout's number away after a roll-back in this one.
TEST_F(ObjectsTest, GetObjectTypeId_EntryOfAVanishedView_IsLoadedAnew) {
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  uint16_t const layout = static_cast<uint16_t>(dog.addr);
  LS_OBJ_REF const vanished = CreateObject(u"Animal");
  ExpectOk(lorv_crud_DeleteObject_NoHandle(context(), vanished.oid, vanished.addr));
  metalayer::EntryOfLayout(layout) = {999, {vanished.oid, vanished.addr}};
  EXPECT_EQ(TypeId(u"Dog"), TypeIdOf(dog));
  EXPECT_EQ(TypeId(u"Dog"), metalayer::EntryOfLayout(layout).type_id);
}

TEST_F(ObjectsTest, GetObjectTypeId_ExportedForm_NullReferenceHasNoType) {
  EXPECT_EQ(0u, metalayer::crud::GetObjectTypeId(LS_OBJ_REF{0, 0}));
  EXPECT_EQ(0u, metalayer::crud::GetObjectTypeId(LS_OBJ_REF{5, 0xABCD0000}));
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  EXPECT_EQ(TypeId(u"Dog"), metalayer::crud::GetObjectTypeId(dog));
}

TEST_F(ObjectsTest, ReadRefAndType_GivesTargetAndItsType) {
  LS_OBJ_REF const animal = CreateObject(u"Animal");
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  PropertyAccessInfo* const handle = Property(u"Animal", u"Friend");
  ExpectOk(lorv_crud_WriteRef(context(), handle, animal.oid, animal.addr, dog.oid, dog.addr));
  LS_OBJ_REF target{};
  uint64_t type_id = 0;
  ExpectOk(lorv_crud_ReadRefAndType(context(), handle, animal.oid, animal.addr, &target, &type_id));
  EXPECT_EQ(dog.oid, target.oid);
  EXPECT_EQ(static_cast<uint16_t>(dog.addr), static_cast<uint16_t>(target.addr));
  EXPECT_EQ(TypeId(u"Dog"), type_id);
}

TEST_F(ObjectsTest, ReadRefAndType_NullReference_PassesTheStatusOn) {
  LS_OBJ_REF const animal = CreateObject(u"Animal");
  LS_OBJ_REF target{77, 78};
  uint64_t type_id = 79;
  EXPECT_EQ(LORV_STATUS_NULL, lorv_crud_ReadRefAndType(context(), Property(u"Animal", u"Friend"),
                                                       animal.oid, animal.addr, &target, &type_id));
  EXPECT_EQ(77u, target.oid);
  EXPECT_EQ(78u, target.addr);
  EXPECT_EQ(79u, type_id);
}

TEST_F(ObjectsTest, ReadRefAndType_TargetDeleted_HasNoType) {
  LS_OBJ_REF const animal = CreateObject(u"Animal");
  LS_OBJ_REF const dog = CreateObject(u"Dog");
  PropertyAccessInfo* const handle = Property(u"Animal", u"Friend");
  ExpectOk(lorv_crud_WriteRef(context(), handle, animal.oid, animal.addr, dog.oid, dog.addr));
  ExpectOk(lorv_crud_DeleteObject(context(), 1, dog.oid, dog.addr));
  LS_OBJ_REF target{};
  uint64_t type_id = 77;
  ExpectOk(lorv_crud_ReadRefAndType(context(), handle, animal.oid, animal.addr, &target, &type_id));
  EXPECT_EQ(dog.oid, target.oid);
  EXPECT_EQ(0u, type_id);
}

TEST_F(ObjectsTest, LazyCalls_PutTheContextBack) {
  CreateInfo* const creator = Creator(u"Dog");
  *metalayer::TlsMetalayerContext::Current() = 4242;
  LS_OBJ_REF dog{};
  EXPECT_EQ(0u, lorv_crud_CreateObject(context(), creator, &dog.oid, &dog.addr));
  uint64_t type_id = 0;
  EXPECT_NE(0u, lorv_crud_GetObjectTypeId(context(), 1ull << 40, 0, &type_id));
  EXPECT_EQ(4242u, *metalayer::TlsMetalayerContext::Current());
}

}  // namespace
}  // namespace sagleme_test
