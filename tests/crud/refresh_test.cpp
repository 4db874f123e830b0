// What becomes of handles when the schema changes under them.

#include "crud/crud_test.h"
#include "crud/handles.h"

namespace sagleme_test {
namespace {

class RefreshTest : public CrudTest {
 protected:
  void SetUp() override {
    CrudTest::SetUp();
    CreateTable(u"Article", Columns().Long(u"Weight").Long(u"Price"));
  }

  void Refresh() { ExpectOk(lorv_crud_RefreshIssuedHandles(context())); }
  void AddColumn(char16_t const* name) {
    Columns columns;
    columns.Long(name);
    ExpectOk(lorv_alter_table_add_columns(context(), u"Article", columns, nullptr));
  }
  uint32_t LocationOf(char16_t const* property) {
    auto const [column, view] = metalayer::crud::GetPropertyViewAndColumn(u"Article", property);
    auto const index =
        static_cast<uint32_t>(metalayer::GetLong(column, metalayer::RawColumn::kColumnIndex));
    return index << 16 |
           static_cast<uint32_t>(metalayer::GetULong(view, metalayer::RawView::kLayoutHandle));
  }
};

TEST_F(RefreshTest, NoHandles_Succeeds) { Refresh(); }

TEST_F(RefreshTest, PropertyHandle_HoldsLayoutAndIndex) {
  EXPECT_EQ(LocationOf(u"Price"), Property(u"Article", u"Price")->location.load());
  EXPECT_EQ(4u, Property(u"Article", u"Price")->location.load() >> 16);
}

TEST_F(RefreshTest, AfterSchemaChange_HandleIsStaleUntilRefreshed) {
  PropertyAccessInfo* const handle = Property(u"Article", u"Price");
  uint32_t const before = handle->location.load();
  AddColumn(u"Stock");
  EXPECT_EQ(handle, Property(u"Article", u"Price"));
  EXPECT_EQ(before, handle->location.load());
  Refresh();
  EXPECT_NE(before, handle->location.load());
  EXPECT_EQ(LocationOf(u"Price"), handle->location.load());
  EXPECT_EQ(handle, Property(u"Article", u"Price"));
}

TEST_F(RefreshTest, ColumnMovedForward_HandleReadsTheSameProperty) {
  LS_OBJ_REF const object = CreateObject(u"Article");
  PropertyAccessInfo* const price = Property(u"Article", u"Price");
  WriteLong(price, object, 990);
  ExpectOk(lorv_alter_table_drop_column_by_names(context(), u"Article", u"Weight", nullptr));
  Refresh();
  EXPECT_EQ(3u, price->location.load() >> 16);
  EXPECT_EQ(990, ReadLong(price, object));
}

TEST_F(RefreshTest, CreateHandle_MakesObjectsOfTheNewLayout) {
  CreateInfo* const handle = Creator(u"Article");
  uint16_t const before = handle->layout.load();
  AddColumn(u"Stock");
  EXPECT_EQ(before, handle->layout.load());
  Refresh();
  EXPECT_NE(before, handle->layout.load());
  EXPECT_EQ(handle, Creator(u"Article"));
  EXPECT_EQ(handle->layout.load(), CreateObject(u"Article").addr);
}

TEST_F(RefreshTest, DroppedColumn_LosesItsHandle) {
  PropertyAccessInfo* const kept = Property(u"Article", u"Price");
  Property(u"Article", u"Weight");
  ExpectOk(lorv_alter_table_drop_column_by_names(context(), u"Article", u"Weight", nullptr));
  Refresh();
  EXPECT_EQ(kept, Property(u"Article", u"Price"));
  PropertyAccessInfo* gone = nullptr;
  ExpectRefused(SAGLEME_BAD_ARGUMENT, u"Property Weight isn't found in class Article.",
                lorv_crud_GetPropertyHandle(context(), u"Article", u"Weight", &gone));
}

TEST_F(RefreshTest, DroppedTable_LosesItsHandles) {
  CreateTable(u"Other", Columns().Long(u"Size"));
  Property(u"Article", u"Price");
  Creator(u"Article");
  CreateInfo* const other = Creator(u"Other");
  ExpectOk(lorv_drop_table_by_name(context(), u"Article", false, false));
  Refresh();
  EXPECT_EQ(other, Creator(u"Other"));
  CreateInfo* gone = nullptr;
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Type Article not found.",
                lorv_crud_GetCreateHandle(context(), u"Article", &gone));
}

TEST_F(RefreshTest, EmptyEntry_IsForgotten) {
  metalayer::SetSpecifier const row = metalayer::SetSpecifier::ByType(ViewOf(u"Article"));
  std::u16string const text = metalayer::GetText(row, metalayer::SetSpecifier::kTypeId);
  metalayer::PutText(row, metalayer::SetSpecifier::kTypeId, nullptr);
  CreateInfo* handle = nullptr;
  EXPECT_THROW(lorv_crud_GetCreateHandle(context(), u"Article", &handle), std::logic_error);
  metalayer::PutText(row, metalayer::SetSpecifier::kTypeId, text.c_str());
  EXPECT_EQ(nullptr, Creator(u"Article"));
  Refresh();
  EXPECT_NE(nullptr, Creator(u"Article"));
}

// The next table gets the type id of the one that never was.
TEST_F(RefreshTest, TableRolledBack_NextTableWithItsTypeIdHasItsOwnHandles) {
  Commit();
  Begin();
  CreateTable(u"Draft", Columns().Long(u"Pages"));
  uint64_t const type_id = TypeId(u"Draft");
  CreateInfo* const draft = Creator(u"Draft");
  PropertyAccessInfo* const pages = Property(u"Draft", u"Pages");
  EXPECT_EQ(type_id, TypeIdOf(CreateObject(u"Draft")));
  Rollback();
  Begin();
  CreateTable(u"Final", Columns().Long(u"Chapters"));
  ASSERT_EQ(type_id, TypeId(u"Final"));
  CreateInfo* const final_creator = Creator(u"Final");
  EXPECT_NE(draft, final_creator);
  EXPECT_EQ(ViewOf(u"Final").oid, final_creator->view.oid);
  EXPECT_NE(pages, Property(u"Final", u"Chapters"));
  LS_OBJ_REF const object = CreateObject(u"Final");
  WriteLong(Property(u"Final", u"Chapters"), object, 12);
  EXPECT_EQ(12, ReadLong(Property(u"Final", u"Chapters"), object));
  EXPECT_EQ(type_id, TypeIdOf(object));
  Commit();
  Begin();
  EXPECT_EQ(final_creator, Creator(u"Final"));
  EXPECT_EQ(type_id, TypeIdOf(object));
}

// A savepoint inside a transaction, here set and rolled back to around `work`.
class SavepointRefreshTest : public RefreshTest {
 protected:
  template <typename Work>
  void TakeBack(Work&& work) {
    uint64_t savepoint = 0;
    ASSERT_EQ(0u, lscoredb_savepoint(context(), &savepoint));
    work();
    ASSERT_EQ(0u, lscoredb_rollback_to(context(), savepoint));
    ASSERT_EQ(0u, lscoredb_release(context(), savepoint));
  }
};

TEST_F(SavepointRefreshTest, TableTakenBack_NextTableWithItsTypeIdHasItsOwnHandles) {
  CreateInfo* draft = nullptr;
  uint64_t type_id = 0;
  TakeBack([&] {
    CreateTable(u"Draft", Columns().Long(u"Pages"));
    type_id = TypeId(u"Draft");
    draft = Creator(u"Draft");
    LS_OBJ_REF const object = CreateObject(u"Draft");
    WriteLong(Property(u"Draft", u"Pages"), object, 1);
    EXPECT_EQ(type_id, TypeIdOf(object));
  });
  CreateTable(u"Final", Columns().Long(u"Chapters"));
  ASSERT_EQ(type_id, TypeId(u"Final"));
  EXPECT_NE(draft, Creator(u"Final"));
  LS_OBJ_REF const object = CreateObject(u"Final");
  WriteLong(Property(u"Final", u"Chapters"), object, 12);
  EXPECT_EQ(12, ReadLong(Property(u"Final", u"Chapters"), object));
  EXPECT_EQ(type_id, TypeIdOf(object));
  Refresh();
  EXPECT_EQ(12, ReadLong(Property(u"Final", u"Chapters"), object));
}

TEST_F(SavepointRefreshTest, SameTableTakenBackAndMadeAgain_Works) {
  for (int i = 0; i < 3; ++i) {
    TakeBack([&] {
      CreateTable(u"Draft", Columns().Long(u"Pages"));
      WriteLong(Property(u"Draft", u"Pages"), CreateObject(u"Draft"), i);
    });
  }
  CreateTable(u"Draft", Columns().Long(u"Pages"));
  LS_OBJ_REF const object = CreateObject(u"Draft");
  WriteLong(Property(u"Draft", u"Pages"), object, 7);
  Commit();
  Begin();
  EXPECT_EQ(7, ReadLong(Property(u"Draft", u"Pages"), object));
}

TEST_F(SavepointRefreshTest, ColumnTakenBack_RefreshLeadsHandlesBack) {
  CreateTable(u"Draft", Columns().Long(u"Pages"));
  PropertyAccessInfo* const pages = Property(u"Draft", u"Pages");
  LS_OBJ_REF const before = CreateObject(u"Draft");
  WriteLong(pages, before, 3);
  TakeBack([&] {
    ExpectOk(
        lorv_alter_table_add_columns(context(), u"Draft", Columns().Long(u"Words", true), nullptr));
    Refresh();
    WriteLong(pages, before, 4);
    WriteLong(Property(u"Draft", u"Words"), before, 5);
  });
  Refresh();
  EXPECT_EQ(3, ReadLong(pages, before));
  LS_OBJ_REF const since = CreateObject(u"Draft");
  WriteLong(pages, since, 6);
  EXPECT_EQ(6, ReadLong(pages, since));
  Commit();
  Begin();
  EXPECT_EQ(3, ReadLong(pages, before));
}

TEST_F(RefreshTest, TableRolledBack_SystemCreateHandleOfTheNextOneWorks) {
  Commit();
  Begin();
  CreateTable(u"Draft", Columns().Long(u"Pages"));
  Creator(u"Draft");
  CreatorOrSystem(u"Draft", true);
  Rollback();
  Begin();
  CreateTable(u"Final", Columns().Long(u"Chapters"));
  CreateInfo* const system = CreatorOrSystem(u"Final", true);
  EXPECT_TRUE(system->is_system);
  EXPECT_EQ(ViewOf(u"Final").oid, system->view.oid);
}

TEST_F(RefreshTest, TableRolledBack_RefreshFreesItsHandles) {
  Commit();
  Begin();
  CreateTable(u"Draft", Columns().Long(u"Pages"));
  Creator(u"Draft");
  Property(u"Draft", u"Pages");
  Rollback();
  Begin();
  CreateTable(u"Final", Columns().Long(u"Chapters"));
  CreateInfo* const kept = Creator(u"Final");
  Refresh();
  EXPECT_EQ(kept, Creator(u"Final"));
}

}  // namespace
}  // namespace sagleme_test
