// The feed of changes on a server as hosts use it: what it costs, readers of other machines and
// those who may only read, and what becomes of readers when the connection fails.

#include <lscoredb/changes.h>
#include <lscoredb/watch.h>
#include <poll.h>

#include <thread>

#include "ask_server.h"
#include "postgres_proxy_test.h"

namespace lscoredb_test {
namespace {

using lscore::AskServer;

constexpr std::uint64_t kLots = std::uint64_t{1} << 40;

class PostgresChangesTest : public PostgresProxyTest {
 protected:
  PostgresChangesTest() {
    Check("lscoredb_keep_changes", lscoredb_keep_changes(database_.get(), kLots, 0));
  }
  ~PostgresChangesTest() override { lscoredb_changes_close(reader_); }

  static std::uint64_t Last(Database const& database) {
    lscoredb_kept_changes kept{};
    kept.size = sizeof kept;
    Check("lscoredb_kept", lscoredb_kept(database.get(), &kept));
    return kept.last;
  }
  void OpenReader(Database const& database) {
    Check("lscoredb_changes_open",
          lscoredb_changes_open(database.get(), Last(database), UINT32_MAX, &reader_));
  }
  // The object of the next change, 0 if there is none.
  Oid Next() {
    lscoredb_change const* change = nullptr;
    Check("lscoredb_changes_next", lscoredb_changes_next(reader_, &change));
    return change == nullptr ? 0 : change->object;
  }
  std::uint32_t StatusOfNext() {
    lscoredb_change const* change = nullptr;
    return lscoredb_changes_next(reader_, &change);
  }
  Oid InsertCommitted() {
    session_->Begin();
    Oid const oid = session_->Insert(PairWorld(*session_).layout);
    session_->Commit();
    return oid;
  }
  std::uint64_t RoundTrips() const {
    lscoredb_statistics now{};
    now.size = sizeof now;
    Check("lscoredb_stats", lscoredb_stats(database_.get(), &now));
    return now.round_trips;
  }
  // By the store's own count, to which asking for it adds one.
  std::uint64_t RoundTripsOf(auto const& work) const {
    std::uint64_t const before = RoundTrips();
    work();
    return RoundTrips() - before - 1;
  }

  std::unique_ptr<Database> there_;  // of another machine
  lscoredb_changes* reader_ = nullptr;
};

TEST_F(PostgresChangesTest, Commit_TakesOneRoundTripStill) {
  Oid const row = InsertCommitted();
  InsertCommitted();
  std::uint64_t trips = 0;
  for (int i = 0; i < 100; ++i) {
    session_->Begin();
    session_->PutLong(row, kPairValue, i);
    trips += RoundTripsOf([&] { session_->Commit(); });
  }
  EXPECT_EQ(trips, 102U) << "one of 50 takes two, and removes what need not be kept";
}

TEST_F(PostgresChangesTest, Reading_TakesARoundTripForManyCommits) {
  OpenReader(database_);
  EXPECT_EQ(RoundTripsOf([&] { EXPECT_EQ(Next(), 0U); }), 1U);
  Oids rows;
  for (int i = 0; i < 40; ++i) rows.push_back(InsertCommitted());
  Oids seen;
  EXPECT_EQ(RoundTripsOf([&] {
              while (Oid const row = Next()) seen.push_back(row);
            }),
            2U)
      << "one for all, one that finds no more";
  EXPECT_EQ(rows, seen);
}

TEST_F(PostgresChangesTest, ReaderOfAnotherMachine_WaitsForEachCommit) {
  there_ = std::make_unique<Database>(url_ + "&timeout=31&changes_interval=0.01");
  OpenReader(*there_);
  Oids rows;
  std::thread writer([&] {
    for (int i = 0; i < 20; ++i) rows.push_back(InsertCommitted());
  });
  Oids seen;
  while (seen.size() < 20) {
    std::uint32_t some = 0;
    Check("lscoredb_changes_wait", lscoredb_changes_wait(reader_, -1, &some));
    while (Oid const row = Next()) seen.push_back(row);
  }
  writer.join();
  EXPECT_EQ(rows, seen);
}

TEST_F(PostgresChangesTest, File_IsReadableWhenItIsTimeToAsk) {
  there_ = std::make_unique<Database>(url_ + "&timeout=31&changes_interval=0.05");
  OpenReader(*there_);
  pollfd file{-1, POLLIN, 0};
  Check("lscoredb_changes_file", lscoredb_changes_file(reader_, &file.fd));
  Oid const row = InsertCommitted();
  ASSERT_EQ(poll(&file, 1, -1), 1);
  EXPECT_EQ(Next(), row);
  EXPECT_EQ(Next(), 0U);
  ASSERT_EQ(poll(&file, 1, -1), 1);
}

TEST_F(PostgresChangesTest, ServerThatIsLost_IsFoundAgain) {
  OpenReader(database_);
  Oid const first = InsertCommitted();
  proxy_.Close();
  EXPECT_STATUS(LSCOREDB_SERVER_LOST, StatusOfNext());
  std::uint32_t some = 7;
  EXPECT_STATUS(LSCOREDB_SERVER_LOST, lscoredb_changes_wait(reader_, -1, &some));
  proxy_.Open();
  EXPECT_EQ(Next(), first);
  Oid const second = InsertCommitted();
  EXPECT_EQ(Next(), second);
}

TEST_F(PostgresChangesTest, Wait_EndsByTheWatch) {
  OpenReader(database_);
  std::uint32_t some = 7;
  lscoredb_watch([](void*, std::uint64_t, std::uint64_t) -> std::uint32_t { return 1; }, nullptr);
  EXPECT_STATUS(LSCOREDB_STOPPED, lscoredb_changes_wait(reader_, -1, &some));
  lscoredb_watch(nullptr, nullptr);
  Oid const row = InsertCommitted();
  EXPECT_EQ(Next(), row);
}

TEST_F(PostgresChangesTest, WhoOpensForReading_ReadsChanges) {
  lscoredb_options options{};
  options.size = sizeof options;
  options.access = LSCOREDB_ACCESS_READ;
  there_ = std::make_unique<Database>(url_ + "&timeout=33", options);
  OpenReader(*there_);
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE, lscoredb_keep_changes(there_->get(), 1, 1));
  Oid const row = InsertCommitted();
  EXPECT_EQ(Next(), row);
}

TEST_F(PostgresChangesTest, WhoMayOnlyRead_ReadsChanges) {
  std::string const schema =
      url_.substr(url_.find("schema=") + 7, url_.find("&timeout") - url_.find("schema=") - 7);
  ASSERT_EQ(AskServer("GRANT USAGE ON SCHEMA " + schema +
                      " TO guarded; GRANT SELECT ON ALL TABLES"
                      " IN SCHEMA " +
                      schema + " TO guarded"),
            "");
  there_ = std::make_unique<Database>(
      "postgresql://guarded:secret@/postgres?host=" + ServerDirectory() + "&schema=" + schema);
  OpenReader(*there_);
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, lscoredb_keep_changes(there_->get(), 1, 1));
  Oid const row = InsertCommitted();
  EXPECT_EQ(Next(), row);
}

TEST_F(PostgresChangesTest, Copy_KeepsNothing) {
  std::string const target = lscore::NewServerUrl();
  Check("lscoredb_copy", lscoredb_copy(database_.get(), target.c_str()));
  Database const copy(target);
  lscoredb_kept_changes kept{};
  kept.size = sizeof kept;
  EXPECT_STATUS(LSCOREDB_NO_CHANGES, lscoredb_kept(copy.get(), &kept));
}

}  // namespace
}  // namespace lscoredb_test
