#include "kernel_test.h"

namespace lscoredb_test {
namespace {

class LayoutTest : public KernelTest {
 protected:
  void SetUp() override { session_.Begin(); }
  std::uint64_t context() const { return session_.context(); }

  std::uint32_t TryCreate(Columns const& columns, LayoutId base = 0) {
    LayoutId layout = 4711;
    std::uint32_t const status =
        lorvi_context_create_layout(context(), 50, base, Definitions(columns).data(), 0, &layout);
    EXPECT_EQ(status != LORV_STATUS_OK, layout == 4711);
    return status;
  }
};

TEST_F(LayoutTest, EveryLayout_BeginsWithIdentityAndSetSpecifier) {
  LayoutId const layout = session_.CreateLayout(50, {});
  EXPECT_NE(layout, 0);
  EXPECT_EQ(session_.LayoutInfo(layout).column_count, 2U);
  EXPECT_EQ(session_.ColumnInfo(layout, 0).type, LORV_TYPE_ULONG);
  EXPECT_EQ(session_.ColumnInfo(layout, 0).token, LORV_TOKEN_ID);
  EXPECT_EQ(session_.ColumnInfo(layout, 1).type, LORV_TYPE_STRING);
  EXPECT_EQ(session_.ColumnInfo(layout, 1).token, LORV_TOKEN_SETSPEC);
}

TEST_F(LayoutTest, Layout_DescribesItself) {
  LayoutId const layout =
      session_.CreateLayout(50, {{LORV_TYPE_LONG, 100, false}, {LORV_TYPE_BINARY, 101}});
  for (int round = 0; round < 2; ++round) {
    LORVI_LAYOUT_INFO const info = session_.LayoutInfo(layout);
    EXPECT_EQ(info.token, 50U);
    EXPECT_EQ(info.column_count, 4U);
    EXPECT_EQ(info.layout_handle, layout);
    EXPECT_EQ(info.base_layout_handle, 0);
    EXPECT_EQ(session_.ColumnInfo(layout, 2).type, LORV_TYPE_LONG);
    EXPECT_EQ(session_.ColumnInfo(layout, 2).token, 100U);
    EXPECT_EQ(session_.ColumnInfo(layout, 3).type, LORV_TYPE_BINARY);
    EXPECT_EQ(session_.ColumnInfo(layout, 3).token, 101U);
    Restart();
  }
}

TEST_F(LayoutTest, AllNineTypes_MayBeColumns) {
  Columns columns;
  for (std::uint32_t type = LORV_TYPE_STRING; type <= LORV_TYPE_KEY; ++type)
    columns.push_back({type, 100 + type});
  LayoutId const layout = session_.CreateLayout(50, columns);
  for (std::uint16_t i = 0; i < columns.size(); ++i)
    EXPECT_EQ(session_.ColumnInfo(layout, static_cast<std::uint16_t>(i + 2)).type, columns[i].type);
}

TEST_F(LayoutTest, BaseColumns_ComeFirst) {
  LayoutId const base = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
  LayoutId const middle = session_.CreateLayout(51, {{LORV_TYPE_STRING, 101}}, base);
  LayoutId const leaf = session_.CreateLayout(52, {{LORV_TYPE_DOUBLE, 102}}, middle);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.LayoutInfo(leaf).column_count, 5U);
    EXPECT_EQ(session_.LayoutInfo(leaf).base_layout_handle, middle);
    EXPECT_EQ(session_.LayoutInfo(middle).base_layout_handle, base);
    EXPECT_EQ(session_.ColumnInfo(leaf, 2).token, 100U);
    EXPECT_EQ(session_.ColumnInfo(leaf, 3).token, 101U);
    EXPECT_EQ(session_.ColumnInfo(leaf, 4).token, 102U);
    Restart();
  }
}

TEST_F(LayoutTest, LayoutsOfOneToken_ComeNewestFirst) {
  LayoutId const first = session_.CreateLayout(50, {});
  Restart();
  LayoutId const second = session_.CreateLayout(50, {});
  LayoutId const third = session_.CreateLayout(50, {});
  session_.CreateLayout(51, {});
  EXPECT_EQ(session_.LayoutsByToken(50), (std::vector<LayoutId>{third, second, first}));
  Restart();
  EXPECT_EQ(session_.LayoutsByToken(50), (std::vector<LayoutId>{third, second, first}));
}

TEST_F(LayoutTest, UnknownToken_HasNoLayouts) {
  std::uint32_t count = 5;
  EXPECT_STATUS(0, lorvi_context_get_layout_infos_by_token(context(), 999, &count, nullptr));
  EXPECT_EQ(count, 0U);
}

TEST_F(LayoutTest, ShortOutput_GetsTheNewestAndTheWholeCount) {
  session_.CreateLayout(50, {});
  LayoutId const newest = session_.CreateLayout(50, {});
  LORVI_LAYOUT_INFO infos[2]{};
  infos[1].token = 1234;
  std::uint32_t count = 1;
  EXPECT_STATUS(0, lorvi_context_get_layout_infos_by_token(context(), 50, &count, infos));
  EXPECT_EQ(count, 2U);
  EXPECT_EQ(infos[0].layout_handle, newest);
  EXPECT_EQ(infos[1].token, 1234U);
  count = 0;
  EXPECT_STATUS(0, lorvi_context_get_layout_infos_by_token(context(), 50, &count, nullptr));
  EXPECT_EQ(count, 2U);
}

TEST_F(LayoutTest, DuplicateToken_IsRefused) {
  LayoutId const base = session_.CreateLayout(49, {{LORV_TYPE_LONG, 100}});
  EXPECT_STATUS(LORV_STATUS_DUPLICATE_TOKEN,
                TryCreate({{LORV_TYPE_LONG, 101}, {LORV_TYPE_LONG, 102}, {LORV_TYPE_LONG, 101}}));
  EXPECT_STATUS(LORV_STATUS_DUPLICATE_TOKEN, TryCreate({{LORV_TYPE_STRING, 100}}, base));
  EXPECT_STATUS(LORV_STATUS_DUPLICATE_TOKEN, TryCreate({{LORV_TYPE_LONG, LORV_TOKEN_ID}}));
  EXPECT_STATUS(LORV_STATUS_DUPLICATE_TOKEN, TryCreate({{LORV_TYPE_LONG, LORV_TOKEN_SETSPEC}}));
  EXPECT_TRUE(session_.LayoutsByToken(50).empty());
}

TEST_F(LayoutTest, UnknownTypeOrBase_IsRefused) {
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryCreate({{10, 100}}));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryCreate({{255, 100}}));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, TryCreate({}, 999));
  EXPECT_TRUE(session_.LayoutsByToken(50).empty());
}

TEST_F(LayoutTest, UnknownLayoutOrColumn_IsRefused) {
  LayoutId const layout = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
  LORVI_LAYOUT_INFO info{};
  LORVI_COLUMN_INFO column{};
  Oid oid = 0;
  for (LayoutId const unknown : {LayoutId{0}, LayoutId{40000}, LayoutId{65535}}) {
    EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT,
                  lorvi_context_get_layout_info(context(), unknown, &info));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT,
                  lorvi_context_get_column_info(context(), unknown, 0, &column));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lorv_context_insert(context(), unknown, &oid));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lorv_context_insert_system(context(), unknown, &oid));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT, lorvi_context_insert_with_id(context(), unknown, 777));
  }
  EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN,
                lorvi_context_get_column_info(context(), layout, 3, &column));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN,
                lorvi_context_get_column_info(context(), layout, 65535, &column));
}

TEST_F(LayoutTest, OneTransaction_CreatesHundredsOfLayouts) {
  std::vector<LayoutId> layouts;
  for (std::uint64_t i = 0; i < 400; ++i)
    layouts.push_back(session_.CreateLayout(1000 + i, {{LORV_TYPE_LONG, 100 + i}}));
  Restart();
  for (std::size_t i = 0; i < layouts.size(); ++i) {
    EXPECT_EQ(session_.LayoutInfo(layouts[i]).token, 1000 + i);
    EXPECT_EQ(session_.ColumnInfo(layouts[i], 2).token, 100 + i);
  }
}

TEST_F(LayoutTest, Statistics_CountTheObjectsOfEachLayout) {
  LayoutId const first = session_.CreateLayout(50, {});
  LayoutId const second = session_.CreateLayout(51, {});
  auto const objects = [&](LayoutId layout) {
    lscoredb_layout_statistics stats[2]{};
    std::uint32_t count = 2;
    Check("layout_stats", lscoredb_layout_stats(context(), &count, stats));
    EXPECT_EQ(count, 2U);
    EXPECT_LT(stats[0].layout, stats[1].layout);
    return (stats[0].layout == layout ? stats[0] : stats[1]).objects;
  };
  Oid const one = session_.Insert(first);
  session_.Insert(first);
  EXPECT_EQ(objects(first), 2U);
  EXPECT_EQ(objects(second), 0U);
  Restart();
  EXPECT_EQ(objects(first), 2U);
  session_.Delete(one);
  session_.Insert(second);
  EXPECT_EQ(objects(first), 1U);
  EXPECT_EQ(objects(second), 1U);
  session_.Rollback();
  session_.Begin();
  EXPECT_EQ(objects(first), 2U);
  EXPECT_EQ(objects(second), 0U);
}

TEST_F(LayoutTest, ExhaustedNumbers_HaveTheirOwnStatus) {
  std::vector<LORVI_COLUMN_DEFINITION> const none = Definitions({});
  LayoutId layout = 0;
  std::uint32_t status = LORV_STATUS_OK;
  int made = 0;
  for (; status == LORV_STATUS_OK && made < 70000; ++made)
    status = lorvi_context_create_layout(context(), 50, 0, none.data(), 0, &layout);
  EXPECT_STATUS(LSCOREDB_LAYOUTS_EXHAUSTED, status);
  EXPECT_GT(made, 65000);
  EXPECT_EQ(session_.LayoutInfo(layout).layout_handle, layout) << "the transaction goes on";
  session_.Rollback();
}

}  // namespace
}  // namespace lscoredb_test
