#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawView;
using metalayer::SetSpecifier;
using metalayer::TypeIdsMeta;

class RenameTableTest : public CatalogueTest {
 protected:
  uint32_t Rename(char16_t const* old_name, char16_t const* new_name) {
    return lorv_rename_table(context(), old_name, new_name);
  }
};

TEST_F(RenameTableTest, AllNameForms_AreWritten) {
  Create(u"Old.T");
  RawView const table = View(u"Old.T");
  uint64_t const generation = Generation();
  ExpectOk(Rename(u"Old.T", u"New.Place.U"));
  EXPECT_TRUE(View(u"Old.T").is_null());
  EXPECT_EQ(table.oid, View(u"New.Place.U").oid);
  EXPECT_EQ("New.Place.U", TextOf(table, RawView::kFullName));
  EXPECT_EQ("U", TextOf(table, RawView::kName));
  EXPECT_EQ("Lorvenstack.Raw.New.Place.U", TextOf(table, RawView::kUniqueIdentifier));
  EXPECT_EQ("U.Place.New.Raw.Lorvenstack", TextOf(table, RawView::kUniqueIdentifierReversed));
  EXPECT_EQ(generation + 1, Generation());
}

TEST_F(RenameTableTest, PositionInTheTree_StaysAsItIs) {
  Create(u"Base");
  uint16_t const layout = Create(u"T", {}, u"Base");
  RawView const table = View(u"T");
  std::string const setspec = SetspecOfTable(table);
  LS_OBJ_REF const type_id = TypeIdsMeta::ByTypeIdsMeta_Type(table);
  ExpectOk(Rename(u"T", u"U"));
  EXPECT_EQ(layout, LayoutOfTable(u"U"));
  EXPECT_EQ(setspec, SetspecOfTable(table));
  EXPECT_EQ(type_id.oid, TypeIdsMeta::ByTypeIdsMeta_Type(table).oid);
  EXPECT_EQ(View(u"Base").oid, table.get_ref(RawView::kInherits).oid);
  EXPECT_EQ(0, CountRequests());
}

TEST_F(RenameTableTest, KernelLayout_KeepsItsTokenAlsoAfterLaterChanges) {
  Create(u"T");
  uint64_t const token = TokenOf(u"T");
  ExpectOk(Rename(u"T", u"U"));
  EXPECT_EQ(0u, TokenOf(u"U"));
  AddColumns(u"U", Columns().Long(u"a"));
  LORVI_LAYOUT_INFO info = {};
  ASSERT_EQ(0u, lorvi_context_get_layout_info(context(), LayoutOfTable(u"U"), &info));
  EXPECT_EQ(token, info.token);
}

TEST_F(RenameTableTest, ReferenceColumns_ShowTheNewNameEverywhere) {
  Create(u"Target");
  Create(u"One", Columns().Ref(u"r", u"Target"));
  Create(u"Child", {}, u"One");
  Create(u"Two", Columns().Ref(u"s", u"Target").Ref(u"t", u"One"));
  ExpectOk(Rename(u"Target", u"Renamed"));
  EXPECT_EQ(WithRootColumns({"3 r reference(Renamed) null"}), ColumnsOf(u"One"));
  EXPECT_EQ(WithRootColumns({"3 r reference(Renamed) null inherited"}), ColumnsOf(u"Child"));
  EXPECT_EQ(WithRootColumns({"3 s reference(Renamed) null", "4 t reference(One) null"}),
            ColumnsOf(u"Two"));
}

TEST_F(RenameTableTest, DeferredColumn_KeepsTheOldName) {
  Create(u"Referrer", Columns().Ref(u"r", u"Target"));
  Create(u"Target");
  ExpectOk(Rename(u"Target", u"Renamed"));
  EXPECT_EQ(WithRootColumns({"3 r reference(Target?) null"}), ColumnsOf(u"Referrer"));
}

TEST_F(RenameTableTest, Children_KeepTheirNamesAndTheirParent) {
  Create(u"Parent");
  Create(u"Parent.Child", {}, u"Parent");
  ExpectOk(Rename(u"Parent", u"Renamed"));
  ASSERT_FALSE(View(u"Parent.Child").is_null());
  EXPECT_EQ(View(u"Renamed").oid, View(u"Parent.Child").get_ref(RawView::kInherits).oid);
}

TEST_F(RenameTableTest, TakenName_IsRefusedTheTablesOwnToo) {
  Create(u"T");
  Create(u"Other");
  ExpectRefusedUntouched(SAGLEME_TABLE_EXISTS, u"Table Other already exists.",
                         [&] { return Rename(u"T", u"Other"); });
  ExpectRefusedUntouched(SAGLEME_TABLE_EXISTS, u"Table T already exists.",
                         [&] { return Rename(u"T", u"T"); });
}

TEST_F(RenameTableTest, Arguments_AreCheckedInOrder) {
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is null.",
                         [&] { return Rename(nullptr, nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is empty.",
                         [&] { return Rename(u"", nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument new_table_name is null.",
                         [&] { return Rename(u"Nobody", nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument new_table_name is empty.",
                         [&] { return Rename(u"Nobody", u""); });
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.",
                         [&] { return Rename(u"Nobody", u"Somebody"); });
}

TEST_F(RenameTableTest, NameTooLongForAKey_Is4197) {
  Create(u"T");
  std::u16string const name(5000, u'x');
  ExpectRefusedUntouched(SAGLEME_NAME_TOO_LONG, u"", [&] { return Rename(u"T", name.c_str()); });
}

TEST_F(RenameTableTest, MappedTable_IsNotHeld) {
  Create(u"T");
  InsertClass(u"Class", View(u"T"));
  ExpectOk(Rename(u"T", u"U"));
}

TEST_F(RenameTableTest, DottedName_FindsTheTableByItsLastSegments) {
  Create(u"App.Model.T");
  metalayer::ddl::RenameTable(metalayer::DottedName::Split(u"Model.T"), u"App.U");
  EXPECT_FALSE(View(u"App.U").is_null());
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table Model.T not found.", [] {
    metalayer::ddl::RenameTable(metalayer::DottedName::Split(u"Model.T"), u"App.V");
  });
}

TEST_F(RenameTableTest, OldName_IsFreeAtOnce) {
  Create(u"T", Columns().Long(u"a"));
  ExpectOk(Rename(u"T", u"U"));
  CreateInfo* handle = nullptr;
  EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, lorv_crud_GetCreateHandle(context(), u"T", &handle));
  Create(u"T", Columns().String(u"b"));
  EXPECT_EQ(WithRootColumns({"3 b string null"}), ColumnsOf(u"T"));
  EXPECT_EQ(WithRootColumns({"3 a long"}), ColumnsOf(u"U"));
}

TEST_F(RenameTableTest, DottedNameOfTwoTables_IsAmbiguous) {
  Create(u"One.T");
  Create(u"Two.T");
  ExpectUntouched([] {
    try {
      metalayer::ddl::RenameTable(metalayer::DottedName::Split(u"T"), u"U");
      ADD_FAILURE();
    } catch (db_util::db_exception const& failure) {
      EXPECT_EQ(SAGLEME_AMBIGUOUS_NAME, failure.code());
    }
  });
}

// Only names in full collide: the same last segment elsewhere is another table.
TEST_F(RenameTableTest, SameShortNameElsewhere_IsFree) {
  Create(u"One.T");
  Create(u"Two.U");
  ExpectOk(Rename(u"One.T", u"One.U"));
  EXPECT_NE(View(u"One.U").oid, View(u"Two.U").oid);
}

TEST_F(RenameTableTest, RolledBack_LeavesNothing) {
  Create(u"T");
  Create(u"Referrer", Columns().Ref(u"r", u"T"));
  Commit();
  Begin();
  std::string const before = DumpDatabase();
  ExpectOk(Rename(u"T", u"U"));
  Rollback();
  Begin();
  EXPECT_EQ(before, DumpDatabase());
}

}  // namespace
}  // namespace sagleme_test
