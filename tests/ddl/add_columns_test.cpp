#include <stdexcept>

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawColumn;
using metalayer::RawView;
using metalayer::Vacuum;
using ::testing::KilledBySignal;

std::u16string Numbered(int i) { return u"n" + Utf16(std::to_string(i)); }

char16_t const* ColumnName(int i) {
  static std::vector<std::u16string> const names = [] {
    std::vector<std::u16string> all;
    for (int n = 0; n < 120; ++n) all.push_back(Numbered(n));
    return all;
  }();
  return names[static_cast<std::size_t>(i)].c_str();
}

Columns LongColumns(int first, int end) {
  Columns columns;
  for (int i = first; i < end; ++i) columns.Long(ColumnName(i));
  return columns;
}

class AddColumnsTest : public CatalogueTest {
 protected:
  uint32_t Add(char16_t const* table, Columns columns) {
    return lorv_alter_table_add_columns(context(), table, columns, nullptr);
  }
};

TEST_F(AddColumnsTest, RootTable_GetsTheNextOrdinalAndANewLayout) {
  uint16_t const old_layout = Create(u"T", Columns().Long(u"a").Long(u"b"));
  uint64_t const generation = Generation();
  uint16_t const layout = AddColumns(u"T", Columns().String(u"c"));
  EXPECT_EQ(WithRootColumns({"3 a long", "4 b long", "5 c string null"}), ColumnsOf(u"T"));
  EXPECT_NE(old_layout, layout);
  EXPECT_EQ(LayoutOfTable(u"T"), layout);
  EXPECT_EQ(generation + 1, Generation());
  EXPECT_EQ((Request{1, layout}), RequestOf(u"T"));
  ExpectKernelAgrees(u"T");
}

TEST_F(AddColumnsTest, KeptColumns_KeepTheirTokens) {
  uint16_t const old_layout = Create(u"T", Columns().Long(u"a").Long(u"b"));
  uint16_t const layout = AddColumns(u"T", Columns().Long(u"c"));
  std::vector<uint64_t> tokens = TokensOfLayout(layout);
  ASSERT_EQ(6u, tokens.size());
  tokens.pop_back();
  EXPECT_EQ(TokensOfLayout(old_layout), tokens);
}

TEST_F(AddColumnsTest, Output_MayBeNull) {
  Create(u"T");
  ExpectOk(Add(u"T", Columns().Long(u"a")));
  EXPECT_EQ(WithRootColumns({"3 a long"}), ColumnsOf(u"T"));
}

TEST_F(AddColumnsTest, Children_GetThemInFrontOfTheirOwn) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", Columns().Long(u"c").Long(u"d"), u"Parent");
  Create(u"Grandchild", Columns().Long(u"g"), u"Child");
  uint64_t const generation = Generation();
  AddColumns(u"Parent", Columns().Long(u"x").String(u"y"));
  EXPECT_EQ(WithRootColumns({"3 p long", "4 x long", "5 y string null"}), ColumnsOf(u"Parent"));
  EXPECT_EQ(WithRootColumns({"3 p long inherited", "4 x long inherited",
                             "5 y string null inherited", "6 c long", "7 d long"}),
            ColumnsOf(u"Child"));
  EXPECT_EQ(
      WithRootColumns({"3 p long inherited", "4 x long inherited", "5 y string null inherited",
                       "6 c long inherited", "7 d long inherited", "8 g long"}),
      ColumnsOf(u"Grandchild"));
  EXPECT_EQ(generation + 1, Generation());
  ExpectKernelAgrees(u"Parent");
  for (char16_t const* table : {u"Parent", u"Child", u"Grandchild"}) {
    EXPECT_EQ((Request{1, LayoutOfTable(table)}), RequestOf(table));
  }
  Commit();
  Begin();
}

TEST_F(AddColumnsTest, MiddleTable_LeavesTheParentAlone) {
  uint16_t const parent = Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  Create(u"Sibling", Columns().Long(u"s"), u"Parent");
  Create(u"Grandchild", Columns().Long(u"g"), u"Child");
  uint16_t const sibling = LayoutOfTable(u"Sibling");
  AddColumns(u"Child", Columns().Long(u"x"));
  EXPECT_EQ(parent, LayoutOfTable(u"Parent"));
  EXPECT_EQ(sibling, LayoutOfTable(u"Sibling"));
  EXPECT_EQ(WithRootColumns(
                {"3 p long inherited", "4 c long inherited", "5 x long inherited", "6 g long"}),
            ColumnsOf(u"Grandchild"));
  EXPECT_EQ(kNoRequest, RequestOf(u"Parent"));
  EXPECT_EQ(kNoRequest, RequestOf(u"Sibling"));
  ExpectKernelAgrees(u"Parent");
}

TEST_F(AddColumnsTest, Reference_MayNameATableToCome) {
  Create(u"T");
  AddColumns(u"T", Columns().Ref(u"r", u"Later").Ref(u"s", u"T"));
  EXPECT_EQ(WithRootColumns({"3 r reference(Later?) null", "4 s reference(T) null"}),
            ColumnsOf(u"T"));
}

TEST_F(AddColumnsTest, Twice_LeavesOneRequestAimedAtTheNewest) {
  Create(u"T");
  AddColumns(u"T", Columns().Long(u"a"));
  uint16_t const layout = AddColumns(u"T", Columns().Long(u"b"));
  EXPECT_EQ(1, CountRequests());
  EXPECT_EQ((Request{1, layout}), RequestOf(u"T"));
}

TEST_F(AddColumnsTest, PendingRequest_KeepsItsKind) {
  Create(u"T");
  Vacuum::Insert(Utf16(SetspecOfTable(View(u"T"))).c_str(), 1, 2);
  uint16_t const layout = AddColumns(u"T", Columns().Long(u"a"));
  EXPECT_EQ((Request{2, layout}), RequestOf(u"T"));
}

TEST_F(AddColumnsTest, DottedName_FindsTheTableByItsLastSegments) {
  Create(u"App.Model.T");
  LORV_COLUMN_DEFINITION_NAMES const columns[] = {{SAGLEME_TYPE_SIGNED, nullptr, 0, u"a"},
                                                  {0, nullptr, 0, nullptr}};
  uint16_t const layout =
      metalayer::ddl::AddColumns(metalayer::DottedName::Split(u"Model.T"), columns);
  EXPECT_EQ(LayoutOfTable(u"App.Model.T"), layout);
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table Other.T not found.", [&] {
    metalayer::ddl::AddColumns(metalayer::DottedName::Split(u"Other.T"), columns);
  });
}

TEST_F(AddColumnsTest, Arguments_AreCheckedInOrder) {
  Create(u"T");
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is null.", [&] {
    return lorv_alter_table_add_columns(context(), nullptr, nullptr, nullptr);
  });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is empty.", [&] {
    return lorv_alter_table_add_columns(context(), u"", nullptr, nullptr);
  });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument added_columns is null.", [&] {
    return lorv_alter_table_add_columns(context(), u"Nobody", nullptr, nullptr);
  });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT,
                         u"Number of columns for table Nobody exceeds the limit of 112.",
                         [&] { return Add(u"Nobody", LongColumns(0, 113)); });
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.",
                         [&] { return Add(u"Nobody", Columns().Long(u"a")); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"No column definitions provided.",
                         [&] { return Add(u"T", {}); });
}

TEST_F(AddColumnsTest, RefusedCall_LeavesTheOutputAlone) {
  Create(u"T", Columns().Long(u"a"));
  uint64_t layout = 77;
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN,
            lorv_alter_table_add_columns(context(), u"T", Columns().Long(u"a"), &layout));
  EXPECT_EQ(77u, layout);
}

TEST_F(AddColumnsTest, NamesInUse_AreReportedAllAtOnce) {
  Create(u"Base", Columns().Long(u"b"));
  Create(u"a.T", Columns().Long(u"z").Long(u"o"), u"Base");
  ExpectRefusedUntouched(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"Table a.T: added column b conflicts with inherited column; added column "
      u"o conflicts with existing column; added column z conflicts with existing "
      u"column; added column new conflicts with other added column.",
      [&] {
        return Add(u"a.T", Columns().Long(u"z").Long(u"new").Long(u"b").Long(u"o").Long(u"new"));
      });
}

TEST_F(AddColumnsTest, NameTwiceInTheRequest_IsRefusedUnwritten) {
  Create(u"T");
  ExpectRefusedUntouched(SAGLEME_COLUMN_NAME_TAKEN,
                         u"Table T: added column x conflicts with other added column.",
                         [&] { return Add(u"T", Columns().Long(u"x").String(u"x")); });
}

TEST_F(AddColumnsTest, NamesDifferingInCase_AreTwoColumns) {
  Create(u"T", Columns().Long(u"x"));
  AddColumns(u"T", Columns().Long(u"X"));
  EXPECT_EQ(WithRootColumns({"3 x long", "4 X long"}), ColumnsOf(u"T"));
}

TEST_F(AddColumnsTest, NameInAGrandchild_FailsAfterTheTablesAboveWereChanged) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  Create(u"a.Grandchild", Columns().Long(u"x").Long(u"y"), u"Child");
  uint16_t const grandchild = LayoutOfTable(u"a.Grandchild");
  uint64_t const generation = Generation();
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"Table a.Grandchild: added column x conflicts with column from descendant table "
                u"a.Grandchild; added column y conflicts with column from descendant table "
                u"a.Grandchild.",
                Add(u"Parent", Columns().Long(u"y").Long(u"x").Long(u"free")));
  EXPECT_EQ(7u, ColumnsOf(u"Parent").size());
  EXPECT_EQ(8u, ColumnsOf(u"Child").size());
  EXPECT_EQ((Request{1, LayoutOfTable(u"Child")}), RequestOf(u"Child"));
  EXPECT_EQ(7u, ColumnsOf(u"a.Grandchild").size());
  EXPECT_EQ(grandchild, LayoutOfTable(u"a.Grandchild"));
  EXPECT_EQ(generation, Generation());
}

TEST_F(AddColumnsTest, PropertyOfTheTable_CountsAsAName) {
  Create(u"T", Columns().Long(u"a"));
  InsertMappedProperty(View(u"T"), u"Prop", ColumnRow(u"T", u"a"));
  ExpectRefusedUntouched(SAGLEME_COLUMN_NAME_TAKEN,
                         u"Table T: added column Prop conflicts with existing column.",
                         [&] { return Add(u"T", Columns().Long(u"Prop")); });
}

TEST_F(AddColumnsTest, Limit_Is115InAll) {
  Create(u"a.T", LongColumns(0, 100));
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT,
                         u"Number of columns for table a.T exceeds the limit of 112.",
                         [&] { return Add(u"a.T", LongColumns(100, 113)); });
  AddColumns(u"a.T", LongColumns(100, 112));
  EXPECT_EQ(115u, ColumnsOf(u"a.T").size());
  ExpectKernelAgrees(u"a.T");
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT,
                         u"Number of columns for table a.T exceeds the limit of 112.",
                         [&] { return Add(u"a.T", Columns().Long(u"one")); });
}

TEST_F(AddColumnsTest, EmptyTable_Takes112AtOnce) {
  Create(u"T");
  AddColumns(u"T", LongColumns(0, 112));
  EXPECT_EQ(115u, ColumnsOf(u"T").size());
  ExpectKernelAgrees(u"T");
}

TEST_F(AddColumnsTest, ChildAtItsLimit_StopsTheChangeThere) {
  Create(u"Parent", LongColumns(0, 10));
  Create(u"a.Child", LongColumns(10, 111), u"Parent");
  uint16_t const child = LayoutOfTable(u"a.Child");
  ExpectRefused(SAGLEME_BAD_ARGUMENT,
                u"Number of columns for table a.Child exceeds the limit of 112.",
                Add(u"Parent", Columns().Long(u"x").Long(u"y")));
  EXPECT_EQ(15u, ColumnsOf(u"Parent").size());
  EXPECT_EQ(child, LayoutOfTable(u"a.Child"));
  Rollback();
  Begin();
}

TEST_F(AddColumnsTest, ChildThatJustFits_TakesTheColumn) {
  Create(u"Parent", LongColumns(0, 10));
  Create(u"Child", LongColumns(10, 111), u"Parent");
  AddColumns(u"Parent", Columns().Long(u"x"));
  EXPECT_EQ(115u, ColumnsOf(u"Child").size());
  ExpectKernelAgrees(u"Parent");
}

// All columns count as own ones in a table that has lost its parent.
TEST_F(AddColumnsTest, MoreThan113ColumnsToReload_IsRefusedWithoutText) {
  Create(u"T", LongColumns(0, 111));
  metalayer::PutRef(View(u"T"), RawView::kInherits, db_util::null_obj_ref);
  ExpectRefusedUntouched(SAGLEME_TOO_MANY_RECORDS, u"",
                         [&] { return Add(u"T", Columns().Long(u"x")); });
}

TEST_F(AddColumnsTest, UnreloadableType_Is4226) {
  Create(u"T", Columns().Long(u"a"));
  metalayer::PutULong(metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3),
                      metalayer::DbPrimitiveType::kPrimitiveType, 11);
  ExpectRefusedUntouched(SAGLEME_INVALID_TYPE, u"",
                         [&] { return Add(u"T", Columns().String(u"x")); });
}

TEST_F(AddColumnsTest, DeferredReferenceInTheTable_EndsTheProcess) {
  Create(u"T", Columns().Ref(u"r", u"Later"));
  EXPECT_EXIT(Add(u"T", Columns().Long(u"x")), KilledBySignal(SIGABRT), "");
}

TEST_F(AddColumnsTest, TypeThatMustBeNullable_IsRefused) {
  Create(u"T");
  ExpectRefused(SAGLEME_COLUMN_NOT_NULLABLE, u"Column s must be nullable.",
                Add(u"T", Columns().Add(SAGLEME_TYPE_TEXT, u"s", false)));
}

TEST_F(AddColumnsTest, ReferenceWithoutTypeName_IsRefused) {
  Create(u"T");
  ExpectRefused(SAGLEME_TARGET_NOT_FOUND, u"Reference type name missing in column r.",
                Add(u"T", Columns().Ref(u"r", nullptr)));
}

TEST_F(AddColumnsTest, UnknownPrimitiveType_KeepsTheColumnsBeforeIt) {
  uint16_t const layout = Create(u"T");
  ExpectRefused(SAGLEME_TARGET_NOT_FOUND, u"Primitive type 200 not found for column b.",
                Add(u"T", Columns().Long(u"a").Add(200, u"b", true)));
  EXPECT_EQ(WithRootColumns({"3 a long"}), ColumnsOf(u"T"));
  EXPECT_EQ(layout, LayoutOfTable(u"T"));
}

TEST_F(AddColumnsTest, TableWithoutSetSpecifier_EndsTheProcess) {
  Create(u"T");
  metalayer::DeleteRow(metalayer::SetSpecifier::ByType(View(u"T")));
  EXPECT_EXIT(Add(u"T", Columns().Long(u"a")), KilledBySignal(SIGABRT), "");
}

TEST_F(AddColumnsTest, RolledBack_LeavesNothing) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  Commit();
  Begin();
  std::string const before = DumpDatabase();
  AddColumns(u"Parent", Columns().Long(u"x"));
  Rollback();
  Begin();
  EXPECT_EQ(before, DumpDatabase());
  AddColumns(u"Parent", Columns().String(u"x"));
  ExpectKernelAgrees(u"Parent");
}

// All columns count as own ones in a child whose parent has lost its rows.
TEST_F(AddColumnsTest, MoreThan113ColumnsToReloadInAChild_IsRefusedThere) {
  Create(u"Parent");
  Create(u"Child", LongColumns(0, 111), u"Parent");
  for (char16_t const* const column : {u"__id", u"__setspecifier", u"__type_id"}) {
    metalayer::DeleteRow(ColumnRow(u"Parent", column));
  }
  metalayer::PutRef(View(u"Parent"), RawView::kInherits, db_util::null_obj_ref);
  uint16_t const parent = LayoutOfTable(u"Parent");
  uint16_t const child = LayoutOfTable(u"Child");
  ExpectRefused(SAGLEME_TOO_MANY_RECORDS, u"", Add(u"Parent", Columns().Long(u"x")));
  EXPECT_NE(parent, LayoutOfTable(u"Parent"));
  EXPECT_EQ(child, LayoutOfTable(u"Child"));
}

TEST_F(AddColumnsTest, UnreloadableTypeInAChild_StopsTheChangeThere) {
  Create(u"Parent");
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  metalayer::PutULong(metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3),
                      metalayer::DbPrimitiveType::kPrimitiveType, 11);
  uint16_t const child = LayoutOfTable(u"Child");
  ExpectRefused(SAGLEME_INVALID_TYPE, u"", Add(u"Parent", Columns().String(u"x")));
  EXPECT_EQ(WithRootColumns({"3 x string null"}), ColumnsOf(u"Parent"));
  EXPECT_EQ((Request{1, LayoutOfTable(u"Parent")}), RequestOf(u"Parent"));
  EXPECT_EQ(child, LayoutOfTable(u"Child"));
}

TEST_F(AddColumnsTest, ChildWithoutSetSpecifier_EndsTheProcess) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  metalayer::DeleteRow(metalayer::SetSpecifier::ByType(View(u"Child")));
  EXPECT_EXIT(Add(u"Parent", Columns().Long(u"a")), KilledBySignal(SIGABRT), "");
}

TEST_F(AddColumnsTest, SpecifierWithoutText_AsksForTheEmptyOne) {
  Create(u"T");
  metalayer::PutText(metalayer::SetSpecifier::ByType(View(u"T")), metalayer::SetSpecifier::kTypeId,
                     nullptr);
  uint16_t const layout = AddColumns(u"T", Columns().Long(u"a"));
  EXPECT_EQ((Request{1, layout}), RequestOfSetspec(""));
}

TEST_F(AddColumnsTest, DottedNameOfTwoTables_IsAmbiguous) {
  Create(u"One.T");
  Create(u"Two.T");
  LORV_COLUMN_DEFINITION_NAMES const columns[] = {{SAGLEME_TYPE_SIGNED, nullptr, 0, u"a"},
                                                  {0, nullptr, 0, nullptr}};
  try {
    metalayer::ddl::AddColumns(metalayer::DottedName::Split(u"T"), columns);
    ADD_FAILURE();
  } catch (db_util::db_exception const& failure) {
    EXPECT_EQ(SAGLEME_AMBIGUOUS_NAME, failure.code());
  }
  EXPECT_EQ(WithRootColumns({}), ColumnsOf(u"One.T"));
}

}  // namespace
}  // namespace sagleme_test
