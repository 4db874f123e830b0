// The descriptors as far as they follow from the constant table alone.

#include <csignal>
#include <sagleme/metalayer/metaschema.hpp>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

class DescriptorsTest : public ::testing::Test {
 protected:
  TABLE_INFO& Table(char16_t const* name) { return *MetaschemaInit::find_table(name); }

  MetaschemaInit metaschema_;
};

TEST_F(DescriptorsTest, Names_FollowFromTheTableAndItsNamespace) {
  TABLE_INFO const& view = Table(u"RawView");
  EXPECT_EQ("Lorvenstack.Metadata.RawView", Utf8(view.full_name));
  EXPECT_EQ("RawView.Metadata.Lorvenstack", Utf8(view.full_name_reversed));
  EXPECT_EQ("Lorvenstack.Raw.Lorvenstack.Metadata.RawView", Utf8(view.unique_identifier));
  EXPECT_EQ("RawView.Metadata.Lorvenstack.Raw.Lorvenstack", Utf8(view.unique_identifier_reversed));
  TABLE_INFO const& column = Table(u"RawColumn");
  EXPECT_EQ("Lorvenstack.Internal.Metadata.RawColumn", Utf8(column.full_name));
  EXPECT_EQ("RawColumn.Metadata.Internal.Lorvenstack", Utf8(column.full_name_reversed));
}

TEST_F(DescriptorsTest, FullNamesBasesAndCounts_AreTheWrittenOnes) {
  for (std::size_t i = 0; i < DefinedTables().size(); ++i) {
    DefinedTable const& expected = DefinedTables()[i];
    TABLE_INFO const& table = MetaschemaInit::inits()[i];
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(expected.full_name, Utf8(table.full_name));
    EXPECT_EQ(expected.base, table.base == nullptr ? "" : Utf8(table.base->name));
    EXPECT_EQ(expected.columns.size(), table.total_nr_columns);
    EXPECT_EQ(expected.OwnColumns().size(), table.nr_columns);
    EXPECT_EQ(expected.indexes.size(), table.nr_indexes);
    EXPECT_EQ(0, table.layout);
    EXPECT_TRUE(table.setspec.empty());
    EXPECT_EQ(0u, table.raw_view.oid);
  }
}

TEST_F(DescriptorsTest, EveryOrdinal_LeadsToItsColumn) {
  for (DefinedTable const& expected : DefinedTables()) {
    TABLE_INFO const& table = Table(Utf16(expected.name).c_str());
    for (DefinedColumn const& defined : expected.columns) {
      SCOPED_TRACE(expected.name + "." + defined.name);
      COLUMN_INFO const* const column =
          table.find_column(static_cast<unsigned short>(defined.ordinal));
      ASSERT_NE(nullptr, column);
      EXPECT_EQ(defined.name, Utf8(column->name));
      EXPECT_EQ(defined.ordinal, column->column_index);
      EXPECT_EQ(column, table.find_column(Utf16(defined.name).c_str()));
      EXPECT_EQ(defined.type == 1 || defined.type == 8, column->nullable);
    }
  }
}

TEST_F(DescriptorsTest, InheritedColumns_BelongToTheTableThatDeclaresThem) {
  TABLE_INFO const& table = Table(u"ClrClass");
  EXPECT_EQ(&Table(u"MotherOfAllLayouts"), table.find_column(2)->table);
  EXPECT_EQ(u"__type_id", std::u16string(table.find_column(2)->name));
  EXPECT_EQ(&Table(u"VMView"), table.find_column(9)->table);
  EXPECT_EQ(u"Mapper", std::u16string(table.find_column(9)->name));
}

TEST_F(DescriptorsTest, IndexColumns_AreResolvedThroughTheBases) {
  INDEX_INFO const& index = Table(u"RawColumn").indexes[0];
  EXPECT_EQ(2, index.nr_columns);
  EXPECT_EQ(Table(u"Member").find_column(u"Table"), index.column_infos[0]);
  EXPECT_EQ(9, index.column_infos[1]->column_index);
  EXPECT_EQ(Table(u"DataType").find_column(u"Name"),
            Table(u"ClrPrimitiveType").indexes[0].column_infos[0]);
}

TEST_F(DescriptorsTest, UnknownNames_FindNothing) {
  EXPECT_EQ(nullptr, MetaschemaInit::table_by_name(u"rawview"));
  EXPECT_EQ(nullptr, MetaschemaInit::find_table(u""));
  EXPECT_EQ(nullptr, TABLE_INFO::find_table(u"Nothing"));
  EXPECT_EQ(nullptr, Table(u"RawView").find_column(u"layouthandle"));
  EXPECT_EQ(nullptr, Table(u"Table").find_column(u"LayoutHandle"));
}

TEST_F(DescriptorsTest, Root_HasNoBase) {
  TABLE_INFO const& root = Table(u"MotherOfAllLayouts");
  EXPECT_EQ(nullptr, root.base);
  EXPECT_EQ(nullptr, root.base_table);
}

// The sense of this search is part of the interface.
TEST_F(DescriptorsTest, FindIndex_GivesTheFirstOfAnotherName) {
  TABLE_INFO const& vacuum = Table(u"Vacuum");
  EXPECT_EQ(nullptr, vacuum.find_index(u"VacuumTypeId"));
  EXPECT_EQ(&vacuum.indexes[0], vacuum.find_index(u"anything"));
  TABLE_INFO const& specifier = Table(u"SetSpecifier");
  EXPECT_EQ(&specifier.indexes[1], specifier.find_index(u"TypeId"));
  EXPECT_EQ(nullptr, Table(u"MetaData").find_index(u"TypeId"));
}

TEST_F(DescriptorsTest, IndexOfAPredefinedToken_IsFoundByIt) {
  TABLE_INFO& token = Table(u"Token");
  EXPECT_EQ(&token.indexes[0], token.find_index_by_token(6));
  EXPECT_EQ(&token.indexes[1], token.find_index_by_token(7));
  EXPECT_EQ(nullptr, token.find_index_by_token(8));
}

TEST_F(DescriptorsTest, FillingAFullMap_LeavesItAlone) {
  TABLE_INFO* const before = MetaschemaInit::find_table(u"Index");
  MetaschemaInit::FillMetaTableInits();
  EXPECT_EQ(before, MetaschemaInit::find_table(u"Index"));
}

TEST(DescriptorLifeTest, OutsideItsLife_FindsNoTable) {
  { MetaschemaInit const metaschema; }
  EXPECT_EQ(nullptr, MetaschemaInit::find_table(u"RawView"));
  EXPECT_EQ(nullptr, MetaschemaInit::inits());
  MetaschemaInit const again;
  EXPECT_EQ(&MetaschemaInit::inits()[12], MetaschemaInit::find_table(u"RawView"));
}

TEST(DescriptorLifeTest, MapWithoutDescriptors_EndsTheProcess) {
  EXPECT_EXIT(MetaschemaInit::FillMetaTableInits(), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(DescriptorsTest, PredefinedTokens_ComeTableByTable) {
  std::vector<std::string> reported;
  MetaschemaInit::EnumPredefinedTokens([&reported](unsigned long token, char16_t const* text) {
    reported.push_back(std::to_string(token) + " " + Utf8(text));
  });
  EXPECT_EQ((std::vector<std::string>{
                "11 Lorvenstack.Internal.Metadata.MotherOfAllLayouts",
                "1 __id",
                "2 __setspecifier",
                "4 __type_id",
                "12 MotherOfAllLayouts_SetspecIndex",
                "5 Lorvenstack.Internal.Metadata.Token",
                "6 NameToken",
                "7 InvariantName",
                "6 NameToken",
                "7 InvariantName",
                "8 Lorvenstack.Metadata.RawView",
                "9 LayoutHandle",
                "10 RawViewPK",
            }),
            reported);
}

// ---- records that no table has ------------------------------------------------------------------

TEST(RecordsTest, NullabilityOfAColumn_FollowsFromItsType) {
  for (unsigned char type = 1; type <= 10; ++type) {
    COLUMN_INFO column;
    column = COLUMN_INFO_STATIC{u"Some", 0, type, nullptr, type == 3};
    EXPECT_EQ(type == 1 || type == 2 || type == 8, column.nullable) << int{type};
  }
}

TEST(RecordsTest, TypeOutOfRange_EndsTheProcess) {
  for (int const type : {0, 11}) {
    COLUMN_INFO column;
    COLUMN_INFO_STATIC const record{u"Some", 0, static_cast<unsigned char>(type), nullptr, false};
    EXPECT_EXIT(column = record, ::testing::KilledBySignal(SIGABRT), "") << type;
  }
}

TABLE_INFO_STATIC NamedTable(char16_t const* name) {
  TABLE_INFO_STATIC record{};
  record.name = name;
  record.is_public = true;
  return record;
}

TEST(RecordsTest, NamesUpToTheLimit_Fit) {
  // The longest form of a public table: "Lorvenstack.Raw." and "Lorvenstack.Metadata." before it.
  std::u16string const name(254 - 16 - 21, u'n');
  TABLE_INFO table;
  table = NamedTable(name.c_str());
  EXPECT_EQ(254u, std::u16string(table.unique_identifier).size());
}

TEST(RecordsTest, NamesBeyondTheLimit_EndTheProcess) {
  std::u16string const name(255 - 16 - 21, u'n');
  TABLE_INFO table;
  EXPECT_EXIT(table = NamedTable(name.c_str()), ::testing::KilledBySignal(SIGABRT), "");
}

TEST(RecordsTest, IndexOverAnUnknownColumn_EndsTheProcess) {
  TABLE_INFO_STATIC record = NamedTable(u"Some");
  record.indexes[0] = {u"SomePK", 0, 1, {u"Nothing"}};
  TABLE_INFO table;
  EXPECT_EXIT(table = record, ::testing::KilledBySignal(SIGABRT), "");
}

TEST(RecordsTest, ColumnOfAnInvalidType_CannotBeDefined) {
  COLUMN_INFO column;
  column = COLUMN_INFO_STATIC{u"Some", 99, 3, nullptr, false};
  for (int const type : {0, 11}) {
    column.type = static_cast<unsigned char>(type);
    LORVI_COLUMN_DEFINITION out{};
    try {
      column.define_column(&out);
      FAIL() << "type " << type << " was taken";
    } catch (db_util::db_exception const& failure) {
      EXPECT_EQ(SAGLEME_INVALID_TYPE, failure.code());
    }
  }
}

TEST(RecordsTest, DefinedColumns_CarryKernelTypeTokenAndNullability) {
  TABLE_INFO_STATIC record = NamedTable(u"Some");
  record.columns[0] = {u"Flag", 71, 10, nullptr, false};
  record.columns[1] = {u"Text", 72, 1, nullptr, false};
  TABLE_INFO table;
  table = record;
  LORVI_COLUMN_DEFINITION out[kMaxOwnColumns + 1];
  table.define_columns(out);
  EXPECT_EQ(4, out[0].type);
  EXPECT_EQ(71u, out[0].token);
  EXPECT_EQ(0, out[0].is_nullable);
  EXPECT_EQ(1, out[1].type);
  EXPECT_EQ(72u, out[1].token);
  EXPECT_EQ(1, out[1].is_nullable);
  EXPECT_EQ(0, out[2].type);
}

}  // namespace
}  // namespace sagleme_test
