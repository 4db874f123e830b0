// Indexes that are built beside writers: duplicates, and how a build ends.

#include <lscoredb/watch.h>

#include <algorithm>

#include "online_index.h"

namespace lscoredb_test {
namespace {

// ---- unique indexes ----------------------------------------------------------------------------

TEST_F(OnlineIndexTest, DuplicatesDuringTheBuild_RefuseNobodyAndAreListed) {
  IndexId const index = Prepare(kUnique);
  Step(index);
  Step(index);
  Oid low = 0;
  Oid high = 0;
  Write([&] {
    low = Row(writer_, 10);
    high = Row(writer_, 190);
  });
  while (Step(index).state == LSCOREDB_INDEX_BUILDING) {
  }
  lscoredb_index_build build = Sized();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lscoredb_build_index(session_.context(), index, 100, &build));
  EXPECT_EQ(LSCOREDB_INDEX_DUPLICATES, build.state);
  using Pairs = std::vector<std::pair<Oid, Oid>>;
  EXPECT_EQ((Pairs{{low, rows_[1]}, {high, rows_[19]}}), Duplicates(index));
  Oid more = 0;
  Write([&] {
    more = Row(writer_, 20);  // refuses nobody now either
    writer_.Delete(low);
    writer_.PutLong(high, kNumber, 191);
  });
  EXPECT_EQ(LSCOREDB_INDEX_WRITE_ONLY, Step(index).state);
  while (true) {
    std::uint32_t const status = lscoredb_build_index(session_.context(), index, 2, &build);
    if (status == 0) continue;
    EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, status);
    break;
  }
  EXPECT_EQ((Pairs{{more, rows_[2]}}), Duplicates(index));
  Write([&] { writer_.Delete(more); });
  StepTo(index, LSCOREDB_INDEX_READY);
  EXPECT_EQ(21u, Adopt(index, kUnique).size());
}

TEST_F(OnlineIndexTest, NewDuplicates_AreRefusedOnceAllObjectsAreIn) {
  IndexId const index = Prepare(kUnique);
  Session older(database_);
  older.Begin();
  Row(older, 40);
  Session self(database_);
  self.Begin();
  Row(self, 1000);
  Row(self, 1000);
  StepTo(index, LSCOREDB_INDEX_WRITE_ONLY);
  writer_.Begin();
  Oid const row = writer_.Insert(layout_);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(writer_.context(), row, 0, kNumber, 50));
  writer_.Rollback();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, older.TryCommit());
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, self.TryCommit());
  StepTo(index, LSCOREDB_INDEX_READY);
  writer_.Begin();
  Row(writer_, 41);
  writer_.Commit();
  older.Begin();
  Oid const late = older.Insert(layout_);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(older.context(), late, 0, kNumber, 41));
  older.Rollback();
  EXPECT_EQ(21u, Adopt(index, kUnique).size());
}

// Their keys are in the index already, whether by the build or by other commits.
TEST_F(OnlineIndexTest, OldDuplicates_AreNotRefusedAgain) {
  Write([&] { writer_.PutLong(rows_[3], kNumber, 40); });
  Session older(database_);
  older.Begin();
  older.PutLong(rows_[3], kOther, 1);
  older.PutLong(rows_[4], kOther, 1);
  IndexId const index = Prepare(kUnique);
  StepTo(index, LSCOREDB_INDEX_WRITE_ONLY);
  older.Commit();
  Write([&] {
    LayoutId const newer =
        writer_.CreateLayout(51, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_LONG, 101}});
    Check("move", lscoredb_move_object(writer_.context(), rows_[4], newer));
  });
  EXPECT_EQ(LSCOREDB_INDEX_WRITE_ONLY, Builds().front().state);
  EXPECT_TRUE(Findings(database_.get()).empty());
  writer_.Begin();
  Oid const fresh = writer_.Insert(layout_);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(writer_.context(), fresh, layout_, kNumber, 40));
  writer_.Rollback();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lscoredb_build_index(session_.context(), index, 100, nullptr));
}

TEST_F(OnlineIndexTest, Nulls_AreNoDuplicates) {
  session_.Begin();
  for (int i = 0; i < 10; ++i) session_.Insert(layout_);
  session_.Commit();
  IndexId const index = Prepare(kUnique);
  StepTo(index, LSCOREDB_INDEX_READY, 2);
  EXPECT_TRUE(Duplicates(index).empty());
  EXPECT_EQ(30u, Adopt(index, kUnique).size());
}

// What one context has looked through says nothing once duplicates were admitted in between.
TEST_F(OnlineIndexTest, VerificationOfAnEarlierRound_IsNotContinued) {
  IndexId const index = Prepare(kUnique);
  Step(index, 100);
  EXPECT_EQ(LSCOREDB_INDEX_BUILDING, Builds().at(0).state);
  Write([&] { Row(writer_, 190); });
  EXPECT_EQ(LSCOREDB_INDEX_WRITE_ONLY, Step(index, 100).state);
  Step(index, 10);  // looks through the first half
  Session other(database_);
  lscoredb_index_build build = Sized();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, lscoredb_build_index(other.context(), index, 100, &build));
  Write([&] {
    Row(writer_, 0);
    writer_.Delete(rows_[19]);
  });
  EXPECT_EQ(LSCOREDB_INDEX_WRITE_ONLY, Step(other, index).state);
  std::uint32_t status = 0;
  while (status == 0 && build.state != LSCOREDB_INDEX_READY) {
    status = lscoredb_build_index(session_.context(), index, 10, &build);
  }
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, status);
}

// ---- the end of a build ------------------------------------------------------------------------

TEST_F(OnlineIndexTest, AbandonedIndex_LeavesNothing) {
  for (int steps = 0; steps < 6; ++steps) {
    IndexId const index = Prepare();
    for (int i = 0; i < steps; ++i) Step(index, 6);
    writer_.Begin();
    Row(writer_, 3);
    EXPECT_STATUS(0, lscoredb_abandon_index(session_.context(), index));
    writer_.Commit();
    EXPECT_STATUS(LORV_STATUS_NO_INDEX, lscoredb_abandon_index(session_.context(), index));
    EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                  lscoredb_build_index(session_.context(), index, 1, nullptr));
    EXPECT_TRUE(Builds().empty());
    EXPECT_TRUE(Findings(database_.get()).empty());
  }
}

TEST_F(OnlineIndexTest, SeveralBuildsInOneContext_EndByTurns) {
  std::vector<IndexId> const indexes{Prepare(), Prepare(kUnique)};
  std::vector<std::uint32_t> states(2);
  for (int turn = 0; turn < 40; ++turn) {
    for (std::size_t i = 0; i < indexes.size(); ++i) states[i] = Step(indexes[i], 2).state;
  }
  EXPECT_EQ((std::vector<std::uint32_t>{LSCOREDB_INDEX_READY, LSCOREDB_INDEX_READY}), states);
  EXPECT_EQ(Expected(), Adopt(indexes[1], kUnique));
}

TEST_F(OnlineIndexTest, EntriesOfOtherSizes_AreFilledAsFarAsTheyGo) {
  IndexId const index = Prepare();
  IndexId const other = Prepare(kUnique);
  struct Later {
    lscoredb_index_build known;
    std::uint64_t unknown;
  };
  Later later[2] = {};
  later[0].known.size = sizeof(Later);
  later[0].unknown = later[1].unknown = 5;
  std::uint32_t count = 2;
  EXPECT_STATUS(0, lscoredb_index_builds(session_.context(), &count, &later[0].known));
  EXPECT_EQ(index, later[0].known.index);
  EXPECT_EQ(other, later[1].known.index);
  EXPECT_EQ(5u, later[0].unknown);
  EXPECT_EQ(5u, later[1].unknown);
}

TEST_F(OnlineIndexTest, WatchThatStops_LeavesTheBuildAsItWas) {
  IndexId const index = Prepare();
  lscoredb_watch([](void*, std::uint64_t, std::uint64_t) { return 1u; }, nullptr);
  EXPECT_STATUS(LSCOREDB_STOPPED, lscoredb_build_index(session_.context(), index, 1, nullptr));
  lscoredb_watch(nullptr, nullptr);
  EXPECT_EQ(0u, Builds().at(0).done);
  StepTo(index, LSCOREDB_INDEX_READY);
  EXPECT_EQ(rows_, Adopt(index));
}

TEST_F(OnlineIndexTest, BadCalls_AreRefused) {
  IndexId const index = Prepare();
  auto const columns = Definitions({{LORV_TYPE_LONG, kNumberToken}});
  IndexId out = 0;
  std::uint64_t const context = session_.context();
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_prepare_index(context, u"", nullptr, columns.data(), 0, 0, &out));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_prepare_index(context, u"", kSet, nullptr, 0, 0, &out));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_prepare_index(context, u"", kSet, columns.data(), 0, 0, nullptr));
  auto const wrong = Definitions({{77, kNumberToken}});
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                lscoredb_prepare_index(context, u"", kSet, wrong.data(), 0, 0, &out));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_build_index(context, index, 0, nullptr));
  EXPECT_STATUS(LORV_STATUS_NO_INDEX, lscoredb_build_index(context, 12345, 1, nullptr));
  EXPECT_STATUS(
      LORV_STATUS_NO_INDEX,
      lscoredb_index_duplicates(
          context, 12345, [](void*, std::uint64_t, std::uint64_t) { return 0u; }, nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_index_duplicates(context, index, nullptr, nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_index_builds(context, nullptr, nullptr));
  lscoredb_index_build unsized{};
  std::uint32_t count = 1;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_index_builds(context, &count, &unsized));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_build_index(context, index, 1, &unsized));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_abandon_index(0, index));
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_TRANSACTION_OPEN, TryPrepare(session_, {}, &out));
  EXPECT_STATUS(LSCOREDB_TRANSACTION_OPEN, lscoredb_build_index(context, index, 1, nullptr));
  EXPECT_STATUS(LSCOREDB_TRANSACTION_OPEN, lscoredb_abandon_index(context, index));
}

// ---- on disk -----------------------------------------------------------------------------------

class OnlineIndexFileTest : public testing::Test {
 protected:
  static IndexId PrepareIn(Session& session, IndexTraits traits = {}) {
    auto const columns = Definitions({{LORV_TYPE_LONG, kNumberToken}});
    IndexId index = 0;
    Check("prepare", lscoredb_prepare_index(session.context(), u"n", kSet, columns.data(), 0,
                                            traits.unique ? LORV_INDEX_UNIQUE : 0, &index));
    return index;
  }
  static std::uint32_t StepIn(Session& session, IndexId index, std::uint64_t batch) {
    lscoredb_index_build build = Sized();
    Check("build", lscoredb_build_index(session.context(), index, batch, &build));
    return build.state;
  }
  void MakeRows(std::string const& directory, int count) {
    Database database(directory);
    Session session(database);
    session.Begin();
    LayoutId const layout = session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    for (int i = 0; i < count; ++i) session.PutLong(session.Insert(layout), kNumber, i);
    session.Commit();
  }
  TemporaryDirectory directory_;
};

TEST_F(OnlineIndexFileTest, ReopenedDatabase_GoesOnWithTheBuild) {
  MakeRows(directory_.path(), 100);
  IndexId index = 0;
  for (int opened = 0; opened < 4; ++opened) {
    Database const database(directory_.path());
    Session session(database);
    index = PrepareIn(session, kUnique);
    for (int i = 0; i < 3; ++i) StepIn(session, index, 20);
    lscoredb_index_build build = Sized();
    std::uint32_t count = 1;
    EXPECT_STATUS(0, lscoredb_index_builds(session.context(), &count, &build));
    EXPECT_EQ(1u, count);
    EXPECT_EQ(std::min(100, 40 * (opened + 1)), static_cast<int>(build.done));
    EXPECT_EQ(100u, build.total);
  }
  TemporaryDirectory const copies;
  {
    Database const database(directory_.path());
    EXPECT_STATUS(0, lscoredb_copy(database.get(), (copies / "copy").c_str()));
  }
  Database const copy(copies / "copy");
  Session session(copy);
  while (StepIn(session, index, 30) != LSCOREDB_INDEX_READY) {
  }
  session.Begin();
  EXPECT_EQ(index, session.CreateIndex(kToken, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique));
  session.Commit();
}

// Files of this process that have no name any more.
std::size_t NamelessFiles() {
  std::size_t count = 0;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    auto const target = std::filesystem::read_symlink(entry, gone).string();
    if (target.ends_with("(deleted)")) ++count;
  }
  return count;
}

TEST_F(OnlineIndexFileTest, LargeIndex_IsSortedInFilesThatAreGoneAfterwards) {
  constexpr int kMany = 400000;
  MakeRows(directory_.path(), kMany);
  Database const database(directory_.path());
  Session session(database);
  IndexId const index = PrepareIn(session);
  std::size_t const before = NamelessFiles();
  StepIn(session, index, 50000);
  EXPECT_GT(NamelessFiles(), before);
  {
    Session other(database);
    Check("abandon", lscoredb_abandon_index(other.context(), index));
  }
  EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                lscoredb_build_index(session.context(), index, 50000, nullptr));
  EXPECT_EQ(before, NamelessFiles());
}

TEST_F(OnlineIndexFileTest, LargeIndex_HoldsAllObjects) {
  constexpr int kMany = 400000;
  MakeRows(directory_.path(), kMany);
  Database const database(directory_.path());
  Session session(database);
  IndexId const index = PrepareIn(session);
  while (StepIn(session, index, 50000) != LSCOREDB_INDEX_READY) {
  }
  session.Begin();
  EXPECT_EQ(index, session.CreateIndex(kToken, kSet, {{LORV_TYPE_LONG, kNumberToken}}));
  session.Commit();
  session.BeginReadOnly();
  EXPECT_EQ(static_cast<std::size_t>(kMany), session.Scan(index).size());
}

// Each step needs a little more room than the one before it.
TEST_F(OnlineIndexFileTest, FullDatabase_KeepsTheBuildAsItWas) {
  constexpr int kMany = 20000;
  MakeRows(directory_.path(), kMany);
  lscoredb_options tight = NoSync();
  tight.max_file_size = std::filesystem::file_size(directory_ / "data.mdb") + (400u << 10);
  std::uint64_t done = 0;
  IndexId index = 0;
  {
    Database const database(directory_.path(), tight);
    Session session(database);
    index = PrepareIn(session);
    lscoredb_index_build build = Sized();
    std::uint32_t status = 0;
    while (status == 0 && build.state != LSCOREDB_INDEX_READY) {
      done = build.done;
      status = lscoredb_build_index(session.context(), index, 100, &build);
    }
    EXPECT_STATUS(LSCOREDB_MAP_FULL, status);
    EXPECT_GT(done, 100u);
  }
  Database const database(directory_.path());
  Session session(database);
  lscoredb_index_build build = Sized();
  std::uint32_t count = 1;
  EXPECT_STATUS(0, lscoredb_index_builds(session.context(), &count, &build));
  EXPECT_EQ(done, build.done);
  while (StepIn(session, index, 1000) != LSCOREDB_INDEX_READY) {
  }
  session.Begin();
  EXPECT_EQ(index, session.CreateIndex(kToken, kSet, {{LORV_TYPE_LONG, kNumberToken}}));
  EXPECT_EQ(static_cast<std::size_t>(kMany), session.Scan(index).size());
  session.Commit();
}

TEST_F(OnlineIndexFileTest, ReadOnlyDatabase_RefusesBuilds) {
  MakeRows(directory_.path(), 3);
  IndexId prepared = 0;
  {
    Database const database(directory_.path());
    Session session(database);
    prepared = PrepareIn(session);
  }
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_READ;
  Database const database(directory_.path(), options);
  Session session(database);
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE,
                lscoredb_build_index(session.context(), prepared, 10, nullptr));
  auto const columns = Definitions({{LORV_TYPE_LONG, kNumberToken}});
  IndexId index = 0;
  EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE,
                lscoredb_prepare_index(session.context(), u"n", kSet, columns.data(), 0,
                                       LORV_INDEX_UNIQUE, &index));
}

}  // namespace
}  // namespace lscoredb_test
