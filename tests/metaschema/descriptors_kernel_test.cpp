// The descriptors against a database.

#include <csignal>
#include <optional>
#include <sagleme/metalayer/metaschema.hpp>
#include <utility>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

auto const kTrap = ::testing::KilledBySignal(SIGABRT);

class DescriptorsInDatabaseTest : public DatabaseTest {
 protected:
  // Creation has descriptors of its own, and only one set may exist at a time.
  void SetUp() override {
    DatabaseTest::SetUp();
    metaschema_.emplace();
  }
  TABLE_INFO& Table(char16_t const* name) { return *MetaschemaInit::find_table(name); }
  // With its layout and its bases' known, and its tokens given.
  TABLE_INFO& Known(char16_t const* name) {
    TABLE_INFO& table = Table(name);
    if (table.base != nullptr) Known(table.base->name);
    table.create_metatable();
    return table;
  }
  LORVI_LAYOUT_INFO LayoutInfo(TABLE_INFO const& table) {
    LORVI_LAYOUT_INFO info{};
    EXPECT_EQ(0u, lorvi_context_get_layout_info(context(), table.layout, &info));
    return info;
  }
  LORVI_INDEX_INFO IndexInfo(INDEX_INFO const& index) {
    LORVI_INDEX_INFO info{};
    EXPECT_EQ(0u, get_index_info_by_token(index.token, &info));
    return info;
  }

  std::optional<MetaschemaInit> metaschema_;
};

TEST_F(DescriptorsInDatabaseTest, EveryTable_VerifiesAgainstItsLayout) {
  for (DefinedTable const& table : DefinedTables()) {
    TABLE_INFO& known = Known(Utf16(table.name).c_str());
    EXPECT_NO_THROW(known.verify()) << table.name;
    EXPECT_EQ(table.columns.size(), LayoutInfo(known).column_count);
  }
}

TEST_F(DescriptorsInDatabaseTest, CreatingWhatExists_WritesNothing) {
  std::vector<std::string> const before = DumpObjects();
  for (DefinedTable const& table : DefinedTables()) {
    TABLE_INFO& known = Known(Utf16(table.name).c_str());
    known.create_metatable();
    known.create_metatable_indexes();
    known.verify_metatable_indexes();
  }
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

TEST_F(DescriptorsInDatabaseTest, Root_ComparesTokenAndLayoutOnly) {
  TABLE_INFO& root = Known(u"MotherOfAllLayouts");
  LORVI_LAYOUT_INFO info = LayoutInfo(root);
  info.column_count = 77;
  info.base_layout_handle = 77;
  EXPECT_NO_THROW(root.verify(&info));
  ++info.token;
  EXPECT_EXIT(root.verify(&info), kTrap, "");
  --info.token;
  ++info.layout_handle;
  EXPECT_EXIT(root.verify(&info), kTrap, "");
}

TEST_F(DescriptorsInDatabaseTest, Root_TakesNoBase) {
  TABLE_INFO const& root = Known(u"MotherOfAllLayouts");
  EXPECT_NO_THROW(root.verify_base_table(0));
  EXPECT_EXIT(root.verify_base_table(root.layout), kTrap, "");
}

TEST_F(DescriptorsInDatabaseTest, TableWithoutOwnColumns_VerifiesByItsBasesCount) {
  TABLE_INFO& table = Known(u"MetaData");
  EXPECT_EQ(3u, LayoutInfo(table).column_count);
  EXPECT_NO_THROW(table.verify());
}

TEST_F(DescriptorsInDatabaseTest, LayoutThatDiffers_EndsTheProcess) {
  TABLE_INFO& table = Known(u"RawView");
  LORVI_LAYOUT_INFO const good = LayoutInfo(table);
  LORVI_LAYOUT_INFO info = good;
  info.layout_handle = 1;
  EXPECT_EXIT(table.verify(&info), kTrap, "");
  info = good;
  info.column_count = 9;
  EXPECT_EXIT(table.verify(&info), kTrap, "");
  info = good;
  info.base_layout_handle = 0;
  EXPECT_EXIT(table.verify(&info), kTrap, "");
  info = good;
  info.base_layout_handle = table.base->base->layout;
  EXPECT_EXIT(table.verify(&info), kTrap, "");
}

TEST_F(DescriptorsInDatabaseTest, BaseLayoutThatIsUnknown_IsTheKernelsFailure) {
  TABLE_INFO& table = Known(u"RawView");
  EXPECT_THROW(table.verify_base_table(0xFFF0), db_util::db_exception);
}

TEST_F(DescriptorsInDatabaseTest, ColumnThatDiffers_EndsTheProcess) {
  TABLE_INFO& table = Known(u"RawView");
  COLUMN_INFO column = *table.find_column(u"LayoutHandle");
  EXPECT_NO_THROW(column.verify(9));
  EXPECT_EXIT(column.verify(8), kTrap, "");
  column.token = 0;
  EXPECT_EXIT(column.verify(9), kTrap, "");
  column = *table.find_column(u"LayoutHandle");
  column.type = LORV_TYPE_LONG;
  EXPECT_EXIT(column.verify(9), kTrap, "");
}

TEST_F(DescriptorsInDatabaseTest, ColumnNullability_IsNotCompared) {
  COLUMN_INFO column = *Known(u"RawView").find_column(u"LayoutHandle");
  column.nullable = !column.nullable;
  EXPECT_NO_THROW(column.verify(9));
}

TEST_F(DescriptorsInDatabaseTest, LayoutWithoutTable_IsZero) {
  TABLE_INFO_STATIC record{};
  record.name = u"Nothing";
  TABLE_INFO table;
  table = record;
  EXPECT_EQ(0, table.get_layout());
  EXPECT_NE(0u, table.token);
  EXPECT_EXIT(table.verify(), kTrap, "");
}

// ---- indexes ------------------------------------------------------------------------------------

TEST_F(DescriptorsInDatabaseTest, FirstIndex_GivesTheSetSpecifier) {
  INDEX_INFO& index = Known(u"RawView").indexes[0];
  std::u16string setspec;
  EXPECT_TRUE(index.load_metatable_index(&setspec));
  EXPECT_EQ(u"b~~~", setspec);
  EXPECT_EQ(RawView::index_id_RawViewPK(), index.index_id);
}

TEST_F(DescriptorsInDatabaseTest, LoadedIndex_IsNotAskedForAgain) {
  INDEX_INFO& index = Known(u"RawView").indexes[0];
  index.index_id = 5;
  std::u16string setspec;
  EXPECT_TRUE(index.load_metatable_index(&setspec));
  EXPECT_EQ(u"", setspec);
}

TEST_F(DescriptorsInDatabaseTest, SetSpecifierThatDiffersInItsLastUnit_EndsTheProcess) {
  INDEX_INFO& index = Known(u"RawView").indexes[0];
  std::u16string setspec = u"b~~a";
  EXPECT_EXIT(index.load_metatable_index(&setspec), kTrap, "");
}

TEST_F(DescriptorsInDatabaseTest, IndexThatDiffers_EndsTheProcess) {
  INDEX_INFO& index = Known(u"RawColumn").indexes[0];
  std::u16string setspec;
  ASSERT_TRUE(index.load_metatable_index(&setspec));
  LORVI_INDEX_INFO const good = IndexInfo(index);
  EXPECT_NO_THROW(index.verify(&good));
  auto const expect_trap = [&index, &good](auto change) {
    LORVI_INDEX_INFO info = good;
    change(info);
    EXPECT_EXIT(index.verify(&info), kTrap, "");
  };
  expect_trap([](LORVI_INDEX_INFO& info) { ++info.token; });
  expect_trap([](LORVI_INDEX_INFO& info) { ++info.index_id; });
  expect_trap([](LORVI_INDEX_INFO& info) { info.flags = 0; });
  expect_trap([](LORVI_INDEX_INFO& info) { info.reserved = 1; });
  expect_trap([](LORVI_INDEX_INFO& info) { info.attribute_count = 1; });
}

TEST_F(DescriptorsInDatabaseTest, IndexOverOtherColumnsThanNamed_EndsTheProcess) {
  INDEX_INFO& index = Known(u"RawColumn").indexes[0];
  std::u16string setspec;
  ASSERT_TRUE(index.load_metatable_index(&setspec));
  EXPECT_NO_THROW(index.verify());
  std::swap(index.column_infos[0], index.column_infos[1]);
  EXPECT_EXIT(index.verify(), kTrap, "");
}

TEST_F(DescriptorsInDatabaseTest, IndexThatIsGone_VerifiesAsTheKernelsFailure) {
  INDEX_INFO& index = Known(u"Vacuum").indexes[0];
  std::u16string setspec;
  ASSERT_TRUE(index.load_metatable_index(&setspec));
  ASSERT_EQ(0u, lorvi_context_drop_index(context(), index.index_id));
  try {
    index.verify();
    FAIL() << "an index that is gone was verified";
  } catch (db_util::db_exception const& failure) {
    EXPECT_EQ(SAGLEME_INDEX_NOT_FOUND, failure.code());
  }
}

TEST_F(DescriptorsInDatabaseTest, MissingIndex_IsCreatedOverTheTablesSet) {
  INDEX_INFO& index = Known(u"Vacuum").indexes[0];
  std::u16string setspec = u"d~";
  ASSERT_EQ(0u, lorvi_context_drop_index(context(), Vacuum::index_id_VacuumTypeId()));
  EXPECT_FALSE(index.load_metatable_index(&setspec));
  index.create_metatable_index(&setspec);
  EXPECT_NE(0u, index.index_id);
  EXPECT_NO_THROW(index.verify());
}

TEST_F(DescriptorsInDatabaseTest, IndexWithFewerColumnsThanCounted_EndsTheProcess) {
  INDEX_INFO& index = Known(u"Vacuum").indexes[0];
  std::u16string setspec = u"d~";
  ASSERT_EQ(0u, lorvi_context_drop_index(context(), Vacuum::index_id_VacuumTypeId()));
  index.nr_columns = 2;
  EXPECT_EXIT(index.create_metatable_index(&setspec), kTrap, "");
}

TEST_F(DescriptorsInDatabaseTest, IndexOverAColumnOfAnInvalidType_IsNotMade) {
  INDEX_INFO& index = Known(u"Vacuum").indexes[0];
  std::u16string setspec = u"d~";
  ASSERT_EQ(0u, lorvi_context_drop_index(context(), Vacuum::index_id_VacuumTypeId()));
  for (int const type : {0, 11}) {
    index.column_infos[0]->type = static_cast<unsigned char>(type);
    try {
      index.create_metatable_index(&setspec);
      FAIL() << "type " << type << " was taken";
    } catch (db_util::db_exception const& failure) {
      EXPECT_EQ(SAGLEME_INVALID_TYPE, failure.code());
    }
    LORVI_INDEX_INFO info{};
    EXPECT_EQ(LORV_STATUS_NO_INDEX, get_index_info_by_token(index.token, &info));
    EXPECT_EQ(0u, index.index_id);
  }
}

// What lacks its layout or an index is passed over, and what stands behind it is readied.
TEST_F(DescriptorsInDatabaseTest, ReadyingClasses_PassesOverATableThatLacksAnIndex) {
  ASSERT_EQ(0u, lorvi_context_drop_index(context(), Vacuum::index_id_VacuumTypeId()));
  *Vacuum::slots().index_ids[0] = 0;
  unsigned short const table_id = UserSchemaGeneration::metaclass_layout_handle();
  *UserSchemaGeneration::slots().table_id = 0;
  EXPECT_NO_THROW(PrepareGeneratedMetaClassesForReading());
  EXPECT_EQ(0u, Vacuum::index_id_VacuumTypeId());
  EXPECT_EQ(table_id, UserSchemaGeneration::metaclass_layout_handle());
}

TEST_F(DescriptorsInDatabaseTest, IndexOfAllocatedToken_IsFoundByIt) {
  TABLE_INFO& table = Known(u"RawView");
  unsigned long const token = assure_token(u"RawViewPK2fullname");
  EXPECT_EQ(&table.indexes[1], table.find_index_by_token(token));
}

}  // namespace
}  // namespace sagleme_test
