// Waits for a server that does not answer: who can stop them, and what they leave.

#include <lscoredb/server.h>
#include <lscoredb/watch.h>

#include <atomic>
#include <thread>

#include "stopper.h"

namespace lscoredb_test {
namespace {

class PostgresWaitsTest : public StoppedWaitsTest {
 protected:
  std::uint32_t TryRead(Oid row, std::int64_t* value) {
    return lorv_context_get_long(session_->context(), row, 0, kPairValue, value);
  }
  std::size_t CountPairs() {
    session_->BeginReadOnly();
    std::size_t const count = session_->Scan(PairWorld(*session_).index).size();
    session_->Rollback();
    return count;
  }
};

TEST_F(PostgresWaitsTest, StoppedRead_LeavesTheTransactionAsItWas) {
  Oid const row = CommitPair(*session_, 5);
  Oid const other = CommitPair(*session_, 6);
  session_->BeginReadOnly();
  std::int64_t value = 0;
  EXPECT_STATUS(LSCOREDB_STOPPED, Stopped([&] { return TryRead(row, &value); }));
  EXPECT_EQ(session_->Long(other, kPairValue), 6);
  EXPECT_EQ(session_->Long(row, kPairValue), 5);
  session_->Rollback();
  EXPECT_EQ(CountPairs(), 6U);
}

TEST_F(PostgresWaitsTest, ReadAfterAStoppedOne_CanBeStoppedToo) {
  Oid const row = CommitPair(*session_, 5);
  Oid const other = CommitPair(*session_, 6);
  session_->Begin();
  std::int64_t value = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_STATUS(LSCOREDB_STOPPED, Stopped([&] { return TryRead(row, &value); }));
  }
  session_->PutLong(other, kPairValue, 7);
  session_->Commit();
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Long(other, kPairValue), 7);
}

TEST_F(PostgresWaitsTest, RollbackAfterAStoppedRead_WaitsForNothing) {
  Oid const row = CommitPair(*session_, 5);
  session_->BeginReadOnly();
  std::int64_t value = 0;
  EXPECT_STATUS(LSCOREDB_STOPPED, Stopped([&] {
                  std::uint32_t const status = TryRead(row, &value);
                  session_->Rollback();
                  return status;
                }));
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Long(row, kPairValue), 5);
}

TEST_F(PostgresWaitsTest, StoppedBegin_BeginsNothing) {
  EXPECT_STATUS(LSCOREDB_STOPPED,
                Stopped([&] { return lscoredb_begin(session_->context(), LSCOREDB_READ_WRITE); }));
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_rollback(session_->context()));
  EXPECT_NE(CommitPair(*session_, 5), 0U);
}

// A change of the schema waits for its turn before it is sent.
TEST_F(PostgresWaitsTest, CommitStoppedBeforeItIsSent_CommitsNothing) {
  std::size_t const before = CountPairs();
  session_->Begin();
  session_->PutLong(session_->Insert(PairWorld(*session_).layout), kPairValue, 5);
  session_->CreateLayout(kPairTable + 1, {{LORV_TYPE_LONG, kPairValueToken}});
  EXPECT_STATUS(LSCOREDB_STOPPED, Stopped([&] { return session_->TryCommit(); }));
  EXPECT_EQ(CountPairs(), before);
  CommitPair(*session_, 5);
  EXPECT_EQ(CountPairs(), before + 2);
}

// The watch would stop it at once if it were asked.
TEST_F(PostgresWaitsTest, CommitThatWasSent_IsWaitedFor) {
  Oid const row = CommitPair(*session_, 5);
  session_->Begin();
  session_->PutLong(row, kPairValue, 6);
  Stopper stopper;
  stopper.Stop();
  proxy_.CutNext(Cut::kAndFreeze);
  std::thread other([&] {
    while (!proxy_.frozen()) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    proxy_.Thaw();
  });
  EXPECT_STATUS(0, session_->TryCommit());
  other.join();
  EXPECT_EQ(stopper.asked(), 0);
  lscoredb_watch(nullptr, nullptr);
  session_->BeginReadOnly();
  EXPECT_EQ(session_->Long(row, kPairValue), 6);
}

TEST_F(PostgresWaitsTest, StoppedQuestionForAnOutcome_LeavesItOpen) {
  session_->Begin();
  session_->Insert(PairWorld(*session_).layout);
  proxy_.CutNext(Cut::kAndClose);
  EXPECT_STATUS(LSCOREDB_COMMIT_UNKNOWN, session_->TryCommit());
  proxy_.Open();
  std::uint32_t committed = 7;
  EXPECT_STATUS(LSCOREDB_COMMIT_UNKNOWN,
                Stopped([&] { return lscoredb_commit_outcome(session_->context(), &committed); }));
  EXPECT_STATUS(0, lscoredb_commit_outcome(session_->context(), &committed));
  EXPECT_EQ(committed, 1U);
}

TEST_F(PostgresWaitsTest, StoppedOpening_OpensNothing) {
  std::string const url = url_ + "&timeout=6";
  lscoredb* database = nullptr;
  EXPECT_STATUS(LSCOREDB_STOPPED,
                Stopped([&] { return lscoredb_open(url.c_str(), nullptr, &database); }));
  std::uint32_t found = 7;
  EXPECT_STATUS(LSCOREDB_STOPPED, Stopped([&] { return lscoredb_exists(url.c_str(), &found); }));
  EXPECT_STATUS(0, lscoredb_open(url.c_str(), nullptr, &database));
  EXPECT_STATUS(0, lscoredb_close(database));
}

TEST_F(PostgresWaitsTest, WaitForACreator_CanBeStopped) {
  Database const other(url_ + "&timeout=6");
  EXPECT_STATUS(0, lscoredb_lock_creation(other.get()));
  {
    Stopper stopper;
    stopper.Stop();
    EXPECT_STATUS(LSCOREDB_STOPPED, lscoredb_lock_creation(database_.get()));
  }
  EXPECT_STATUS(0, lscoredb_unlock_creation(other.get()));
  EXPECT_STATUS(0, lscoredb_lock_creation(database_.get()));
}

TEST_F(PostgresWaitsTest, SilentServer_IsLostWhenTheTimeIsOver) {
  Oid const row = CommitPair(*session_, 5);
  Database const hasty(url_ + "&timeout=1");
  Session session(hasty);
  std::int64_t value = 0;
  session.BeginReadOnly();
  proxy_.Freeze();
  EXPECT_STATUS(LSCOREDB_SERVER_LOST,
                lorv_context_get_long(session.context(), row, 0, kPairValue, &value));
  session.Rollback();
  EXPECT_STATUS(LSCOREDB_SERVER_LOST, lscoredb_begin(session.context(), LSCOREDB_READ_WRITE));
  proxy_.Thaw();
  session.Begin();
  session.PutLong(row, kPairValue, 6);
  proxy_.CutNext(Cut::kAndFreeze);
  EXPECT_STATUS(LSCOREDB_COMMIT_UNKNOWN, session.TryCommit());
  proxy_.Thaw();
  std::uint32_t committed = 7;
  EXPECT_STATUS(0, lscoredb_commit_outcome(session.context(), &committed));
  EXPECT_EQ(committed, 1U);
}

}  // namespace
}  // namespace lscoredb_test
