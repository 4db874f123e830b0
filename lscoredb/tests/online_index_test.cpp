// Indexes that are built beside writers: every object is in the index, whoever commits when.

#include "online_index.h"

#include <random>
#include <tuple>

namespace lscoredb_test {
namespace {

TEST_F(OnlineIndexTest, ReadyIndex_IsAdopted) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  EXPECT_EQ(rows_, Adopt(index));
  EXPECT_TRUE(Builds().empty());
  session_.Begin();
  EXPECT_EQ(std::vector{index}, session_.IndexesByToken(kToken));
  Oid const added = Row(session_, 5);
  EXPECT_EQ(added, session_.Scan(index).at(1));
}

TEST_F(OnlineIndexTest, EmptySet_IsReadyAtOnce) {
  IndexId index = 0;
  EXPECT_STATUS(0, TryPrepare(session_, {}, &index, u"nobody/"));
  StepTo(index, LSCOREDB_INDEX_READY);
  EXPECT_EQ(0u, Builds().at(0).total);
}

TEST_F(OnlineIndexTest, Progress_CountsObjects) {
  IndexId const index = Prepare();
  lscoredb_index_build const sorted = Step(index, 8);
  EXPECT_EQ(LSCOREDB_INDEX_BUILDING, sorted.state);
  EXPECT_EQ(0u, sorted.done);
  EXPECT_EQ(20u, sorted.total);
  EXPECT_EQ(8u, Step(index, 8).done);
  lscoredb_index_build const listed = Builds().at(0);
  EXPECT_EQ(8u, listed.done);
  EXPECT_EQ(20u, listed.total);
  EXPECT_EQ(index, listed.index);
  EXPECT_EQ(Text(u"by number"), listed.name);
  EXPECT_EQ(Text(kSet), listed.setspec);
  EXPECT_EQ(1u, listed.column_count);
  EXPECT_EQ(kNumberToken, listed.columns[0].token);
  EXPECT_EQ(0u, listed.columns[1].type);
  EXPECT_EQ(LSCOREDB_INDEX_READY, Step(index, 12).state);
}

TEST_F(OnlineIndexTest, UnfinishedIndex_IsHidden) {
  IndexId const index = Prepare();
  for (int step = 0; step < 5; ++step) {
    session_.Begin();
    EXPECT_TRUE(session_.IndexesByToken(kToken).empty());
    EXPECT_TRUE(session_.IndexesByToken(0).empty());
    std::uint64_t iterator = 0;
    EXPECT_STATUS(LORV_STATUS_NO_INDEX, lorv_context_create_iterator(
                                            session_.context(), index, LORV_ITERATOR_FORWARD,
                                            Key().Bytes().data(), Key().Bytes().data(), &iterator));
    char16_t const* setspec = nullptr;
    EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                  lorvi_context_get_index_setspec(session_.context(), index, &setspec));
    EXPECT_STATUS(LORV_STATUS_NO_INDEX, lorvi_context_drop_index(session_.context(), index));
    session_.Rollback();
    Step(index, 8);
  }
}

TEST_F(OnlineIndexTest, UnfinishedIndex_IsNotAdopted) {
  IndexId const index = Prepare();
  Step(index);
  Step(index);
  session_.Begin();
  IndexId const created = Create(session_);
  EXPECT_NE(index, created);
  EXPECT_EQ(rows_, session_.Scan(created));
}

// The set's index serves as the source of other indexes, but only when it is complete.
TEST_F(OnlineIndexTest, UnfinishedIndexOverSets_IsNoSourceOfOthers) {
  auto const columns = Definitions({{LORV_TYPE_STRING, LORV_TOKEN_SETSPEC}});
  IndexId index = 0;
  EXPECT_STATUS(
      0, lscoredb_prepare_index(session_.context(), nullptr, kSet, columns.data(), 0, 0, &index));
  Step(index);
  Step(index);
  EXPECT_EQ(rows_, Expected());
}

TEST_F(OnlineIndexTest, OtherDefinitions_AreCreatedAsEver) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  session_.Begin();
  EXPECT_NE(index, Create(session_, kUnique));
  EXPECT_NE(index, Create(session_, {.unique = false, .descending = 1}));
  EXPECT_NE(index, session_.CreateIndex(62, u"set", {{LORV_TYPE_LONG, kNumberToken}}));
  EXPECT_NE(index, session_.CreateIndex(63, kSet, {{LORV_TYPE_LONG, kNumberToken, false}}));
  EXPECT_NE(index, session_.CreateIndex(64, kSet, {{LORV_TYPE_LONG, 101}}));
  EXPECT_EQ(index, Create(session_));
  EXPECT_NE(index, Create(session_));  // there is only one to adopt
}

TEST_F(OnlineIndexTest, EqualDefinition_TakesUpTheBuild) {
  IndexId const index = Prepare();
  EXPECT_EQ(index, Prepare());
  EXPECT_NE(index, Prepare(kUnique));
  EXPECT_EQ(2u, Builds().size());
}

// ---- writers beside the build ------------------------------------------------------------------

// Each change, before each step of the build, by a transaction that began so many steps earlier.
class InterleavingTest : public OnlineIndexTest,
                         public testing::WithParamInterface<std::tuple<int, int, int>> {
 protected:
  void Change(int change) {
    switch (change) {
      case 0:
        Row(writer_, 35);
        break;
      case 1:
        writer_.PutLong(rows_[4], kNumber, 175);  // upwards
        break;
      case 2:
        writer_.PutLong(rows_[17], kNumber, 1);  // downwards
        break;
      case 3:
        writer_.PutLong(rows_[4], kOther, 9);  // not what is indexed
        writer_.PutLong(rows_[12], kOther, 9);
        break;
      case 4:
        writer_.Delete(rows_[4]);
        writer_.Delete(rows_[15]);
        break;
      case 5:
        writer_.PutSetspec(rows_[4], u"elsewhere/");
        writer_.PutSetspec(elsewhere_, kSet);
        break;
      case 6:
        writer_.PutSetspec(rows_[4], u"set/child/");
        writer_.PutSetspec(rows_[15], u"set/child/");
        break;
      case 7: {
        LayoutId const wider = writer_.CreateLayout(50, {{LORV_TYPE_LONG, 102}}, layout_);
        Check("move", lscoredb_move_object(writer_.context(), rows_[4], wider));
        Check("move", lscoredb_move_object(writer_.context(), rows_[15], wider));
        break;
      }
      default: {
        Oid const gone = Row(writer_, 36);
        std::uint64_t savepoint = 0;
        Check("savepoint", lscoredb_savepoint(writer_.context(), &savepoint));
        writer_.PutLong(rows_[4], kNumber, 175);
        writer_.Delete(gone);
        Check("rollback_to", lscoredb_rollback_to(writer_.context(), savepoint));
        writer_.PutLong(rows_[15], kNumber, 2);
      }
    }
  }
};

TEST_P(InterleavingTest, EveryObject_IsInTheIndex) {
  auto const [change, at, behind] = GetParam();
  IndexId index = 0;
  int step = 0;
  if (at - behind < 0) writer_.Begin();
  index = Prepare();
  for (std::uint32_t state = LSCOREDB_INDEX_BUILDING; state != LSCOREDB_INDEX_READY; ++step) {
    if (step == at - behind) writer_.Begin();
    if (step == at) {
      Change(change);
      writer_.Commit();
      EXPECT_TRUE(Findings(database_.get()).empty());
    }
    state = Step(index, 5).state;
    EXPECT_TRUE(Findings(database_.get()).empty());
  }
  Oids const expected = Expected();
  EXPECT_EQ(expected, Adopt(index));
}

INSTANTIATE_TEST_SUITE_P(Changes, InterleavingTest,
                         testing::Combine(testing::Range(0, 9), testing::Range(0, 5),
                                          testing::Range(0, 3)));

// A long walk with many writers' commits, by seed.
TEST_F(OnlineIndexTest, RandomChanges_LeaveNothingOut) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::mt19937 random(seed);
    auto const below = [&](std::size_t limit) { return random() % limit; };
    IndexId const index = Prepare();
    Session older(database_);
    older.Begin();
    for (std::uint32_t state = 0; state != LSCOREDB_INDEX_READY;) {
      for (std::size_t i = below(3); i > 0; --i) {
        Write([&] {
          Oid& row = rows_[below(rows_.size())];
          std::size_t const kind = below(5);
          if (kind == 0) rows_.push_back(Row(writer_, static_cast<int>(below(300))));
          if (kind == 1) writer_.PutLong(row, kNumber, static_cast<int>(below(300)));
          if (kind == 2) writer_.PutLong(row, kOther, 1);
          if (kind == 3) writer_.PutSetspec(row, below(2) == 0 ? kSet : u"elsewhere/");
          if (kind == 4 && rows_.size() > 5) {
            writer_.Delete(row);
            std::swap(row, rows_.back());
            rows_.pop_back();
          }
        });
      }
      if (below(4) == 0) {
        Row(older, static_cast<int>(below(300)));
        older.Commit();
        older.Begin();
      }
      // Another context, which sorts anew, takes some of the steps.
      Session helper(database_);
      state = Step(below(5) == 0 ? helper : session_, index, 1 + below(5)).state;
    }
    older.Rollback();
    ASSERT_TRUE(Findings(database_.get()).empty()) << "seed " << seed;
    Oids const expected = Expected();
    ASSERT_EQ(expected, Adopt(index)) << "seed " << seed;
    session_.Begin();
    session_.DropIndex(index);
    session_.Commit();
  }
}

TEST_F(OnlineIndexTest, LongKeysAndLargeRows_AreDerivedAgain) {
  session_.Begin();
  LayoutId const layout =
      session_.CreateLayout(51, {{LORV_TYPE_STRING, 200}, {LORV_TYPE_BINARY, 201}});
  Oids rows;
  for (char16_t i = 0; i < 6; ++i) {
    rows.push_back(session_.Insert(layout, u"texts/"));
    session_.PutString(rows.back(), 2, Text(700, u'x') + static_cast<char16_t>(u'a' + i));
    session_.PutBinary(rows.back(), 3, Bytes(i % 2 == 0 ? std::size_t{17} << 20 : 5));
  }
  session_.Commit();
  auto const columns = Definitions({{LORV_TYPE_STRING, 200}});
  IndexId index = 0;
  EXPECT_STATUS(0, lscoredb_prepare_index(session_.context(), nullptr, u"texts/", columns.data(), 0,
                                          0, &index));
  Step(index);
  Write([&] {
    for (Oid const row : rows) writer_.PutBinary(row, 3, Bytes(std::size_t{18} << 20));
    writer_.PutString(rows[5], 2, Text(700, u'x') + u'A');
  });
  StepTo(index, LSCOREDB_INDEX_READY, 2);
  session_.Begin();
  EXPECT_EQ(index, session_.CreateIndex(kToken, u"texts/", {{LORV_TYPE_STRING, 200}}));
  EXPECT_EQ((Oids{rows[5], rows[0], rows[1], rows[2], rows[3], rows[4]}), session_.Scan(index));
  session_.Commit();
}

// ---- adoption ----------------------------------------------------------------------------------

TEST_F(OnlineIndexTest, AdoptedIndex_HoldsWhatTheTransactionWroteBefore) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  session_.Begin();
  Oid const added = Row(session_, -1);
  session_.Delete(rows_[0]);
  session_.PutLong(rows_[1], kNumber, 1000);
  EXPECT_EQ(index, Create(session_));
  Oid const later = Row(session_, -2);
  Oids const seen = session_.Scan(index);
  EXPECT_EQ((Oids{later, added, rows_[2]}), Oids(seen.begin(), seen.begin() + 3));
  EXPECT_EQ(rows_[1], seen.back());
  EXPECT_EQ(Text(kSet), [&] {
    char16_t const* setspec = nullptr;
    Check("setspec", lorvi_context_get_index_setspec(session_.context(), index, &setspec));
    return Text(setspec);
  }());
  session_.Commit();
  EXPECT_EQ(seen, Committed(index));
}

TEST_F(OnlineIndexTest, AdoptionBesideWriters_IsNoConflict) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  session_.Begin();
  writer_.Begin();
  EXPECT_EQ(index, Create(session_));
  Oid const before = Row(writer_, -1);
  writer_.Commit();
  writer_.Begin();
  Oid const after = Row(writer_, -2);
  session_.Commit();
  writer_.Commit();
  Oids const held = Committed(index);
  EXPECT_EQ((Oids{after, before}), Oids(held.begin(), held.begin() + 2));
  EXPECT_EQ(22u, held.size());
}

TEST_F(OnlineIndexTest, AdoptedTwice_IsAConflict) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  session_.Begin();
  writer_.Begin();
  Create(session_);
  Create(writer_);
  session_.Commit();
  EXPECT_STATUS(LSCOREDB_CONFLICT, writer_.TryCommit());
}

TEST_F(OnlineIndexTest, AdoptedAndAbandoned_IsAConflict) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  writer_.Begin();
  Create(writer_);
  EXPECT_STATUS(0, lscoredb_abandon_index(session_.context(), index));
  EXPECT_STATUS(LSCOREDB_CONFLICT, writer_.TryCommit());
  EXPECT_TRUE(Builds().empty());
}

TEST_F(OnlineIndexTest, RolledBackAdoption_LeavesTheIndexReady) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  session_.Begin();
  Create(session_);
  session_.Rollback();
  EXPECT_EQ(LSCOREDB_INDEX_READY, Builds().at(0).state);
  session_.Begin();
  std::uint64_t savepoint = 0;
  EXPECT_STATUS(0, lscoredb_savepoint(session_.context(), &savepoint));
  EXPECT_EQ(index, Create(session_));
  EXPECT_STATUS(0, lscoredb_rollback_to(session_.context(), savepoint));
  EXPECT_TRUE(session_.IndexesByToken(kToken).empty());
  EXPECT_EQ(index, Create(session_));
  session_.Commit();
  EXPECT_EQ(rows_, Committed(index));
}

TEST_F(OnlineIndexTest, AdoptedAndDropped_IsGone) {
  IndexId const index = Prepare();
  StepTo(index, LSCOREDB_INDEX_READY);
  session_.Begin();
  Row(session_, 3);
  Create(session_);
  std::uint64_t savepoint = 0;
  EXPECT_STATUS(0, lscoredb_savepoint(session_.context(), &savepoint));
  session_.DropIndex(index);
  EXPECT_TRUE(session_.IndexesByToken(kToken).empty());
  EXPECT_STATUS(0, lscoredb_rollback_to(session_.context(), savepoint));
  EXPECT_EQ(21u, session_.Scan(index).size());
  session_.DropIndex(index);
  session_.Commit();
  EXPECT_TRUE(Builds().empty());
  session_.Begin();
  EXPECT_TRUE(session_.IndexesByToken(kToken).empty());
}

}  // namespace
}  // namespace lscoredb_test
