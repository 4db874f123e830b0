#include "support/catalogue.h"

namespace sagleme_test {
namespace {

class RenameColumnTest : public CatalogueTest {
 protected:
  uint32_t Rename(char16_t const* table, char16_t const* old_name, char16_t const* new_name) {
    return lorv_alter_table_rename_column(context(), table, old_name, new_name);
  }
  // Parent(p), a child with an own column `x` when asked for, and `more` further children.
  void CreateFamily(int with_x, int without) {
    Create(u"Parent", Columns().Long(u"p"));
    for (int i = 0; i < with_x; ++i) {
      Create((u"X" + Utf16(std::to_string(i))).c_str(), Columns().Long(u"x"), u"Parent");
    }
    for (int i = 0; i < without; ++i) {
      Create((u"Free" + Utf16(std::to_string(i))).c_str(), {}, u"Parent");
    }
  }
};

TEST_F(RenameColumnTest, Subtree_GetsTheNewName) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  Create(u"Grandchild", {}, u"Child");
  uint64_t const generation = Generation();
  ExpectOk(Rename(u"Parent", u"p", u"renamed"));
  EXPECT_EQ(WithRootColumns({"3 renamed long"}), ColumnsOf(u"Parent"));
  EXPECT_EQ(WithRootColumns({"3 renamed long inherited", "4 c long"}), ColumnsOf(u"Child"));
  EXPECT_EQ(WithRootColumns({"3 renamed long inherited", "4 c long inherited"}),
            ColumnsOf(u"Grandchild"));
  EXPECT_EQ(generation + 1, Generation());
  ExpectKernelAgrees(u"Parent");
}

TEST_F(RenameColumnTest, LayoutsAndRequests_StayAsTheyAre) {
  uint16_t const parent = Create(u"Parent", Columns().Long(u"p"));
  uint16_t const child = Create(u"Child", {}, u"Parent");
  ExpectOk(Rename(u"Parent", u"p", u"q"));
  EXPECT_EQ(parent, LayoutOfTable(u"Parent"));
  EXPECT_EQ(child, LayoutOfTable(u"Child"));
  EXPECT_EQ(0, CountRequests());
}

TEST_F(RenameColumnTest, IndexesAndPropertyHandles_GoOnWorking) {
  Create(u"T", Columns().Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  uint64_t const object = CreateObject(u"T");
  WriteLong(u"T", u"a", object, 5);
  PropertyAccessInfo* before = nullptr;
  ExpectOk(lorv_crud_GetPropertyHandle(context(), u"T", u"a", &before));
  ExpectOk(Rename(u"T", u"a", u"b"));
  int64_t value = 0;
  EXPECT_EQ(0u, lorv_crud_ReadLong(context(), before, object, 0, &value));
  EXPECT_EQ(5, value);
  EXPECT_EQ("5", ReadLong(u"T", u"b", object));
  EXPECT_EQ((std::vector<std::string>{"I(b+)"}), IndexesOf(u"T"));
}

TEST_F(RenameColumnTest, OwnName_IsTaken) {
  Create(u"a.T", Columns().Long(u"a"));
  ExpectRefusedUntouched(SAGLEME_COLUMN_NAME_TAKEN,
                         u"New column name a conflicts with existing column in the table a.T.",
                         [&] { return Rename(u"a.T", u"a", u"a"); });
}

TEST_F(RenameColumnTest, NameOfAnotherOwnColumn_IsTakenAlsoForAMissingColumn) {
  Create(u"a.T", Columns().Long(u"a").Long(u"b"));
  for (char16_t const* old_name : {u"a", u"missing"}) {
    ExpectRefusedUntouched(SAGLEME_COLUMN_NAME_TAKEN,
                           u"New column name b conflicts with existing column in the table a.T.",
                           [&] { return Rename(u"a.T", old_name, u"b"); });
  }
}

TEST_F(RenameColumnTest, NameOfAnInheritedColumn_NamesTheDeclaringAncestor) {
  Create(u"x.Grandparent", Columns().Long(u"g"));
  Create(u"x.Parent", Columns().Long(u"p"), u"x.Grandparent");
  Create(u"x.T", Columns().Long(u"a"), u"x.Parent");
  ExpectRefusedUntouched(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"New column name g conflicts with existing column in ancestor table x.Grandparent.",
      [&] { return Rename(u"x.T", u"a", u"g"); });
  ExpectRefusedUntouched(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"New column name p conflicts with existing column in ancestor table x.Parent.",
      [&] { return Rename(u"x.T", u"a", u"p"); });
  ExpectRefusedUntouched(
      SAGLEME_COLUMN_NAME_TAKEN,
      std::u16string(u"New column name __id conflicts with existing column in ancestor table ") +
          kRootTable + u".",
      [&] { return Rename(u"x.T", u"a", u"__id"); });
}

TEST_F(RenameColumnTest, NameInAChild_FailsAfterTheParentWasWritten) {
  CreateFamily(1, 0);
  uint64_t const generation = Generation();
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"New column name x conflicts with existing column in exactly 1 descendant table: "
                u"X0.",
                Rename(u"Parent", u"p", u"x"));
  EXPECT_EQ(WithRootColumns({"3 x long"}), ColumnsOf(u"Parent"));
  EXPECT_EQ(WithRootColumns({"3 x long inherited", "4 x long"}), ColumnsOf(u"X0"));
  EXPECT_EQ(generation, Generation());
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, lscoredb_commit(context()));
}

TEST_F(RenameColumnTest, NamesInSeveralDescendants_AreListed) {
  CreateFamily(3, 2);
  Create(u"Below", Columns().Long(u"x"), u"Free1");
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"New column name x conflicts with existing column in exactly 4 descendant tables: "
                u"X0, X1, X2, Below.",
                Rename(u"Parent", u"p", u"x"));
}

// The descendants of a table that declares the name hold it as an inherited column.
TEST_F(RenameColumnTest, InheritedNameBelowAConflict_IsNoFurtherOne) {
  CreateFamily(1, 0);
  Create(u"Below", {}, u"X0");
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"New column name x conflicts with existing column in exactly 1 descendant table: "
                u"X0.",
                Rename(u"Parent", u"p", u"x"));
}

TEST_F(RenameColumnTest, Search_ContinuesFor1001TablesBehindTheFirstConflict) {
  CreateFamily(1, 1001);
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"New column name x conflicts with existing column in exactly 1 descendant table: "
                u"X0.",
                Rename(u"Parent", u"p", u"x"));
}

TEST_F(RenameColumnTest, Search_GivesUpAtTheNextTable) {
  CreateFamily(2, 1001);
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"New column name x conflicts with existing column in at least 2 descendant "
                u"tables: X0, X1.",
                Rename(u"Parent", u"p", u"x"));
  EXPECT_EQ(WithRootColumns({"3 x long inherited"}), ColumnsOf(u"Free999"));
  EXPECT_EQ(WithRootColumns({"3 p long inherited"}), ColumnsOf(u"Free1000"));
}

TEST_F(RenameColumnTest, TablesInFrontOfTheFirstConflict_DoNotCount) {
  Create(u"Parent", Columns().Long(u"p"));
  for (int i = 0; i < 1010; ++i) {
    Create((u"Free" + Utf16(std::to_string(i))).c_str(), {}, u"Parent");
  }
  Create(u"Last", Columns().Long(u"x"), u"Parent");
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"New column name x conflicts with existing column in exactly 1 descendant table: "
                u"Last.",
                Rename(u"Parent", u"p", u"x"));
}

TEST_F(RenameColumnTest, InheritedColumn_IsRenamedWhereItIsDeclared) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"a.Child", {}, u"Parent");
  ExpectRefusedUntouched(SAGLEME_COLUMN_INHERITED, u"Column p is inherited by table a.Child.",
                         [&] { return Rename(u"a.Child", u"p", u"q"); });
  ExpectOk(Rename(u"Parent", u"p", u"q"));
}

TEST_F(RenameColumnTest, MissingColumn_IsRefused) {
  Create(u"T", Columns().Long(u"a"));
  ExpectRefusedUntouched(SAGLEME_NO_SUCH_COLUMN, u"Column b isn't found in table T.",
                         [&] { return Rename(u"T", u"b", u"c"); });
}

TEST_F(RenameColumnTest, Arguments_AreCheckedInOrder) {
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is null.",
                         [&] { return Rename(nullptr, nullptr, nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is empty.",
                         [&] { return Rename(u"", nullptr, nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_name is null.",
                         [&] { return Rename(u"Nobody", nullptr, nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_name is empty.",
                         [&] { return Rename(u"Nobody", u"", nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_new_name is null.",
                         [&] { return Rename(u"Nobody", u"a", nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_new_name is empty.",
                         [&] { return Rename(u"Nobody", u"a", u""); });
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.",
                         [&] { return Rename(u"Nobody", u"a", u"b"); });
}

TEST_F(RenameColumnTest, MappedTable_IsNotHeld) {
  Create(u"T", Columns().Long(u"a"));
  InsertClass(u"Class", View(u"T"));
  ExpectOk(Rename(u"T", u"a", u"b"));
}

TEST_F(RenameColumnTest, DottedName_TakesNamesUnchecked) {
  Create(u"App.T", Columns().Long(u"a"));
  metalayer::DottedName const name = metalayer::DottedName::Split(u"App.T");
  metalayer::ddl::RenameColumn(name, u"a", u"b");
  EXPECT_EQ(WithRootColumns({"3 b long"}), ColumnsOf(u"App.T"));
  ExpectThrown(SAGLEME_NO_SUCH_COLUMN, u"Column  isn't found in table App.T.",
               [&] { metalayer::ddl::RenameColumn(name, u"", u"c"); });
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table Other.T not found.", [] {
    metalayer::ddl::RenameColumn(metalayer::DottedName::Split(u"Other.T"), u"a", u"b");
  });
}

// Names are looked up among all members, not among columns alone.
TEST_F(RenameColumnTest, NameOfAProperty_IsTaken) {
  Create(u"T", Columns().Long(u"a"));
  InsertMappedProperty(View(u"T"), u"Prop", ColumnRow(u"T", u"a"));
  ExpectRefusedUntouched(SAGLEME_COLUMN_NAME_TAKEN,
                         u"New column name Prop conflicts with existing column in the table T.",
                         [&] { return Rename(u"T", u"a", u"Prop"); });
}

TEST_F(RenameColumnTest, NameOfAChildsProperty_IsTaken) {
  Create(u"Parent", Columns().Long(u"p"));
  Create(u"Child", {}, u"Parent");
  InsertMappedProperty(View(u"Child"), u"Prop", ColumnRow(u"Child", u"p"));
  ExpectRefused(SAGLEME_COLUMN_NAME_TAKEN,
                u"New column name Prop conflicts with existing column in exactly 1 descendant "
                u"table: Child.",
                Rename(u"Parent", u"p", u"Prop"));
}

TEST_F(RenameColumnTest, NamesDifferingInCase_AreTwoNames) {
  Create(u"T", Columns().Long(u"a"));
  ExpectOk(Rename(u"T", u"a", u"A"));
  EXPECT_EQ(WithRootColumns({"3 A long"}), ColumnsOf(u"T"));
}

TEST_F(RenameColumnTest, RolledBack_LeavesNothing) {
  CreateFamily(0, 3);
  Commit();
  Begin();
  std::string const before = DumpDatabase();
  ExpectOk(Rename(u"Parent", u"p", u"q"));
  Rollback();
  Begin();
  EXPECT_EQ(before, DumpDatabase());
  ExpectOk(Rename(u"Parent", u"p", u"q"));
}

}  // namespace
}  // namespace sagleme_test
