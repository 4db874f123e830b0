#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawView;
using metalayer::SetSpecifier;
using metalayer::TypeIdsMeta;
using ::testing::KilledBySignal;

class DropTableTest : public CatalogueTest {
 protected:
  uint32_t Drop(char16_t const* name, bool drop_children = false, bool force = false) {
    return lorv_drop_table_by_name(context(), name, drop_children, force);
  }
  int CountColumnRows(LS_OBJ_REF const& view) {
    int count = 0;
    db_util::db_iter_with_keys rows;
    metalayer::Key(rows.first_key).Ref(view);
    metalayer::Key(rows.last_key).Ref(view);
    rows.open(metalayer::RawColumn::index_id_RawColumnPK(), metalayer::kForward);
    while (rows.next()) ++count;
    return count;
  }
};

TEST_F(DropTableTest, Rows_AreRemovedAndDeletionIsRequested) {
  uint16_t const layout = Create(u"T", Columns().Long(u"a").Ref(u"r", u"No"));
  RawView const view = View(u"T");
  std::string const setspec = SetspecOfTable(view);
  uint64_t const generation = Generation();
  ExpectOk(Drop(u"T"));
  EXPECT_TRUE(View(u"T").is_null());
  EXPECT_EQ(0, CountColumnRows(view));
  EXPECT_EQ((Request{2, layout}), RequestOfSetspec(setspec));
  EXPECT_EQ(generation + 1, Generation());
}

TEST_F(DropTableTest, SpecifierTypeIdLayoutAndObjects_AreLeft) {
  uint16_t const layout = Create(u"T", Columns().Long(u"a"));
  RawView const view = View(u"T");
  uint64_t const object = CreateObject(u"T");
  WriteLong(u"T", u"a", object, 5);
  ExpectOk(Drop(u"T"));
  EXPECT_FALSE(SetSpecifier::ByType(view).is_null());
  EXPECT_FALSE(TypeIdsMeta::ByTypeIdsMeta_Type(view).is_null());
  int64_t value = 0;
  EXPECT_EQ(0u, lorv_context_get_long(context(), object, layout, 3, &value));
  EXPECT_EQ(5, value);
}

TEST_F(DropTableTest, PendingMove_BecomesADelete) {
  Create(u"T");
  uint16_t const layout = AddColumns(u"T", Columns().Long(u"a"));
  std::string const setspec = SetspecOfTable(View(u"T"));
  ExpectOk(Drop(u"T"));
  EXPECT_EQ(1, CountRequests());
  EXPECT_EQ((Request{2, layout}), RequestOfSetspec(setspec));
}

TEST_F(DropTableTest, Indexes_GoWithTheTable) {
  Create(u"T", Columns().Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  CreateIndex(u"J", u"T", {u"-a"}, true);
  uint64_t const generation = Generation();
  ExpectOk(Drop(u"T"));
  EXPECT_TRUE(metalayer::Index::ByIndexPK(u"I").is_null());
  EXPECT_TRUE(metalayer::Index::ByIndexPK(u"J").is_null());
  LORVI_INDEX_INFO info = {};
  EXPECT_EQ(LORV_STATUS_NO_INDEX, metalayer::get_index_info_by_token(TokenOf(u"I"), &info));
  EXPECT_EQ(generation + 3, Generation());
}

TEST_F(DropTableTest, Children_HoldTheTable) {
  Create(u"a.Parent");
  Create(u"b.First", {}, u"a.Parent");
  ExpectRefusedUntouched(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table a.Parent still has child b.First.",
                         [&] { return Drop(u"a.Parent"); });
  Create(u"b.Second", {}, u"a.Parent");
  ExpectRefusedUntouched(SAGLEME_TABLE_HAS_DESCENDANTS,
                         u"Table a.Parent still has child b.First and another.",
                         [&] { return Drop(u"a.Parent"); });
  Create(u"b.Third", {}, u"a.Parent");
  ExpectRefusedUntouched(SAGLEME_TABLE_HAS_DESCENDANTS,
                         u"Table a.Parent still has child b.First and others.",
                         [&] { return Drop(u"a.Parent", false, true); });
  Create(u"b.Fourth", {}, u"a.Parent");
  ExpectRefusedUntouched(SAGLEME_TABLE_HAS_DESCENDANTS,
                         u"Table a.Parent still has child b.First and others.",
                         [&] { return Drop(u"a.Parent"); });
}

TEST_F(DropTableTest, WithChildren_AdvancesTheGenerationPerTable) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  std::string const parent = SetspecOfTable(View(u"Parent"));
  std::string const child = SetspecOfTable(View(u"Child"));
  uint64_t const generation = Generation();
  ExpectOk(Drop(u"Parent", true));
  EXPECT_EQ(generation + 2, Generation());
  EXPECT_TRUE(View(u"Parent").is_null());
  EXPECT_TRUE(View(u"Child").is_null());
  EXPECT_EQ(2u, RequestOfSetspec(parent).kind);
  EXPECT_EQ(2u, RequestOfSetspec(child).kind);
}

TEST_F(DropTableTest, WithChildren_DropsTheWholeTree) {
  Create(u"Parent");
  for (int i = 0; i < 20; ++i) {
    std::u16string const name = u"Child" + Utf16(std::to_string(i));
    Create(name.c_str(), {}, u"Parent");
    Create((name + u"Below").c_str(), {}, name.c_str());
  }
  uint64_t const generation = Generation();
  ExpectOk(Drop(u"Parent", true));
  EXPECT_EQ(generation + 41, Generation());
  EXPECT_EQ(41, CountRequests());
  EXPECT_TRUE(View(u"Child19Below").is_null());
}

TEST_F(DropTableTest, ReferenceColumn_HoldsTheTable) {
  Create(u"a.Target");
  Create(u"b.Referrer", Columns().Ref(u"r", u"a.Target"));
  ExpectRefusedUntouched(
      SAGLEME_TABLE_REFERENCED,
      u"Table a.Target is still referenced at least by column r from table b.Referrer.",
      [&] { return Drop(u"a.Target"); });
  ExpectOk(Drop(u"a.Target", false, true));
}

TEST_F(DropTableTest, ReferenceToADescendant_IsFoundThere) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  Create(u"Referrer", Columns().Ref(u"r", u"Child"));
  ExpectRefusedUntouched(
      SAGLEME_TABLE_REFERENCED,
      u"Table Child is still referenced at least by column r from table Referrer.",
      [&] { return Drop(u"Parent", true); });
}

TEST_F(DropTableTest, ReferringColumnWithoutTable_HasAnEmptyName) {
  Create(u"Target");
  Create(u"Referrer", Columns().Ref(u"r", u"Target"));
  metalayer::PutRef(ColumnRow(u"Referrer", u"r"), metalayer::RawColumn::kTable,
                    db_util::null_obj_ref);
  ExpectRefused(SAGLEME_TABLE_REFERENCED,
                u"Table Target is still referenced at least by column r from table .",
                Drop(u"Target"));
}

TEST_F(DropTableTest, SelfReference_NamesTheTableTwice) {
  Create(u"T", Columns().Ref(u"self", u"T"));
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table T is still referenced at least by column self from table T.",
                         [&] { return Drop(u"T"); });
  ExpectOk(Drop(u"T", false, true));
}

TEST_F(DropTableTest, Class_HoldsTheTableUnlessForced) {
  Create(u"T");
  InsertClass(u"Class", View(u"T"));
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table T is still referenced by clr class Class.",
                         [&] { return Drop(u"T"); });
  ExpectOk(Drop(u"T", false, true));
}

TEST_F(DropTableTest, Refusals_ComeInOrder) {
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is null.",
                         [&] { return Drop(nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is empty.",
                         [&] { return Drop(u""); });
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table T not found.",
                         [&] { return Drop(u"T"); });
  Create(u"T", Columns().Ref(u"self", u"T"));
  Create(u"Child", {}, u"T");
  InsertClass(u"Class", View(u"T"));
  ExpectRefusedUntouched(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table T still has child Child.",
                         [&] { return Drop(u"T"); });
  ExpectOk(Drop(u"Child"));
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table T is still referenced at least by column self from table T.",
                         [&] { return Drop(u"T"); });
}

TEST_F(DropTableTest, ShortenedName_IsNoFullName) {
  Create(u"App.T");
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table T not found.",
                         [&] { return Drop(u"T"); });
}

TEST_F(DropTableTest, WithoutSetSpecifier_EndsTheProcess) {
  Create(u"T");
  metalayer::DeleteRow(SetSpecifier::ByType(View(u"T")));
  EXPECT_EXIT(Drop(u"T"), KilledBySignal(SIGABRT), "");
}

TEST_F(DropTableTest, SpecifierWithoutText_IsTheEmptyText) {
  Create(u"T");
  metalayer::PutText(SetSpecifier::ByType(View(u"T")), SetSpecifier::kTypeId, nullptr);
  uint16_t const layout = LayoutOfTable(u"T");
  ExpectOk(Drop(u"T"));
  EXPECT_EQ((Request{2, layout}), RequestOfSetspec(""));
}

TEST_F(DropTableTest, DroppedTable_CanBeCreatedAnew) {
  Create(u"T", Columns().Long(u"a"));
  ExpectOk(Drop(u"T"));
  Create(u"T", Columns().String(u"b"));
  EXPECT_EQ(WithRootColumns({"3 b string null"}), ColumnsOf(u"T"));
  ExpectKernelAgrees(u"T");
}

// The checks of a descendant come before anything of the tree goes.
TEST_F(DropTableTest, ClassOnADescendant_HoldsTheTree) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  InsertClass(u"Class", View(u"Child"));
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table Child is still referenced by clr class Class.",
                         [&] { return Drop(u"Parent", true); });
  ExpectOk(Drop(u"Parent", true, true));
}

// Children go one after another, each with its own checks: those in front are gone by then.
TEST_F(DropTableTest, ClassOnASecondChild_IsMetAfterTheFirstHasGone) {
  Create(u"Parent");
  Create(u"First", {}, u"Parent");
  Create(u"Second", {}, u"Parent");
  InsertClass(u"Class", View(u"Second"));
  ExpectRefused(SAGLEME_TABLE_REFERENCED, u"Table Second is still referenced by clr class Class.",
                Drop(u"Parent", true));
  EXPECT_TRUE(View(u"First").is_null());
  EXPECT_FALSE(View(u"Parent").is_null());
}

TEST_F(DropTableTest, Reference_ComesBeforeClass) {
  Create(u"T", Columns().Ref(u"self", u"T"));
  InsertClass(u"Class", View(u"T"));
  ExpectRefusedUntouched(SAGLEME_TABLE_REFERENCED,
                         u"Table T is still referenced at least by column self from table T.",
                         [&] { return Drop(u"T"); });
}

TEST_F(DropTableTest, IndexesOfDescendants_GoWithThem) {
  Create(u"Parent", Columns().Long(u"a"));
  Create(u"Child", {}, u"Parent");
  CreateIndex(u"I", u"Parent", {u"a"});
  CreateIndex(u"J", u"Child", {u"a"});
  uint64_t const generation = Generation();
  ExpectOk(Drop(u"Parent", true));
  EXPECT_TRUE(metalayer::Index::ByIndexPK(u"I").is_null());
  EXPECT_TRUE(metalayer::Index::ByIndexPK(u"J").is_null());
  EXPECT_EQ(generation + 4, Generation());
}

TEST_F(DropTableTest, PropertiesOfTheTable_AreLeftBehind) {
  Create(u"T", Columns().Long(u"a"));
  metalayer::MappedProperty const property =
      InsertMappedProperty(View(u"T"), u"Prop", ColumnRow(u"T", u"a"));
  ExpectOk(Drop(u"T"));
  EXPECT_EQ("Prop", TextOf(property, metalayer::MappedProperty::kName));
}

}  // namespace
}  // namespace sagleme_test
