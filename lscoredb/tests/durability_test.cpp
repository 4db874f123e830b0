// When commits reach the disk, as lscoredb/durability.h says: by the statistics of the database.

#include <lscoredb/durability.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "kernel_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kToken = 500;
constexpr std::uint32_t kHour = 3'600'000;

lscoredb_options With(std::uint32_t durability, std::uint32_t log) {
  lscoredb_options options = DefaultOptions();
  options.durability = durability;
  options.log = log;
  return options;
}

void SyncWithin(Database const& database, std::uint32_t milliseconds) {
  Check("sync within", lscoredb_sync_within(database.get(), milliseconds));
}

// A database with a log whose commits are synced so much later.
class LateDatabase : public Database {
 public:
  LateDatabase(std::string const& place, std::uint32_t milliseconds)
      : Database(place, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG)) {
    SyncWithin(*this, milliseconds);
  }
};

lscoredb_statistics StatisticsOf(Database const& database) {
  lscoredb_statistics statistics{};
  statistics.size = sizeof statistics;
  Check("stats", lscoredb_stats(database.get(), &statistics));
  return statistics;
}

std::uint64_t SyncedCommit(Database const& database) {
  std::uint64_t commit = 0;
  Check("synced commit", lscoredb_synced_commit(database.get(), &commit));
  return commit;
}

bool AllIsSynced(Database const& database) {
  std::uint64_t const last = StatisticsOf(database).last_commit;
  return SyncedCommit(database) >= last;
}

// Only a thread of the kernel can bring this about.
void AwaitSync(Database const& database) {
  while (!AllIsSynced(database)) std::this_thread::yield();
}

void Write(Session& session) {
  static std::uint64_t token = kToken;
  session.Begin();
  session.CreateLayout(++token, {});
}

void CommitOne(Database const& database, std::uint32_t flags = 0) {
  Session session(database);
  Write(session);
  EXPECT_STATUS(0, lscoredb_commit_flags(session.context(), flags));
}

std::set<std::string> ThreadsOfProcess() {
  std::set<std::string> threads;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    threads.insert(entry.path().filename());
  }
  return threads;
}

std::string LineOf(std::string const& path, std::string const& name) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name)) return line.substr(line.find_last_of("\t ") + 1);
  }
  return "";
}

class DurabilityTest : public testing::Test {
 protected:
  TemporaryDirectory directory_;
  std::string place_ = directory_ / "db";
};

TEST_F(DurabilityTest, Delay_IsChecked) {
  Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
  for (std::uint32_t const delay : {0u, kHour + 1}) {
    EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_sync_within(database.get(), delay));
  }
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_sync_within(nullptr, 1));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_synced_commit(database.get(), nullptr));
  EXPECT_STATUS(0, lscoredb_sync_within(database.get(), kHour));
}

TEST_F(DurabilityTest, UnknownFlag_IsRefusedAndLeavesTheTransactionOpen) {
  Database const database(place_);
  Session session(database);
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_commit_flags(session.context(), 0));
  Write(session);
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_commit_flags(session.context(), 2));
  EXPECT_STATUS(0, lscoredb_commit_flags(session.context(), 0));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_commit_flags(0, 0));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_sync(nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_checkpoint(nullptr));
}

TEST_F(DurabilityTest, DatabaseInMemory_TakesAllCalls) {
  Database const database;
  SyncWithin(database, 1);
  CommitOne(database, LSCOREDB_COMMIT_SYNC);
  EXPECT_STATUS(0, lscoredb_sync(database.get()));
  EXPECT_STATUS(0, lscoredb_checkpoint(database.get()));
  EXPECT_EQ(0u, SyncedCommit(database));
}

TEST_F(DurabilityTest, TransactionThatRequiresASync_IsSyncedByAnyCommit) {
  Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
  Session session(database);
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_require_sync(session.context()));
  Write(session);
  EXPECT_STATUS(0, lscoredb_require_sync(session.context()));
  session.Commit();
  EXPECT_TRUE(AllIsSynced(database));
  Write(session);
  EXPECT_STATUS(0, lscoredb_require_sync(session.context()));
  session.Rollback();
  Write(session);
  session.Commit();
  EXPECT_FALSE(AllIsSynced(database)) << "it ended with its transaction";
}

// Without another call of the process.
TEST_F(DurabilityTest, LateCommit_IsSyncedByItself) {
  LateDatabase const database(place_, 1);
  for (int i = 0; i < 20; ++i) {
    CommitOne(database);
    AwaitSync(database);
  }
}

TEST_F(DurabilityTest, LateCommit_ReturnsUnsynced) {
  LateDatabase const database(place_, kHour);
  CommitOne(database);
  EXPECT_FALSE(AllIsSynced(database));
  CommitOne(database, LSCOREDB_COMMIT_SYNC);
  EXPECT_TRUE(AllIsSynced(database));
  CommitOne(database);
  EXPECT_FALSE(AllIsSynced(database));
  EXPECT_STATUS(0, lscoredb_sync(database.get()));
  EXPECT_TRUE(AllIsSynced(database));
}

TEST_F(DurabilityTest, TransactionThatWroteNothing_SyncsWhatIsThere) {
  Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
  CommitOne(database);
  EXPECT_FALSE(AllIsSynced(database));
  Session session(database);
  session.BeginReadOnly();
  EXPECT_STATUS(0, lscoredb_commit_flags(session.context(), 0));
  EXPECT_FALSE(AllIsSynced(database));
  session.BeginReadOnly();
  EXPECT_STATUS(0, lscoredb_commit_flags(session.context(), LSCOREDB_COMMIT_SYNC));
  EXPECT_TRUE(AllIsSynced(database));
}

// Each commit of a database without a log is synced, however late it might be.
TEST_F(DurabilityTest, DatabaseWithoutALog_SyncsEachCommitAtOnce) {
  std::set<std::string> const before = ThreadsOfProcess();
  Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_NO_LOG));
  SyncWithin(database, kHour);
  CommitOne(database);
  EXPECT_TRUE(AllIsSynced(database));
  EXPECT_EQ(before, ThreadsOfProcess());
  EXPECT_STATUS(0, lscoredb_checkpoint(database.get()));
}

TEST_F(DurabilityTest, DatabaseWithoutALogOrSync_DoesNotKnowWhatIsSynced) {
  Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_NO_LOG));
  CommitOne(database, LSCOREDB_COMMIT_SYNC);
  EXPECT_STATUS(0, lscoredb_sync(database.get()));
  EXPECT_EQ(0u, SyncedCommit(database));
}

TEST_F(DurabilityTest, OneThread_WorksWhileALateDatabaseIsOpenAndTakesNoSignals) {
  std::set<std::string> const before = ThreadsOfProcess();
  {
    Database const fast(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
    EXPECT_EQ(before, ThreadsOfProcess());
    LateDatabase const late(place_, kHour);
    LateDatabase const again(place_, 1);
    std::set<std::string> now = ThreadsOfProcess();
    for (std::string const& thread : before) now.erase(thread);
    ASSERT_EQ(1u, now.size());
    std::string const blocked = LineOf("/proc/self/task/" + *now.begin() + "/status", "SigBlk:");
    for (int const signal : {SIGINT, SIGTERM, SIGALRM, SIGUSR1, SIGPROF}) {
      EXPECT_TRUE((std::stoull(blocked, nullptr, 16) >> (signal - 1) & 1) != 0) << signal;
    }
  }
  EXPECT_EQ(before, ThreadsOfProcess());
}

TEST_F(DurabilityTest, StricterHandle_HoldsForAllOfTheProcess) {
  Database const fast(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
  CommitOne(fast);
  EXPECT_FALSE(AllIsSynced(fast));
  LateDatabase const late(place_, kHour);
  CommitOne(fast);
  EXPECT_FALSE(AllIsSynced(fast));
  LateDatabase const sooner(place_, 1);
  AwaitSync(fast);
  CommitOne(fast);
  AwaitSync(fast);
  Database const durable(place_, DefaultOptions());
  CommitOne(fast);
  EXPECT_TRUE(AllIsSynced(fast));
  LateDatabase const late_again(place_, kHour);
  CommitOne(late_again);
  EXPECT_TRUE(AllIsSynced(late_again));
}

// Beside another process, so that closing does not write everything into the data file anyway.
TEST_F(DurabilityTest, LastClose_SyncsWhatIsLeft) {
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
    test.Say();
    test.Hear();
    EXPECT_TRUE(AllIsSynced(database));
    EXPECT_TRUE(std::filesystem::exists(place_ + "/log-0"));
  });
  {
    LateDatabase const database(place_, kHour);
    CommitOne(database);
    other.Say();
    other.Hear();
    CommitOne(database);
    EXPECT_FALSE(AllIsSynced(database));
  }
  other.Say();
  other.ExpectGoodEnd();
}

TEST_F(DurabilityTest, Sync_IncludesCommitsOfOtherProcesses) {
  OtherProcess other([&](OtherProcess& test) {
    test.Hear();
    Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
    CommitOne(database);
    EXPECT_FALSE(AllIsSynced(database));
    test.Say();
    test.Hear();
    EXPECT_TRUE(AllIsSynced(database));
  });
  Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
  CommitOne(database);
  other.Say();
  other.Hear();
  EXPECT_STATUS(0, lscoredb_sync(database.get()));
  EXPECT_TRUE(AllIsSynced(database));
  other.Say();
  other.ExpectGoodEnd();
}

TEST_F(DurabilityTest, ForkedChild_HasNoThreadAndLeavesTheParentsAlone) {
  LateDatabase const database(place_, 1);
  InAnotherProcess([&] {
    EXPECT_EQ(1u, ThreadsOfProcess().size());
    EXPECT_STATUS(LSCOREDB_OF_PARENT, lscoredb_sync(database.get()));
    EXPECT_STATUS(LSCOREDB_OF_PARENT, lscoredb_checkpoint(database.get()));
    LateDatabase const own(place_, 1);
    CommitOne(own);
    AwaitSync(own);
  });
  CommitOne(database);
  AwaitSync(database);
}

TEST_F(DurabilityTest, Checkpoint_EmptiesTheLogBesideWriters) {
  Database const database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG));
  EXPECT_STATUS(0, lscoredb_checkpoint(database.get()));
  std::thread host([&] {
    for (int i = 0; i < 30; ++i) EXPECT_STATUS(0, lscoredb_checkpoint(database.get()));
  });
  for (int i = 0; i < 100; ++i) CommitOne(database);
  host.join();
  CommitOne(database);
  EXPECT_NE(0u, StatisticsOf(database).log_size);
  EXPECT_STATUS(0, lscoredb_checkpoint(database.get()));
  EXPECT_EQ(0u, StatisticsOf(database).log_size);
  EXPECT_TRUE(AllIsSynced(database));
  CommitOne(database);
}

TEST_F(DurabilityTest, DatabaseOpenedToRead_IsNotSyncedAndHasNoCheckpoint) {
  { CommitOne(Database(place_, With(LSCOREDB_NO_SYNC, LSCOREDB_LOG))); }
  lscoredb_options options = With(LSCOREDB_DURABLE, LSCOREDB_LOG);
  options.access = LSCOREDB_ACCESS_READ;
  std::set<std::string> const before = ThreadsOfProcess();
  Database const database(place_, options);
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE, lscoredb_sync_within(database.get(), 1));
  EXPECT_EQ(before, ThreadsOfProcess());
  EXPECT_STATUS(0, lscoredb_sync(database.get()));
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE, lscoredb_checkpoint(database.get()));
  Session session(database);
  session.BeginReadOnly();
  EXPECT_STATUS(0, lscoredb_commit_flags(session.context(), LSCOREDB_COMMIT_SYNC));
}

}  // namespace
}  // namespace lscoredb_test
