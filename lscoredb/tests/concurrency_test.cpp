// Many contexts in many threads. Threads meet at barriers; nothing here waits for time to pass.

#include <atomic>
#include <barrier>
#include <numeric>
#include <set>
#include <thread>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kValue = 2;
constexpr std::uint64_t kValueToken = 100;

class ConcurrencyTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kValueToken}});
    by_value_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kValueToken}});
    row_ = NewRow(session_, 0);
    session_.Commit();
  }

  Oid NewRow(Session& session, std::int64_t value) const {
    Oid const oid = session.Insert(layout_);
    session.PutLong(oid, kValue, value);
    return oid;
  }

  // Runs `body` in transactions until one of them commits.
  static void Retry(Session& session, std::function<void()> const& body) {
    std::uint32_t status = LSCOREDB_CONFLICT;
    while (status == LSCOREDB_CONFLICT) {
      session.Begin();
      body();
      status = session.TryCommit();
    }
    Check("commit", status);
  }

  LayoutId layout_ = 0;
  IndexId by_value_ = 0;
  Oid row_ = 0;
};

// Each thread inserts `commits` rows under `layout`, one a transaction; all of them are there
// afterwards.
void ExpectAllCommitsKept(Database& database, LayoutId layout, IndexId index, int commits) {
  constexpr int kThreads = 8;
  std::barrier start(kThreads);
  std::vector<Oids> inserted(kThreads);
  InParallel(kThreads, [&](int thread) {
    Session session(database);
    start.arrive_and_wait();
    for (int i = 0; i < commits; ++i) {
      session.Begin();
      inserted[static_cast<std::size_t>(thread)].push_back(session.Insert(layout));
      session.PutLong(inserted[static_cast<std::size_t>(thread)].back(), kValue, thread);
      session.Commit();
    }
  });
  Session session(database);
  session.BeginReadOnly();
  std::set<Oid> distinct;
  for (int thread = 0; thread < kThreads; ++thread) {
    Key const key = Key().Long(thread);
    Oids const found = session.Scan(index, key, key);
    Oids expected = inserted[static_cast<std::size_t>(thread)];
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(found, expected);
    distinct.insert(found.begin(), found.end());
  }
  EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kThreads * commits));
  EXPECT_FALSE(distinct.contains(0));
}

TEST(GroupCommitTest, CommitsOfManyThreads_AreAllKept) {
  TemporaryDirectory directory;
  Database database(directory.path(), DefaultOptions());
  LayoutId layout = 0;
  IndexId index = 0;
  {
    Session session(database);
    session.Begin();
    layout = session.CreateLayout(50, {{LORV_TYPE_LONG, kValueToken}});
    index = session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kValueToken}});
    session.Commit();
  }
  ExpectAllCommitsKept(database, layout, index, 20);
}

TEST(GroupCommitTest, InMemory_CommitsOfManyThreadsAreAllKept) {
  Database database;
  LayoutId layout = 0;
  IndexId index = 0;
  {
    Session session(database);
    session.Begin();
    layout = session.CreateLayout(50, {{LORV_TYPE_LONG, kValueToken}});
    index = session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kValueToken}});
    session.Commit();
  }
  ExpectAllCommitsKept(database, layout, index, 100);
}

TEST_F(ConcurrencyTest, Increments_AreNeverLost) {
  constexpr int kThreads = 4;
  constexpr int kIncrements = 50;
  InParallel(kThreads, [&](int) {
    Session session(database_);
    for (int i = 0; i < kIncrements; ++i)
      Retry(session, [&] { session.PutLong(row_, kValue, *session.Long(row_, kValue) + 1); });
  });
  session_.Begin();
  EXPECT_EQ(session_.Long(row_, kValue), kThreads * kIncrements);
}

TEST_F(ConcurrencyTest, TwoWritersOfOneRow_ExactlyOneCommits) {
  constexpr int kRounds = 50;
  std::barrier meet(2);
  std::atomic<int> committed = 0;
  std::atomic<int> refused = 0;
  InParallel(2, [&](int thread) {
    Session session(database_);
    for (int i = 0; i < kRounds; ++i) {
      session.Begin();
      meet.arrive_and_wait();
      session.PutLong(row_, kValue, thread);
      meet.arrive_and_wait();
      std::uint32_t const status = session.TryCommit();
      ++(status == LORV_STATUS_OK ? committed : refused);
      EXPECT_TRUE(status == LORV_STATUS_OK || status == LSCOREDB_CONFLICT) << status;
      meet.arrive_and_wait();
    }
  });
  EXPECT_EQ(committed, kRounds);
  EXPECT_EQ(refused, kRounds);
}

TEST_F(ConcurrencyTest, TwoWritersOfOneUniqueKey_ExactlyOneCommits) {
  session_.Begin();
  IndexId const unique = session_.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kValueToken}}, kUnique);
  session_.Commit();
  constexpr int kRounds = 50;
  std::barrier meet(2);
  std::atomic<int> committed = 0;
  InParallel(2, [&](int) {
    Session session(database_);
    for (int i = 1; i <= kRounds; ++i) {
      session.Begin();
      meet.arrive_and_wait();
      NewRow(session, i);
      meet.arrive_and_wait();
      std::uint32_t const status = session.TryCommit();
      if (status == LORV_STATUS_OK) ++committed;
      EXPECT_TRUE(status == LORV_STATUS_OK || status == LSCOREDB_DUPLICATE_KEY) << status;
      meet.arrive_and_wait();
    }
  });
  EXPECT_EQ(committed, kRounds);
  session_.Begin();
  EXPECT_EQ(session_.Scan(unique).size(), kRounds + 1U);
}

// Money moves between two rows; a reader never sees any of it twice or gone, by row or by index.
TEST_F(ConcurrencyTest, Readers_SeeWholeTransactions) {
  session_.Begin();
  Oid const other = NewRow(session_, 1000);
  session_.Commit();
  constexpr int kReaders = 2;
  constexpr std::size_t kStates = 20;  // that each reader sees
  std::atomic<int> reading = kReaders;
  InParallel(1 + kReaders, [&](int thread) {
    Session session(database_);
    // Up to the middle and back, so that the order of the rows stays.
    for (std::int64_t i = 0; thread == 0 && reading > 0; ++i) {
      std::int64_t const moved = i / 400 % 2 == 0 ? 1 : -1;
      session.Begin();
      session.PutLong(row_, kValue, *session.Long(row_, kValue) + moved);
      session.PutLong(other, kValue, *session.Long(other, kValue) - moved);
      session.Commit();
    }
    std::set<std::int64_t> states;
    while (thread != 0 && states.size() < kStates) {
      session.BeginReadOnly();
      states.insert(*session.Long(row_, kValue));
      EXPECT_EQ(*session.Long(row_, kValue) + *session.Long(other, kValue), 1000);
      EXPECT_EQ(session.Scan(by_value_), (Oids{row_, other}));
      session.Commit();
    }
    if (thread != 0) --reading;
  });
}

// The index comes from the snapshot and the row from wherever rows are kept: the two have to be of
// one age, and no younger transaction may see an older one.
TEST_F(ConcurrencyTest, Rows_AreNeitherOlderNorYoungerThanTheirSnapshot) {
  constexpr std::int64_t kLast = 300;
  InParallel(4, [&](int thread) {
    Session session(database_);
    std::int64_t seen = 0;
    while (seen < kLast) {
      if (thread == 0) {
        session.Begin();
        session.PutLong(row_, kValue, ++seen);
        session.Commit();
        continue;
      }
      session.BeginReadOnly();
      std::int64_t const value = *session.Long(row_, kValue);
      EXPECT_GE(value, seen);
      EXPECT_EQ(session.At(by_value_, Key().Long(value)), Oids{row_});
      EXPECT_EQ(session.Scan(by_value_), Oids{row_});
      session.Commit();
      seen = value;
    }
  });
}

TEST_F(ConcurrencyTest, TransactionBegunAfterACommitReturned_SeesIt) {
  std::barrier meet(2);
  InParallel(2, [&](int thread) {
    Session session(database_);
    for (int i = 1; i <= 100; ++i) {
      bool const writes = (i + thread) % 2 == 0;
      if (writes) {
        session.Begin();
        session.PutLong(row_, kValue, i);
        session.Commit();
      }
      meet.arrive_and_wait();
      session.BeginReadOnly();
      EXPECT_EQ(session.Long(row_, kValue), i);
      session.Commit();
      meet.arrive_and_wait();
    }
  });
}

TEST_F(ConcurrencyTest, OneDirectory_IsOpenedAndClosedByManyThreads) {
  TemporaryDirectory directory;
  InParallel(4, [&](int thread) {
    for (int i = 0; i < 10; ++i) {
      Database database(directory.path());
      Session session(database);
      session.Begin();
      session.CreateLayout(static_cast<std::uint64_t>(1000 + thread * 10 + i), {});
      session.Commit();
    }
  });
  Database database(directory.path());
  Session session(database);
  session.Begin();
  for (std::uint64_t token = 1000; token < 1040; ++token)
    EXPECT_EQ(session.LayoutsByToken(token).size(), 1U) << token;
}

TEST_F(ConcurrencyTest, Readers_DoNotWaitForAnOpenWriter) {
  session_.Begin();
  session_.PutLong(row_, kValue, 5);
  InParallel(2, [&](int) {
    Session session(database_);
    session.BeginReadOnly();
    EXPECT_EQ(session.Long(row_, kValue), 0);
    session.Commit();
  });
  session_.Commit();
}

TEST_F(ConcurrencyTest, Writers_DoNotWaitForAnOpenWriter) {
  session_.Begin();
  session_.PutLong(row_, kValue, 5);
  InParallel(2, [&](int thread) {
    Session session(database_);
    session.Begin();
    NewRow(session, 10 + thread);
    session.Commit();
  });
  session_.Commit();
  session_.Begin();
  EXPECT_EQ(session_.Scan(by_value_).size(), 3U);
}

TEST_F(ConcurrencyTest, Context_MayMoveBetweenThreads) {
  std::thread([&] { session_.Begin(); }).join();
  std::thread([&] { session_.PutLong(row_, kValue, 5); }).join();
  std::thread([&] { EXPECT_EQ(session_.Long(row_, kValue), 5); }).join();
  std::thread([&] { session_.Commit(); }).join();
  session_.Begin();
  EXPECT_EQ(session_.Long(row_, kValue), 5);
}

// Both sides retry on conflict, so in the end all rows are there and the index must hold each one.
TEST_F(ConcurrencyTest, IndexCreatedBesideWriters_HoldsEveryRow) {
  for (int round = 0; round < 10; ++round) {
    IndexId index = 0;
    Text const set = u"round" + Text(1, static_cast<char16_t>(u'0' + round)) + u"/";
    InParallel(3, [&](int thread) {
      Session session(database_);
      if (thread == 0) {
        Retry(session, [&] {
          index = session.CreateIndex(static_cast<std::uint64_t>(70 + round), set,
                                      {{LORV_TYPE_LONG, kValueToken}});
        });
        return;
      }
      for (int i = 0; i < 20; ++i)
        Retry(session, [&] {
          session.PutLong(session.Insert(layout_, set.c_str()), kValue, thread * 100 + i);
        });
    });
    session_.Begin();
    EXPECT_EQ(session_.Scan(index).size(), 40U);
    EXPECT_EQ(session_.Scan(index, Key().Long(100), Key().Long(119)).size(), 20U);
    session_.Rollback();
  }
}

TEST_F(ConcurrencyTest, LayoutsOfManyThreads_HaveDistinctNumbers) {
  constexpr int kThreads = 4;
  InParallel(kThreads, [&](int) {
    Session session(database_);
    for (int i = 0; i < 10; ++i) {
      session.Begin();
      session.CreateLayout(80, {{LORV_TYPE_LONG, kValueToken}});
      session.Commit();
    }
  });
  session_.Begin();
  std::vector<LayoutId> const layouts = session_.LayoutsByToken(80);
  EXPECT_EQ(std::set<LayoutId>(layouts.begin(), layouts.end()).size(), kThreads * 10U);
}

TEST_F(ConcurrencyTest, Contexts_OpenAndCloseInManyThreads) {
  InParallel(4, [&](int) {
    for (int i = 0; i < 100; ++i) {
      Session session(database_);
      session.Begin();
      EXPECT_EQ(session.Long(row_, kValue), 0);
    }
  });
}

}  // namespace
}  // namespace lscoredb_test
