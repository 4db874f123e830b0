// Indexes that are built beside writers, and whose objects move to another set meanwhile.

#include <lscoredb/move.h>

#include "online_index.h"

namespace lscoredb_test {
namespace {

constexpr char16_t kMoved[] = u"moved/";
constexpr std::uint64_t kMovedToken = 200;
constexpr lscoredb_column_copy kCopy{kNumberToken, kMovedToken};

class OnlineIndexMoveTest : public OnlineIndexTest {
 protected:
  void SetUp() override {
    OnlineIndexTest::SetUp();
    session_.Begin();
    moved_ = session_.CreateLayout(51, {{LORV_TYPE_LONG, kMovedToken}});
    there_ = Row(session_, 5, kMoved);
    MoveRow(session_, there_);
    session_.Commit();
  }

  void MoveRow(Session& session, Oid row) const {
    Check("move_to_set", lscoredb_move_to_set(session.context(), row, moved_, kMoved, &kCopy, 1));
  }
  static void MovePrepared(Session& session) {
    Check("move_prepared", lscoredb_move_prepared(session.context(), kSet, kMoved, &kCopy, 1));
  }
  void MoveAll(Session& session) const {
    for (Oid const row : rows_) MoveRow(session, row);
    MovePrepared(session);
  }
  IndexId CreateMoved(Session& session, IndexTraits traits = {}) {
    return session.CreateIndex(kToken, kMoved, {{LORV_TYPE_LONG, kMovedToken}}, traits);
  }
  void ExpectBegunAgain(IndexId index) {
    lscoredb_index_build const build = Builds().at(0);
    EXPECT_EQ(index, build.index);
    EXPECT_EQ(LSCOREDB_INDEX_BUILDING, build.state);
    EXPECT_EQ(Text(kMoved), build.setspec);
    EXPECT_EQ(kMovedToken, build.columns[0].token);
    EXPECT_EQ(0u, build.done);
    EXPECT_TRUE(Findings(database_.get()).empty());
  }
  // All objects of the new set by their numbers.
  Oids ExpectedThere() {
    session_.Begin();
    IndexId const index = session_.CreateIndex(61, kMoved, {{LORV_TYPE_LONG, kMovedToken}});
    Oids const oids = session_.Scan(index);
    session_.Rollback();
    return oids;
  }
  void FinishAndCompare(IndexId index, IndexTraits traits = {}) {
    StepTo(index, LSCOREDB_INDEX_READY);
    EXPECT_TRUE(Findings(database_.get()).empty());
    Oids const expected = ExpectedThere();
    session_.Begin();
    EXPECT_EQ(index, CreateMoved(session_, traits));
    session_.Commit();
    EXPECT_EQ(expected, Committed(index));
  }

  LayoutId moved_ = 0;
  Oid there_ = 0;
};

// The context that goes on is the one that sorted the objects where they were.
TEST_F(OnlineIndexMoveTest, BuildAtEachStep_BeginsAgainOverTheNewSet) {
  for (int steps = 0; steps < 9; ++steps) {
    SetUp();
    IndexId const index = Prepare();
    for (int i = 0; i < steps; ++i) Step(index);
    Write([&] { MoveAll(writer_); });
    ExpectBegunAgain(index);
    Oid fresh = 0;
    Write([&] { writer_.PutLong(fresh = writer_.Insert(moved_, kMoved), kNumber, 33); });
    FinishAndCompare(index);
    Write([&] {
      for (Oid const row : Committed(index)) writer_.Delete(row);
      writer_.DropIndex(index);
    });
    rows_.clear();
  }
}

TEST_F(OnlineIndexMoveTest, UniqueBuildInEachState_BeginsAgainOverTheNewSet) {
  IndexId const index = Prepare(kUnique);
  StepTo(index, LSCOREDB_INDEX_WRITE_ONLY);
  Write([&] { MoveAll(writer_); });
  ExpectBegunAgain(index);
  Oid twice = 0;
  Write([&] { writer_.PutLong(twice = writer_.Insert(moved_, kMoved), kNumber, 10); });
  lscoredb_index_build build = Sized();
  std::uint32_t status = 0;
  while (status == 0) status = lscoredb_build_index(session_.context(), index, 3, &build);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, status);
  EXPECT_EQ(1u, Duplicates(index).size());
  Write([&] { writer_.Delete(twice); });
  FinishAndCompare(index, kUnique);
  writer_.Begin();
  Oid const row = writer_.Insert(moved_, kMoved);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(writer_.context(), row, moved_, kNumber, 10));
  writer_.Rollback();
}

TEST_F(OnlineIndexMoveTest, BuildWithDuplicates_FindsThemAgain) {
  Write([&] { writer_.PutLong(rows_[3], kNumber, 40); });
  IndexId const index = Prepare(kUnique);
  lscoredb_index_build build = Sized();
  std::uint32_t status = 0;
  while (status == 0) status = lscoredb_build_index(session_.context(), index, 30, &build);
  EXPECT_EQ(LSCOREDB_INDEX_DUPLICATES, build.state);
  Write([&] { MoveAll(writer_); });
  ExpectBegunAgain(index);
  status = 0;
  while (status == 0) status = lscoredb_build_index(session_.context(), index, 30, &build);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, status);
}

TEST_F(OnlineIndexMoveTest, RolledBackToASavepoint_DoesNotMove) {
  IndexId const index = Prepare();
  Step(index);
  Step(index);
  Write([&] {
    std::uint64_t savepoint = 0;
    Check("savepoint", lscoredb_savepoint(writer_.context(), &savepoint));
    MoveAll(writer_);
    Check("rollback_to", lscoredb_rollback_to(writer_.context(), savepoint));
    writer_.PutLong(rows_[0], kOther, 1);
  });
  EXPECT_EQ(Text(kSet), Builds().at(0).setspec);
  EXPECT_EQ(3u, Builds().at(0).done);
  StepTo(index, LSCOREDB_INDEX_READY);
  EXPECT_EQ(20u, Adopt(index).size());
}

TEST_F(OnlineIndexMoveTest, TwoMovesInOneTransaction_EndAtTheLastSet) {
  IndexId const index = Prepare();
  Step(index);
  Write([&] {
    MovePrepared(writer_);
    Check("move_prepared",
          lscoredb_move_prepared(writer_.context(), kMoved, u"further/", nullptr, 0));
  });
  EXPECT_EQ(Text(u"further/"), Builds().at(0).setspec);
  EXPECT_EQ(kMovedToken, Builds().at(0).columns[0].token);
}

TEST_F(OnlineIndexMoveTest, BuildsOfOtherSets_Stay) {
  IndexId const index = Prepare();
  IndexId wider = 0;
  Check("prepare_index", TryPrepare(session_, {}, &wider, u""));
  IndexId abandoned = 0;
  Check("prepare_index", TryPrepare(session_, {.unique = false, .descending = 1}, &abandoned));
  StepTo(abandoned, LSCOREDB_INDEX_READY);
  lscoredb_index_build left = Sized();
  Check("abandon", lscoredb_abandon_index_step(session_.context(), abandoned, 2, &left));
  EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, left.state);
  Write([&] { MoveAll(writer_); });
  EXPECT_EQ(index, Builds().at(0).index);
  EXPECT_EQ(Text(), Builds().at(1).setspec);
  EXPECT_EQ(LSCOREDB_INDEX_ABANDONED, Builds().at(2).state);
  EXPECT_EQ(Text(kSet), Builds().at(2).setspec);
  Check("abandon", lscoredb_abandon_index(session_.context(), abandoned));
  FinishAndCompare(index);
}

// It began before the build was prepared, or before it moved, and is in the new set already.
TEST_F(OnlineIndexMoveTest, OlderTransaction_EntersTheIndexAnyway) {
  Session before(database_);
  before.Begin();
  before.PutLong(there_, kNumber, 501);
  IndexId const index = Prepare();
  Session during(database_);
  during.Begin();
  during.PutLong(during.Insert(moved_, kMoved), kNumber, 502);
  Write([&] { MoveAll(writer_); });
  StepTo(index, LSCOREDB_INDEX_READY);
  before.Commit();
  during.Commit();
  FinishAndCompare(index);
  EXPECT_EQ(22u, Committed(index).size());
}

// What a transaction wrote to the index where it was is not in it any more.
TEST_F(OnlineIndexMoveTest, OlderTransactionOfTheFormerSet_LeavesNoEntries) {
  IndexId const index = Prepare();
  Session older(database_);
  older.Begin();
  Row(older, 99);
  Write([&] { MoveAll(writer_); });
  older.Commit();
  FinishAndCompare(index);
}

TEST_F(OnlineIndexMoveTest, TransactionThatAdopted_Conflicts) {
  for (bool const ready_again : {false, true}) {
    IndexId const index = Prepare();
    StepTo(index, LSCOREDB_INDEX_READY);
    Session adopter(database_);
    adopter.Begin();
    EXPECT_EQ(index, Create(adopter));
    Write([&] { MoveAll(writer_); });
    if (ready_again) StepTo(index, LSCOREDB_INDEX_READY);
    EXPECT_STATUS(LSCOREDB_CONFLICT, adopter.TryCommit());
    FinishAndCompare(index);
    Write([&] { writer_.DropIndex(index); });
    session_.Begin();
    for (Oid& row : rows_) row = Row(session_, 1000 + static_cast<std::int64_t>(row));
    session_.Commit();
  }
}

TEST_F(OnlineIndexMoveTest, BadArguments_AreRefused) {
  auto const move = [&](char16_t const* from, char16_t const* to, std::uint32_t count) {
    return lscoredb_move_prepared(session_.context(), from, to, nullptr, count);
  };
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, move(kSet, kMoved, 0));
  session_.BeginReadOnly();
  EXPECT_STATUS(LSCOREDB_WRITE_REFUSED, move(kSet, kMoved, 0));
  session_.Rollback();
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, move(nullptr, kMoved, 0));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, move(kSet, nullptr, 0));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, move(kSet, kMoved, 1));
  EXPECT_STATUS(0u, move(kSet, kMoved, 0));  // nothing is prepared
  session_.Commit();
}

}  // namespace
}  // namespace lscoredb_test
