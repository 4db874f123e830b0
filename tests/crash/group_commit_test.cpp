// Committers who meet share a sync, and nothing else: neither conflicts nor lack of room.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "crash/store_faults.h"
#include "crash/waiters.h"
#include "kernel_test.h"

namespace crash_test {
namespace {

using namespace lscoredb_test;
using store_faults::Point;

constexpr std::uint32_t kValue = 2;
constexpr std::uint32_t kData = 3;
constexpr std::uint64_t kTable = 50;
constexpr std::uint64_t kValueToken = 100;
constexpr std::uint64_t kDataToken = 101;

class GroupCommitTest : public testing::Test {
 protected:
  using Work = std::function<void(Session&)>;
  using Statuses = std::vector<std::uint32_t>;
  using Numbers = std::vector<std::int64_t>;

  void Open(std::uint64_t max_file_size = 0) {
    lscoredb_options options = DefaultOptions();
    options.max_file_size = max_file_size;
    options.log = LSCOREDB_NO_LOG;  // the syncs that commits wait for are those of the data file
    database_ = std::make_unique<Database>(directory_.path(), options);
    Session session(*database_);
    session.Begin();
    layout_ = session.CreateLayout(kTable,
                                   {{LORV_TYPE_LONG, kValueToken}, {LORV_TYPE_BINARY, kDataToken}});
    index_ = session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kValueToken}}, kUnique);
    shared_row_ = session.Insert(layout_);
    session.PutLong(shared_row_, kValue, 0);
    session.Commit();
  }

  Work Insert(std::int64_t value, std::size_t bytes = 0) {
    return [=, this](Session& session) {
      Oid const row = session.Insert(layout_);
      session.PutLong(row, kValue, value);
      if (bytes != 0) session.PutBinary(row, kData, Bytes(bytes, 7));
    };
  }

  // Runs each work in a transaction of its own; all began before any is committed. The first
  // commits alone, the others are all waiting before its sync ends. Returns their statuses.
  Statuses CommitTogether(std::vector<Work> const& works) {
    std::vector<std::unique_ptr<Session>> sessions;
    for (Work const& work : works) {
      sessions.push_back(std::make_unique<Session>(*database_));
      sessions.back()->Begin();
      work(*sessions.back());
    }
    std::atomic<bool> leading{false};
    auto const hold = [&] {
      if (leading.exchange(true)) return sync_of_the_batch_;
      leading.notify_all();
      waiters::Await(static_cast<int>(works.size()) - 1);
      return 0;
    };
    store_faults::Arm(Point::kBeforeSync, 1, hold, 2);
    Statuses statuses(works.size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < works.size(); ++i) {
      threads.emplace_back([&, i] { statuses[i] = sessions[i]->TryCommit(); });
      leading.wait(false);
    }
    for (std::thread& thread : threads) thread.join();
    store_faults::Disarm();
    return statuses;
  }

  Numbers Values() {
    Session session(*database_);
    session.Begin();
    Numbers values;
    for (Oid const row : session.Scan(index_)) values.push_back(*session.Long(row, kValue));
    return values;
  }

  TemporaryDirectory directory_;
  std::unique_ptr<Database> database_;
  LayoutId layout_ = 0;
  IndexId index_ = 0;
  Oid shared_row_ = 0;
  int sync_of_the_batch_ = 0;  // what comes of it
};

TEST_F(GroupCommitTest, ConcurrentCommitters_ShareOneSync) {
  Open();
  int const before = store_faults::Syncs();
  EXPECT_EQ(CommitTogether({Insert(1), Insert(2), Insert(3), Insert(4), Insert(5), Insert(6)}),
            Statuses(6, 0));
  EXPECT_EQ(2, store_faults::Syncs() - before) << "one of the first, one of all others";
  EXPECT_EQ(Values(), (Numbers{0, 1, 2, 3, 4, 5, 6}));
}

TEST_F(GroupCommitTest, Conflict_FailsThatOneOnly) {
  Open();
  auto const change = [&](Session& session) { session.PutLong(shared_row_, kValue, 9); };
  EXPECT_EQ(CommitTogether({change, Insert(1), change, Insert(2)}),
            (Statuses{0, 0, LSCOREDB_CONFLICT, 0}));
  EXPECT_EQ(Values(), (Numbers{1, 2, 9}));
}

// Two of one batch change the same row: one of them is first, whichever.
TEST_F(GroupCommitTest, ConflictWithinABatch_FailsAllButOne) {
  Open();
  auto const change = [&](Session& session) { session.PutLong(shared_row_, kValue, 9); };
  Statuses statuses = CommitTogether({Insert(1), change, Insert(2), change});
  EXPECT_EQ(0U, statuses[0] + statuses[2]);
  std::sort(statuses.begin(), statuses.end());
  EXPECT_EQ(statuses, (Statuses{0, 0, 0, LSCOREDB_CONFLICT}));
  EXPECT_EQ(Values(), (Numbers{1, 2, 9}));
}

TEST_F(GroupCommitTest, DuplicateKeyWithinABatch_FailsAllButOne) {
  Open();
  Statuses statuses = CommitTogether({Insert(1), Insert(5), Insert(2), Insert(5), Insert(5)});
  EXPECT_EQ(0U, statuses[0] + statuses[2]);
  std::sort(statuses.begin(), statuses.end());
  EXPECT_EQ(statuses, (Statuses{0, 0, 0, LSCOREDB_DUPLICATE_KEY, LSCOREDB_DUPLICATE_KEY}));
  EXPECT_EQ(Values(), (Numbers{0, 1, 2, 5}));
}

TEST_F(GroupCommitTest, ChangesThatDoNotFit_FailThatOneOnly) {
  Open(1 << 20);
  constexpr std::size_t kTooMuch = 4 << 20;
  EXPECT_EQ(CommitTogether({Insert(1), Insert(2), Insert(3, kTooMuch), Insert(4)}),
            (Statuses{0, 0, LSCOREDB_MAP_FULL, 0}));
  EXPECT_EQ(Values(), (Numbers{0, 1, 2, 4}));
}

// The sync of the batch fails once; each alone is synced then.
TEST_F(GroupCommitTest, SyncThatFails_IsDoneAgainForEach) {
  Open();
  int const before = store_faults::Syncs();
  sync_of_the_batch_ = EIO;
  EXPECT_EQ(CommitTogether({Insert(1), Insert(2), Insert(3)}), Statuses(3, 0));
  EXPECT_EQ(3, store_faults::Syncs() - before);
  EXPECT_EQ(Values(), (Numbers{0, 1, 2, 3}));
}

}  // namespace
}  // namespace crash_test
