// From names to handles.

#include "crud/crud_test.h"
#include "support/catalogue.h"

namespace sagleme_test {
namespace {

class NamesTest : public CrudTest {
 protected:
  void SetUp() override {
    CrudTest::SetUp();
    CreateTable(u"Shop.Article", Columns().String(u"Title").Long(u"Price"));
    CreateTable(u"Shop.Book", Columns().Long(u"Pages"), u"Shop.Article");
  }
};

TEST_F(NamesTest, GetTypeId_FirstUserTable_Is26) {
  EXPECT_EQ(26u, TypeId(u"Shop.Article"));
  EXPECT_EQ(27u, TypeId(u"Shop.Book"));
}

TEST_F(NamesTest, GetTypeId_SystemTable_IsItsOwn) {
  EXPECT_EQ(4u, TypeId(u"Lorvenstack.Metadata.RawView"));
}

TEST_F(NamesTest, GetTypeId_UnknownTable_NamesIt) {
  uint64_t type_id = 77;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Shop.Nothing not found.",
                lorv_crud_GetTypeId(context(), u"Shop.Nothing", &type_id));
  EXPECT_EQ(77u, type_id);
}

TEST_F(NamesTest, GetTypeId_NullName_IsUnknown) {
  uint64_t type_id = 77;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type  not found.",
                lorv_crud_GetTypeId(context(), nullptr, &type_id));
}

TEST_F(NamesTest, GetTypeId_EmptyName_IsUnknown) {
  uint64_t type_id = 77;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type  not found.",
                lorv_crud_GetTypeId(context(), u"", &type_id));
}

TEST_F(NamesTest, GetTypeId_ShortOrOtherCaseName_IsUnknown) {
  uint64_t type_id = 77;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Article not found.",
                lorv_crud_GetTypeId(context(), u"Article", &type_id));
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type shop.article not found.",
                lorv_crud_GetTypeId(context(), u"shop.article", &type_id));
}

TEST_F(NamesTest, GetTypeId_TableWithoutTypeId_EndsTheProcess) {
  metalayer::DeleteRow(metalayer::TypeIdsMeta::ByTypeIdsMeta_Type(ViewOf(u"Shop.Article")));
  uint64_t type_id = 0;
  EXPECT_EXIT(lorv_crud_GetTypeId(context(), u"Shop.Article", &type_id),
              ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(NamesTest, CreateHandle_UnknownTable_NamesIt) {
  CreateInfo* handle = nullptr;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Shop.Nothing not found.",
                lorv_crud_GetCreateHandle(context(), u"Shop.Nothing", &handle));
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Shop.Nothing not found.",
                lorv_crud_GetCreateHandleOrSystem(context(), u"Shop.Nothing", true, &handle));
  EXPECT_EQ(nullptr, handle);
}

TEST_F(NamesTest, CreateHandle_AskedTwice_IsTheSame) {
  EXPECT_EQ(Creator(u"Shop.Article"), Creator(u"Shop.Article"));
  EXPECT_NE(Creator(u"Shop.Article"), Creator(u"Shop.Book"));
}

TEST_F(NamesTest, CreateHandleOrSystem_NotSystem_IsTheCreateHandle) {
  EXPECT_EQ(Creator(u"Shop.Article"), CreatorOrSystem(u"Shop.Article", false));
}

TEST_F(NamesTest, CreateHandleOrSystem_SystemWithWarmSlot_IsAHandleOfItsOwn) {
  CreateInfo* const plain = Creator(kSystemTable);
  CreateInfo* const system = CreatorOrSystem(kSystemTable, true);
  EXPECT_NE(nullptr, system);
  EXPECT_NE(plain, system);
  EXPECT_EQ(system, CreatorOrSystem(kSystemTable, true));
}

TEST_F(NamesTest, CreateHandleOrSystem_SystemWithColdSlot_EndsTheProcess) {
  CreateInfo* handle = nullptr;
  EXPECT_EXIT(lorv_crud_GetCreateHandleOrSystem(context(), kSystemTable, true, &handle),
              ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(NamesTest, CreateHandle_TableWithoutSetSpecifier_EndsTheProcess) {
  metalayer::DeleteRow(metalayer::SetSpecifier::ByType(ViewOf(u"Shop.Article")));
  CreateInfo* handle = nullptr;
  EXPECT_EXIT(lorv_crud_GetCreateHandle(context(), u"Shop.Article", &handle),
              ::testing::KilledBySignal(SIGABRT), "");
}

// The failure is no status, so it passes through the call; the key stays behind without a record.
TEST_F(NamesTest, CreateHandle_SetSpecifierWithoutText_ThrowsAndLaterGivesNull) {
  metalayer::SetSpecifier const row = metalayer::SetSpecifier::ByType(ViewOf(u"Shop.Article"));
  metalayer::PutText(row, metalayer::SetSpecifier::kTypeId, nullptr);
  CreateInfo* handle = nullptr;
  EXPECT_THROW(lorv_crud_GetCreateHandle(context(), u"Shop.Article", &handle), std::logic_error);
  EXPECT_EQ(context(), *metalayer::TlsMetalayerContext::Current());
  handle = reinterpret_cast<CreateInfo*>(this);
  ExpectOk(lorv_crud_GetCreateHandle(context(), u"Shop.Article", &handle));
  EXPECT_EQ(nullptr, handle);
}

TEST_F(NamesTest, DeleteHandle_KnownTable_IsOne) {
  uint64_t handle = 0;
  ExpectOk(lorv_crud_GetDeleteHandle(context(), u"Shop.Article", &handle));
  EXPECT_EQ(1u, handle);
  handle = 0;
  ExpectOk(lorv_crud_GetDeleteHandle(context(), kSystemTable, &handle));
  EXPECT_EQ(1u, handle);
}

TEST_F(NamesTest, DeleteHandle_UnknownTable_NamesIt) {
  uint64_t handle = 77;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Shop.Nothing not found.",
                lorv_crud_GetDeleteHandle(context(), u"Shop.Nothing", &handle));
  EXPECT_EQ(77u, handle);
}

TEST_F(NamesTest, PropertyHandle_AskedTwice_IsTheSame) {
  EXPECT_EQ(Property(u"Shop.Article", u"Price"), Property(u"Shop.Article", u"Price"));
  EXPECT_NE(Property(u"Shop.Article", u"Price"), Property(u"Shop.Article", u"Title"));
}

TEST_F(NamesTest, PropertyHandle_InheritedColumn_IsAnotherThanTheBases) {
  EXPECT_NE(Property(u"Shop.Article", u"Price"), Property(u"Shop.Book", u"Price"));
}

TEST_F(NamesTest, PropertyHandle_UnknownProperty_NamesItAndTheClass) {
  PropertyAccessInfo* handle = nullptr;
  ExpectRefused(SAGLEME_BAD_ARGUMENT, u"Property Weight isn't found in class Shop.Article.",
                lorv_crud_GetPropertyHandle(context(), u"Shop.Article", u"Weight", &handle));
  EXPECT_EQ(nullptr, handle);
}

TEST_F(NamesTest, PropertyHandle_NullProperty_IsUnknown) {
  PropertyAccessInfo* handle = nullptr;
  ExpectRefused(SAGLEME_BAD_ARGUMENT, u"Property  isn't found in class Shop.Article.",
                lorv_crud_GetPropertyHandle(context(), u"Shop.Article", nullptr, &handle));
}

TEST_F(NamesTest, PropertyHandle_UnknownTable_NamesTheTable) {
  PropertyAccessInfo* handle = nullptr;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Shop.Nothing not found.",
                lorv_crud_GetPropertyHandle(context(), u"Shop.Nothing", u"Price", &handle));
}

TEST_F(NamesTest, PropertyHandle_ColumnOfDescendantOnly_IsUnknownInTheBase) {
  PropertyAccessInfo* handle = nullptr;
  ExpectRefused(SAGLEME_BAD_ARGUMENT, u"Property Pages isn't found in class Shop.Article.",
                lorv_crud_GetPropertyHandle(context(), u"Shop.Article", u"Pages", &handle));
}

TEST_F(NamesTest, FailureThenSuccess_LeavesTheTextUntilTheNextFailure) {
  uint64_t type_id = 0;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type First not found.",
                lorv_crud_GetTypeId(context(), u"First", &type_id));
  EXPECT_EQ(26u, TypeId(u"Shop.Article"));
  EXPECT_EQ("Type First not found.", Utf8(LastText(context())));
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Second not found.",
                lorv_crud_GetTypeId(context(), u"Second", &type_id));
}

TEST_F(NamesTest, ExportedFunctions_WorkInTheThreadsContext) {
  EXPECT_EQ(ViewOf(u"Shop.Book").oid, metalayer::crud::RawViewByCrudName(u"Shop.Book").oid);
  EXPECT_EQ(27u, metalayer::crud::GetTypeId(u"Shop.Book"));
  auto const [column, view] = metalayer::crud::GetPropertyViewAndColumn(u"Shop.Book", u"Price");
  EXPECT_EQ(ViewOf(u"Shop.Book").oid, view.oid);
  EXPECT_EQ(metalayer::Member::ByMemberPK(view, u"Price").oid, column.oid);
  EXPECT_EQ(4, metalayer::GetLong(column, metalayer::RawColumn::kColumnIndex));
}

TEST_F(NamesTest, ExportedFunction_Failure_IsThrown) {
  try {
    metalayer::crud::GetTypeId(u"Shop.Nothing");
    FAIL() << "nothing was thrown";
  } catch (db_util::db_exception const& failure) {
    EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, failure.code());
  }
}

TEST_F(NamesTest, NamesTooLongForAKey_AreRefusedWithoutText) {
  std::u16string const name(5000, u'x');
  uint64_t number = 77;
  CreateInfo* create = nullptr;
  PropertyAccessInfo* property = nullptr;
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"", lorv_crud_GetTypeId(context(), name.c_str(), &number));
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"",
                lorv_crud_GetDeleteHandle(context(), name.c_str(), &number));
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"",
                lorv_crud_GetCreateHandle(context(), name.c_str(), &create));
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"",
                lorv_crud_GetCreateHandleOrSystem(context(), name.c_str(), true, &create));
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"",
                lorv_crud_GetPropertyHandle(context(), name.c_str(), u"Price", &property));
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"",
                lorv_crud_GetPropertyHandle(context(), u"Shop.Article", name.c_str(), &property));
  EXPECT_EQ(77u, number);
  EXPECT_EQ(nullptr, create);
  EXPECT_EQ(nullptr, property);
}

TEST_F(NamesTest, PropertyHandle_HiddenColumns_AreColumnsLikeOthers) {
  PropertyAccessInfo* handle = nullptr;
  ExpectOk(lorv_crud_GetPropertyHandle(context(), u"Shop.Article", u"__id", &handle));
  LS_OBJ_REF const object = CreateObject(u"Shop.Article");
  uint64_t id = 0;
  EXPECT_EQ(0u, lorv_crud_ReadULong(context(), handle, object.oid, object.addr, &id));
  EXPECT_EQ(object.oid, id);
}

// A property of a language binding is a member of the table too, and has no place in objects. The
// unfilled record stays in the way of every refresh until the property is gone.
TEST_F(NamesTest, PropertyHandle_MemberThatIsNoColumn_IsRefusedAndBlocksRefreshes) {
  InsertMappedProperty(ViewOf(u"Shop.Article"), u"Mapped",
                       metalayer::Member::ByMemberPK(ViewOf(u"Shop.Article"), u"Price"));
  PropertyAccessInfo* handle = nullptr;
  EXPECT_EQ(LSCOREDB_WRONG_TYPE,
            lorv_crud_GetPropertyHandle(context(), u"Shop.Article", u"Mapped", &handle));
  EXPECT_EQ(nullptr, handle);
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, lorv_crud_RefreshIssuedHandles(context()));
  ExpectOk(lorv_clrmetadata_clean(context()));
  ExpectOk(lorv_crud_RefreshIssuedHandles(context()));
}

}  // namespace
}  // namespace sagleme_test
