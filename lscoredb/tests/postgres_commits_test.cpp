// Commits in one round trip: what the server checks for them, and tables of earlier programs.

#include <lscoredb/server.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include "ask_server.h"
#include "postgres_proxy_test.h"

namespace lscoredb_test {
namespace {

using lscore::AskServer;
using lscore::SchemaOf;
using lscore::ServerDirectory;

bool IsSound(Database const& database) {
  return lscoredb_check(database.get(), 0, nullptr, nullptr) == 0;
}

// Three openers with nothing in common but the server, as three machines, which have all committed.
class PostgresCommitsTest : public testing::Test {
 protected:
  PostgresCommitsTest() {
    std::int64_t value = 0;
    for (Session* const one : {&a_, &b_, &c_}) CommitPair(*one, ++value);
    row_ = CommitPair(a_, 10);
  }
  void Put(Session& session, Oid row, std::int64_t value) {
    session.Begin();
    session.PutLong(row, kPairValue, value);
    session.Commit();
  }
  std::int64_t Get(Session& session, Oid row) {
    session.BeginReadOnly();
    std::int64_t const value = *session.Long(row, kPairValue);
    session.Rollback();
    return value;
  }

  std::string const url_ = lscore::NewServerUrl();
  Database first_{url_ + "&timeout=31"};
  Database second_{url_ + "&timeout=32"};
  Database third_{url_ + "&timeout=33"};
  Session a_{first_};
  Session b_{second_};
  Session c_{third_};
  Oid row_ = 0;
};

// The first commit does not know, when it is sent, that another one comes before it: a transaction
// that began between the two must see that the row is younger than its snapshot.
TEST_F(PostgresCommitsTest, RowHasTheNumberOfItsCommit_NotTheOneThatWasGuessed) {
  Oid const other = CommitPair(b_, 20);
  a_.Begin();
  a_.PutLong(row_, kPairValue, 11);
  Put(b_, other, 21);
  c_.Begin();
  EXPECT_EQ(c_.Long(row_, kPairValue), 10);
  a_.Commit();
  c_.PutLong(row_, kPairValue, 12);
  EXPECT_STATUS(LSCOREDB_CONFLICT, c_.TryCommit());
  for (Session* const one : {&a_, &b_, &c_}) EXPECT_EQ(Get(*one, row_), 11);
  Database const cold(url_ + "&timeout=40");
  Session reader(cold);
  EXPECT_EQ(Get(reader, row_), 11);
  Put(reader, row_, 13);
  EXPECT_EQ(Get(a_, row_), 13);
  EXPECT_TRUE(IsSound(cold));
}

TEST_F(PostgresCommitsTest, ReaderOfTheStateBefore_NeverSeesTheNewRow) {
  b_.Begin();
  a_.Begin();
  a_.PutLong(row_, kPairValue, 11);
  a_.Commit();
  EXPECT_EQ(b_.Long(row_, kPairValue), 10);
  Session beside(first_);
  EXPECT_EQ(Get(beside, row_), 11);
  b_.Rollback();
}

TEST_F(PostgresCommitsTest, RowThatWasDeleted_IsAConflict) {
  b_.Begin();
  b_.PutLong(row_, kPairValue, 12);
  a_.Begin();
  a_.Delete(row_);
  a_.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, b_.TryCommit());
  b_.Begin();
  EXPECT_FALSE(b_.Exists(row_));
}

TEST_F(PostgresCommitsTest, RequiredRowThatChanged_IsAConflict) {
  b_.Begin();
  EXPECT_STATUS(0, lscoredb_require(b_.context(), row_));
  b_.PutLong(b_.Insert(PairWorld(b_).layout), kPairValue, 5);
  Put(a_, row_, 11);
  EXPECT_STATUS(LSCOREDB_CONFLICT, b_.TryCommit());
}

TEST_F(PostgresCommitsTest, KeyThatAnotherTook_IsADuplicate) {
  a_.Begin();
  PairWorld const world(a_);
  IndexId const unique =
      a_.CreateIndex(kPairIndex + 1, kSet, {{LORV_TYPE_LONG, kPairValueToken}}, kUnique);
  a_.Commit();
  EXPECT_NE(unique, 0U);
  b_.Begin();
  Oid const late = b_.Insert(world.layout);
  b_.PutLong(late, kPairValue, 77);
  CommitPair(a_, 77);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, b_.TryCommit());
  b_.Begin();
  b_.PutLong(b_.Insert(world.layout), kPairValue, 78);
  b_.Commit();
  Put(a_, row_, 79);
  Put(b_, row_, 10);
  EXPECT_TRUE(IsSound(second_));
}

TEST_F(PostgresCommitsTest, IndexThatIsNew_GetsTheEntriesOfATransactionThatDoesNotKnowIt) {
  b_.Begin();
  Oid const late = b_.Insert(PairWorld(b_).layout);
  b_.PutLong(late, kPairValue, 55);
  a_.Begin();
  IndexId const index = a_.CreateIndex(kPairIndex + 1, kSet, {{LORV_TYPE_LONG, kPairValueToken}});
  a_.Commit();
  b_.Commit();
  c_.BeginReadOnly();
  Oids const found = c_.Scan(index);
  EXPECT_EQ(std::count(found.begin(), found.end(), late), 1);
  c_.Rollback();
  EXPECT_TRUE(IsSound(third_));
}

TEST_F(PostgresCommitsTest, ThreadsAndOpeners_LoseNothing) {
  constexpr int kTimes = 20;
  auto const add = [&](Database const& database) {
    Session session(database);
    for (int done = 0; done < kTimes;) {
      session.Begin();
      session.PutLong(row_, kPairValue, *session.Long(row_, kPairValue) + 1);
      session.PutLong(session.Insert(PairWorld(session).layout), kPairValue, done);
      done += session.TryCommit() == 0 ? 1 : 0;
    }
  };
  std::vector<std::thread> threads;
  for (Database const* const one : {&first_, &second_, &third_}) {
    for (int i = 0; i < 2; ++i) threads.emplace_back([&, one] { add(*one); });
  }
  for (std::thread& one : threads) one.join();
  for (Session* const one : {&a_, &b_, &c_}) EXPECT_EQ(Get(*one, row_), 10 + 6 * kTimes);
  Database const cold(url_ + "&timeout=40");
  EXPECT_TRUE(IsSound(cold));
  Session reader(cold);
  EXPECT_EQ(Get(reader, row_), 10 + 6 * kTimes);
}

TEST_F(PostgresCommitsTest, CopyOfNumberedRows_HasTheirNumbers) {
  Oid const other = CommitPair(b_, 20);
  a_.Begin();
  a_.PutLong(row_, kPairValue, 11);
  Put(b_, other, 21);
  a_.Commit();
  TemporaryDirectory const directory;
  std::string const copy = directory / "copy";
  ASSERT_EQ(0U, lscoredb_copy(first_.get(), copy.c_str()));
  Database const local(copy);
  EXPECT_TRUE(IsSound(local));
  Session session(local);
  EXPECT_EQ(Get(session, row_), 11);
  Put(session, row_, 12);
}

// ---- tables of earlier programs -----------------------------------------------------------------

// A database as an earlier program left it: without numbers. Its commits were sent in two round
// trips, so that all values say themselves what they have to.
class PlainTables {
 public:
  PlainTables() {
    {
      Database const database(url_);
      Session session(database);
      row_ = CommitPair(session, 7);
    }
    std::string const schema = SchemaOf(url_);
    for (char const* const table : {".rows", ".meta"}) {
      EXPECT_EQ(AskServer("ALTER TABLE " + schema + table + " DROP COLUMN number"), "");
    }
    EXPECT_EQ(AskServer("UPDATE " + schema + ".state SET version = 1"), "");
  }
  std::string const& url() const { return url_; }
  Oid row() const { return row_; }
  std::string Version() const {
    return AskServer("SELECT version FROM " + SchemaOf(url_) + ".state");
  }
  // By a store of its own: another timeout makes the URL another one.
  Database OpenToRead() const {
    lscoredb_options options{};
    options.size = sizeof options;
    options.access = LSCOREDB_ACCESS_READ;
    return Database(url_ + "&timeout=41", options);
  }

 private:
  std::string const url_ = lscore::NewServerUrl();
  Oid row_ = 0;
};

TEST(PostgresPlainTablesTest, Writer_BringsThemUpToDateUnderAReader) {
  PlainTables const tables;
  Database const read = tables.OpenToRead();
  Session reader(read);
  reader.BeginReadOnly();
  EXPECT_EQ(reader.Long(tables.row(), kPairValue), 7);
  reader.Rollback();
  EXPECT_EQ(tables.Version(), "1\n") << "reading changes nothing";
  Database const database(tables.url());
  EXPECT_EQ(tables.Version(), "3\n");
  Session writer(database);
  for (int value = 8; value < 12; ++value) {
    writer.Begin();
    writer.PutLong(tables.row(), kPairValue, value);
    writer.Commit();
    CommitPair(writer, value);
    reader.BeginReadOnly();
    EXPECT_EQ(reader.Long(tables.row(), kPairValue), value);
    reader.Rollback();
  }
  EXPECT_TRUE(IsSound(database));
}

// Someone who reads for long keeps the tables from being changed. They serve as they are.
TEST(PostgresPlainTablesTest, TablesThatAreBeingRead_StayAsTheyAre) {
  PlainTables const tables;
  Database const read = tables.OpenToRead();
  Session reader(read);
  reader.BeginReadOnly();
  EXPECT_EQ(reader.Long(tables.row(), kPairValue), 7);
  Database const early(tables.url());
  EXPECT_EQ(tables.Version(), "1\n");
  Session session(early);
  for (int value = 8; value < 10; ++value) {
    session.Begin();
    session.PutLong(tables.row(), kPairValue, value);
    session.Commit();
  }
  EXPECT_EQ(reader.Long(tables.row(), kPairValue), 7);
  reader.Rollback();
  Database const late(tables.url() + "&timeout=42");
  EXPECT_EQ(tables.Version(), "3\n");
  Session other(late);
  for (Session* const one : {&other, &session}) {
    one->Begin();
    EXPECT_EQ(one->Long(tables.row(), kPairValue), 9);
    one->Rollback();
    CommitPair(*one, 5);
    CommitPair(*one, 6);
  }
  EXPECT_TRUE(IsSound(early));
}

// What the server has counted for the tables that grow. It counts when a connection ends.
std::string CountedFor(std::string const& url, std::string const& counter) {
  std::string const connections =
      "SELECT count(*) FROM pg_stat_activity WHERE pid <> pg_backend_pid() AND query LIKE $$%" +
      SchemaOf(url) + "%$$";
  while (AskServer(connections) != "0\n") {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return AskServer("SELECT sum(" + counter + ") FROM pg_stat_user_tables WHERE schemaname = $$" +
                   SchemaOf(url) + "$$ AND relname IN ($$rows$$, $$changes$$, $$tickets$$)");
}

// Making the tables scans each of them for its indexes.
TEST(PostgresPlansTest, CommitsAndReadsOfSmallTables_GoThroughTheirIndexes) {
  std::string const url = lscore::NewServerUrl();
  { Database const database(url); }
  std::string const scans = CountedFor(url, "seq_scan");
  std::string const look_ups = CountedFor(url, "idx_scan");
  {
    Database const database(url);
    Session session(database);
    for (int i = 0; i < 20; ++i) {
      Oid const row = CommitPair(session, i);
      Database const cold(url + "&timeout=" + std::to_string(40 + i));
      Session reader(cold);
      reader.BeginReadOnly();
      EXPECT_EQ(reader.Long(row, kPairValue), i);
      reader.Rollback();
    }
  }
  EXPECT_EQ(CountedFor(url, "seq_scan"), scans);
  EXPECT_NE(CountedFor(url, "idx_scan"), look_ups);
}

TEST(PostgresPlansTest, ServerThatRefusesTheSettings_IsUsedAsItIs) {
  ASSERT_EQ(AskServer("GRANT CREATE ON DATABASE postgres TO guarded;"
                      " REVOKE SELECT ON pg_settings FROM PUBLIC"),
            "");
  Database const database("postgresql://guarded:secret@/postgres?host=" + ServerDirectory() +
                          "&schema=" + SchemaOf(lscore::NewServerUrl()));
  Session session(database);
  Oid const row = CommitPair(session, 1);
  session.BeginReadOnly();
  EXPECT_EQ(session.Long(row, kPairValue), 1);
  session.Rollback();
  EXPECT_EQ(AskServer("SET ROLE guarded; SELECT count(*) FROM pg_settings").substr(0, 5), "ERROR");
  EXPECT_EQ(AskServer("GRANT SELECT ON pg_settings TO PUBLIC"), "");
}

}  // namespace
}  // namespace lscoredb_test
