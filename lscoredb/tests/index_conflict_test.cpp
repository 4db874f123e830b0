// An index made in one transaction, rows changed in another: whichever commits first, the index
// holds every row of its set.

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint64_t kNumberToken = 100;

class IndexConflictTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    row_ = Row(session_, 1);
    elsewhere_ = Row(session_, 2, u"elsewhere/");
    session_.Commit();
  }

  Oid Row(Session& session, std::int64_t number, char16_t const* setspec = kSet) const {
    Oid const oid = session.Insert(layout_, setspec);
    session.PutLong(oid, kNumber, number);
    return oid;
  }

  static IndexId Index(Session& session, IndexTraits traits = {}) {
    return session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}}, traits);
  }

  // The maker of an index, with a snapshot from before `change`, commits after it.
  std::uint32_t CommitOfAnIndexAfter(std::function<void()> const& change) {
    session_.Begin();
    writer_.Begin();
    change();
    Index(session_);
    writer_.Commit();
    return session_.TryCommit();
  }

  // `change` is made in a transaction that begins before the index is there, and commits after it.
  IndexId IndexCommittedBefore(std::function<void()> const& change, IndexTraits traits = {}) {
    writer_.Begin();
    session_.Begin();
    change();
    IndexId const index = Index(session_, traits);
    session_.Commit();
    return index;
  }

  Oids Committed(IndexId index) {
    Session reader(database_);
    reader.BeginReadOnly();
    return reader.Scan(index);
  }

  Session writer_{database_};
  LayoutId layout_ = 0;
  Oid row_ = 0;
  Oid elsewhere_ = 0;
};

TEST_F(IndexConflictTest, RowInsertedMeanwhile_IsAConflict) {
  EXPECT_STATUS(LSCOREDB_CONFLICT, CommitOfAnIndexAfter([&] { Row(writer_, 3); }));
  session_.Begin();
  EXPECT_TRUE(session_.IndexesByToken(60).empty());
}

TEST_F(IndexConflictTest, RowChangedMeanwhile_IsAConflict) {
  EXPECT_STATUS(LSCOREDB_CONFLICT,
                CommitOfAnIndexAfter([&] { writer_.PutLong(row_, kNumber, 9); }));
}

TEST_F(IndexConflictTest, RowDeletedMeanwhile_IsAConflict) {
  EXPECT_STATUS(LSCOREDB_CONFLICT, CommitOfAnIndexAfter([&] { writer_.Delete(row_); }));
}

TEST_F(IndexConflictTest, RowOfADescendant_IsAConflict) {
  EXPECT_STATUS(LSCOREDB_CONFLICT, CommitOfAnIndexAfter([&] { Row(writer_, 3, u"set/child/"); }));
}

TEST_F(IndexConflictTest, RowMovedIntoTheSetMeanwhile_IsAConflict) {
  EXPECT_STATUS(LSCOREDB_CONFLICT,
                CommitOfAnIndexAfter([&] { writer_.PutSetspec(elsewhere_, kSet); }));
}

TEST_F(IndexConflictTest, RowMovedOutOfTheSetMeanwhile_IsAConflict) {
  EXPECT_STATUS(LSCOREDB_CONFLICT,
                CommitOfAnIndexAfter([&] { writer_.PutSetspec(row_, u"elsewhere/"); }));
}

TEST_F(IndexConflictTest, ChangeOfAnotherSet_IsNoConflict) {
  EXPECT_STATUS(0, CommitOfAnIndexAfter([&] {
                  writer_.PutLong(elsewhere_, kNumber, 9);
                  Row(writer_, 3, u"se");
                }));
  session_.Begin();
  EXPECT_EQ(session_.Scan(session_.IndexesByToken(60).at(0)), Oids{row_});
}

TEST_F(IndexConflictTest, ChangeBeforeTheCreatorsBegin_IsNoConflict) {
  writer_.Begin();
  Oid const added = Row(writer_, 3);
  writer_.Commit();
  session_.Begin();
  IndexId const index = Index(session_);
  session_.Commit();
  EXPECT_EQ(Committed(index), (Oids{row_, added}));
}

TEST_F(IndexConflictTest, RowInsertedByAnOlderTransaction_EntersTheIndex) {
  Oid added = 0;
  IndexId const index = IndexCommittedBefore([&] { added = Row(writer_, 0); });
  writer_.Commit();
  EXPECT_EQ(Committed(index), (Oids{added, row_}));
}

TEST_F(IndexConflictTest, RowWrittenAfterTheIndexIsCommitted_EntersIt) {
  IndexId const index = IndexCommittedBefore([] {});
  Oid const added = Row(writer_, 0);
  writer_.Commit();
  EXPECT_EQ(Committed(index), (Oids{added, row_}));
}

TEST_F(IndexConflictTest, RowChangedByAnOlderTransaction_MovesInTheIndex) {
  IndexId const index = IndexCommittedBefore([&] { writer_.PutLong(row_, kNumber, 9); });
  writer_.Commit();
  session_.Begin();
  EXPECT_EQ(session_.Scan(index), Oids{row_});
  EXPECT_EQ(session_.At(index, Key().Long(9)), Oids{row_});
  EXPECT_EQ(session_.At(index, Key().Long(1)), Oids{});
}

TEST_F(IndexConflictTest, RowDeletedByAnOlderTransaction_LeavesTheIndex) {
  IndexId const index = IndexCommittedBefore([&] { writer_.Delete(row_); });
  writer_.Commit();
  EXPECT_EQ(Committed(index), Oids{});
}

TEST_F(IndexConflictTest, RowMovedByAnOlderTransaction_EntersOrLeavesTheIndex) {
  IndexId const index = IndexCommittedBefore([&] {
    writer_.PutSetspec(elsewhere_, kSet);
    writer_.PutSetspec(row_, u"elsewhere/");
  });
  writer_.Commit();
  EXPECT_EQ(Committed(index), Oids{elsewhere_});
}

TEST_F(IndexConflictTest, RowMovedToAnotherLayoutByAnOlderTransaction_StaysIndexed) {
  session_.Begin();
  LayoutId const newer =
      session_.CreateLayout(50, {{LORV_TYPE_STRING, 101}, {LORV_TYPE_LONG, kNumberToken}});
  session_.Commit();
  IndexId const index = IndexCommittedBefore([&] { writer_.PutString(row_, 2, u"x", newer); });
  writer_.Commit();
  session_.Begin();
  Scanner scanner(session_, index, Key().Long(1), Key().Long(1));
  LORV_REFERENCE const found = scanner.NextReference();
  EXPECT_EQ(found.oid, row_);
  EXPECT_EQ(found.layout, newer);
}

TEST_F(IndexConflictTest, DuplicateFromAnOlderTransaction_IsRefusedByItsCommit) {
  IndexId const index = IndexCommittedBefore([&] { Row(writer_, 1); }, kUnique);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, writer_.TryCommit());
  EXPECT_EQ(Committed(index), Oids{row_});
}

TEST_F(IndexConflictTest, TwoDuplicatesOfAnOlderTransaction_AreRefusedByItsCommit) {
  IndexId const index = IndexCommittedBefore(
      [&] {
        Row(writer_, 5);
        Row(writer_, 5);
      },
      kUnique);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, writer_.TryCommit());
  EXPECT_EQ(Committed(index), Oids{row_});
}

TEST_F(IndexConflictTest, CreatorsOwnRows_AreInItsIndex) {
  session_.Begin();
  Oid const before = Row(session_, 0);
  IndexId const index = Index(session_);
  Oid const after = Row(session_, 5);
  session_.PutLong(row_, kNumber, 3);
  session_.Commit();
  EXPECT_EQ(Committed(index), (Oids{before, row_, after}));
}

TEST_F(IndexConflictTest, IndexDroppedMeanwhile_GetsNothingFromOlderTransactions) {
  session_.Begin();
  IndexId const index = Index(session_, kUnique);
  session_.Commit();
  writer_.Begin();
  session_.Begin();
  Oid const added = Row(writer_, 3);
  session_.DropIndex(index);
  session_.Commit();
  writer_.Commit();
  session_.Begin();
  EXPECT_TRUE(session_.Exists(added));
  EXPECT_TRUE(session_.IndexesByToken(60).empty());
  IndexId const again = Index(session_);
  EXPECT_EQ(session_.Scan(again), (Oids{row_, added}));
}

TEST_F(IndexConflictTest, TwoIndexesCreatedAtOnce_BothHoldTheSet) {
  session_.Begin();
  writer_.Begin();
  IndexId const first = Index(session_);
  IndexId const second = Index(writer_);
  session_.Commit();
  writer_.Commit();
  EXPECT_EQ(Committed(first), Oids{row_});
  EXPECT_EQ(Committed(second), Oids{row_});
}

}  // namespace
}  // namespace lscoredb_test
