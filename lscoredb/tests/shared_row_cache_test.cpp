// The rows that all contexts share: old and new versions side by side, writers beside readers that
// stay, and commits of other processes.

#include <atomic>
#include <barrier>
#include <deque>
#include <thread>
#include <utility>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kValue = 2;
constexpr std::uint32_t kTwin = 3;
constexpr std::uint32_t kText = 4;
constexpr std::size_t kRows = 64;

// The text goes with the number, so that an image of mixed versions is seen.
Text TextOf(std::int64_t value) {
  return Text(static_cast<std::size_t>(value % 50), static_cast<char16_t>(u'a' + value % 26));
}

lscoredb_options WithRowMemory(std::uint64_t bytes) {
  lscoredb_options options = NoSync();
  options.row_memory = bytes;
  return options;
}

class SharedRowCacheTest : public testing::TestWithParam<std::uint64_t> {
 protected:
  SharedRowCacheTest() : database_(directory_.path(), WithRowMemory(GetParam())) {
    Session session(database_);
    session.Begin();
    layout_ = session.CreateLayout(
        50, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_LONG, 101}, {LORV_TYPE_STRING, 102}});
    for (std::size_t i = 0; i < kRows; ++i) {
      rows_.push_back(session.Insert(layout_));
      Write(session, rows_.back(), 0);
    }
    session.Commit();
  }

  static void Write(Session& session, Oid row, std::int64_t value) {
    session.PutLong(row, kValue, value);
    session.PutLong(row, kTwin, -value);
    session.PutString(row, kText, TextOf(value));
  }
  static std::int64_t Read(Session& session, Oid row) {
    std::int64_t const value = *session.Long(row, kValue);
    EXPECT_EQ(-value, *session.Long(row, kTwin));
    EXPECT_EQ(TextOf(value), *session.String(row, kText));
    return value;
  }
  void WriteAll(std::int64_t value) {
    Session session(database_);
    session.Begin();
    for (Oid const row : rows_) Write(session, row, value);
    session.Commit();
  }
  // The one value that all rows have.
  std::int64_t ReadAll(Session& session) {
    std::int64_t const value = Read(session, rows_.front());
    for (Oid const row : rows_) EXPECT_EQ(value, Read(session, row));
    return value;
  }

  TemporaryDirectory directory_;
  Database database_;
  LayoutId layout_ = 0;
  Oids rows_;
};

TEST_P(SharedRowCacheTest, Transactions_SeeTheirOwnStatesInAnyOrderOfReading) {
  std::deque<Session> readers;
  for (std::int64_t value = 0; value < 8; ++value) {
    WriteAll(value);
    readers.emplace_back(database_).BeginReadOnly();
    if (value % 2 == 1) continue;
    EXPECT_EQ(value, ReadAll(readers.back()));
  }
  for (int round = 0; round < 2; ++round) {
    for (std::size_t i = 0; i < readers.size(); ++i) {
      EXPECT_EQ(static_cast<std::int64_t>(i), ReadAll(readers[i]));
    }
    for (std::size_t i = readers.size(); i-- > 0;) {
      EXPECT_EQ(static_cast<std::int64_t>(i), ReadAll(readers[i]));
    }
  }
}

TEST_P(SharedRowCacheTest, DeletedRow_IsThereForOlderTransactionsOnly) {
  Session before(database_);
  before.BeginReadOnly();
  EXPECT_EQ(0, Read(before, rows_[3]));
  Session writer(database_);
  writer.Begin();
  EXPECT_EQ(0, Read(writer, rows_[3]));
  writer.Delete(rows_[3]);
  writer.Commit();
  Session after(database_);
  after.BeginReadOnly();
  EXPECT_FALSE(after.Exists(rows_[3]));
  EXPECT_EQ(0, Read(before, rows_[3]));
  Session later(database_);
  later.BeginReadOnly();
  EXPECT_FALSE(later.Exists(rows_[3]));
}

TEST_P(SharedRowCacheTest, RefusedCommit_LeavesTheRowsAsTheyAre) {
  Session reader(database_);
  reader.BeginReadOnly();
  EXPECT_EQ(0, ReadAll(reader));
  Session loser(database_);
  loser.Begin();
  for (Oid const row : rows_) Write(loser, row, 5);
  Session winner(database_);
  winner.Begin();
  Write(winner, rows_.back(), 9);
  winner.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, loser.TryCommit());
  Session after(database_);
  after.BeginReadOnly();
  EXPECT_EQ(0, Read(after, rows_.front()));
  EXPECT_EQ(9, Read(after, rows_.back()));
  EXPECT_EQ(0, ReadAll(reader));
}

TEST_P(SharedRowCacheTest, RowUnderANewLayout_IsReadByIt) {
  Session session(database_);
  session.Begin();
  EXPECT_EQ(0, Read(session, rows_[0]));
  LayoutId const wider = session.CreateLayout(51, {{LORV_TYPE_LONG, 100},
                                                   {LORV_TYPE_LONG, 101},
                                                   {LORV_TYPE_STRING, 102},
                                                   {LORV_TYPE_LONG, 103}});
  Check("move", lscoredb_move_object(session.context(), rows_[0], wider));
  session.PutLong(rows_[0], 5, 77);
  session.Commit();
  for (int round = 0; round < 2; ++round) {
    session.BeginReadOnly();
    EXPECT_EQ(wider, session.LayoutOf(rows_[0]));
    EXPECT_EQ(77, session.Long(rows_[0], 5));
    EXPECT_EQ(0, Read(session, rows_[0]));
    session.Rollback();
  }
}

// The commit itself holds all that it replaces, far more than may wait to be freed.
TEST_P(SharedRowCacheTest, CommitOfManyRowsThatWereRead_IsSeenWhole) {
  constexpr std::size_t kMany = 20000;
  Session session(database_);
  session.Begin();
  while (rows_.size() < kMany) {
    rows_.push_back(session.Insert(layout_));
    Write(session, rows_.back(), 0);
  }
  session.Commit();
  for (std::int64_t value = 1; value < 3; ++value) {
    session.Begin();
    EXPECT_EQ(value - 1, ReadAll(session));
    for (Oid const row : rows_) Write(session, row, value);
    session.Commit();
  }
  session.BeginReadOnly();
  EXPECT_EQ(2, ReadAll(session));
}

// Each writer moves its own rows from one value to the next, all in one commit. Readers that stay
// and readers that come see one value over all rows of a writer, and never an older one than
// before.
TEST_P(SharedRowCacheTest, ReadersThatStayBesideWriters_SeeEveryRowAsItWas) {
  constexpr int kWriters = 2;
  constexpr int kReaders = 4;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr std::int64_t kCommits = 150;
#else
  constexpr std::int64_t kCommits = 1500;
#endif
  auto const rows_of = [&](int writer) {
    constexpr std::size_t kShare = kRows / kWriters;
    auto const begin = rows_.begin() + writer * static_cast<std::ptrdiff_t>(kShare);
    return Oids(begin, begin + static_cast<std::ptrdiff_t>(kShare));
  };
  auto const read = [&](Session& session, int writer) {
    Oids const rows = rows_of(writer);
    std::int64_t const value = Read(session, rows.front());
    for (Oid const row : rows) EXPECT_EQ(value, Read(session, row));
    return value;
  };
  std::atomic<int> working = kWriters;
  std::atomic<int> commits = 0;
  std::barrier start(kWriters +
                     kReaders);  // the readers' first states are those before all commits
  std::vector<std::thread> threads;
  for (int writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([&, writer] {
      Session session(database_);
      start.arrive_and_wait();
      for (std::int64_t value = 1; value <= kCommits; ++value) {
        session.Begin();
        for (Oid const row : rows_of(writer)) Write(session, row, value);
        session.Commit();
        ++commits;
      }
      --working;
    });
  }
  for (int reader = 0; reader < kReaders; ++reader) {
    threads.emplace_back([&, reader] {
      Session staying(database_);
      Session coming(database_);
      std::int64_t newest[kWriters] = {};
      bool first = true;
      do {
        staying.BeginReadOnly();
        std::int64_t seen[kWriters] = {};
        for (int writer = 0; writer < kWriters; ++writer) seen[writer] = read(staying, writer);
        if (std::exchange(first, false)) {
          start.arrive_and_wait();
          while (commits == 0) std::this_thread::yield();
        }
        for (int i = 0; i <= reader; ++i) {
          coming.BeginReadOnly();
          for (int writer = 0; writer < kWriters; ++writer) {
            std::int64_t const value = read(coming, writer);
            EXPECT_LE(std::max(newest[writer], seen[writer]), value);
            newest[writer] = value;
          }
          coming.Rollback();
        }
        for (int writer = 0; writer < kWriters; ++writer) {
          EXPECT_EQ(seen[writer], read(staying, writer));
        }
        staying.Rollback();
      } while (working > 0);
    });
  }
  for (std::thread& thread : threads) thread.join();
  Session after(database_);
  after.BeginReadOnly();
  EXPECT_EQ(kCommits, ReadAll(after));
}

// Room for all, for a few rows, for none.
INSTANTIATE_TEST_SUITE_P(Memory, SharedRowCacheTest,
                         testing::Values(0, 1048576, 4096, LSCOREDB_NO_ROW_MEMORY),
                         [](auto const& tested) {
                           if (tested.param == 0) return std::string("Usual");
                           if (tested.param == 1048576) return std::string("Some");
                           return std::string(tested.param == 4096 ? "Little" : "None");
                         });

}  // namespace
}  // namespace lscoredb_test
