#include <utility>

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::DottedName;
using metalayer::Index;
namespace ddl = metalayer::ddl;

class DropIndexTest : public CatalogueTest {
 protected:
  void SetUp() override {
    CatalogueTest::SetUp();
    Create(u"App.T", Columns().Long(u"a").Long(u"b"));
    CreateIndex(u"I", u"App.T", {u"a", u"-b"});
    CreateIndex(u"J", u"App.T", {u"b"});
  }
  void ExpectDropped(char16_t const* name, uint64_t handle) {
    EXPECT_TRUE(Index::ByIndexPK(name).is_null());
    LORVI_INDEX_INFO info = {};
    EXPECT_EQ(LORV_STATUS_NO_INDEX, metalayer::get_index_info_by_token(TokenOf(name), &info));
    char16_t const* setspec = nullptr;
    EXPECT_NE(0u, lorvi_context_get_index_setspec(context(), handle, &setspec));
  }
  uint64_t HandleOf(char16_t const* name) {
    return metalayer::GetULong(Index::ByIndexPK(name), Index::kIndexHandle);
  }
  int CountIndexedColumns() {
    int count = 0;
    db_util::db_iter_with_keys rows;
    metalayer::RangeGlobalSetspecIndex(metalayer::IndexedColumn::setspec().c_str(), &rows);
    for (; rows.current.oid != 0; rows.next()) ++count;
    return count;
  }
  uint32_t ByTableAndName(char16_t const* table, char16_t const* name) {
    return lorv_drop_index_by_table_and_name(context(), table, name);
  }
};

TEST_F(DropIndexTest, ByName_RemovesRowsAndKernelIndex) {
  uint64_t const handle = HandleOf(u"I");
  int const indexed = CountIndexedColumns();
  uint64_t const generation = Generation();
  ExpectOk(lorv_drop_index_by_name(context(), u"I"));
  ExpectDropped(u"I", handle);
  EXPECT_EQ(indexed - 2, CountIndexedColumns());
  EXPECT_EQ(generation + 1, Generation());
  EXPECT_EQ((std::vector<std::string>{"J(b+)"}), IndexesOf(u"App.T"));
}

TEST_F(DropIndexTest, ByReference_RemovesIt) {
  uint64_t const handle = HandleOf(u"I");
  Index const row = Index::ByIndexPK(u"I");
  ExpectOk(lorv_drop_index(context(), row.oid, row.addr));
  ExpectDropped(u"I", handle);
}

TEST_F(DropIndexTest, ByTableAndName_TakesShortenedTableNames) {
  uint64_t const first = HandleOf(u"I");
  ExpectOk(ByTableAndName(u"T", u"I"));
  ExpectDropped(u"I", first);
  uint64_t const second = HandleOf(u"J");
  ExpectOk(ByTableAndName(u"App.T", u"J"));
  ExpectDropped(u"J", second);
}

TEST_F(DropIndexTest, ByFullNameAndName_RemovesIt) {
  uint64_t const handle = HandleOf(u"I");
  ddl::DropIndex(u"App.T", u"I");
  ExpectDropped(u"I", handle);
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table T not found.", [] { ddl::DropIndex(u"T", u"J"); });
}

TEST_F(DropIndexTest, DroppedIndex_CanBeCreatedAgain) {
  ExpectOk(lorv_drop_index_by_name(context(), u"I"));
  CreateIndex(u"I", u"App.T", {u"b"});
  EXPECT_EQ((std::vector<std::string>{"I(b+)", "J(b+)"}), IndexesOf(u"App.T"));
}

TEST_F(DropIndexTest, UnknownIndex_IsRefused) {
  ExpectRefusedUntouched(SAGLEME_INDEX_NOT_FOUND, u"Index Nobody not found.",
                         [&] { return lorv_drop_index_by_name(context(), u"Nobody"); });
  ExpectRefusedUntouched(SAGLEME_INDEX_NOT_FOUND, u"Index Nobody not found.",
                         [&] { return ByTableAndName(u"App.T", u"Nobody"); });
}

TEST_F(DropIndexTest, UnknownTable_IsRefused) {
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table No.Body not found.",
                         [&] { return ByTableAndName(u"No.Body", u"I"); });
}

// The third whose name begins so is a system table.
TEST_F(DropIndexTest, AmbiguousTable_IsRefused) {
  Create(u"Other.T");
  ExpectRefusedUntouched(
      SAGLEME_AMBIGUOUS_NAME,
      u"Incomplete table name T matches more than one table: App.T, Other.T, and more.",
      [&] { return ByTableAndName(u"T", u"I"); });
}

TEST_F(DropIndexTest, IndexOfAnotherTable_IsRefused) {
  Create(u"App.Other");
  ExpectRefusedUntouched(SAGLEME_INDEX_OF_ANOTHER_TABLE,
                         u"Index I doesn't belong to the table App.Other.",
                         [&] { return ByTableAndName(u"Other", u"I"); });
}

TEST_F(DropIndexTest, IndexOfTheParent_IsNotTheChilds) {
  Create(u"App.Child", {}, u"App.T");
  ExpectRefusedUntouched(SAGLEME_INDEX_OF_ANOTHER_TABLE,
                         u"Index I doesn't belong to the table App.Child.",
                         [&] { return ByTableAndName(u"Child", u"I"); });
}

TEST_F(DropIndexTest, ReferenceToNoIndex_IsTheKernelsRefusal) {
  metalayer::RawView const table = View(u"App.T");
  EXPECT_NE(0u, lorv_drop_index(context(), table.oid, table.addr));
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, lorv_drop_index(context(), 0, 0));
}

TEST_F(DropIndexTest, RowWithoutHandle_GoesWithoutTheKernel) {
  Index row(Index::ByIndexPK(u"I"));
  metalayer::PutULong(row, Index::kIndexHandle, 0);
  int const indexed = CountIndexedColumns();
  uint64_t const generation = Generation();
  ddl::DropIndex(std::move(row));
  EXPECT_TRUE(row.is_null());
  EXPECT_TRUE(Index::ByIndexPK(u"I").is_null());
  EXPECT_EQ(indexed - 2, CountIndexedColumns());
  EXPECT_EQ(generation, Generation());
  LORVI_INDEX_INFO info = {};
  EXPECT_EQ(0u, metalayer::get_index_info_by_token(TokenOf(u"I"), &info));
}

TEST_F(DropIndexTest, Argument_IsNullAfterwards) {
  Index row(Index::ByIndexPK(u"I"));
  ddl::DropIndex(std::move(row));
  EXPECT_TRUE(row.is_null());
}

TEST_F(DropIndexTest, IndexWithoutColumnRows_IsDropped) {
  ddl::DropIndexedColumns(Index::ByIndexPK(u"I"));
  EXPECT_EQ((std::vector<std::string>{"I()", "J(b+)"}), IndexesOf(u"App.T"));
  uint64_t const handle = HandleOf(u"I");
  ExpectOk(lorv_drop_index_by_name(context(), u"I"));
  ExpectDropped(u"I", handle);
}

TEST_F(DropIndexTest, SystemIndex_IsNotGuarded) {
  uint64_t const generation = Generation();
  ExpectOk(lorv_drop_index_by_name(context(), u"CodePropertyPK"));
  EXPECT_EQ(generation + 1, Generation());
  EXPECT_TRUE(Index::ByIndexPK(u"CodePropertyPK").is_null());
}

TEST_F(DropIndexTest, Table_ComesBeforeIndex) {
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.",
                         [&] { return ByTableAndName(u"Nobody", u"Nothing"); });
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table T not found.",
               [] { ddl::DropIndex(u"T", u"Nothing"); });
}

TEST_F(DropIndexTest, IndexWithoutTable_BelongsToNone) {
  metalayer::PutRef(Index::ByIndexPK(u"I"), Index::kTable, db_util::null_obj_ref);
  ExpectRefusedUntouched(SAGLEME_INDEX_OF_ANOTHER_TABLE,
                         u"Index I doesn't belong to the table App.T.",
                         [&] { return ByTableAndName(u"App.T", u"I"); });
  ExpectOk(lorv_drop_index_by_name(context(), u"I"));
}

// The rows went before the kernel was asked: the transaction has to put them back.
TEST_F(DropIndexTest, IndexThatTheKernelHasLost_IsItsRefusal) {
  Commit();
  Begin();
  uint64_t const generation = Generation();
  ASSERT_EQ(0u, lorvi_context_drop_index(context(), HandleOf(u"I")));
  EXPECT_EQ(LORV_STATUS_NO_INDEX, lorv_drop_index_by_name(context(), u"I"));
  EXPECT_TRUE(Index::ByIndexPK(u"I").is_null());
  EXPECT_EQ(generation, Generation());
  Rollback();
  Begin();
  ExpectOk(lorv_drop_index_by_name(context(), u"I"));
}

TEST_F(DropIndexTest, EmptySegmentsOfTheTablesName_Count) {
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table App..T not found.",
                         [&] { return ByTableAndName(u"App..T", u"I"); });
  ExpectOk(ByTableAndName(u"App.T.", u"I"));
}

TEST_F(DropIndexTest, RolledBack_LeavesNothing) {
  Commit();
  Begin();
  std::string const before = DumpDatabase();
  ExpectOk(lorv_drop_index_by_name(context(), u"I"));
  Rollback();
  Begin();
  EXPECT_EQ(before, DumpDatabase());
  LORVI_INDEX_INFO info = {};
  EXPECT_EQ(0u, metalayer::get_index_info_by_token(TokenOf(u"I"), &info));
}

}  // namespace
}  // namespace sagleme_test
