// An index over objects that are there: what its transaction sees of it and does to it before the
// commit, in memory and, where it is large, through files.

#include <lscoredb/refused_key.h>

#include <algorithm>
#include <filesystem>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kText = 3;
constexpr std::uint64_t kNumberToken = 100;
constexpr std::uint64_t kTextToken = 101;

// The sorter has 32 MiB of memory. Fewer objects with long keys than many with short ones.
constexpr std::size_t kLongText = 3000;
constexpr int kManyRows = 12000;

class IndexBuildTest : public testing::Test {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ =
        session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, kTextToken}});
    for (int i = 0; i < 10; ++i) rows_.push_back(Row(i * 10));
    session_.Commit();
    session_.Begin();
  }

  Oid Row(std::int64_t number) {
    Oid const row = session_.Insert(layout_);
    session_.PutLong(row, kNumber, number);
    return row;
  }
  IndexId ByNumber(IndexTraits traits = {}) {
    return session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}}, traits);
  }
  std::uint32_t TryUnique() {
    IndexId index = 0;
    return session_.TryCreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique, &index);
  }

  void ExpectRefused(Oid object, Oid holder, std::int64_t number) {
    lscoredb_refused_key refused{};
    refused.size = sizeof refused;
    ASSERT_EQ(0u, lscoredb_refused(session_.context(), &refused));
    EXPECT_EQ(object, refused.object);
    EXPECT_EQ(holder, refused.holder);
    auto const* const key = static_cast<std::uint8_t const*>(refused.key);
    EXPECT_EQ(Key().Long(number).Bytes(), std::vector<std::uint8_t>(key, key + refused.key_size));
  }
  void ExpectNothingRefused() {
    lscoredb_refused_key refused{};
    refused.size = sizeof refused;
    EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_refused(session_.context(), &refused));
  }

  // The same before and after the commit, both ways.
  void ExpectNow(IndexId index, Oids expected) {
    EXPECT_EQ(expected, session_.Scan(index));
    Oids backwards = session_.ScanBack(index);
    std::reverse(backwards.begin(), backwards.end());
    EXPECT_EQ(expected, backwards);
  }
  void ExpectNowAndCommitted(IndexId index, Oids const& expected) {
    ExpectNow(index, expected);
    session_.Commit();
    session_.BeginReadOnly();
    ExpectNow(index, expected);
    session_.Rollback();
    EXPECT_STATUS(0, lscoredb_check(database_.get(), 0, nullptr, nullptr));
  }

  TemporaryDirectory directory_;
  Database database_{directory_.path()};
  Session session_{database_};
  LayoutId layout_ = 0;
  Oids rows_;
};

TEST_F(IndexBuildTest, OwnChanges_OverlayExistingRows) {
  session_.Delete(rows_[1]);
  session_.PutLong(rows_[2], kNumber, 95);
  IndexId const index = ByNumber();
  session_.Delete(rows_[3]);
  session_.PutLong(rows_[4], kNumber, -1);
  Oid const fresh = Row(55);
  Oid const gone = Row(56);
  session_.Delete(gone);
  ExpectNowAndCommitted(index, {rows_[4], rows_[0], rows_[5], fresh, rows_[6], rows_[7], rows_[8],
                                rows_[9], rows_[2]});
}

TEST_F(IndexBuildTest, Entry_MayLeaveAndComeBack) {
  IndexId const index = ByNumber();
  session_.PutLong(rows_[5], kNumber, 7);
  session_.PutLong(rows_[5], kNumber, 50);
  EXPECT_EQ(Oids{rows_[5]}, session_.At(index, Key().Long(50)));
  EXPECT_EQ(Oids{}, session_.At(index, Key().Long(7)));
  ExpectNowAndCommitted(index, rows_);
}

TEST_F(IndexBuildTest, Range_IsFoundByKey) {
  IndexId const index = ByNumber();
  EXPECT_EQ((Oids{rows_[3], rows_[4], rows_[5]}),
            session_.Scan(index, Key().Long(25), Key().Long(50)));
  EXPECT_EQ((Oids{rows_[5], rows_[4], rows_[3]}),
            session_.ScanBack(index, Key().Long(55), Key().Long(30)));
}

TEST_F(IndexBuildTest, Scan_SeesTheIndexAsItWas) {
  IndexId const index = ByNumber();
  Scanner scanner(session_, index);
  EXPECT_EQ(rows_[0], scanner.Next());
  for (Oid const row : rows_) session_.PutLong(row, kNumber, 1000);
  EXPECT_EQ(Oids(rows_.begin() + 1, rows_.end()), scanner.Rest());
}

TEST_F(IndexBuildTest, RollbackToSavepoint_RestoresExistingEntries) {
  IndexId const index = ByNumber();
  std::uint64_t savepoint = 0;
  Check("savepoint", lscoredb_savepoint(session_.context(), &savepoint));
  session_.PutLong(rows_[0], kNumber, 99);
  session_.Delete(rows_[9]);
  Row(1);
  Check("rollback_to", lscoredb_rollback_to(session_.context(), savepoint));
  ExpectNowAndCommitted(index, rows_);
}

TEST_F(IndexBuildTest, SeveralIndexesOfOneTransaction_AllExist) {
  IndexId const up = ByNumber();
  IndexId const down = session_.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kNumberToken}},
                                            {.unique = false, .descending = 1});
  IndexId const dropped = ByNumber();
  session_.DropIndex(dropped);
  session_.PutLong(rows_[0], kNumber, 35);
  Oids expected = {rows_[1], rows_[2], rows_[3], rows_[0], rows_[4],
                   rows_[5], rows_[6], rows_[7], rows_[8], rows_[9]};
  ExpectNow(up, expected);
  std::reverse(expected.begin(), expected.end());
  ExpectNowAndCommitted(down, expected);
}

// ---- unique indexes ----------------------------------------------------------------------------

TEST_F(IndexBuildTest, ExistingDuplicates_AreRefused) {
  session_.PutLong(rows_[7], kNumber, 30);
  session_.Commit();
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryUnique());
  ExpectRefused(rows_[7], rows_[3], 30);
  session_.Commit();
  ExpectNothingRefused();
}

TEST_F(IndexBuildTest, EqualPendingKeys_AreRefused) {
  Oid const one = Row(5);
  Oid const other = Row(5);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryUnique());
  ExpectRefused(other, one, 5);
  session_.Rollback();
  session_.Begin();
  ExpectNothingRefused();
}

TEST_F(IndexBuildTest, WrittenDuplicateOfAnExistingRow_IsRefused) {
  session_.PutLong(rows_[7], kNumber, 30);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY, TryUnique());
  ExpectRefused(rows_[7], rows_[3], 30);
}

TEST_F(IndexBuildTest, ExistingNulls_DoNotCollide) {
  for (int i = 0; i < 5; ++i) rows_.push_back(session_.Insert(layout_));
  session_.Commit();
  session_.Begin();
  IndexId const index = ByNumber(kUnique);
  EXPECT_EQ(rows_.size(), session_.Scan(index).size());
}

TEST_F(IndexBuildTest, Write_CollidesWithExistingRowsAndNotWithRemovedOnes) {
  IndexId const index = ByNumber(kUnique);
  Oid const row = session_.Insert(layout_);
  EXPECT_STATUS(LSCOREDB_DUPLICATE_KEY,
                lorv_context_put_long(session_.context(), row, 0, kNumber, 30));
  session_.Delete(rows_[3]);
  session_.PutLong(row, kNumber, 30);
  EXPECT_EQ(Oids{row}, session_.At(index, Key().Long(30)));
  session_.Commit();
}

// ---- large ones --------------------------------------------------------------------------------

class LargeIndexBuildTest : public IndexBuildTest {
 protected:
  static Text TextOf(int number) {
    Text text(kLongText, u'x');
    for (std::size_t i = 6; i-- > 0; number /= 10) {
      text[i] = static_cast<char16_t>(u'0' + number % 10);
    }
    return text;
  }

  // In an order that is not that of their texts.
  void MakeRows() {
    for (int i = 0; i < kManyRows; ++i) {
      Oid const row = session_.Insert(layout_);
      int const number = i * 7919 % kManyRows;
      session_.PutString(row, kText, TextOf(number));
      by_text_.resize(kManyRows);
      by_text_[static_cast<std::size_t>(number)] = row;
    }
    session_.Commit();
    session_.Begin();
  }
  IndexId ByText(IndexTraits traits = {}) {
    return session_.CreateIndex(60, kSet, {{LORV_TYPE_STRING, kTextToken}}, traits);
  }

  Oids by_text_;
};

TEST_F(LargeIndexBuildTest, Entries_ComeInOrderAndLeaveNoFile) {
  MakeRows();
  auto const files = [&] {
    return std::distance(std::filesystem::directory_iterator(directory_.path()), {});
  };
  auto const before = files();
  IndexId const index = ByText(kUnique);
  EXPECT_EQ(before, files());
  session_.Delete(by_text_[5000]);
  session_.PutString(by_text_[0], kText, u"behind all");
  Oids expected(by_text_.begin() + 1, by_text_.end());
  expected.push_back(by_text_[0]);
  expected.erase(expected.begin() + 4999);
  expected.insert(expected.begin(), rows_.begin(), rows_.end());  // those without a text
  ExpectNowAndCommitted(index, expected);
}

TEST_F(LargeIndexBuildTest, DuplicatesFarApart_AreRefused) {
  MakeRows();
  session_.PutString(by_text_[kManyRows - 1], kText, TextOf(17));
  session_.Commit();
  session_.Begin();
  IndexId index = 0;
  EXPECT_STATUS(
      LSCOREDB_DUPLICATE_KEY,
      session_.TryCreateIndex(60, kSet, {{LORV_TYPE_STRING, kTextToken}}, kUnique, &index));
}

}  // namespace
}  // namespace lscoredb_test
