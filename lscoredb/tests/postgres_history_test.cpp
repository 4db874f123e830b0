// A server that has an earlier state of a database than a process has seen, or another database in
// its place.

#include <string>

#include "ask_server.h"
#include "postgres_proxy_test.h"

namespace lscoredb_test {
namespace {

using lscore::AskServer;
using lscore::SchemaOf;

class PostgresHistoryTest : public testing::Test {
 protected:
  PostgresHistoryTest() : row_(CommitPair(writer_, 10)) {
    for (int value = 0; value < 3; ++value) CommitPair(writer_, value);
  }

  static std::string OnTables(std::string const& one) {
    std::string all;
    for (char const* const table : {"rows", "parts", "entries", "definitions", "meta", "state",
                                    "changes", "layouts", "tickets"}) {
      all += one;
      for (std::size_t at; (at = all.find('?')) != std::string::npos;) all.replace(at, 1, table);
    }
    return all;
  }
  void Save() {
    std::string const saved = schema_ + "_saved.?";
    ASSERT_EQ(AskServer("CREATE SCHEMA " + schema_ + "_saved;" +
                        OnTables("CREATE TABLE " + saved + " AS TABLE " + schema_ + ".?;")),
              "");
  }
  // As restoring a backup of the server does. The two that are open then cannot check any more.
  void SetBack() {
    LoseBoth();
    ASSERT_EQ(AskServer("BEGIN;" +
                        OnTables("DELETE FROM " + schema_ + ".?; INSERT INTO " + schema_ +
                                 ".? SELECT * FROM " + schema_ + "_saved.?;") +
                        "COMMIT"),
              "");
  }
  void LoseBoth() {
    first_.ExpectDamage();
    second_.ExpectDamage();
  }
  // By a process that knows nothing of the others.
  void CommitAnew(std::int64_t value, int more) {
    Database const database(url_ + "&timeout=" + std::to_string(++opened_));
    Session session(database);
    Put(session, value);
    for (int i = 0; i < more; ++i) CommitPair(session, i);
  }
  void Put(Session& session, std::int64_t value) {
    session.Begin();
    session.PutLong(row_, kPairValue, value);
    session.Commit();
  }
  std::int64_t Read(Session& session) {
    session.BeginReadOnly();
    std::int64_t const value = *session.Long(row_, kPairValue);
    session.Rollback();
    return value;
  }
  std::int64_t ReadAnew() {
    Database const database(url_ + "&timeout=" + std::to_string(++opened_));
    Session session(database);
    return Read(session);
  }

  std::string const url_ = lscore::NewServerUrl();
  std::string const schema_ = SchemaOf(url_);
  int opened_ = 100;
  Database first_{url_ + "&timeout=51"};
  Database second_{url_ + "&timeout=52"};
  Session writer_{first_};
  Session reader_{second_};
  Oid row_;
};

TEST_F(PostgresHistoryTest, DatabaseThatWasSetBack_IsRefusedUntilItIsOpenedAgain) {
  Save();
  Put(writer_, 11);
  EXPECT_EQ(Read(reader_), 11);
  SetBack();
  for (int i = 0; i < 2; ++i) {
    EXPECT_STATUS(LSCOREDB_SERVER_SET_BACK, lscoredb_begin(reader_.context(), LSCOREDB_READ_WRITE));
  }
  EXPECT_EQ(ReadAnew(), 10);
}

// The numbers of lost commits are those of others by now.
TEST_F(PostgresHistoryTest, CommitsInThePlaceOfLostOnes_AreNotTakenForThem) {
  Save();
  for (int i = 0; i < 3; ++i) Put(writer_, 11 + i);
  EXPECT_EQ(Read(reader_), 13);
  for (int const more : {2, 5}) {
    SetBack();
    CommitAnew(20, more);
    EXPECT_STATUS(LSCOREDB_SERVER_SET_BACK, lscoredb_begin(reader_.context(), LSCOREDB_READ_WRITE));
    EXPECT_EQ(ReadAnew(), 20);
  }
}

TEST_F(PostgresHistoryTest, TransactionFromBefore_CommitsNothing) {
  Save();
  for (int i = 0; i < 3; ++i) Put(writer_, 11 + i);
  writer_.Begin();
  writer_.PutLong(row_, kPairValue, 14);
  SetBack();
  CommitAnew(20, 0);
  std::uint32_t const status = writer_.TryCommit();
  EXPECT_TRUE(status == LSCOREDB_SERVER_SET_BACK || status == LSCOREDB_SERVER_LOST) << status;
  EXPECT_EQ(ReadAnew(), 20);
}

TEST_F(PostgresHistoryTest, OtherDatabaseOfTheSameName_IsNotTakenForTheOldOne) {
  EXPECT_EQ(Read(reader_), 10);
  LoseBoth();
  ASSERT_EQ(AskServer("SET client_min_messages TO error; DROP SCHEMA " + schema_ + " CASCADE"), "");
  Database const other(url_ + "&timeout=53");
  Session session(other);
  for (int i = 0; i < 30; ++i) CommitPair(session, 100 + i);
  EXPECT_STATUS(LSCOREDB_SERVER_SET_BACK, lscoredb_begin(reader_.context(), LSCOREDB_READ_WRITE));
}

TEST_F(PostgresHistoryTest, CommitsOfOthers_AreTheSameHistory) {
  EXPECT_EQ(Read(reader_), 10);
  for (int i = 0; i < 5; ++i) {
    CommitAnew(30 + i, 1);
    EXPECT_EQ(Read(reader_), 30 + i);
    Put(writer_, 40 + i);
    EXPECT_EQ(Read(reader_), 40 + i);
  }
}

// A process that was idle for so long that the ticket of what it has seen is dropped.
TEST_F(PostgresHistoryTest, TicketThatIsNoLongerKept_ProvesNothing) {
  EXPECT_EQ(Read(reader_), 10);
  ASSERT_EQ(AskServer("DELETE FROM " + schema_ + ".tickets WHERE committed; UPDATE " + schema_ +
                      ".state SET id = id + 100001, listed = id + 100001"),
            "");
  EXPECT_EQ(Read(reader_), 10);
  Put(reader_, 11);
  EXPECT_EQ(ReadAnew(), 11);
}

}  // namespace
}  // namespace lscoredb_test
