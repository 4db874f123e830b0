// Handles and objects when the kernel refuses.

#include "crud/crud_test.h"
#include "crud/handles.h"
#include "support/recording_kernel.h"

namespace sagleme_test {
namespace {

using recording_kernel::FailNthOf;

constexpr uint32_t kStatus = 5555;

class HandleCallsTest : public CrudTest {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    CrudTest::SetUp();
    CreateTable(u"Article", Columns().Long(u"Price").Ref(u"Next", u"Article"));
    CreateTable(u"Other", Columns().Long(u"Size"));
  }
  void TearDown() override {
    recording_kernel::Reset();
    CrudTest::TearDown();
  }

  // Lookups of one object answer `status`; all others find theirs.
  void HideObject(uint64_t hidden, uint32_t status) {
    recording_kernel::Answer<&lorv_context_lookup>(
        [=](uint64_t, uint64_t oid, uint64_t* out_addr) -> uint32_t {
          *out_addr = 0;
          return oid == hidden ? status : 0u;
        });
  }
};

TEST_F(HandleCallsTest, PropertyHandle_RowGoneWhileFilled_HasNoLocationUntilRefreshErasesIt) {
  auto const [column, view] = metalayer::crud::GetPropertyViewAndColumn(u"Article", u"Price");
  for (uint64_t const hidden : {view.oid, column.oid}) {
    HideObject(hidden, LORV_STATUS_NO_OBJECT);
    EXPECT_EQ(0u, Property(u"Article", u"Price")->location.load());
    EXPECT_EQ(0u, Property(u"Article", u"Price")->location.load());
    ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
    recording_kernel::Reset();
    EXPECT_NE(0u, Property(u"Article", u"Price")->location.load());
    HideObject(hidden, LORV_STATUS_NO_OBJECT);
    ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
    recording_kernel::Reset();
  }
}

TEST_F(HandleCallsTest, PropertyHandle_LookupFailsOtherwise_IsFilledAnyway) {
  recording_kernel::Answer<&lorv_context_lookup>(
      [](uint64_t, uint64_t, uint64_t*) { return kStatus; });
  EXPECT_NE(0u, Property(u"Article", u"Price")->location.load());
}

TEST_F(HandleCallsTest, PropertyHandle_ReadFailsWhileFilled_KeepsTheUnfilledRecord) {
  PropertyAccessInfo* handle = nullptr;
  for (char const* const read : {"lorv_context_get_ulong", "lorv_context_get_long"}) {
    FailNthOf(read, 1, kStatus);
    EXPECT_EQ(kStatus,
              lorv_crud_GetPropertyHandle(
                  context(), u"Article",
                  read == std::string("lorv_context_get_long") ? u"Price" : u"Next", &handle));
    EXPECT_TRUE(recording_kernel::Failed());
    EXPECT_EQ(nullptr, handle);
  }
  EXPECT_EQ(0u, Property(u"Article", u"Price")->location.load());
  ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
  EXPECT_NE(0u, Property(u"Article", u"Price")->location.load());
}

TEST_F(HandleCallsTest, PropertyHandle_Hit_ReadsNothingOfTheRecordsRows) {
  Property(u"Article", u"Price");
  recording_kernel::Record();
  Property(u"Article", u"Price");
  EXPECT_TRUE(recording_kernel::CallsOf("lorv_context_lookup").empty());
  EXPECT_TRUE(recording_kernel::CallsOf("lorv_context_get_ulong").empty());
  EXPECT_TRUE(recording_kernel::CallsOf("lorv_context_get_long").empty());
  EXPECT_EQ(2u, recording_kernel::CallsOf("lorv_context_create_iterator").size());
}

TEST_F(HandleCallsTest, CreateHandle_ViewGoneWhileFilled_HasNoLayout) {
  HideObject(ViewOf(u"Article").oid, LORV_STATUS_NO_OBJECT);
  CreateInfo* const handle = Creator(u"Article");
  ASSERT_NE(nullptr, handle);
  EXPECT_EQ(0u, handle->layout.load());
  EXPECT_NE(nullptr, handle->set.load());
}

TEST_F(HandleCallsTest, CreateHandle_ReadFailsWhileFilled_KeepsTheUnfilledRecord) {
  // The first unsigned number read is the type id, the second the layout.
  FailNthOf("lorv_context_get_ulong", 2, kStatus);
  CreateInfo* handle = nullptr;
  EXPECT_EQ(kStatus, lorv_crud_GetCreateHandle(context(), u"Article", &handle));
  EXPECT_EQ(nullptr, handle);
  handle = Creator(u"Article");
  ASSERT_NE(nullptr, handle);
  EXPECT_EQ(0u, handle->layout.load());
  ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
  EXPECT_NE(0u, handle->layout.load());
}

TEST_F(HandleCallsTest, CreateHandle_TypeIdWithoutView_IsRefusedWithoutText_AndLaterNull) {
  recording_kernel::Answer<&lorv_context_get_reference>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_REFERENCE*) { return LORV_STATUS_NULL; });
  CreateInfo* handle = nullptr;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"",
                lorv_crud_GetCreateHandle(context(), u"Article", &handle));
  recording_kernel::Reset();
  handle = reinterpret_cast<CreateInfo*>(this);
  ExpectOk(lorv_crud_GetCreateHandle(context(), u"Article", &handle));
  EXPECT_EQ(nullptr, handle);
}

TEST_F(HandleCallsTest, CreateHandle_SetSpecifierUnreadable_IsTheKernelsStatus_AndLaterNull) {
  FailNthOf("lorv_context_get_string", 1, kStatus);
  CreateInfo* handle = nullptr;
  EXPECT_EQ(kStatus, lorv_crud_GetCreateHandle(context(), u"Article", &handle));
  ExpectOk(lorv_crud_GetCreateHandle(context(), u"Article", &handle));
  EXPECT_EQ(nullptr, handle);
}

TEST_F(HandleCallsTest, Refresh_EmptyCaches_AsksTheKernelNothing) {
  recording_kernel::Record();
  ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
  EXPECT_TRUE(recording_kernel::Names().empty());
}

TEST_F(HandleCallsTest, Refresh_PropertyUnreadable_LeavesCreateHandlesAlone) {
  Property(u"Article", u"Price");
  CreateInfo* const handle = Creator(u"Article");
  handle->layout.store(1);
  FailNthOf("lorv_context_get_ulong", 1, kStatus);
  EXPECT_EQ(kStatus, lorv_crud_RefreshIssuedHandles(context()));
  EXPECT_EQ(1u, handle->layout.load());
  ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
  EXPECT_NE(1u, handle->layout.load());
}

TEST_F(HandleCallsTest, Refresh_ViewUnreadable_ReleasesTheLock) {
  Creator(u"Article");
  FailNthOf("lorv_context_get_ulong", 1, kStatus);
  EXPECT_EQ(kStatus, lorv_crud_RefreshIssuedHandles(context()));
  EXPECT_NE(nullptr, Creator(u"Other"));
}

TEST_F(HandleCallsTest, Refresh_UnreachableRow_IsGone) {
  PropertyAccessInfo* const kept = Property(u"Other", u"Size");
  Property(u"Article", u"Price");
  HideObject(ViewOf(u"Article").oid, LORV_STATUS_UNREACHABLE);
  ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
  recording_kernel::Reset();
  EXPECT_EQ(kept, Property(u"Other", u"Size"));
}

TEST_F(HandleCallsTest, CreateObject_WritesTheSetSpecifierUnderTheBareLayout) {
  CreateInfo* const handle = Creator(u"Article");
  recording_kernel::Record();
  LS_OBJ_REF object{};
  ExpectOk(lorv_crud_CreateObject(context(), handle, &object.oid, &object.addr));
  ASSERT_EQ((std::vector<std::string>{"lorv_context_insert", "lorv_context_put_setspec"}),
            recording_kernel::Names());
  recording_kernel::Call const& put = recording_kernel::Calls()[1];
  EXPECT_EQ((std::vector<uint64_t>{context(), object.oid, handle->layout.load()}), put.numbers);
  EXPECT_EQ(std::vector<std::u16string>{handle->set.load()}, put.texts);
}

TEST_F(HandleCallsTest, CreateObject_SystemHandle_UsesTheSystemInsert) {
  Creator(kSystemTable);
  CreateInfo* const handle = CreatorOrSystem(kSystemTable, true);
  recording_kernel::Record();
  LS_OBJ_REF object{};
  ExpectOk(lorv_crud_CreateObject(context(), handle, &object.oid, &object.addr));
  EXPECT_EQ((std::vector<std::string>{"lorv_context_insert_system", "lorv_context_put_setspec"}),
            recording_kernel::Names());
}

TEST_F(HandleCallsTest, CreateObject_AnyRefusal_WritesNoOutput) {
  CreateInfo* const handle = Creator(u"Article");
  for (int const nth : {1, 2}) {
    recording_kernel::FailNth(nth, kStatus);
    LS_OBJ_REF object{77, 78};
    EXPECT_EQ(kStatus, lorv_crud_CreateObject(context(), handle, &object.oid, &object.addr));
    EXPECT_EQ(77u, object.oid);
    EXPECT_EQ(78u, object.addr);
  }
}

TEST_F(HandleCallsTest, CreateObjectWithId_InsertsAndEntersTheSet) {
  CreateInfo* const handle = Creator(u"Article");
  recording_kernel::Record();
  uint64_t addr = 0;
  ExpectOk(lorv_crud_CreateObjectWithId(context(), handle, 1'000'000, &addr));
  ASSERT_EQ((std::vector<std::string>{"lorvi_context_insert_with_id", "lorv_context_put_setspec"}),
            recording_kernel::Names());
  EXPECT_EQ((std::vector<uint64_t>{context(), handle->layout.load(), 1'000'000}),
            recording_kernel::Calls()[0].numbers);
}

TEST_F(HandleCallsTest, CreateObjectWithId_AnyRefusal_WritesNoOutput) {
  CreateInfo* const handle = Creator(u"Article");
  for (int const nth : {1, 2}) {
    recording_kernel::FailNth(nth, kStatus);
    uint64_t addr = 77;
    EXPECT_EQ(kStatus, lorv_crud_CreateObjectWithId(context(), handle, 1'000'000, &addr));
    EXPECT_EQ(77u, addr);
  }
}

TEST_F(HandleCallsTest, ObjectTypeId_WarmEntry_CostsOneLookupAndOneRead) {
  LS_OBJ_REF const object = CreateObject(u"Article");
  TypeIdOf(object);
  recording_kernel::Record();
  TypeIdOf(object);
  EXPECT_EQ((std::vector<std::string>{"lorv_context_lookup", "lorv_context_get_ulong"}),
            recording_kernel::Names());
}

TEST_F(HandleCallsTest, ObjectTypeId_ViewUnreachable_IsZero) {
  LS_OBJ_REF const object = CreateObject(u"Article");
  for (uint32_t const status : {LORV_STATUS_UNREACHABLE, LORV_STATUS_NO_OBJECT}) {
    ASSERT_EQ(TypeId(u"Article"), TypeIdOf(object));
    FailNthOf("lorv_context_get_ulong", 1, status);
    EXPECT_EQ(0u, TypeIdOf(object));
    EXPECT_TRUE(recording_kernel::Failed());
  }
}

TEST_F(HandleCallsTest, ObjectTypeId_ViewUnreadable_IsTheKernelsStatus) {
  LS_OBJ_REF const object = CreateObject(u"Article");
  TypeIdOf(object);
  FailNthOf("lorv_context_get_ulong", 1, kStatus);
  uint64_t type_id = 77;
  EXPECT_EQ(kStatus, lorv_crud_GetObjectTypeId(context(), object.oid, object.addr, &type_id));
  EXPECT_EQ(77u, type_id);
  FailNthOf("lorv_context_get_ulong", 1, kStatus);
  uint64_t addr = 0;
  EXPECT_EQ(kStatus, lorv_crud_Lookup(context(), object.oid, &addr, &type_id));
  EXPECT_EQ(77u, type_id);
}

}  // namespace
}  // namespace sagleme_test
