// Round trips of scans of a database on a server, by the store's own count, which counts each wait.
// Pages of entries have 16, 512 and 8192 entries, and the rows that a scan reads come in batches of
// such sizes, or with the page.

#include <functional>
#include <numeric>
#include <vector>

#include "postgres_proxy_test.h"

namespace lscoredb_test {
namespace {

constexpr int kItems = 1000;

std::uint64_t TripsOf(Database const& database) {
  lscoredb_statistics now{};
  now.size = sizeof now;
  EXPECT_STATUS(0, lscoredb_stats(database.get(), &now));
  return now.round_trips;
}

class PostgresScanTest : public PostgresProxyTest {
 protected:
  // Objects with the values 1000, 1001 and so on in an order that `place` gives; the two of the
  // fixture are below.
  void AddItems(std::function<int(int)> const& place = [](int i) { return i; }) {
    session_->Begin();
    PairWorld const world(*session_);
    for (int i = 0; i < kItems; ++i) {
      session_->PutLong(session_->Insert(world.layout), kPairValue, 1000 + place(i));
    }
    session_->Commit();
  }

  // Scans all objects, reads those that `reads` picks by their position, and returns the round
  // trips.
  static std::uint64_t Scan(Database const& database, Session& session, IndexId index,
                            std::function<bool(int)> const& reads,
                            std::uint32_t flags = LORV_ITERATOR_FORWARD) {
    std::uint64_t const before = TripsOf(database);
    Scanner scan(session, index, Key(), Key(), flags);
    int count = 0;
    std::int64_t last = flags == LORV_ITERATOR_FORWARD ? -10 : 10000;
    while (Oid const object = scan.Next()) {
      if (!reads(count++)) continue;
      std::int64_t const value = *session.Long(object, kPairValue);
      EXPECT_TRUE(flags == LORV_ITERATOR_FORWARD ? value > last : value < last) << value;
      last = value;
    }
    EXPECT_EQ(count, kItems + 2);
    return TripsOf(database) - before - 1;
  }

  // The same in a process with nothing in memory but the table.
  std::uint64_t ColdScan(std::function<bool(int)> const& reads,
                         std::uint32_t flags = LORV_ITERATOR_FORWARD) const {
    Database const cold(url_ + "&timeout=6");
    Session reader(cold);
    reader.BeginReadOnly();
    PairWorld const seen(reader);
    return Scan(cold, reader, seen.index, reads, flags);
  }
};

bool All(int) { return true; }
bool None(int) { return false; }
bool EverySecond(int i) { return i % 2 == 0; }

TEST_F(PostgresScanTest, RowsSideBySide_ComeWithTheirPage) {
  AddItems();
  // The first page, its first row, its other rows, and two pages with their rows.
  EXPECT_EQ(ColdScan(All), 5U);
  EXPECT_EQ(ColdScan(EverySecond), 5U);
}

// The last entry is found by the first one behind it, and then the page before that.
TEST_F(PostgresScanTest, RowsSideBySide_ComeWithTheirPageBackwards) {
  AddItems();
  std::uint64_t const pages = ColdScan(None, LORV_ITERATOR_REVERSE);
  EXPECT_LE(pages, 4U);
  EXPECT_EQ(ColdScan(All, LORV_ITERATOR_REVERSE), pages + 2);
}

// In the first page the fixture's rows are elsewhere, so the second one comes without its rows.
TEST_F(PostgresScanTest, RowsInFallingOrder_ComeWithTheirPage) {
  AddItems([](int i) { return kItems - 1 - i; });
  EXPECT_EQ(ColdScan(All), 6U);
}

// They cannot be guessed: the rows of each page take a round trip of their own.
TEST_F(PostgresScanTest, ScatteredRows_ComeBehindTheirPage) {
  AddItems([](int i) { return i * 397 % kItems; });
  EXPECT_EQ(ColdScan(All), 7U);
}

TEST_F(PostgresScanTest, ScanWithoutReads_TakesPagesOnly) {
  AddItems();
  EXPECT_EQ(ColdScan(None), 3U);
}

// The last page comes without rows, so one of its objects is not there yet.
TEST_F(PostgresScanTest, ScanThatStopsReading_FetchesNoMoreRows) {
  AddItems();
  EXPECT_EQ(ColdScan([](int i) { return i < 200; }), 5U);
  EXPECT_EQ(ColdScan([](int i) { return i < 200 || i == kItems; }), 6U);
}

TEST_F(PostgresScanTest, RowsInMemory_AreNotFetched) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session reader(cold);
  for (std::uint64_t const trips : {5U, 3U, 3U}) {
    reader.BeginReadOnly();
    PairWorld const seen(reader);
    EXPECT_EQ(Scan(cold, reader, seen.index, All), trips);
    reader.Rollback();
  }
}

// A second scan of the transaction finds all rows, and only pages are fetched again.
TEST_F(PostgresScanTest, ScanBesideOwnWrites_SeesThem) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session writer(cold);
  writer.Begin();
  PairWorld const world(writer);
  Oids const objects = writer.Scan(world.index);
  ASSERT_EQ(objects.size(), std::size_t{kItems} + 2);
  std::vector<std::int64_t> values;
  Scanner scan(writer, world.index);
  for (std::size_t i = 0; Oid const object = scan.Next(); ++i) {
    EXPECT_EQ(object, objects[i]);
    values.push_back(*writer.Long(object, kPairValue));
    writer.PutLong(object, kPairValue, 5000 - static_cast<std::int64_t>(i));
    if (i + 700 < objects.size() && i % 3 == 0) writer.Delete(objects[i]);
  }
  ASSERT_EQ(values.size(), objects.size()) << "a scan keeps to the range as it was";
  EXPECT_EQ(values[2], 1000);
  EXPECT_EQ(values.back(), 1000 + kItems - 1);
  Oids left = writer.Scan(world.index);
  EXPECT_EQ(left.size(), objects.size() - 101);
  EXPECT_EQ(left.front(), objects.back());
  writer.Commit();
}

}  // namespace
}  // namespace lscoredb_test
