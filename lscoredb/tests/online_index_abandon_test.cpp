// Prepared indexes that are abandoned, and whose entries are removed in several commits.

#include <lscoredb/watch.h>

#include "online_index.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

lscoredb_index_build Remove(Session& session, IndexId index, std::uint64_t batch) {
  lscoredb_index_build left = Sized();
  Check("abandon_index_step", lscoredb_abandon_index_step(session.context(), index, batch, &left));
  return left;
}

TEST_F(OnlineIndexTest, AbandonedInSteps_IsNoIndexFromTheFirstOn) {
  IndexId const index = Prepare(kUnique);
  StepTo(index, LSCOREDB_INDEX_READY);
  lscoredb_index_build left = Remove(session_, index, 6);
  EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, left.state);
  EXPECT_EQ(6u, left.done);
  Write([&] {
    Row(writer_, 10);  // a duplicate of what was a ready unique index
    writer_.PutLong(rows_[19], kNumber, 5);
    writer_.Delete(rows_[18]);
  });
  EXPECT_TRUE(Findings(database_.get()).empty());
  auto const builds = Builds();
  ASSERT_EQ(1u, builds.size());
  EXPECT_EQ(index, builds[0].index);
  EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, builds[0].state);
  EXPECT_EQ(Text(u"by number"), builds[0].name);
  EXPECT_EQ(Text(kSet), builds[0].setspec);
  EXPECT_STATUS(LORV_STATUS_NO_INDEX, lscoredb_build_index(session_.context(), index, 1, nullptr));
  EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                lscoredb_index_duplicates(
                    session_.context(), index,
                    [](void*, std::uint64_t, std::uint64_t) { return 0u; }, nullptr));
  std::uint64_t removed = left.done;
  while (left.state != LSCOREDB_INDEX_REMOVED) {
    left = Remove(session_, index, 6);
    EXPECT_LE(left.done, removed + 6);
    removed = left.done;
    EXPECT_TRUE(Findings(database_.get()).empty());
  }
  EXPECT_EQ(20u, removed) << "nobody added entries meanwhile";
  EXPECT_TRUE(Builds().empty());
  EXPECT_STATUS(LORV_STATUS_NO_INDEX, lscoredb_abandon_index(session_.context(), index));
}

TEST_F(OnlineIndexTest, AbandonedInSteps_IsNotTakenUp) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  Remove(session_, index, 6);
  IndexId const again = Prepare();
  EXPECT_NE(index, again);
  session_.Begin();
  IndexId const created = Create(session_);
  EXPECT_NE(index, created);
  session_.Commit();
  EXPECT_EQ(Expected(), Committed(created));
  EXPECT_STATUS(0, lscoredb_abandon_index(session_.context(), index));
  EXPECT_STATUS(0, lscoredb_abandon_index(session_.context(), again));
  EXPECT_TRUE(Builds().empty());
  EXPECT_TRUE(Findings(database_.get()).empty());
}

// What a transaction has written for the index, or begun to adopt, comes to nothing.
TEST_F(OnlineIndexTest, TransactionsFromBeforeTheAbandonment_AddNoEntries) {
  for (int removed = 1; removed < 5; ++removed) {
    IndexId const index = Prepare();
    StepTo(index, LSCOREDB_INDEX_READY);
    Session older(database_);
    older.Begin();
    Row(older, 1);
    older.PutLong(rows_[5], kNumber, 2000 + removed);
    Session adopter(database_);
    adopter.Begin();
    EXPECT_EQ(index, Create(adopter));
    for (int i = 0; i < removed; ++i) {
      EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, Remove(session_, index, 3).state);
    }
    older.Commit();
    EXPECT_STATUS(LSCOREDB_CONFLICT, adopter.TryCommit());
    EXPECT_TRUE(Findings(database_.get()).empty());
    EXPECT_STATUS(0, lscoredb_abandon_index(session_.context(), index));
    EXPECT_TRUE(Findings(database_.get()).empty());
  }
}

TEST_F(OnlineIndexTest, SeveralWhoAbandonOneBuild_RemoveItTogether) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  Remove(session_, index, 6);
  Remove(writer_, index, 6);
  EXPECT_EQ(18u, Remove(session_, index, 6).done);
  EXPECT_EQ(LSCOREDB_INDEX_REMOVED, Remove(writer_, index, 6).state);
  EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                lscoredb_abandon_index_step(session_.context(), index, 6, nullptr));
}

TEST_F(OnlineIndexTest, StepsOfAnAbandonment_RefuseBadCalls) {
  IndexId const index = Prepare();
  std::uint64_t const context = session_.context();
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_abandon_index_step(context, index, 0, nullptr));
  lscoredb_index_build unsized{};
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                lscoredb_abandon_index_step(context, index, 1, &unsized));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_abandon_index_step(0, index, 1, nullptr));
  EXPECT_STATUS(LORV_STATUS_NO_INDEX, lscoredb_abandon_index_step(context, 12345, 1, nullptr));
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_TRANSACTION_OPEN, lscoredb_abandon_index_step(context, index, 1, nullptr));
}

// ---- on disk -----------------------------------------------------------------------------------

constexpr int kMany = 12000;  // more than a commit removes

class AbandonedFileTest : public testing::Test {
 protected:
  AbandonedFileTest() {
    Database const database(directory_.path());
    Session session(database);
    session.Begin();
    LayoutId const layout = session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    for (int i = 0; i < kMany; ++i) session.PutLong(session.Insert(layout), kNumber, i);
    session.Commit();
    auto const columns = Definitions({{LORV_TYPE_LONG, kNumberToken}});
    Check("prepare",
          lscoredb_prepare_index(session.context(), u"n", kSet, columns.data(), 0, 0, &index_));
    for (lscoredb_index_build build = Sized(); build.state != LSCOREDB_INDEX_READY;) {
      Check("build", lscoredb_build_index(session.context(), index_, kMany, &build));
    }
  }

  std::string Version() const {
    StoredTree meta(directory_.path(), "meta");
    return meta.Get("format").substr(std::string("lscoredb").size(), 4);
  }
  static std::size_t CountBuilds(Session& session) {
    std::uint32_t count = 0;
    Check("index_builds", lscoredb_index_builds(session.context(), &count, nullptr));
    return count;
  }

  TemporaryDirectory directory_;
  IndexId index_ = 0;
};

TEST_F(AbandonedFileTest, WhatFitsIntoACommit_LeavesTheFormatAsItWas) {
  {
    Database const database(directory_.path());
    Session session(database);
    EXPECT_EQ(LSCOREDB_INDEX_REMOVED, Remove(session, index_, kMany).state);
  }
  EXPECT_EQ(Little(5, 4), Version());
}

TEST_F(AbandonedFileTest, ReopenedDatabase_RemovesTheRest) {
  {
    Database const database(directory_.path());
    Session session(database);
    EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, Remove(session, index_, 100).state);
  }
  EXPECT_EQ(Little(7, 4), Version());
  TemporaryDirectory const copies;
  {
    Database const database(directory_.path());
    EXPECT_STATUS(0, lscoredb_copy(database.get(), (copies / "copy").c_str()));
  }
  for (std::string const& place : {directory_.path(), copies / "copy"}) {
    Database const database(place);
    EXPECT_TRUE(Findings(database.get()).empty());
    Session session(database);
    EXPECT_EQ(1u, CountBuilds(session));
    EXPECT_STATUS(0, lscoredb_abandon_index(session.context(), index_));
    EXPECT_EQ(0u, CountBuilds(session));
    EXPECT_TRUE(Findings(database.get()).empty());
  }
}

TEST_F(AbandonedFileTest, WatchThatStops_LeavesTheRestToTheNextCall) {
  Database const database(directory_.path());
  Session session(database);
  lscoredb_watch([](void*, std::uint64_t done, std::uint64_t) { return done >= 5000 ? 1u : 0u; },
                 nullptr);
  EXPECT_STATUS(LSCOREDB_STOPPED, lscoredb_abandon_index(session.context(), index_));
  lscoredb_watch(nullptr, nullptr);
  lscoredb_index_build left = Sized();
  std::uint32_t count = 1;
  Check("index_builds", lscoredb_index_builds(session.context(), &count, &left));
  EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, left.state);
  EXPECT_EQ(5000u, left.done);
  EXPECT_STATUS(0, lscoredb_abandon_index(session.context(), index_));
  EXPECT_EQ(0u, CountBuilds(session));
}

TEST_F(AbandonedFileTest, ReadOnlyDatabase_KeepsTheRest) {
  {
    Database const database(directory_.path());
    Session session(database);
    Remove(session, index_, 100);
  }
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_READ;
  Database const database(directory_.path(), options);
  Session session(database);
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE, lscoredb_abandon_index(session.context(), index_));
  EXPECT_EQ(1u, CountBuilds(session));
}

}  // namespace
}  // namespace lscoredb_test
