#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawColumn;
using metalayer::RawView;
using metalayer::Vacuum;
using ::testing::KilledBySignal;

class DropColumnTest : public CatalogueTest {
 protected:
  uint32_t Drop(char16_t const* table, char16_t const* column) {
    return lorv_alter_table_drop_column_by_names(context(), table, column, nullptr);
  }
  // Parent(p, q), Child(c), Grandchild(g).
  void CreateThreeLevels() {
    Create(u"Parent", Columns().Long(u"p").Long(u"q"));
    Create(u"Child", Columns().Long(u"c"), u"Parent");
    Create(u"Grandchild", Columns().Long(u"g"), u"Child");
  }
};

TEST_F(DropColumnTest, ColumnsBehindIt_MoveDownAndKeepTheirTokens) {
  uint16_t const old_layout = Create(u"T", Columns().Long(u"a").Long(u"b").String(u"c").Bool(u"d"));
  uint64_t const generation = Generation();
  uint16_t const layout = DropColumn(u"T", u"b");
  EXPECT_EQ(WithRootColumns({"3 a long", "4 c string null", "5 d bool"}), ColumnsOf(u"T"));
  EXPECT_EQ(LayoutOfTable(u"T"), layout);
  EXPECT_NE(old_layout, layout);
  std::vector<uint64_t> tokens = TokensOfLayout(old_layout);
  tokens.erase(tokens.begin() + 4);
  EXPECT_EQ(tokens, TokensOfLayout(layout));
  EXPECT_EQ((Request{1, layout}), RequestOf(u"T"));
  EXPECT_EQ(generation + 1, Generation());
  ExpectKernelAgrees(u"T");
}

TEST_F(DropColumnTest, LastOwnColumn_LeavesTheInheritedOnes) {
  Create(u"Base", Columns().Long(u"a"));
  Create(u"T", Columns().Long(u"b"), u"Base");
  DropColumn(u"T", u"b");
  EXPECT_EQ(WithRootColumns({"3 a long inherited"}), ColumnsOf(u"T"));
  ExpectKernelAgrees(u"Base");
}

TEST_F(DropColumnTest, Output_MayBeNull) {
  Create(u"T", Columns().Long(u"a"));
  ExpectOk(Drop(u"T", u"a"));
  EXPECT_EQ(WithRootColumns({}), ColumnsOf(u"T"));
}

TEST_F(DropColumnTest, Subtree_LosesItEverywhere) {
  CreateThreeLevels();
  uint64_t const generation = Generation();
  DropColumn(u"Parent", u"p");
  EXPECT_EQ(WithRootColumns({"3 q long"}), ColumnsOf(u"Parent"));
  EXPECT_EQ(WithRootColumns({"3 q long inherited", "4 c long"}), ColumnsOf(u"Child"));
  EXPECT_EQ(WithRootColumns({"3 q long inherited", "4 c long inherited", "5 g long"}),
            ColumnsOf(u"Grandchild"));
  EXPECT_EQ(generation + 3, Generation());
  ExpectKernelAgrees(u"Parent");
  for (char16_t const* table : {u"Parent", u"Child", u"Grandchild"}) {
    EXPECT_EQ((Request{1, LayoutOfTable(table)}), RequestOf(table));
  }
  Commit();
  Begin();
}

TEST_F(DropColumnTest, MiddleTable_LeavesTheParentAlone) {
  CreateThreeLevels();
  uint16_t const parent = LayoutOfTable(u"Parent");
  DropColumn(u"Child", u"c");
  EXPECT_EQ(parent, LayoutOfTable(u"Parent"));
  EXPECT_EQ(kNoRequest, RequestOf(u"Parent"));
  EXPECT_EQ(WithRootColumns({"3 p long inherited", "4 q long inherited", "5 g long"}),
            ColumnsOf(u"Grandchild"));
  ExpectKernelAgrees(u"Parent");
}

TEST_F(DropColumnTest, Siblings_AreBothRewritten) {
  Create(u"Parent", Columns().Long(u"p").Long(u"q"));
  Create(u"One", Columns().Long(u"a").Long(u"b"), u"Parent");
  Create(u"Two", Columns().String(u"c"), u"Parent");
  DropColumn(u"Parent", u"q");
  EXPECT_EQ(WithRootColumns({"3 p long inherited", "4 a long", "5 b long"}), ColumnsOf(u"One"));
  EXPECT_EQ(WithRootColumns({"3 p long inherited", "4 c string null"}), ColumnsOf(u"Two"));
  ExpectKernelAgrees(u"Parent");
}

TEST_F(DropColumnTest, PendingRequest_KeepsItsKind) {
  Create(u"T", Columns().Long(u"a"));
  Vacuum::Insert(Utf16(SetspecOfTable(View(u"T"))).c_str(), 1, 2);
  uint16_t const layout = DropColumn(u"T", u"a");
  EXPECT_EQ((Request{2, layout}), RequestOf(u"T"));
  EXPECT_EQ(1, CountRequests());
}

TEST_F(DropColumnTest, DroppedColumn_CanBeAddedAnew) {
  uint16_t const old_layout = Create(u"T", Columns().Long(u"a").Long(u"b"));
  DropColumn(u"T", u"a");
  uint16_t const layout = AddColumns(u"T", Columns().Long(u"a"));
  EXPECT_EQ(WithRootColumns({"3 b long", "4 a long"}), ColumnsOf(u"T"));
  EXPECT_NE(TokensOfLayout(old_layout)[3], TokensOfLayout(layout)[4]);
  ExpectKernelAgrees(u"T");
}

TEST_F(DropColumnTest, Arguments_AreCheckedInOrder) {
  Create(u"T", Columns().Long(u"a"));
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is null.",
                         [&] { return Drop(nullptr, nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is empty.",
                         [&] { return Drop(u"", nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_name is null.",
                         [&] { return Drop(u"Nobody", nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_name is empty.",
                         [&] { return Drop(u"Nobody", u""); });
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.",
                         [&] { return Drop(u"Nobody", u"a"); });
  ExpectRefusedUntouched(SAGLEME_NO_SUCH_COLUMN, u"Column b isn't found in table T.",
                         [&] { return Drop(u"T", u"b"); });
}

TEST_F(DropColumnTest, InheritedColumn_IsDroppedWhereItIsDeclared) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"a.Child", {}, u"Parent");
  ExpectRefusedUntouched(SAGLEME_COLUMN_INHERITED, u"Column p is inherited by table a.Child.",
                         [&] { return Drop(u"a.Child", u"p"); });
  ExpectRefusedUntouched(SAGLEME_COLUMN_INHERITED, u"Column __id is inherited by table Parent.",
                         [&] { return Drop(u"Parent", u"__id"); });
  DropColumn(u"Parent", u"p");
  EXPECT_EQ(WithRootColumns({}), ColumnsOf(u"a.Child"));
}

TEST_F(DropColumnTest, Index_HoldsTheColumn) {
  Create(u"a.T", Columns().Long(u"x").Long(u"y"));
  CreateIndex(u"I", u"a.T", {u"y", u"x"});
  ExpectRefusedUntouched(SAGLEME_COLUMN_INDEXED, u"Column x is a part of index I on table a.T.",
                         [&] { return Drop(u"a.T", u"x"); });
  CreateIndex(u"J", u"a.T", {u"x"});
  ExpectRefusedUntouched(SAGLEME_COLUMN_INDEXED,
                         u"Column x is a part of index I on table a.T and one other.",
                         [&] { return Drop(u"a.T", u"x"); });
  CreateIndex(u"K", u"a.T", {u"-x"});
  ExpectRefusedUntouched(SAGLEME_COLUMN_INDEXED,
                         u"Column x is a part of index I on table a.T and others.",
                         [&] { return Drop(u"a.T", u"x"); });
}

TEST_F(DropColumnTest, IndexOnOtherColumns_DoesNotHoldIt) {
  Create(u"T", Columns().Long(u"x").Long(u"y"));
  CreateIndex(u"I", u"T", {u"y"});
  DropColumn(u"T", u"x");
  EXPECT_EQ((std::vector<std::string>{"I(y+)"}), IndexesOf(u"T"));
}

TEST_F(DropColumnTest, IndexOnAChild_StopsTheChangeThere) {
  Create(u"Parent", Columns().Long(u"p").Long(u"q"));
  Create(u"a.Child", Columns().Long(u"c"), u"Parent");
  CreateIndex(u"I", u"a.Child", {u"p"});
  uint64_t const generation = Generation();
  ExpectRefused(SAGLEME_COLUMN_INDEXED, u"Column p is a part of index I on table a.Child.",
                Drop(u"Parent", u"p"));
  EXPECT_EQ(WithRootColumns({"3 q long"}), ColumnsOf(u"Parent"));
  EXPECT_EQ((Request{1, LayoutOfTable(u"Parent")}), RequestOf(u"Parent"));
  EXPECT_EQ(6u, ColumnsOf(u"a.Child").size());
  EXPECT_EQ(kNoRequest, RequestOf(u"a.Child"));
  EXPECT_EQ(generation, Generation());
}

TEST_F(DropColumnTest, IndexOnAChild_CarriesTheDeclaringTable) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", {}, u"Parent");
  CreateIndex(u"I", u"Child", {u"p"});
  try {
    metalayer::ddl::DropColumn(u"Parent", u"p");
    ADD_FAILURE();
  } catch (metalayer::exceptions::BadColumnArg const& failure) {
    EXPECT_EQ(u"Parent", failure.table);
    EXPECT_EQ(u"p", failure.column);
  }
}

TEST_F(DropColumnTest, MappedProperty_HoldsTheColumn) {
  Create(u"a.T", Columns().Long(u"x"));
  InsertMappedProperty(View(u"a.T"), u"First", ColumnRow(u"a.T", u"x"));
  ExpectRefusedUntouched(SAGLEME_COLUMN_MAPPED, u"Column x is mapped by First on table a.T.",
                         [&] { return Drop(u"a.T", u"x"); });
  InsertMappedProperty(View(u"a.T"), u"Second", ColumnRow(u"a.T", u"x"));
  ExpectRefusedUntouched(SAGLEME_COLUMN_MAPPED,
                         u"Column x is mapped by First on table a.T and one other.",
                         [&] { return Drop(u"a.T", u"x"); });
}

TEST_F(DropColumnTest, IndexedAndMapped_ReportsTheIndex) {
  Create(u"T", Columns().Long(u"x"));
  InsertMappedProperty(View(u"T"), u"Prop", ColumnRow(u"T", u"x"));
  CreateIndex(u"I", u"T", {u"x"});
  ExpectRefusedUntouched(SAGLEME_COLUMN_INDEXED, u"Column x is a part of index I on table T.",
                         [&] { return Drop(u"T", u"x"); });
}

TEST_F(DropColumnTest, ClassOnTheTable_HoldsIt) {
  Create(u"T", Columns().Long(u"x"));
  InsertClass(u"Class", View(u"T"));
  CreateIndex(u"I", u"T", {u"x"});
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table T is still referenced by clr class Class.",
                         [&] { return Drop(u"T", u"x"); });
}

TEST_F(DropColumnTest, ClassOnADescendant_StopsTheChangeThere) {
  CreateThreeLevels();
  InsertClass(u"Class", View(u"Grandchild"));
  ExpectRefused(SAGLEME_TABLE_REFERENCED,
                u"Table Grandchild is still referenced by clr class Class.", Drop(u"Parent", u"p"));
  EXPECT_EQ(4u, ColumnsOf(u"Parent").size());
  EXPECT_EQ(5u, ColumnsOf(u"Child").size());
  EXPECT_EQ(7u, ColumnsOf(u"Grandchild").size());
}

TEST_F(DropColumnTest, DescendantWithoutTheColumn_EndsTheProcess) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", {}, u"Parent");
  metalayer::DeleteRow(ColumnRow(u"Child", u"p"));
  EXPECT_EXIT(Drop(u"Parent", u"p"), KilledBySignal(SIGABRT), "");
}

// All columns count as own ones in a table that has lost its parent. The last row has no column in
// the kernel, and is refused before the kernel is asked for it.
TEST_F(DropColumnTest, MoreThan114ColumnsToReload_IsRefusedWithoutText) {
  Columns columns;
  std::vector<std::u16string> names;
  for (int i = 0; i < 112; ++i) names.push_back(u"n" + Utf16(std::to_string(i)));
  for (std::u16string const& name : names) columns.Long(name.c_str());
  Create(u"T", columns);
  RawView const table = View(u"T");
  metalayer::PutRef(table, RawView::kInherits, db_util::null_obj_ref);
  RawColumn::Insert(table, u"extra", ColumnRow(u"T", u"n0").get_ref(RawColumn::kDataType), false,
                    false, false, 115);
  ExpectRefusedUntouched(SAGLEME_TOO_MANY_RECORDS, u"", [&] { return Drop(u"T", u"n5"); });
}

TEST_F(DropColumnTest, DottedName_FindsTheTableByItsLastSegments) {
  Create(u"App.Model.T", Columns().Long(u"a").Long(u"b"));
  metalayer::DottedName const name = metalayer::DottedName::Split(u"Model.T");
  uint16_t const layout = metalayer::ddl::DropColumn(name, u"a");
  EXPECT_EQ(LayoutOfTable(u"App.Model.T"), layout);
  ExpectThrown(SAGLEME_BAD_ARGUMENT, u"Argument column_name is empty.",
               [&] { metalayer::ddl::DropColumn(name, u""); });
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table Other.T not found.",
               [] { metalayer::ddl::DropColumn(metalayer::DottedName::Split(u"Other.T"), u"b"); });
}

TEST_F(DropColumnTest, RolledBack_LeavesNothing) {
  CreateThreeLevels();
  Commit();
  Begin();
  std::string const before = DumpDatabase();
  DropColumn(u"Parent", u"p");
  Rollback();
  Begin();
  EXPECT_EQ(before, DumpDatabase());
  ExpectKernelAgrees(u"Parent");
}

TEST_F(DropColumnTest, MappedThreeTimes_SaysOthers) {
  Create(u"T", Columns().Long(u"x"));
  for (char16_t const* const name : {u"A", u"B", u"C", u"D"}) {
    InsertMappedProperty(View(u"T"), name, ColumnRow(u"T", u"x"));
  }
  ExpectRefusedUntouched(SAGLEME_COLUMN_MAPPED, u"Column x is mapped by A on table T and others.",
                         [&] { return Drop(u"T", u"x"); });
}

// Only the uses at the current table are reported, those of descendants when it is their turn.
TEST_F(DropColumnTest, PropertyOnADescendant_StopsTheChangeThere) {
  CreateThreeLevels();
  InsertMappedProperty(View(u"Child"), u"Prop", ColumnRow(u"Child", u"p"));
  ExpectRefused(SAGLEME_COLUMN_MAPPED, u"Column p is mapped by Prop on table Child.",
                Drop(u"Parent", u"p"));
  EXPECT_EQ(WithRootColumns({"3 q long"}), ColumnsOf(u"Parent"));
  EXPECT_EQ(6u, ColumnsOf(u"Child").size());
  EXPECT_EQ(kNoRequest, RequestOf(u"Child"));
}

TEST_F(DropColumnTest, UsesInDescendants_AreNotCountedAbove) {
  CreateThreeLevels();
  CreateIndex(u"I", u"Parent", {u"p"});
  CreateIndex(u"J", u"Child", {u"p"});
  CreateIndex(u"K", u"Grandchild", {u"p"});
  ExpectRefusedUntouched(SAGLEME_COLUMN_INDEXED, u"Column p is a part of index I on table Parent.",
                         [&] { return Drop(u"Parent", u"p"); });
}

TEST_F(DropColumnTest, UnreloadableType_Is4226) {
  Create(u"T", Columns().Long(u"a").String(u"b"));
  metalayer::PutULong(metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3),
                      metalayer::DbPrimitiveType::kPrimitiveType, 11);
  ExpectRefusedUntouched(SAGLEME_INVALID_TYPE, u"", [&] { return Drop(u"T", u"b"); });
}

TEST_F(DropColumnTest, TypeOfTheDroppedColumn_IsNotLookedAt) {
  Create(u"T", Columns().Long(u"a").String(u"b"));
  metalayer::PutULong(metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3),
                      metalayer::DbPrimitiveType::kPrimitiveType, 11);
  DropColumn(u"T", u"a");
  EXPECT_EQ(WithRootColumns({"3 b string null"}), ColumnsOf(u"T"));
}

TEST_F(DropColumnTest, TableWithoutSetSpecifier_EndsTheProcess) {
  Create(u"T", Columns().Long(u"a"));
  metalayer::DeleteRow(metalayer::SetSpecifier::ByType(View(u"T")));
  EXPECT_EXIT(Drop(u"T", u"a"), KilledBySignal(SIGABRT), "");
}

TEST_F(DropColumnTest, RefusedCall_LeavesTheOutputAlone) {
  Create(u"T", Columns().Long(u"a"));
  uint64_t layout = 77;
  EXPECT_EQ(SAGLEME_NO_SUCH_COLUMN,
            lorv_alter_table_drop_column_by_names(context(), u"T", u"b", &layout));
  EXPECT_EQ(77u, layout);
}

}  // namespace
}  // namespace sagleme_test
