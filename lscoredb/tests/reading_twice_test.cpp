// The first reading of a column looks at the layouts, later ones use what it noted: statuses and
// values are the same each time, in whatever state the row is.

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kTable = 50;
constexpr std::uint64_t kOtherTable = 51;
constexpr std::uint64_t kA = 100;
constexpr std::uint64_t kB = 101;
constexpr std::uint64_t kC = 102;
constexpr std::uint64_t kTouched = 103;

class ReadingTwiceTest : public KernelTest {
 protected:
  // Twice each: with the row as it was committed, read only and not, with the row as `touch` leaves
  // it, and with that committed.
  void ExpectInEachState(std::function<void()> const& expect, std::function<void()> const& touch) {
    auto const twice = [&](char const* state) {
      SCOPED_TRACE(state);
      for (int round = 0; round < 2; ++round) expect();
    };
    session_.BeginReadOnly();
    twice("read only");
    session_.Rollback();
    session_.Begin();
    twice("to be written");
    touch();
    twice("written");
    session_.Commit();
    session_.BeginReadOnly();
    twice("committed");
    session_.Rollback();
  }
  // As the contract gives it: nothing is written where there is no value.
  void ExpectLong(std::uint32_t status, std::int64_t value, Oid row, LayoutId layout,
                  std::uint32_t column) {
    std::int64_t found = -99;
    EXPECT_STATUS(status, lorv_context_get_long(session_.context(), row, layout, column, &found));
    EXPECT_EQ(status == LORV_STATUS_OK ? value : -99, found);
  }
  void ExpectText(std::uint32_t status, Oid row, LayoutId layout, std::uint32_t column) {
    LORV_STRING* text = nullptr;
    EXPECT_STATUS(status, lorv_context_get_string(session_.context(), row, layout, column, &text));
  }
};

TEST_F(ReadingTwiceTest, RowWithoutColumns_HasOnlyItsIdAndItsSet) {
  session_.Begin();
  LayoutId const layout = session_.CreateLayout(kTable, {});
  Oids const rows{session_.Insert(layout), session_.InsertBare(layout), session_.Insert(layout)};
  session_.Commit();
  ExpectInEachState(
      [&] {
        for (Oid const row : rows) {
          EXPECT_EQ(row, session_.ULong(row, 0));
          EXPECT_EQ(row, session_.ULong(row, 0, layout));
          EXPECT_EQ(layout, session_.LayoutOf(row));
          ExpectLong(LSCOREDB_UNKNOWN_COLUMN, 0, row, 0, 2);
        }
        EXPECT_EQ(kSet, session_.Setspec(rows[0]));
        EXPECT_EQ(std::nullopt, session_.Setspec(rows[1]));
      },
      [&] { session_.PutSetspec(rows[2], u"other/"); });
}

// Every third one is null, every seventh a text.
TEST_F(ReadingTwiceTest, ManyColumns_AreDistinguishedWhereverTheirBitsLie) {
  constexpr std::uint32_t kFirst = 2;
  constexpr std::uint32_t kColumns = 1000;
  Columns columns;
  for (std::uint32_t i = kFirst; i < kColumns; ++i) {
    columns.push_back({i % 7 == 0 ? LORV_TYPE_STRING : LORV_TYPE_LONG, 1000 + i});
  }
  session_.Begin();
  LayoutId const layout = session_.CreateLayout(kTable, columns);
  Oid const row = session_.Insert(layout);
  auto const text = [](std::uint32_t i) { return Text(i % 90, u'x'); };
  for (std::uint32_t i = kFirst; i < kColumns; ++i) {
    if (i % 3 == 0) continue;
    i % 7 == 0 ? session_.PutString(row, i, text(i)) : session_.PutLong(row, i, i);
  }
  session_.Commit();
  ExpectInEachState(
      [&] {
        for (std::uint32_t i = kFirst; i < kColumns; ++i) {
          std::uint32_t const status = i % 3 == 0 ? LORV_STATUS_NULL : LORV_STATUS_OK;
          if (i % 7 != 0) {
            ExpectLong(status, i, row, i % 2 == 0 ? layout : LayoutId{0}, i);
            ExpectText(LSCOREDB_WRONG_TYPE, row, layout, i);
          } else if (status == LORV_STATUS_NULL) {
            ExpectText(status, row, layout, i);
          } else {
            EXPECT_EQ(text(i), session_.String(row, i, layout));
          }
        }
      },
      [&] { session_.PutLong(row, 500, 500); });
}

TEST_F(ReadingTwiceTest, RowInOverflowChunks_IsReadLikeAnyOther) {
  Bytes large(17 << 20);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i >> 12);
  session_.Begin();
  LayoutId const layout = session_.CreateLayout(
      kTable, {{LORV_TYPE_LONG, kA}, {LORV_TYPE_BINARY, kB}, {LORV_TYPE_LONG, kC}});
  Oid const row = session_.Insert(layout);
  session_.PutLong(row, 2, 7);
  session_.PutBinary(row, 3, large);
  session_.Commit();
  std::uint32_t status = LORV_STATUS_NULL;
  ExpectInEachState(
      [&] {
        ExpectLong(LORV_STATUS_OK, 7, row, 0, 2);
        ExpectLong(status, 8, row, layout, 4);
        EXPECT_TRUE(large == session_.Binary(row, 3));
      },
      [&] {
        session_.PutLong(row, 4, 8);
        status = LORV_STATUS_OK;
      });
}

TEST_F(ReadingTwiceTest, Row_IsReadThroughTheLayoutOfItsBaseTable) {
  session_.Begin();
  LayoutId const base =
      session_.CreateLayout(kTable, {{LORV_TYPE_LONG, kA}, {LORV_TYPE_STRING, kB}});
  LayoutId const derived =
      session_.CreateLayout(kOtherTable, {{LORV_TYPE_LONG, kC}, {LORV_TYPE_LONG, kTouched}}, base);
  Oid const row = session_.Insert(derived, u"set/derived/");
  session_.PutLong(row, 2, 7);
  session_.PutString(row, 3, u"seven");
  Oid const other = session_.Insert(base);
  session_.PutLong(other, 2, 9);
  session_.Commit();
  ExpectInEachState(
      [&] {
        ExpectLong(LORV_STATUS_OK, 7, row, base, 2);
        ExpectLong(LORV_STATUS_OK, 9, other, base, 2);
        EXPECT_EQ(u"seven", session_.String(row, 3, base));
        ExpectText(LORV_STATUS_NULL, other, base, 3);
        ExpectLong(LSCOREDB_UNKNOWN_COLUMN, 0, row, base, 4);
        ExpectLong(LORV_STATUS_NULL, 0, row, derived, 4);
      },
      [&] { session_.PutLong(row, 5, 1); });
}

// A is nullable at first and not later, B the other way round; C comes and is not nullable. What is
// zero under the row's own layout is zero through any; what is null there is zero through one that
// knows no null.
TEST_F(ReadingTwiceTest, NullAndZero_AreDistinguishedByTheRowsLayoutAndTheNamedOne) {
  session_.Begin();
  LayoutId const older = session_.CreateLayout(
      kTable, {{LORV_TYPE_LONG, kA}, {LORV_TYPE_LONG, kB, false}, {LORV_TYPE_LONG, kTouched}});
  session_.Commit();
  session_.Begin();
  LayoutId const newer = session_.CreateLayout(kTable, {{LORV_TYPE_LONG, kTouched},
                                                        {LORV_TYPE_LONG, kC, false},
                                                        {LORV_TYPE_LONG, kB},
                                                        {LORV_TYPE_LONG, kA, false}});
  Oid const full = session_.Insert(older);
  session_.PutLong(full, 2, 7);
  session_.PutLong(full, 3, 8);
  Oids const empty{session_.Insert(older), session_.Insert(newer)};
  session_.Commit();
  ExpectInEachState(
      [&] {
        ExpectLong(LORV_STATUS_OK, 7, full, older, 2);
        ExpectLong(LORV_STATUS_OK, 8, full, older, 3);
        ExpectLong(LORV_STATUS_OK, 7, full, newer, 5);
        ExpectLong(LORV_STATUS_OK, 8, full, newer, 4);
        ExpectLong(LORV_STATUS_OK, 0, full, newer, 3);
        for (Oid const row : empty) {
          bool const under_older = row == empty[0];
          std::uint32_t const null_in_older = under_older ? LORV_STATUS_NULL : LORV_STATUS_OK;
          std::uint32_t const null_in_newer = under_older ? LORV_STATUS_OK : LORV_STATUS_NULL;
          ExpectLong(null_in_older, 0, row, older, 2);
          ExpectLong(LORV_STATUS_OK, 0, row, older, 3);
          ExpectLong(LORV_STATUS_OK, 0, row, newer, 5);
          ExpectLong(null_in_newer, 0, row, newer, 4);
          ExpectLong(LORV_STATUS_OK, 0, row, newer, 3);
        }
      },
      [&] {
        session_.PutLong(full, 4, 1);
        session_.PutLong(empty[0], 4, 1);
        session_.PutLong(empty[1], 2, 1);
      });
}

}  // namespace
}  // namespace lscoredb_test
