// Reference columns whose target did not exist when they were made: what ends the process until
// they are finished, what works all the same, and that finishing them is all it takes.

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawView;
using ::testing::KilledBySignal;

// Parent (r -> Later, a) <- Child (c), and beside them Plain (x) <- Heir (r -> Later).
class DeferredReferenceTest : public CatalogueTest {
 protected:
  void SetUp() override {
    CatalogueTest::SetUp();
    Create(u"Parent", Columns().Ref(u"r", u"Later").Long(u"a"));
    Create(u"Child", Columns().Long(u"c"), u"Parent");
    Create(u"Plain", Columns().Long(u"x"));
    Create(u"Heir", Columns().Ref(u"r", u"Later"), u"Plain");
  }

  void Finish() {
    Create(u"Later");
    ExpectOk(lorv_update_reference_columns_types(context()));
  }

  uint32_t Add(char16_t const* table) {
    return lorv_alter_table_add_columns(context(), table, Columns().Long(u"added"), nullptr);
  }
  uint32_t Drop(char16_t const* table, char16_t const* column) {
    return lorv_alter_table_drop_column_by_names(context(), table, column, nullptr);
  }
  uint32_t Verify(char16_t const* table, Columns columns, char16_t const* base = nullptr) {
    return lorv_create_table_by_names(context(), table, base, columns, nullptr);
  }
  uint32_t VerifyParent() { return Verify(u"Parent", Columns().Ref(u"r", u"Later").Long(u"a")); }
  uint32_t IndexByNames(char16_t const* table, char16_t const* column) {
    LORV_INDEXED_COLUMN const columns[] = {{column, 1}, {nullptr, 0}};
    return lorv_create_index_by_names(context(), u"I", table, columns, false);
  }
  // The index over the column with ordinal 3, the first one that a table declares.
  uint32_t IndexByRow(char16_t const* table) {
    int16_t const columns[] = {3, -1};
    RawView const view = View(table);
    return lorv_create_index(context(), view.oid, view.addr, u"I", 0, columns, 0);
  }
  uint32_t IndexByLayout(char16_t const* table) {
    int16_t const columns[] = {3, -1};
    return lorv_create_index_ids(context(), LayoutOfTable(table), u"I", 0, columns, 0);
  }
};

using DeferredReferenceDeathTest = DeferredReferenceTest;

TEST_F(DeferredReferenceDeathTest, AddingToItsTable_EndsTheProcess) {
  EXPECT_EXIT(Add(u"Parent"), KilledBySignal(SIGABRT), "");
}

TEST_F(DeferredReferenceDeathTest, AddingAboveItsTable_EndsTheProcess) {
  EXPECT_EXIT(Add(u"Plain"), KilledBySignal(SIGABRT), "");
}

TEST_F(DeferredReferenceDeathTest, DroppingAColumnBesideIt_EndsTheProcess) {
  EXPECT_EXIT(Drop(u"Parent", u"a"), KilledBySignal(SIGABRT), "");
}

TEST_F(DeferredReferenceDeathTest, DroppingAColumnAboveItsTable_EndsTheProcess) {
  EXPECT_EXIT(Drop(u"Plain", u"x"), KilledBySignal(SIGABRT), "");
}

TEST_F(DeferredReferenceDeathTest, VerifyingItsTable_EndsTheProcessWhateverTypeIsGiven) {
  EXPECT_EXIT(VerifyParent(), KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(Verify(u"Parent", Columns().Long(u"r", true).Long(u"a")), KilledBySignal(SIGABRT),
              "");
  EXPECT_EXIT(Verify(u"Heir", Columns().Ref(u"r", u"Later"), u"Plain"), KilledBySignal(SIGABRT),
              "");
}

// Nullability is compared before types.
TEST_F(DeferredReferenceTest, VerifyingWithAColumnThatTakesNoNull_FindsTheDifferenceFirst) {
  ExpectRefusedUntouched(
      SAGLEME_SCHEMA_MISMATCH,
      u"Schema of the input type does not match schema of existing type: Parent for column r.",
      [&] { return Verify(u"Parent", Columns().Long(u"r").Long(u"a")); });
}

TEST_F(DeferredReferenceDeathTest, IndexingIt_EndsTheProcess) {
  EXPECT_EXIT(IndexByNames(u"Parent", u"r"), KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(IndexByRow(u"Parent"), KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(IndexByLayout(u"Parent"), KilledBySignal(SIGABRT), "");
}

TEST_F(DeferredReferenceDeathTest, IndexingTheInheritedCopy_EndsTheProcess) {
  EXPECT_EXIT(IndexByNames(u"Child", u"r"), KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(IndexByRow(u"Child"), KilledBySignal(SIGABRT), "");
}

TEST_F(DeferredReferenceDeathTest, SecondAddition_EndsTheProcessWhereTheFirstBroughtIt) {
  Create(u"T");
  AddColumns(u"T", Columns().Ref(u"r", u"Later"));
  EXPECT_EXIT(Add(u"T"), KilledBySignal(SIGABRT), "");
}

// Columns that a table inherits are a part of its base's layout: their types are not read.
TEST_F(DeferredReferenceTest, ChangesBelowItsTable_Work) {
  ExpectOk(Add(u"Child"));
  ExpectOk(Drop(u"Child", u"c"));
  ExpectOk(Verify(u"Child", Columns().Long(u"added"), u"Parent"));
  EXPECT_EQ(WithRootColumns(
                {"3 r reference(Later?) null inherited", "4 a long inherited", "5 added long"}),
            ColumnsOf(u"Child"));
}

TEST_F(DeferredReferenceTest, DeferredColumn_CanBeDropped) {
  ExpectOk(Drop(u"Parent", u"r"));
  EXPECT_EQ(WithRootColumns({"3 a long inherited", "4 c long"}), ColumnsOf(u"Child"));
  ExpectOk(Drop(u"Heir", u"r"));
  ExpectOk(Add(u"Parent"));
  ExpectOk(Add(u"Plain"));
  ExpectKernelAgrees(u"Parent");
  ExpectKernelAgrees(u"Plain");
}

TEST_F(DeferredReferenceTest, NamesOfTableAndColumn_CanBeChanged) {
  ExpectOk(lorv_alter_table_rename_column(context(), u"Parent", u"r", u"s"));
  ExpectOk(lorv_rename_table(context(), u"Parent", u"Elder"));
  EXPECT_EQ("3 s reference(Later?) null inherited", ColumnsOf(u"Child")[3]);
}

TEST_F(DeferredReferenceTest, OtherColumnsOfTheTable_CanBeIndexed) {
  ExpectOk(IndexByNames(u"Parent", u"a"));
  EXPECT_EQ(std::vector<std::string>{"I(a+)"}, IndexesOf(u"Parent"));
}

TEST_F(DeferredReferenceTest, ItsTable_CanBeDropped) {
  ExpectOk(lorv_drop_table_by_name(context(), u"Parent", true, false));
  ExpectOk(lorv_drop_table_cascade(context(), u"Plain"));
  EXPECT_TRUE(View(u"Heir").is_null());
}

TEST_F(DeferredReferenceTest, Finished_EverythingWorks) {
  Finish();
  ExpectOk(VerifyParent());
  ExpectOk(IndexByNames(u"Parent", u"r"));
  ExpectOk(Drop(u"Parent", u"a"));
  ExpectOk(Drop(u"Plain", u"x"));
  ExpectOk(Add(u"Parent"));
  ExpectOk(Add(u"Plain"));
  ExpectKernelAgrees(u"Parent");
  ExpectKernelAgrees(u"Plain");
}

// The target's row is written in front of the columns: a reference to the table itself is no
// deferred one when it is made with the table.
TEST_F(DeferredReferenceTest, ReferenceToTheTableItself_IsWholeAtOnce) {
  Columns const columns = Columns().Ref(u"next", u"Node").Long(u"a");
  Create(u"Node", columns);
  EXPECT_EQ(WithRootColumns({"3 next reference(Node) null", "4 a long"}), ColumnsOf(u"Node"));
  ExpectOk(Verify(u"Node", columns));
  ExpectOk(IndexByNames(u"Node", u"next"));
  ExpectOk(Drop(u"Node", u"a"));
  AddColumns(u"Node", Columns().Ref(u"back", u"Node"));
  ExpectOk(Add(u"Node"));
  ExpectKernelAgrees(u"Node");
}

TEST_F(DeferredReferenceTest, ReferenceToTheTableItself_PassesTheStrictCheck) {
  ExpectOk(lorv_create_table_high_check_types(context(), u"Node", nullptr,
                                              Columns().Ref(u"next", u"Node"), nullptr));
  EXPECT_EQ(WithRootColumns({"3 next reference(Node) null"}), ColumnsOf(u"Node"));
}

}  // namespace
}  // namespace sagleme_test
