// The catalogue rows of the system tables.

#include <csignal>
#include <optional>
#include <sagleme/metalayer/metaschema.hpp>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

auto const kTrap = ::testing::KilledBySignal(SIGABRT);

class SystemRowsTest : public DatabaseTest {
 protected:
  // Creation has descriptors of its own, and only one set may exist at a time.
  void SetUp() override {
    DatabaseTest::SetUp();
    metaschema_.emplace();
  }
  TABLE_INFO& Table(char16_t const* name) { return *MetaschemaInit::find_table(name); }
  RawView View(char16_t const* full_name) { return RawView::ByRawViewPK2fullname(full_name); }
  SetSpecifier Specifier(char16_t const* text) { return SetSpecifier::ByTypeId_postV2_3(text); }

  // With layout, set specifier and indexes known, and the rows of the bases.
  TABLE_INFO& Known(char16_t const* name) {
    TABLE_INFO& table = Table(name);
    if (table.base != nullptr) Known(table.base->name);
    table.create_metatable();
    table.setspec = Utf16(Defined(Utf8(name)).setspec);
    table.load_metatable_indexes();
    table.raw_view = RawView::ByRawViewPK(table.layout);
    return table;
  }

  std::optional<MetaschemaInit> metaschema_;
};

TEST_F(SystemRowsTest, WrittenTwice_StayAsTheyAre) {
  std::vector<std::string> const before = DumpObjects();
  MetaPopul8r populator(true);
  for (DefinedTable const& defined : DefinedTables()) {
    TABLE_INFO& table = Known(Utf16(defined.name).c_str());
    table.raw_view = db_util::null_obj_ref;
    table.populate_raw_view();
    table.populate_metadata(populator);
  }
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

TEST_F(SystemRowsTest, FoundView_IsTaken) {
  TABLE_INFO& table = Known(u"Index");
  LS_OBJ_REF const view = table.raw_view;
  table.raw_view = db_util::null_obj_ref;
  table.populate_raw_view();
  EXPECT_EQ(view.oid, table.raw_view.oid);
}

TEST_F(SystemRowsTest, AnotherViewThanTheFoundOne_EndsTheProcess) {
  TABLE_INFO& table = Known(u"Index");
  table.raw_view = View(u"Lorvenstack.Metadata.Table");
  EXPECT_EXIT(table.populate_raw_view(), kTrap, "");
}

TEST_F(SystemRowsTest, MissingView_IsWrittenAndOwnsItsSpecifier) {
  TABLE_INFO& table = Known(u"Index");
  DeleteRow(table.raw_view);
  SetSpecifier const specifier = Specifier(u"f~");
  PutRef(specifier, SetSpecifier::kType, specifier);
  table.raw_view = db_util::null_obj_ref;
  table.populate_raw_view();
  RawView const view = View(u"Lorvenstack.Metadata.Index");
  EXPECT_EQ(view.oid, table.raw_view.oid);
  EXPECT_EQ(table.layout, GetULong(view, RawView::kLayoutHandle));
  EXPECT_EQ(table.base->raw_view.oid, view.get_ref(RawView::kInherits).oid);
  EXPECT_FALSE(GetBool(view, RawView::kUpdatable));
  EXPECT_EQ(view.oid, specifier.get_ref(SetSpecifier::kType).oid);
}

TEST_F(SystemRowsTest, OwnerlessSpecifier_IsTied) {
  TABLE_INFO& table = Known(u"Index");
  PutRef(Specifier(u"f~"), SetSpecifier::kType, db_util::null_obj_ref);
  table.populate_raw_view();
  EXPECT_EQ(table.raw_view.oid, Specifier(u"f~").get_ref(SetSpecifier::kType).oid);
}

TEST_F(SystemRowsTest, SpecifierOfAnotherTable_EndsTheProcess) {
  TABLE_INFO& table = Known(u"Index");
  PutRef(Specifier(u"f~"), SetSpecifier::kType, Configuration::Insert(u"Some", 1));
  EXPECT_EXIT(table.populate_raw_view(), kTrap, "");
}

TEST_F(SystemRowsTest, MissingSpecifier_EndsTheProcess) {
  TABLE_INFO& table = Known(u"Index");
  table.setspec = u"nowhere~";
  EXPECT_EXIT(table.populate_raw_view(), kTrap, "");
}

TEST_F(SystemRowsTest, BaseWithoutView_EndsTheProcess) {
  TABLE_INFO& table = Known(u"Index");
  DeleteRow(table.raw_view);
  table.raw_view = db_util::null_obj_ref;
  table.base->raw_view = db_util::null_obj_ref;
  EXPECT_EXIT(table.populate_raw_view(), kTrap, "");
}

// ---- columns ------------------------------------------------------------------------------------

TEST_F(SystemRowsTest, FirstOwnColumn_IsTheSignThatAllWereWritten) {
  TABLE_INFO& table = Known(u"Index");
  DeleteRow(RawColumn::ByRawColumnPK(table.raw_view, 5));
  MetaPopul8r populator(true);
  table.populate_raw_columns(populator);
  EXPECT_TRUE(RawColumn::ByRawColumnPK(table.raw_view, 5).is_null());
}

TEST_F(SystemRowsTest, MissingOwnColumns_AreWritten) {
  Known(u"RawView");  // which a column refers to
  TABLE_INFO& table = Known(u"Index");
  for (short ordinal = 3; ordinal <= 6; ++ordinal) {
    DeleteRow(RawColumn::ByRawColumnPK(table.raw_view, ordinal));
  }
  MetaPopul8r populator(true);
  table.populate_raw_columns(populator);
  RawColumn const column = RawColumn::ByRawColumnPK(table.raw_view, 4);
  ASSERT_FALSE(column.is_null());
  EXPECT_EQ(u"Table", GetText(column, RawColumn::kName));
  EXPECT_EQ(View(u"Lorvenstack.Metadata.RawView").oid, column.get_ref(RawColumn::kDataType).oid);
  EXPECT_EQ(u"RawView", GetText(column, ReferenceRawColumn::kDataTypeName));
  EXPECT_FALSE(GetBool(column, RawColumn::kInherited));
}

// ---- indexes ------------------------------------------------------------------------------------

TEST_F(SystemRowsTest, IndexRow_IsTheSignThatItsColumnsWereWritten) {
  TABLE_INFO& table = Known(u"Index");
  ddl::DropIndexedColumns(Index::ByIndexPK(u"IndexPK"));
  std::vector<std::string> const before = DumpObjects();
  table.populate_indices();
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

TEST_F(SystemRowsTest, MissingIndexRows_AreWritten) {
  TABLE_INFO& table = Known(u"RawColumn");
  Index const old = Index::ByIndexPK(u"RawColumnPK");
  ddl::DropIndexedColumns(old);
  DeleteRow(old);
  table.populate_indices();
  Index const row = Index::ByIndexPK(u"RawColumnPK");
  ASSERT_FALSE(row.is_null());
  EXPECT_EQ(1u, GetULong(row, Index::kUnique));
  EXPECT_EQ(RawColumn::index_id_RawColumnPK(), GetULong(row, Index::kIndexHandle));
  EXPECT_EQ("", Differences(ExpectedCatalogue(), DescribeCatalogue()));
}

TEST_F(SystemRowsTest, IndexOverAColumnWithoutRow_EndsTheProcess) {
  TABLE_INFO& table = Known(u"Index");
  Index const old = Index::ByIndexPK(u"IndexPK");
  ddl::DropIndexedColumns(old);
  DeleteRow(old);
  DeleteRow(Member::ByMemberPK(table.raw_view, u"Name"));
  EXPECT_EXIT(table.populate_indices(), kTrap, "");
}

}  // namespace
}  // namespace sagleme_test
