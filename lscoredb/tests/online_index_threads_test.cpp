// Indexes that are built while threads write: nobody is refused, and nothing is left out.

#include <algorithm>
#include <atomic>
#include <random>

#include "online_index.h"

namespace lscoredb_test {
namespace {

class OnlineIndexThreadsTest : public OnlineIndexTest {
 protected:
  // Changes objects of its own until `stop`. A conflict or a refused key fails the test.
  void WriteUntil(std::atomic<bool> const& stop, unsigned seed) {
    std::mt19937 random(seed);
    Session session(database_);
    Oids own;
    for (int i = 0; i < 50 || !stop; ++i) {
      session.Begin();
      own.push_back(Row(session, NumberOf(seed, random)));
      for (int change = 0; change < 3; ++change)
        Change(session, own, NumberOf(seed, random), random);
      session.Commit();
    }
  }

  // Numbers of different threads differ.
  static std::int64_t NumberOf(unsigned seed, std::mt19937& random) {
    return static_cast<std::int64_t>(1000 + (random() % 4000000) * 8 + seed);
  }

  static void Change(Session& session, Oids& own, std::int64_t number, std::mt19937& random) {
    Oid& row = own[random() % own.size()];
    switch (random() % 4) {
      case 0:
        return session.PutLong(row, kNumber, number);
      case 1:
        return session.PutLong(row, kOther, number);
      case 2:
        return session.PutSetspec(row, random() % 2 == 0 ? kSet : u"set/child/");
      default:
        if (own.size() < 5) return;
        session.Delete(row);
        std::swap(row, own.back());
        own.pop_back();
    }
  }

  // Builds the index in two threads that take turns, and adopts it.
  IndexId BuildTogether(IndexTraits traits) {
    IndexId index = Prepare(traits);
    std::atomic<bool> ready = false;
    InParallel(2, [&](int) {
      Session session(database_);
      while (!ready) {
        lscoredb_index_build build = Sized();
        std::uint32_t const status = lscoredb_build_index(session.context(), index, 7, &build);
        bool const again = status == LSCOREDB_CONFLICT || status == LSCOREDB_DUPLICATE_KEY;
        if (!again) Check("build_index", status);
        if (status == 0 && build.state == LSCOREDB_INDEX_READY) ready = true;
      }
    });
    session_.Begin();
    EXPECT_EQ(index, Create(session_, traits));
    session_.Commit();
    return index;
  }

  void BuildBesideWriters(IndexTraits traits = {}) {
    constexpr int kWriters = 4;
    constexpr int kRounds = 30;
    std::atomic<bool> stop = false;
    InParallel(kWriters + 1, [&](int thread) {
      if (thread < kWriters) return WriteUntil(stop, static_cast<unsigned>(thread));
      for (int round = 0; round < kRounds; ++round) {
        IndexId const index = BuildTogether(traits);
        ExpectWhole(index);
        session_.Begin();
        session_.DropIndex(index);
        session_.Commit();
      }
      stop = true;
    });
    ExpectWhole(BuildTogether(traits));
  }

  // The index and another one, made in the transaction that compares them, hold the same.
  void ExpectWhole(IndexId index) {
    Session session(database_);
    session.Begin();
    IndexId const other = session.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    EXPECT_EQ(session.Scan(other), session.Scan(index));
  }
};

TEST_F(OnlineIndexThreadsTest, BuiltByTwoBesideFourWriters_LeavesNothingOut) {
  BuildBesideWriters();
}

// Each of two threads inserts the same keys, and deletes its objects again until the end.
TEST_F(OnlineIndexThreadsTest, WritersOfEqualKeys_AreRefusedOnlyOnceAllIsIn) {
  std::atomic<bool> stop = false;
  IndexId index = 0;
  InParallel(3, [&](int thread) {
    if (thread == 2) {
      index = BuildTogether(kUnique);
      stop = true;
      return;
    }
    Session session(database_);
    for (int i = 0; i < 200 || !stop; ++i) {
      session.Begin();
      Oid const row = session.Insert(layout_);
      std::uint32_t const put =
          lorv_context_put_long(session.context(), row, 0, kNumber, 10000 + i / 4);
      std::uint32_t const status = put == 0 ? session.TryCommit() : put;
      if (status == LSCOREDB_DUPLICATE_KEY) {
        lscoredb_rollback(session.context());  // unless the commit was refused
        continue;
      }
      Check("insert", status);
      if (i >= 200 && stop) return;
      session.Begin();
      session.Delete(row);
      session.Commit();
    }
  });
  ExpectWhole(index);
  Oids const held = Committed(index);
  Session reader(database_);
  reader.BeginReadOnly();
  std::optional<std::int64_t> last;
  for (Oid const row : held) {
    std::optional<std::int64_t> const number = reader.Long(row, kNumber);
    EXPECT_NE(last, number);
    last = number;
  }
}

}  // namespace
}  // namespace lscoredb_test
