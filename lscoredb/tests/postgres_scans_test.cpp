// Round trips of scans of a database on a server, by the store's own count, which counts each wait.
// Pages of entries have 16, 512 and 8192 entries, and the rows that a scan reads come in batches of
// such sizes, or with the page.

#include <lscoredb/bulk.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "ask_server.h"
#include "stopper.h"

namespace lscoredb_test {
namespace {

constexpr int kItems = 1000;
constexpr std::uint64_t kElsewhere = 7777;  // a table, and its column

std::uint64_t TripsOf(Database const& database) {
  lscoredb_statistics now{};
  now.size = sizeof now;
  EXPECT_STATUS(0, lscoredb_stats(database.get(), &now));
  return now.round_trips;
}

class PostgresScanTest : public StoppedWaitsTest {
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

  // Creates an object that is not scanned.
  void CommitElsewhere() {
    session_->Begin();
    if (!elsewhere_.has_value()) {
      elsewhere_ = session_->CreateLayout(kElsewhere, {{LORV_TYPE_LONG, kElsewhere}});
    }
    session_->Insert(*elsewhere_, u"other/");
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

  // The same by pages of so many objects.
  static std::uint64_t ScanByPages(Database const& database, Session& session, IndexId index,
                                   std::uint32_t size) {
    std::uint64_t const before = TripsOf(database);
    Scanner scan(session, index, Key(), Key());
    std::vector<LORV_REFERENCE> page(size);
    int objects = 0;
    std::int64_t last = -10;
    for (std::uint32_t count = size; count == size;) {
      Check("next_many", lscoredb_iterator_next_many(scan.handle(), LSCOREDB_FETCH_ROWS, size,
                                                     page.data(), &count));
      for (std::uint32_t i = 0; i < count; ++i, ++objects) {
        std::int64_t const value = *session.Long(page[i].oid, kPairValue);
        EXPECT_GT(value, last);
        last = value;
      }
    }
    EXPECT_EQ(objects, kItems + 2);
    return TripsOf(database) - before - 1;
  }
  std::uint64_t ColdScanByPages(std::uint32_t size) const {
    Database const cold(url_ + "&timeout=6");
    Session reader(cold);
    reader.BeginReadOnly();
    PairWorld const seen(reader);
    return ScanByPages(cold, reader, seen.index, size);
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

  std::optional<decltype(PairWorld::layout)> elsewhere_;
};

bool All(int) { return true; }
bool None(int) { return false; }
bool EverySecond(int i) { return i % 2 == 0; }

TEST_F(PostgresScanTest, RowsSideBySide_ComeWithTheirPage) {
  AddItems();
  // The first page, its rows, and two pages with their rows.
  EXPECT_EQ(ColdScan(All), 4U);
  EXPECT_EQ(ColdScan(EverySecond), 4U);
}

// The last entry is found by the first one behind it, and then the page before that.
TEST_F(PostgresScanTest, RowsSideBySide_ComeWithTheirPageBackwards) {
  AddItems();
  std::uint64_t const pages = ColdScan(None, LORV_ITERATOR_REVERSE);
  EXPECT_LE(pages, 4U);
  EXPECT_EQ(ColdScan(All, LORV_ITERATOR_REVERSE), pages + 1);
}

// In the first page the fixture's rows are elsewhere, so the second one comes without its rows.
TEST_F(PostgresScanTest, RowsInFallingOrder_ComeWithTheirPage) {
  AddItems([](int i) { return kItems - 1 - i; });
  EXPECT_EQ(ColdScan(All), 5U);
}

// They cannot be guessed: the rows of each page take a round trip of their own.
TEST_F(PostgresScanTest, ScatteredRows_ComeBehindTheirPage) {
  AddItems([](int i) { return i * 397 % kItems; });
  EXPECT_EQ(ColdScan(All), 6U);
}

// As many round trips as the same scan by single steps.
TEST_F(PostgresScanTest, ScanByPages_TakesNoMoreTripsThanBySteps) {
  AddItems();
  for (std::uint32_t const size : {1U, 7U, 16U, 256U, 2000U}) EXPECT_LE(ColdScanByPages(size), 4U);
}

TEST_F(PostgresScanTest, ScanByPagesOfScatteredRows_TakesNoMoreTripsThanBySteps) {
  AddItems([](int i) { return i * 397 % kItems; });
  for (std::uint32_t const size : {1U, 7U, 16U, 256U, 2000U}) EXPECT_LE(ColdScanByPages(size), 6U);
}

TEST_F(PostgresScanTest, ScanWithoutReads_TakesPagesOnly) {
  AddItems();
  EXPECT_EQ(ColdScan(None), 3U);
}

// Later pages come without rows, so one of their objects is not there yet.
TEST_F(PostgresScanTest, ScanThatStopsReading_FetchesNoMoreRows) {
  AddItems();
  EXPECT_EQ(ColdScan([](int i) { return i < 10; }), 4U);
  EXPECT_EQ(ColdScan([](int i) { return i < 10 || i == kItems; }), 5U);
}

// The only object of a range comes without its neighbours.
TEST_F(PostgresScanTest, ReadOfOneObject_FetchesThatOne) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session reader(cold);
  reader.BeginReadOnly();
  PairWorld const seen(reader);
  for (int value : {1500, 1501}) {
    std::uint64_t const before = TripsOf(cold);
    Scanner scan(reader, seen.index, Key().Long(value), Key().Long(value));
    EXPECT_EQ(*reader.Long(scan.Next(), kPairValue), value);
    EXPECT_EQ(scan.Next(), 0U);
    EXPECT_EQ(TripsOf(cold) - before - 1, 2U);
  }
}

// No page goes beyond the range, and none is asked for.
TEST_F(PostgresScanTest, Range_IsFetchedUpToItsEnd) {
  AddItems();
  struct {
    int objects;
    std::uint64_t trips;
  } const ranges[] = {{10, 1}, {16, 2}, {500, 2}, {528, 3}, {700, 3}};
  for (auto const& [objects, trips] : ranges) {
    for (std::uint32_t const flags : {LORV_ITERATOR_FORWARD, LORV_ITERATOR_REVERSE}) {
      Database const cold(url_ + "&timeout=6");
      Session reader(cold);
      reader.BeginReadOnly();
      PairWorld const seen(reader);
      std::uint64_t const before = TripsOf(cold);
      Key const low = Key().Long(1100);
      Key const high = Key().Long(1100 + objects - 1);
      bool const forward = flags == LORV_ITERATOR_FORWARD;
      Scanner scan(reader, seen.index, forward ? low : high, forward ? high : low, flags);
      EXPECT_EQ(scan.Rest().size(), static_cast<std::size_t>(objects));
      reader.Rollback();
      EXPECT_LE(TripsOf(cold) - before - 1, forward ? trips : trips + 1) << objects;
    }
  }
}

TEST_F(PostgresScanTest, RowsInMemory_AreNotFetched) {
  AddItems();
  CommitElsewhere();
  Database const cold(url_ + "&timeout=6");
  Session reader(cold);
  for (std::uint64_t const trips : {4U, 3U, 3U}) {
    reader.BeginReadOnly();
    PairWorld const seen(reader);
    EXPECT_EQ(Scan(cold, reader, seen.index, All), trips);
    reader.Rollback();
    CommitElsewhere();
  }
}

// ---- scans of a database that nobody changes ---------------------------------------------------

TEST_F(PostgresScanTest, UnchangedDatabase_IsNotAskedAgain) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session reader(cold);
  for (std::uint32_t const flags : {LORV_ITERATOR_FORWARD, LORV_ITERATOR_REVERSE}) {
    for (bool const first : {true, false, false}) {
      reader.BeginReadOnly();
      PairWorld const seen(reader);
      std::uint64_t const trips = Scan(cold, reader, seen.index, All, flags);
      EXPECT_EQ(trips > 0, first) << trips;
      reader.Rollback();
    }
  }
}

TEST_F(PostgresScanTest, SecondScanOfATransaction_AsksForNothing) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session writer(cold);
  writer.Begin();
  PairWorld const seen(writer);
  EXPECT_EQ(Scan(cold, writer, seen.index, None), 3U);
  EXPECT_EQ(Scan(cold, writer, seen.index, None), 0U);
}

TEST_F(PostgresScanTest, CommitOfAnotherProcess_IsSeenByTheNextScan) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session reader(cold);
  std::size_t count = kItems + 2;
  for (int i = 0; i < 3; ++i) {
    for (int again = 0; again < 2; ++again) {
      reader.BeginReadOnly();
      EXPECT_EQ(reader.Scan(PairWorld(reader).index).size(), count);
      reader.Rollback();
    }
    CommitPair(*session_, 5000 + i);  // of two objects
    count += 2;
  }
}

// Also what a process commits itself, and what it reads while it has not.
TEST_F(PostgresScanTest, CommitOfTheProcess_IsSeenByTheNextScan) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session first(cold);
  Session second(cold);
  first.BeginReadOnly();
  IndexId const index = PairWorld(first).index;
  EXPECT_EQ(first.Scan(index).size(), kItems + 2U);
  CommitPair(second, 5000);
  EXPECT_EQ(first.Scan(index).size(), kItems + 2U);
  first.Rollback();
  for (Session* const session : {&second, &first, &second}) {
    session->BeginReadOnly();
    EXPECT_EQ(session->Scan(index).size(), kItems + 4U);
    session->Rollback();
  }
}

// What was read serves a narrower range, and a wider one as far as it goes.
TEST_F(PostgresScanTest, OtherRange_FindsAllOfItsObjects) {
  AddItems();
  Database const cold(url_ + "&timeout=6");
  Session reader(cold);
  for (int const last : {1100, 1150, 1120, 1999, 1150, 1100}) {
    for (std::uint32_t const flags : {LORV_ITERATOR_FORWARD, LORV_ITERATOR_REVERSE}) {
      reader.BeginReadOnly();
      bool const forward = flags == LORV_ITERATOR_FORWARD;
      Key const low = Key().Long(1000);
      Key const high = Key().Long(last);
      Scanner scan(reader, PairWorld(reader).index, forward ? low : high, forward ? high : low,
                   flags);
      EXPECT_EQ(scan.Rest().size(), static_cast<std::size_t>(last - 1000 + 1));
      reader.Rollback();
    }
  }
}

TEST_F(PostgresScanTest, WithoutRowMemory_NothingIsKept) {
  AddItems();
  lscoredb_options options{};
  options.size = sizeof options;
  options.row_memory = LSCOREDB_NO_ROW_MEMORY;
  Database const cold(url_ + "&timeout=6", options);
  Session reader(cold);
  for (int i = 0; i < 2; ++i) {
    reader.BeginReadOnly();
    PairWorld const seen(reader);
    EXPECT_EQ(Scan(cold, reader, seen.index, None), 3U);
    reader.Rollback();
  }
}

// A scan has no room in the sixteenth of it.
TEST_F(PostgresScanTest, MoreThanTheMemoryHolds_IsNotKept) {
  AddItems();
  lscoredb_options options{};
  options.size = sizeof options;
  options.row_memory = 1 << 20;
  Database const cold(url_ + "&timeout=6", options);
  Session reader(cold);
  for (int i = 0; i < 2; ++i) {
    reader.BeginReadOnly();
    PairWorld const seen(reader);
    EXPECT_EQ(Scan(cold, reader, seen.index, None), 3U);
    reader.Rollback();
  }
}

TEST_F(PostgresScanTest, ObjectsThatDoNotExist_TakeMemoryToo) {
  lscoredb_options options{};
  options.size = sizeof options;
  options.row_memory = 4 << 20;
  Database const cold(url_ + "&timeout=6", options);
  Session reader(cold);
  constexpr Oid kNobody = Oid{1} << 40;
  auto const trips_of_looking_for = [&](Oid oid) {
    reader.BeginReadOnly();
    std::uint64_t const before = TripsOf(cold);
    EXPECT_FALSE(reader.Exists(oid));
    reader.Rollback();
    return TripsOf(cold) - before - 1;  // asking for them is one
  };
  EXPECT_EQ(trips_of_looking_for(kNobody), 1U);
  EXPECT_EQ(trips_of_looking_for(kNobody), 0U);
  for (Oid more = 1; more < 4500; ++more) trips_of_looking_for(kNobody + more);
  EXPECT_EQ(trips_of_looking_for(kNobody), 1U);
}

// A check reads the tables again.
TEST_F(PostgresScanTest, Check_FindsWhatWasDamagedSinceItWasRead) {
  AddItems();
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Scan(PairWorld(*session_).index).size(), kItems + 2U);
  session_->Rollback();
  EXPECT_STATUS(0, lscoredb_check(database_.get(), 0, nullptr, nullptr));
  std::string const schema = lscore::SchemaOf(url_);
  std::string const entries = schema.substr(0, schema.find('&')) + ".entries";
  ASSERT_EQ(lscore::AskServer("UPDATE " + entries + " SET value = value || value WHERE key =" +
                              " (SELECT key FROM " + entries + " ORDER BY key DESC LIMIT 1)"),
            "");
  database_.ExpectDamage();
  EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_check(database_.get(), 0, nullptr, nullptr));
}

// In its second page, where the next step asks for the third one.
class ScanAskedEarlyTest : public PostgresScanTest {
 protected:
  ScanAskedEarlyTest() {
    AddItems();
    reader_.BeginReadOnly();
    index_ = PairWorld(reader_).index;
    scan_ = std::make_unique<Scanner>(reader_, index_);
    PassTo(17);
  }

  void PassTo(std::size_t position) {
    for (; passed_ < position; ++passed_) {
      Oid const object = scan_->Next();
      EXPECT_TRUE(object != 0 && reader_.Long(object, kPairValue).has_value());
    }
  }
  void AskEarly() { PassTo(30); }
  // So that no answer arrives.
  void AskASilentServer() {
    proxy_.Freeze();
    AskEarly();
  }
  std::uint32_t TryNext() {
    LORV_REFERENCE found{};
    return lorv_iterator_next(scan_->handle(), &found);
  }
  // Of a transaction, on the connection of the last one if that can be used.
  void ExpectAllInANewTransaction() {
    reader_.BeginReadOnly();
    EXPECT_EQ(reader_.Scan(index_).size(), kAll);
    reader_.Rollback();
  }

  static constexpr std::size_t kAll = kItems + 2;
  Database const cold_{url_ + "&timeout=7"};
  Session reader_{cold_};
  IndexId index_{};
  std::unique_ptr<Scanner> scan_;
  std::size_t passed_ = 0;
};

TEST_F(ScanAskedEarlyTest, OtherQuestions_ComeInBetween) {
  AskEarly();
  Oids const all = reader_.Scan(index_);
  EXPECT_EQ(all.size(), kAll);
  EXPECT_EQ(reader_.Long(all.back(), kPairValue), 1000 + kItems - 1);
  Scanner other(reader_, index_, Key(), Key(), LORV_ITERATOR_REVERSE);
  for (std::size_t i = 0; i < kAll; ++i) EXPECT_EQ(other.Next(), all[kAll - 1 - i]);
  EXPECT_EQ(scan_->Rest().size(), kAll - passed_);
}

// The page counts as a round trip, since the end of the transaction waits for it.
TEST_F(ScanAskedEarlyTest, EndedTransaction_LeavesTheConnectionUsable) {
  std::uint64_t const before = TripsOf(cold_);
  AskEarly();
  reader_.Rollback();
  EXPECT_EQ(TripsOf(cold_) - before - 1, 1U);
  for (int i = 0; i < 3; ++i) ExpectAllInANewTransaction();
}

// The page of a scan that was given up makes room for that of another.
TEST_F(ScanAskedEarlyTest, AbandonedScan_LetsOthersAskEarly) {
  AskEarly();
  scan_.reset();
  Oids const all = reader_.Scan(index_);
  EXPECT_EQ(all.size(), kAll);
  EXPECT_EQ(reader_.Scan(index_), all);
}

TEST_F(ScanAskedEarlyTest, CommitInBetween_IsDone) {
  reader_.Rollback();
  reader_.Begin();
  Scanner scan(reader_, index_);
  Oid object = 0;
  for (int i = 0; i < 30; ++i) object = scan.Next();
  reader_.PutLong(object, kPairValue, 9999);
  reader_.Commit();
  reader_.BeginReadOnly();
  EXPECT_EQ(reader_.Scan(index_).back(), object);
}

// What came with the page at hand is there; what was asked for is not.
TEST_F(ScanAskedEarlyTest, LostConnection_IsReportedWhereThePageIsUsed) {
  AskASilentServer();
  proxy_.Close();
  PassTo(16 + 512);
  EXPECT_STATUS(LSCOREDB_SERVER_LOST, TryNext());
  proxy_.Thaw();
  proxy_.Open();
  reader_.Rollback();
  ExpectAllInANewTransaction();
}

TEST_F(ScanAskedEarlyTest, LostConnectionOfATransactionThatEnds_IsReplaced) {
  AskASilentServer();
  proxy_.Close();
  proxy_.Thaw();
  proxy_.Open();
  reader_.Rollback();
  ExpectAllInANewTransaction();
}

TEST_F(ScanAskedEarlyTest, StoppedWait_LeavesTheTransactionAsItWas) {
  AskASilentServer();
  PassTo(16 + 512);
  EXPECT_STATUS(LSCOREDB_STOPPED, Stopped([&] { return TryNext(); }));
  EXPECT_STATUS(LSCOREDB_STOPPED, TryNext()) << "errors of scans stay";
  EXPECT_EQ(reader_.Scan(index_).size(), kAll);
  reader_.Rollback();
  ExpectAllInANewTransaction();
}

TEST_F(ScanAskedEarlyTest, StoppedReadInBetween_LeavesTheScanAsItWas) {
  PassTo(18);
  proxy_.Freeze();
  std::int64_t value = 0;
  EXPECT_STATUS(LSCOREDB_STOPPED, Stopped([&] {
                  return lorv_context_get_long(reader_.context(), 1 << 20, 0, kPairValue, &value);
                }));
  EXPECT_EQ(scan_->Rest().size(), kAll - passed_);
  reader_.Rollback();
  ExpectAllInANewTransaction();
}

TEST_F(ScanAskedEarlyTest, EndOfTheTransaction_CanBeStopped) {
  AskASilentServer();
  EXPECT_STATUS(0, Stopped([&] { return lscoredb_rollback(reader_.context()); }));
  ExpectAllInANewTransaction();
}

TEST_F(ScanAskedEarlyTest, ForkedProcess_LeavesThePageToItsParent) {
  AskEarly();
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(TryNext() != 0 ? 0 : 1);
  int state = 0;
  ASSERT_EQ(waitpid(child, &state, 0), child);
  EXPECT_TRUE(WIFEXITED(state) && WEXITSTATUS(state) == 0);
  EXPECT_EQ(scan_->Rest().size(), kAll - passed_);
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
