#include <functional>

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawColumn;
using metalayer::RawView;
using ::testing::KilledBySignal;
namespace ddl = metalayer::ddl;

class DdlUtilsTest : public CatalogueTest {
 protected:
  using Definitions = std::vector<LORV_COLUMN_DEFINITION_NAMES>;

  // Definitions of that many columns of type long, ended.
  static Definitions Longs(std::size_t count) {
    Definitions list(count, {SAGLEME_TYPE_SIGNED, nullptr, 0, u"x"});
    list.push_back({0, nullptr, 0, nullptr});
    return list;
  }
  // A table row with column rows at ordinals 0 to `count` - 1.
  RawView TableWithRows(int count) {
    RawView const table = metalayer::PopulateRawView(u"T", 9999, View(kRootTable), true);
    LS_OBJ_REF const type = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3);
    for (int i = 0; i < count; ++i) {
      std::u16string const name = u"c" + Utf16(std::to_string(i));
      RawColumn::Insert(table, name.c_str(), type, false, false, false, static_cast<short>(i));
    }
    return table;
  }
  std::vector<long> OrdinalsOf(RawView const& table, int first, int end) {
    std::vector<long> ordinals;
    ddl::EnumColumns(table, first, end, [&](RawColumn const& column) {
      ordinals.push_back(metalayer::GetLong(column, RawColumn::kColumnIndex));
    });
    return ordinals;
  }
  void ExpectMapped(char16_t const* table, std::u16string const& rest) {
    ExpectThrown(SAGLEME_TABLE_REFERENCED,
                 std::u16string(u"Table ") + table + u" is still referenced by clr class " + rest,
                 [&] { ddl::CheckTableIsNotUsedByLevel1(View(table)); });
  }
};

TEST_F(DdlUtilsTest, ToLorviColDefs_EmptyList_WritesOneTerminator) {
  LORVI_COLUMN_DEFINITION out[2] = {{7, 7, 7}, {7, 7, 7}};
  Definitions const none = Longs(0);
  EXPECT_EQ(0, ddl::ToLorviColDefs(View(kRootTable),
                                   metalayer::span<LORV_COLUMN_DEFINITION_NAMES const>(none), 0,
                                   metalayer::span<LORVI_COLUMN_DEFINITION>(out)));
  EXPECT_EQ(0, out[0].type);
  EXPECT_EQ(7, out[1].type);
}

TEST_F(DdlUtilsTest, ToLorviColDefs_RoomForTheTerminatorAlone_IsRefused) {
  LORVI_COLUMN_DEFINITION out[1] = {};
  Definitions const none = Longs(0);
  ExpectThrown(SAGLEME_BAD_ARGUMENT, u"Number of column definitions exceeds the limit of 1.", [&] {
    ddl::ToLorviColDefs(View(kRootTable), metalayer::span<LORV_COLUMN_DEFINITION_NAMES const>(none),
                        0, metalayer::span<LORVI_COLUMN_DEFINITION>(out));
  });
}

TEST_F(DdlUtilsTest, ToLorviColDefs_SpanOf115_Takes113) {
  RawView const table = TableWithRows(114);
  LORVI_COLUMN_DEFINITION out[115] = {};
  Definitions const fits = Longs(113);
  EXPECT_EQ(113,
            ddl::ToLorviColDefs(table, metalayer::span<LORV_COLUMN_DEFINITION_NAMES const>(fits), 0,
                                metalayer::span<LORVI_COLUMN_DEFINITION>(out)));
  EXPECT_EQ(LORV_TYPE_LONG, out[112].type);
  EXPECT_EQ(0, out[113].type);
  Definitions const too_many = Longs(114);
  ExpectThrown(
      SAGLEME_BAD_ARGUMENT, u"Number of column definitions exceeds the limit of 115.", [&] {
        ddl::ToLorviColDefs(table, metalayer::span<LORV_COLUMN_DEFINITION_NAMES const>(too_many), 0,
                            metalayer::span<LORVI_COLUMN_DEFINITION>(out));
      });
}

TEST_F(DdlUtilsTest, ToLorviColDefs_ByReference_TakesTheSame) {
  RawView const table = TableWithRows(3);
  LS_OBJ_REF const type = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(10);
  LORV_COLUMN_DEFINITION const list[] = {
      {type, 0, u"a"}, {table, 1, u"b"}, {db_util::null_obj_ref, 0, nullptr}};
  LORVI_COLUMN_DEFINITION out[115] = {};
  EXPECT_EQ(2, ddl::ToLorviColDefs(table, metalayer::span<LORV_COLUMN_DEFINITION const>(list), 1,
                                   metalayer::span<LORVI_COLUMN_DEFINITION>(out)));
  EXPECT_EQ(LORV_TYPE_ULONG, out[0].type);
  EXPECT_EQ(0, out[0].is_nullable);
  EXPECT_EQ(TokenOf(Utf16(std::to_string(ColumnRow(table, u"c1").oid))), out[0].token);
  EXPECT_EQ(LORV_TYPE_REFERENCE, out[1].type);
  EXPECT_EQ(1, out[1].is_nullable);
  EXPECT_EQ(0, out[2].type);
}

TEST_F(DdlUtilsTest, ToLorviColDefs_WithoutCatalogueRow_EndsTheProcess) {
  RawView const table = TableWithRows(1);
  LORVI_COLUMN_DEFINITION out[115] = {};
  Definitions const two = Longs(2);
  EXPECT_EXIT(ddl::ToLorviColDefs(table, metalayer::span<LORV_COLUMN_DEFINITION_NAMES const>(two),
                                  0, metalayer::span<LORVI_COLUMN_DEFINITION>(out)),
              KilledBySignal(SIGABRT), "");
}

TEST_F(DdlUtilsTest, ToLorviColDef_MapsTypesAndRefusesOthers) {
  LORVI_COLUMN_DEFINITION out = {};
  for (unsigned type = 1; type <= 10; ++type) {
    LORV_COLUMN_DEFINITION_NAMES const definition{static_cast<uint8_t>(type), nullptr, 1, u"x"};
    ddl::ToLorviColDef(definition, 99, &out);
    EXPECT_EQ(type == 10 ? 4u : type, out.type);
    EXPECT_EQ(1, out.is_nullable);
    EXPECT_EQ(99u, out.token);
  }
  for (unsigned type : {0u, 11u, 255u}) {
    LORV_COLUMN_DEFINITION_NAMES const definition{static_cast<uint8_t>(type), nullptr, 1, u"x"};
    ExpectThrown(SAGLEME_INVALID_TYPE, u"", [&] { ddl::ToLorviColDef(definition, 99, &out); });
  }
}

TEST_F(DdlUtilsTest, ToLorviColDef_ByReference_RefusesWhatIsNoType) {
  LS_OBJ_REF const type = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3);
  LORVI_COLUMN_DEFINITION out = {};
  ddl::ToLorviColDef(LORV_COLUMN_DEFINITION{type, 1, u"x"}, 99, &out);
  EXPECT_EQ(LORV_TYPE_LONG, out.type);
  EXPECT_EQ(1, out.is_nullable);
  EXPECT_EQ(99u, out.token);
  for (uint64_t const number : {0u, 11u}) {
    metalayer::PutULong(type, metalayer::DbPrimitiveType::kPrimitiveType, number);
    ExpectThrown(SAGLEME_INVALID_TYPE, u"", [&] {
      ddl::ToLorviColDef(LORV_COLUMN_DEFINITION{type, 1, u"x"}, 99, &out);
    });
  }
}

TEST_F(DdlUtilsTest, ToLorviColDefs_RefusedType_EndsTheList) {
  RawView const table = TableWithRows(2);
  LORVI_COLUMN_DEFINITION out[3] = {};
  for (uint8_t const refused : {uint8_t{11}, uint8_t{255}}) {
    Definitions list = Longs(2);
    list[1].logical_type = refused;
    ExpectThrown(SAGLEME_INVALID_TYPE, u"", [&] {
      ddl::ToLorviColDefs(table, metalayer::span<LORV_COLUMN_DEFINITION_NAMES const>(list), 0,
                          metalayer::span<LORVI_COLUMN_DEFINITION>(out));
    });
    EXPECT_EQ(LORV_TYPE_LONG, out[0].type);
  }
}

TEST_F(DdlUtilsTest, CreateTable_WithRefusedType_IsNotMetByTheKernel) {
  ExpectRefused(
      SAGLEME_TARGET_NOT_FOUND, u"Primitive type 11 not found for column x.",
      lorv_create_table_by_names(context(), u"T", nullptr, Columns().Add(11, u"x", true), nullptr));
}

TEST_F(DdlUtilsTest, CreateKernelLayout_TokenTwice_EndsTheProcess) {
  LORVI_COLUMN_DEFINITION const columns[] = {{3, 0, 5000}, {3, 0, 5000}, {0, 0, 0}};
  metalayer::span<LORVI_COLUMN_DEFINITION const> const all(columns);
  EXPECT_EXIT(ddl::CreateKernelLayout(u"T", db_util::null_obj_ref, all), KilledBySignal(SIGABRT),
              "");
}

TEST_F(DdlUtilsTest, RecreateTable_TokenTwice_EndsTheProcess) {
  Create(u"T");
  RawView table = View(u"T");
  LORVI_COLUMN_DEFINITION const columns[] = {{3, 0, 5000}, {3, 0, 5000}, {0, 0, 0}};
  metalayer::span<LORVI_COLUMN_DEFINITION const> const all(columns);
  EXPECT_EXIT(ddl::RecreateTable(table, all), KilledBySignal(SIGABRT), "");
}

TEST_F(DdlUtilsTest, CreateKernelLayout_WithoutBase_StandsOnTheRoot) {
  LORVI_COLUMN_DEFINITION const columns[] = {{3, 0, 5000}, {0, 0, 0}};
  uint16_t const layout = ddl::CreateKernelLayout(
      u"Fresh", db_util::null_obj_ref, metalayer::span<LORVI_COLUMN_DEFINITION const>(columns));
  LORVI_LAYOUT_INFO info = {};
  ASSERT_EQ(0u, lorvi_context_get_layout_info(context(), layout, &info));
  EXPECT_EQ(TokenOf(u"Fresh"), info.token);
  EXPECT_EQ(4u, info.column_count);
  EXPECT_EQ(LayoutOfTable(kRootTable), info.base_layout_handle);
}

TEST_F(DdlUtilsTest, RecreateTable_KeepsTheTokenAndLeavesTheOldLayout) {
  Create(u"Base");
  uint16_t const old_layout = Create(u"T", Columns().Long(u"a"), u"Base");
  ExpectOk(lorv_rename_table(context(), u"T", u"Renamed"));
  RawView table = View(u"Renamed");
  LORVI_COLUMN_DEFINITION const none[] = {{0, 0, 0}};
  uint16_t const layout =
      ddl::RecreateTable(table, metalayer::span<LORVI_COLUMN_DEFINITION const>(none));
  EXPECT_NE(old_layout, layout);
  EXPECT_EQ(layout, LayoutOfTable(u"Renamed"));
  LORVI_LAYOUT_INFO info = {};
  ASSERT_EQ(0u, lorvi_context_get_layout_info(context(), layout, &info));
  EXPECT_EQ(TokenOf(u"T"), info.token);
  EXPECT_EQ(LayoutOfTable(u"Base"), info.base_layout_handle);
  EXPECT_EQ(3u, info.column_count);
  EXPECT_EQ(4u, TokensOfLayout(old_layout).size());
}

TEST_F(DdlUtilsTest, RecreateTable_WithoutInherits_StandsOnTheRoot) {
  Create(u"Base");
  Create(u"T", {}, u"Base");
  RawView table = View(u"T");
  metalayer::PutRef(table, RawView::kInherits, db_util::null_obj_ref);
  LORV_REFERENCE none_at_all = {};
  ASSERT_EQ(LORV_STATUS_NULL, lorv_context_get_reference(context(), table.oid, table.addr,
                                                         RawView::kInherits, &none_at_all));
  LORVI_COLUMN_DEFINITION const none[] = {{0, 0, 0}};
  uint16_t const layout =
      ddl::RecreateTable(table, metalayer::span<LORVI_COLUMN_DEFINITION const>(none));
  LORVI_LAYOUT_INFO info = {};
  ASSERT_EQ(0u, lorvi_context_get_layout_info(context(), layout, &info));
  EXPECT_EQ(metalayer::MotherOfAllLayouts::metaclass_layout_handle(), info.base_layout_handle);
}

TEST_F(DdlUtilsTest, KernelTokens_DifferBetweenTablesOfSameColumns) {
  uint16_t const one = Create(u"One", Columns().Long(u"a"));
  uint16_t const two = Create(u"Two", Columns().Long(u"a"));
  Create(u"Child", {}, u"One");
  EXPECT_NE(TokensOfLayout(one)[3], TokensOfLayout(two)[3]);
  EXPECT_NE(ColumnRow(u"One", u"a").oid, ColumnRow(u"Child", u"a").oid);
  EXPECT_EQ(TokensOfLayout(one)[3], TokensOfLayout(LayoutOfTable(u"Child"))[3]);
  // Read as a table's own, the inherited copy is another column than its original.
  LORVI_COLUMN_DEFINITION out[115] = {};
  Definitions const a = Longs(1);
  metalayer::span<LORV_COLUMN_DEFINITION_NAMES const> const list(a);
  metalayer::span<LORVI_COLUMN_DEFINITION> const room(out);
  ASSERT_EQ(1, ddl::ToLorviColDefs(View(u"One"), list, 3, room));
  EXPECT_EQ(TokensOfLayout(one)[3], out[0].token);
  ASSERT_EQ(1, ddl::ToLorviColDefs(View(u"Child"), list, 3, room));
  EXPECT_NE(TokensOfLayout(one)[3], out[0].token);
  EXPECT_EQ(TokenOf(Utf16(std::to_string(ColumnRow(u"Child", u"a").oid))), out[0].token);
}

TEST_F(DdlUtilsTest, MappedTable_IsReportedWithAnotherAndOthers) {
  Create(u"a.T");
  Create(u"Free");
  ddl::CheckTableIsNotUsedByLevel1(View(u"a.T"));
  InsertClass(u"First", View(u"a.T"));
  ExpectMapped(u"a.T", u"First.");
  InsertClass(u"Second", View(u"a.T"));
  ExpectMapped(u"a.T", u"First and another.");
  InsertClass(u"Third", View(u"a.T"));
  ExpectMapped(u"a.T", u"First and others.");
  for (int i = 0; i < 27; ++i) {
    InsertClass((u"More" + Utf16(std::to_string(i))).c_str(), View(u"a.T"));
  }
  ExpectMapped(u"a.T", u"First and others.");
  ddl::CheckTableIsNotUsedByLevel1(View(u"Free"));
}

TEST_F(DdlUtilsTest, NonInheritedColumn_IsTheTablesOwn) {
  Create(u"Base", Columns().Long(u"a"));
  Create(u"T", Columns().Long(u"b"), u"Base");
  EXPECT_EQ(ColumnRow(u"T", u"b").oid, ddl::GetNonInheritedColumn(View(u"T"), u"b").oid);
  ExpectThrown(SAGLEME_COLUMN_INHERITED, u"Column a is inherited by table T.",
               [&] { ddl::GetNonInheritedColumn(View(u"T"), u"a"); });
  ExpectThrown(SAGLEME_NO_SUCH_COLUMN, u"Column c isn't found in table T.",
               [&] { ddl::GetNonInheritedColumn(View(u"T"), u"c"); });
}

TEST_F(DdlUtilsTest, ColumnsCount_IsTheHighestOrdinalPlusOne) {
  Create(u"Real", Columns().Long(u"a"));
  EXPECT_EQ(4, ddl::GetColumnsCount(View(u"Real")));
  EXPECT_EQ(0, ddl::GetColumnsCount(TableWithRows(0)));
  EXPECT_EQ(0, ddl::GetColumnsCount(RawView()));
  metalayer::PutLong(ColumnRow(u"Real", u"a"), RawColumn::kColumnIndex, 32767);
  EXPECT_EQ(32768, ddl::GetColumnsCount(View(u"Real")));
}

TEST_F(DdlUtilsTest, ExistingTableAndIndex_FailByName) {
  Create(u"T", Columns().Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  EXPECT_EQ(View(u"T").oid, ddl::ExistingTable(u"T").oid);
  EXPECT_EQ("I", TextOf(ddl::ExistingIndex(u"I"), metalayer::Index::kName));
  ExpectThrown(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.",
               [] { ddl::ExistingTable(u"Nobody"); });
  ExpectThrown(SAGLEME_INDEX_NOT_FOUND, u"Index Nobody not found.",
               [] { ddl::ExistingIndex(u"Nobody"); });
}

TEST_F(DdlUtilsTest, EnumColumns_ScansTheRangeInOrder) {
  Create(u"Base", Columns().Long(u"a"));
  Create(u"T", Columns().Long(u"b").Long(u"c"), u"Base");
  RawView const table = View(u"T");
  EXPECT_EQ((std::vector<long>{0, 1, 2, 3, 4, 5}), OrdinalsOf(table, 0, -1));
  EXPECT_EQ((std::vector<long>{2, 3}), OrdinalsOf(table, 2, 4));
  EXPECT_EQ((std::vector<long>{4, 5}), OrdinalsOf(table, 4, -1));
  EXPECT_TRUE(OrdinalsOf(table, 3, 3).empty());
  EXPECT_TRUE(OrdinalsOf(table, 6, -1).empty());
}

TEST_F(DdlUtilsTest, EnumColumns_TableWithoutColumns_CallsNothing) {
  EXPECT_TRUE(OrdinalsOf(TableWithRows(0), 0, -1).empty());
}

TEST_F(DdlUtilsTest, EnumChildren_CallsDirectChildrenAlone) {
  Create(u"Parent");
  Create(u"A", {}, u"Parent");
  Create(u"B", {}, u"Parent");
  Create(u"Grandchild", {}, u"A");
  std::vector<std::string> names;
  auto const gather = [&](RawView const& child) {
    names.push_back(TextOf(child, RawView::kFullName));
  };
  ddl::EnumChildren(View(u"Parent"), gather);
  EXPECT_EQ((std::vector<std::string>{"A", "B"}), names);
  ddl::EnumChildren(View(u"B"), gather);
  EXPECT_EQ(2u, names.size());
}

TEST_F(DdlUtilsTest, EnumChildren_EmptyFunction_FailsOnlyWithAChild) {
  Create(u"Parent");
  std::function<void(RawView)> const nothing;
  ddl::EnumChildren(View(u"Parent"), nothing);
  Create(u"Child", {}, u"Parent");
  EXPECT_THROW(ddl::EnumChildren(View(u"Parent"), nothing), std::bad_function_call);
}

}  // namespace
}  // namespace sagleme_test
