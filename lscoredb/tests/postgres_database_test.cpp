// Databases on a server as hosts use them, and what becomes of them when the connection fails.

#include <atomic>
#include <cstdlib>
#include <memory>
#include <set>

#include "postgres_url.h"
#include "process_world.h"
#include "server_proxy.h"

namespace lscoredb_test {
namespace {

std::string ServerDirectory() {
  std::string const url = std::getenv("SAGLEME_TEST_POSTGRES");
  std::size_t const begin = url.find("host=") + 5;
  return url.substr(begin, url.find('&', begin) - begin);
}

// Two openers that differ in their URL have nothing in common but the server, as two machines.
class PostgresTest : public testing::Test {
 protected:
  std::string const url_ = lscore::NewServerUrl();
  Database here_{url_ + "&timeout=31"};
  Database there_{url_ + "&timeout=32"};
  Session session_{here_};
  Session other_{there_};
};

TEST_F(PostgresTest, Opener_SeesCommitsOfAnother) {
  Oid const first = CommitPair(session_, 7);
  other_.Begin();
  EXPECT_EQ(other_.Long(first, kPairValue), 7);
  other_.PutLong(first, kPairValue, 8);
  other_.Commit();
  session_.BeginReadOnly();
  EXPECT_EQ(session_.Long(first, kPairValue), 8);
}

TEST_F(PostgresTest, FirstCommitter_Wins) {
  Oid const first = CommitPair(session_, 7);
  session_.Begin();
  other_.Begin();
  session_.PutLong(first, kPairValue, 1);
  other_.PutLong(first, kPairValue, 2);
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, other_.TryCommit());
}

TEST_F(PostgresTest, LayoutsOfTwoOpeners_NeverShareANumber) {
  std::set<LayoutId> numbers;
  for (std::uint64_t i = 0; i < 40; ++i) {
    Session& session = i % 2 == 0 ? session_ : other_;
    session.Begin();
    numbers.insert(session.CreateLayout(1000 + i, {{LORV_TYPE_LONG, kPairValueToken}}));
    if (i % 3 == 0) session.Commit();
    if (i % 3 != 0) session.Rollback();
  }
  EXPECT_EQ(numbers.size(), 40U);
}

TEST_F(PostgresTest, ObjectsOfTwoOpeners_NeverShareAnId) {
  std::set<Oid> ids;
  for (int i = 0; i < 20; ++i) ids.insert(CommitPair(i % 2 == 0 ? session_ : other_, i));
  EXPECT_EQ(ids.size(), 20U);
}

TEST_F(PostgresTest, ReadOnlyRequest_OpensReadOnly) {
  Oid const first = CommitPair(session_, 7);
  lscoredb_options options{};
  options.size = sizeof options;
  options.access = LSCOREDB_ACCESS_READ;
  std::string const url = url_ + "&timeout=33";
  Database const reader(url, options);
  Session session(reader);
  session.Begin();
  EXPECT_EQ(session.Long(first, kPairValue), 7);
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE,
                lorv_context_put_long(session.context(), first, 0, kPairValue, 8));
  session.Commit();
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE, lscoredb_raise_ids(reader.get(), 1000000));
  session_.Begin();
  session_.PutLong(first, kPairValue, 8);
  session_.Commit();
  session.BeginReadOnly();
  EXPECT_EQ(session.Long(first, kPairValue), 8) << "a reader sees what others commit";
  options.access = LSCOREDB_ACCESS_WRITE;
  lscoredb* database = nullptr;
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE, lscoredb_open(url.c_str(), &options, &database));
}

TEST_F(PostgresTest, Reading_CreatesNoTables) {
  std::string const url = lscore::NewServerUrl();
  lscoredb_options options{};
  options.size = sizeof options;
  options.access = LSCOREDB_ACCESS_READ;
  lscoredb* database = nullptr;
  EXPECT_STATUS(LSCOREDB_NOT_A_DATABASE, lscoredb_open(url.c_str(), &options, &database));
  std::uint32_t found = 7;
  EXPECT_STATUS(0, lscoredb_exists(url.c_str(), &found));
  EXPECT_EQ(found, 0U);
}

TEST_F(PostgresTest, Exists_SaysWhetherThereIsADatabase) {
  std::uint32_t found = 7;
  EXPECT_STATUS(0, lscoredb_exists(url_.c_str(), &found));
  EXPECT_EQ(found, 1U);
  EXPECT_STATUS(0, lscoredb_exists(lscore::NewServerUrl().c_str(), &found));
  EXPECT_EQ(found, 0U);
}

TEST_F(PostgresTest, Copies_GoToAServerAndBack) {
  Oid const first = CommitPair(session_, 7);
  TemporaryDirectory const directory;
  std::string const copy = directory / "copy";
  ASSERT_EQ(0U, lscoredb_copy(here_.get(), copy.c_str()));
  std::string const back = lscore::NewServerUrl();
  Database const local(copy);
  ASSERT_EQ(0U, lscoredb_copy(local.get(), back.c_str()));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, lscoredb_copy(local.get(), back.c_str()));
  for (std::string const& place : {copy, back}) {
    Database const database(place);
    Session session(database);
    session.BeginReadOnly();
    EXPECT_EQ(session.Long(first, kPairValue), 7) << place;
    session.Rollback();
    EXPECT_NE(CommitPair(session, 8), first);
  }
}

TEST(PostgresOpenTest, RefusalOfTheServer_GivesItsReason) {
  std::string const url = "postgresql:///no_such_database?user=sagleme&host=" + ServerDirectory();
  lscoredb* database = nullptr;
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, lscoredb_open(url.c_str(), nullptr, &database));
  EXPECT_NE(std::string(lscoredb_open_error()).find("no_such_database"), std::string::npos);
  EXPECT_STATUS(LSCOREDB_SERVER_LOST,
                lscoredb_open("postgresql:///x?host=/nowhere", nullptr, &database));
  for (char const* const bad : {"schema=", "timeout=never", "timeout=-1", "schema=%zz"}) {
    std::string const with_bad = url + "&" + bad;
    EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, lscoredb_open(with_bad.c_str(), nullptr, &database)) << bad;
  }
}

class PostgresProxyTest : public testing::Test {
 protected:
  PostgresProxyTest() { CommitPair(*session_, 1); }

  static std::string UrlThrough(std::string const& directory) {
    std::string url = lscore::NewServerUrl();
    std::string const server = ServerDirectory();
    return url.replace(url.find(server), server.size(), directory) + "&timeout=5";
  }

  // The status of a commit that creates an object, and whether others see that object.
  std::uint32_t CommitObject(bool* seen) {
    session_->Begin();
    Oid const row = session_->Insert(PairWorld(*session_).layout);
    std::uint32_t const status = session_->TryCommit();
    EXPECT_TRUE(proxy_.has_cut());
    proxy_.Open();
    Database const direct(url_ + "&timeout=6");
    Session reader(direct);
    reader.BeginReadOnly();
    std::int64_t value = 0;
    *seen = lorv_context_get_long(reader.context(), row, 0, kPairValue, &value) !=
            LORV_STATUS_NO_OBJECT;
    return status;
  }

  TemporaryDirectory const directory_;
  ServerProxy proxy_{ServerDirectory(), directory_.path()};
  std::string const url_ = UrlThrough(directory_.path());
  Database database_{url_};
  std::unique_ptr<Session> session_ = std::make_unique<Session>(database_);
};

TEST_F(PostgresProxyTest, WarmReads_NeedNoRoundTripAndColdOnesNeedOne) {
  Oid const row = CommitPair(*session_, 2);
  std::uint64_t const before = proxy_.round_trips();
  session_->BeginReadOnly();
  EXPECT_EQ(proxy_.round_trips() - before, 1U);
  EXPECT_EQ(session_->Long(row, kPairValue), 2);
  EXPECT_EQ(proxy_.round_trips() - before, 2U);
  EXPECT_EQ(session_->Long(row, kPairValue), 2);
  session_->Rollback();
  EXPECT_EQ(proxy_.round_trips() - before, 2U);
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Long(row, kPairValue), 2);
  EXPECT_EQ(proxy_.round_trips() - before, 3U);
}

TEST_F(PostgresProxyTest, Commit_TakesTwoRoundTrips) {
  Oid const row = CommitPair(*session_, 2);
  session_->Begin();
  session_->PutLong(row, kPairValue, 4);
  std::uint64_t before = proxy_.round_trips();
  session_->Commit();
  EXPECT_EQ(proxy_.round_trips() - before, 2U);
  session_->Begin();
  PairWorld const world(*session_);
  session_->PutLong(session_->Insert(world.layout), kPairValue, 5);
  before = proxy_.round_trips();
  session_->Commit();
  EXPECT_EQ(proxy_.round_trips() - before, 2U);
}

TEST_F(PostgresProxyTest, RowsInMemory_OutliveCommitsOfOthers) {
  Oid const row = CommitPair(*session_, 2);
  session_->BeginReadOnly();
  session_->Long(row, kPairValue);
  session_->Rollback();
  {
    Database const direct(url_ + "&timeout=6");
    Session other(direct);
    CommitPair(other, 3);
  }
  std::uint64_t const before = proxy_.round_trips();
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Long(row, kPairValue), 2);
  EXPECT_EQ(proxy_.round_trips() - before, 1U);
}

TEST_F(PostgresProxyTest, CommitWhoseReplyIsLost_IsFoundToHaveSucceeded) {
  proxy_.CutNext(Cut::kAfterCommit);
  bool seen = false;
  EXPECT_STATUS(0, CommitObject(&seen));
  EXPECT_TRUE(seen);
}

TEST_F(PostgresProxyTest, CommitThatNobodyCanQuery_IsLeftOpen) {
  proxy_.CutNext(Cut::kAndClose);
  bool seen = false;
  EXPECT_STATUS(LSCOREDB_COMMIT_UNKNOWN, CommitObject(&seen));
  EXPECT_TRUE(seen);
}

TEST_F(PostgresProxyTest, CommitThatDidNotArrive_IsRefused) {
  proxy_.CutNext(Cut::kBeforeCommit);
  bool seen = true;
  EXPECT_STATUS(LSCOREDB_SERVER_LOST, CommitObject(&seen));
  EXPECT_FALSE(seen);
}

TEST_F(PostgresProxyTest, CutConnections_AreReplaced) {
  proxy_.Close();
  EXPECT_STATUS(LSCOREDB_SERVER_LOST, lscoredb_begin(session_->context(), LSCOREDB_READ_WRITE));
  proxy_.Open();
  Oid const row = CommitPair(*session_, 5);
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Long(row, kPairValue), 5);
}

TEST_F(PostgresProxyTest, SnapshotThatLosesItsConnection_SaysSo) {
  Oid const row = CommitPair(*session_, 5);
  session_->BeginReadOnly();
  proxy_.Close();
  std::int64_t value = 0;
  EXPECT_STATUS(LSCOREDB_SERVER_LOST,
                lorv_context_get_long(session_->context(), row, 0, kPairValue, &value));
  proxy_.Open();
  session_->Rollback();
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Long(row, kPairValue), 5);
}

}  // namespace
}  // namespace lscoredb_test
