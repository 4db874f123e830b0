// A scan sees its range as it was when it was opened, whatever its caller does meanwhile.

#include <algorithm>
#include <memory>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint64_t kNumberToken = 100;

// The rows of a scan are committed, or pending, or every other one of each.
enum class Rows { kCommitted, kPending, kMixed };

class IteratorTest : public KernelTest, public testing::WithParamInterface<Rows> {
 protected:
  static constexpr int kCount = 20;

  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    index_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    Restart();
    rows_.resize(kCount);
    for (int i = 0; i < kCount; i += 2) MakeRow(i);
    if (GetParam() == Rows::kMixed) Restart();
    for (int i = 1; i < kCount; i += 2) MakeRow(i);
    if (GetParam() == Rows::kCommitted) Restart();
  }

  void MakeRow(int number) { rows_[static_cast<std::size_t>(number)] = Row(number); }

  Oid Row(std::int64_t number) {
    Oid const oid = session_.Insert(layout_);
    session_.PutLong(oid, kNumber, number);
    return oid;
  }

  Oids Reversed() const { return Oids(rows_.rbegin(), rows_.rend()); }

  // Scans on and calls `visit` with each row before the next step.
  static Oids Visit(Scanner& scanner, std::function<void(Oid)> const& visit) {
    Oids seen;
    for (Oid oid = scanner.Next(); oid != 0; oid = scanner.Next()) {
      seen.push_back(oid);
      visit(oid);
    }
    return seen;
  }

  LayoutId layout_ = 0;
  IndexId index_ = 0;
  Oids rows_;
};

TEST_P(IteratorTest, Scan_IncreasingItsOwnColumn_SeesEachRowOnce) {
  Scanner scanner(session_, index_);
  EXPECT_EQ(
      Visit(scanner,
            [&](Oid oid) { session_.PutLong(oid, kNumber, *session_.Long(oid, kNumber) + 7); }),
      rows_);
  EXPECT_EQ(session_.Scan(index_), rows_);
  EXPECT_EQ(session_.At(index_, Key().Long(0)), Oids{});
  EXPECT_EQ(session_.At(index_, Key().Long(26)), Oids{rows_[19]});
}

TEST_P(IteratorTest, ReverseScan_DecreasingItsOwnColumn_SeesEachRowOnce) {
  Scanner scanner(session_, index_, Key(), Key(), LORV_ITERATOR_REVERSE);
  EXPECT_EQ(
      Visit(scanner,
            [&](Oid oid) { session_.PutLong(oid, kNumber, *session_.Long(oid, kNumber) - 7); }),
      Reversed());
  EXPECT_EQ(session_.ScanBack(index_), Reversed());
}

TEST_P(IteratorTest, RowsChangedAhead_DoNotMove) {
  Scanner scanner(session_, index_);
  EXPECT_EQ(scanner.Next(), rows_[0]);
  session_.PutLong(rows_[10], kNumber, -1);
  session_.PutLong(rows_[5], kNumber, 100);
  session_.PutDefault(rows_[7], kNumber);
  EXPECT_EQ(scanner.Rest(), Oids(rows_.begin() + 1, rows_.end()));
}

TEST_P(IteratorTest, RowChangedOutOfTheRange_IsStillDelivered) {
  Scanner scanner(session_, index_, Key().Long(5), Key().Long(8));
  for (Oid const row : rows_) session_.PutLong(row, kNumber, 1000);
  EXPECT_EQ(scanner.Rest(), Oids(rows_.begin() + 5, rows_.begin() + 9));
}

TEST_P(IteratorTest, RowChangedManyTimes_IsDeliveredOnce) {
  Scanner scanner(session_, index_);
  for (int round = 0; round < 5; ++round)
    for (std::size_t i = 0; i < rows_.size(); ++i)
      session_.PutLong(rows_[i], kNumber, static_cast<std::int64_t>(i) * 3 + round);
  EXPECT_EQ(scanner.Rest(), rows_);
}

TEST_P(IteratorTest, RowInsertedMeanwhile_IsNotDelivered) {
  Scanner scanner(session_, index_);
  EXPECT_EQ(scanner.Next(), rows_[0]);
  Oid const added = Row(5);
  EXPECT_EQ(scanner.Rest(), Oids(rows_.begin() + 1, rows_.end()));
  EXPECT_EQ(session_.At(index_, Key().Long(5)), (Oids{rows_[5], added}));
}

TEST_P(IteratorTest, RowMovedOutOfTheSetMeanwhile_IsStillDelivered) {
  Scanner scanner(session_, index_);
  session_.PutSetspec(rows_[3], u"elsewhere/");
  EXPECT_EQ(scanner.Rest(), rows_);
}

TEST_P(IteratorTest, Scan_MayDeleteTheRowsItReads) {
  Scanner scanner(session_, index_);
  EXPECT_EQ(Visit(scanner, [&](Oid oid) { session_.Delete(oid); }), rows_);
  EXPECT_EQ(session_.Scan(index_), Oids{});
  Restart();
  EXPECT_EQ(session_.Scan(index_), Oids{});
}

TEST_P(IteratorTest, RowDeletedAhead_IsNotDelivered) {
  for (std::uint32_t const flags : {LORV_ITERATOR_FORWARD, LORV_ITERATOR_REVERSE}) {
    Scanner scanner(session_, index_, Key(), Key(), flags);
    Oid const middle = rows_[rows_.size() / 2];
    session_.Delete(middle);
    rows_.erase(std::find(rows_.begin(), rows_.end(), middle));
    EXPECT_EQ(scanner.Rest(), flags == LORV_ITERATOR_FORWARD ? rows_ : Reversed());
  }
}

TEST_P(IteratorTest, RowChangedAndThenDeleted_IsNotDelivered) {
  Scanner scanner(session_, index_);
  session_.PutLong(rows_[4], kNumber, 50);
  session_.Delete(rows_[4]);
  rows_.erase(rows_.begin() + 4);
  EXPECT_EQ(scanner.Rest(), rows_);
}

TEST_P(IteratorTest, ScansOpenedAtDifferentTimes_EachSeeTheirOwnState) {
  Scanner first(session_, index_);
  Oid const added = Row(100);
  Scanner second(session_, index_);
  session_.PutLong(rows_[0], kNumber, 200);
  Scanner third(session_, index_);
  Oids expected = rows_;
  EXPECT_EQ(first.Rest(), expected);
  expected.push_back(added);
  EXPECT_EQ(second.Rest(), expected);
  std::rotate(expected.begin(), expected.begin() + 1, expected.end());
  EXPECT_EQ(third.Rest(), expected);
}

TEST_P(IteratorTest, End_IsPermanent) {
  Scanner scanner(session_, index_);
  scanner.Rest();
  Row(1000);
  EXPECT_EQ(scanner.Next(), 0U);
  EXPECT_EQ(scanner.Next(), 0U);
}

TEST_P(IteratorTest, EmptyScan_EndsAtOnce) {
  Scanner scanner(session_, index_, Key().Long(500), Key().Long(600));
  EXPECT_EQ(scanner.Next(), 0U);
}

TEST_P(IteratorTest, Scans_MayBeAbandonedEarlyAndOpenedManyTimes) {
  for (int i = 0; i < 2000; ++i) {
    Scanner scanner(session_, index_, Key().Long(3), Key());
    EXPECT_EQ(scanner.Next(), rows_[3]);
  }
}

TEST_P(IteratorTest, ManyScans_AreOpenAtOnce) {
  std::vector<std::unique_ptr<Scanner>> scanners;
  for (int i = 0; i < 200; ++i) scanners.push_back(std::make_unique<Scanner>(session_, index_));
  for (Oid const row : rows_)
    for (auto const& scanner : scanners) EXPECT_EQ(scanner->Next(), row);
}

TEST_P(IteratorTest, FreedIterator_IsUnknown) {
  Scanner scanner(session_, index_);
  std::uint64_t const handle = scanner.handle();
  EXPECT_STATUS(0, scanner.Free());
  LORV_REFERENCE reference{};
  EXPECT_STATUS(LSCOREDB_UNKNOWN_ITERATOR, lorv_iterator_next(handle, &reference));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_ITERATOR, lorv_iterator_free(handle));
}

TEST_P(IteratorTest, Iterator_MayBeFreedAfterItsTransaction) {
  Scanner committed(session_, index_);
  committed.Next();
  session_.Commit();
  LORV_REFERENCE reference{.oid = 77, .position = 0, .layout = 0};
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lorv_iterator_next(committed.handle(), &reference));
  EXPECT_EQ(reference.oid, 77U);
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lorv_iterator_next(committed.handle(), &reference))
      << "the next transaction is not its own";
  EXPECT_STATUS(0, committed.Free());
  Scanner rolled_back(session_, index_);
  session_.Rollback();
  EXPECT_STATUS(0, rolled_back.Free());
}

TEST_P(IteratorTest, DroppedIndex_DoesNotEndAScan) {
  Scanner scanner(session_, index_);
  EXPECT_EQ(scanner.Next(), rows_[0]);
  session_.DropIndex(index_);
  EXPECT_EQ(scanner.Rest(), Oids(rows_.begin() + 1, rows_.end()));
}

TEST_P(IteratorTest, CommitOfAnotherTransaction_DoesNotDisturbAScan) {
  if (GetParam() != Rows::kCommitted) Restart();
  Scanner scanner(session_, index_);
  EXPECT_EQ(scanner.Next(), rows_[0]);
  Session other(database_);
  other.Begin();
  for (Oid const row : rows_) other.Delete(row);
  other.Commit();
  EXPECT_EQ(scanner.Rest(), Oids(rows_.begin() + 1, rows_.end()));
}

TEST_P(IteratorTest, ScanOfARolledBackTransaction_LeavesTheNextOneAlone) {
  Restart();
  Scanner scanner(session_, index_);
  session_.PutLong(rows_[0], kNumber, 500);
  session_.Rollback();
  session_.Begin();
  EXPECT_EQ(session_.Scan(index_), rows_);
}

TEST(IteratorClosingTest, Iterator_EndsWithItsContext) {
  Database database;
  auto session = std::make_unique<Session>(database);
  session->Begin();
  IndexId const index = session->CreateIndex(60, kSet, {});
  std::uint64_t iterator = 0;
  auto const key = Key().Bytes();
  Check("create_iterator",
        lorv_context_create_iterator(session->context(), index, LORV_ITERATOR_FORWARD, key.data(),
                                     key.data(), &iterator));
  session->Close();
  LORV_REFERENCE reference{};
  EXPECT_NE(lorv_iterator_next(iterator, &reference), 0U);
  std::uint32_t const freed = lorv_iterator_free(iterator);
  EXPECT_TRUE(freed == LORV_STATUS_OK || freed == LSCOREDB_UNKNOWN_ITERATOR) << freed;
}

std::string NameOf(testing::TestParamInfo<Rows> const& parameter) {
  constexpr char const* kNames[] = {"CommittedRows", "PendingRows", "MixedRows"};
  return kNames[static_cast<std::size_t>(parameter.param)];
}

INSTANTIATE_TEST_SUITE_P(Of, IteratorTest,
                         testing::Values(Rows::kCommitted, Rows::kPending, Rows::kMixed), NameOf);

}  // namespace
}  // namespace lscoredb_test
