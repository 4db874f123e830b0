// Indexes of more columns than their sort mask has bits, and the format of files that hold them.

#include "kernel_test.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kFirst = 2;    // the column
constexpr std::uint32_t kWidth = 114;  // columns of the index

Columns LongColumns(std::uint32_t count) {
  Columns columns;
  for (std::uint32_t i = 0; i < count; ++i) columns.push_back({LORV_TYPE_LONG, 300 + i});
  return columns;
}

std::string VersionOf(std::string const& directory) {
  StoredTree meta(directory, "meta");
  return meta.Get("format").substr(std::string("lscoredb").size());
}

class WideIndexTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, LongColumns(kWidth));
  }

  // All columns are 0 but one.
  Oid RowWith(std::uint32_t column, std::int64_t value) {
    Oid const row = session_.Insert(layout_);
    for (std::uint32_t i = 0; i < kWidth; ++i) {
      session_.PutLong(row, kFirst + i, i == column ? value : 0);
    }
    return row;
  }

  LayoutId layout_ = 0;
};

TEST_F(WideIndexTest, EveryColumn_Decides) {
  IndexId const index = session_.CreateIndex(60, kSet, LongColumns(kWidth));
  for (std::uint32_t const column : {0u, 15u, 16u, 17u, 31u, 32u, 63u, 64u, kWidth - 1}) {
    Oid const high = RowWith(column, 5);
    Oid const low = RowWith(column, -5);
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(session_.Scan(index), (Oids{low, high})) << "column " << column;
      EXPECT_EQ(session_.ScanBack(index), (Oids{high, low})) << "column " << column;
      Restart();
    }
    session_.Delete(low);
    session_.Delete(high);
  }
}

TEST_F(WideIndexTest, ColumnsPastTheMask_Ascend) {
  IndexId const index =
      session_.CreateIndex(60, kSet, LongColumns(kWidth), {.unique = true, .descending = 0xFFFF});
  Oid const low_in_mask = RowWith(15, -5);
  Oid const high_in_mask = RowWith(15, 5);
  Oid const low_past_mask = RowWith(16, -5);
  Oid const high_past_mask = RowWith(16, 5);
  Restart();
  EXPECT_EQ(session_.Scan(index), (Oids{high_in_mask, low_past_mask, high_past_mask, low_in_mask}));
}

TEST_F(WideIndexTest, Bounds_MayNameMoreColumnsThanTheMaskHas) {
  IndexId const index = session_.CreateIndex(60, kSet, LongColumns(kWidth));
  Oid const wanted = RowWith(19, 7);
  RowWith(19, 8);
  RowWith(19, 6);
  Key bound;
  for (std::uint32_t i = 0; i < 20; ++i) bound.Long(i == 19 ? 7 : 0);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(session_.At(index, bound), Oids{wanted});
    Restart();
  }
}

TEST(WideIndexFileTest, WideIndex_UpgradesTheFormatOfTheFile) {
  TemporaryDirectory const directory;
  TemporaryDirectory const copy;
  auto const create = [&](std::uint32_t width) {
    Database database(directory.path());
    Session session(database);
    session.Begin();
    LayoutId const layout = session.CreateLayout(50 + width, LongColumns(width));
    IndexId const index = session.CreateIndex(60 + width, kSet, LongColumns(width));
    Oid const row = session.Insert(layout);
    for (std::uint32_t i = 0; i < width; ++i) session.PutLong(row, kFirst + i, i);
    session.Commit();
    session.BeginReadOnly();
    EXPECT_FALSE(session.Scan(index).empty());
    session.Rollback();
    EXPECT_STATUS(0, lscoredb_copy(database.get(), (copy / std::to_string(width).c_str()).c_str()));
  };
  create(16);
  EXPECT_EQ(Little(1, 4), VersionOf(directory.path()));
  create(17);
  EXPECT_EQ(Little(2, 4), VersionOf(directory.path()));
  EXPECT_EQ(Little(1, 4), VersionOf(copy / "16"));
  EXPECT_EQ(Little(2, 4), VersionOf(copy / "17"));
  Database const reopened(copy / "17");
  Session session(reopened);
  session.Begin();
  EXPECT_EQ(1u, session.IndexesByToken(77).size());
}

}  // namespace
}  // namespace lscoredb_test
