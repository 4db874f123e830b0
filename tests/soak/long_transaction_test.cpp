// One transaction reads more texts than memory would hold: with read scopes its memory stays where
// it is, without them it grows with every text.

#include <gtest/gtest.h>
#include <lscoredb/host.h>

#include <functional>
#include <string>
#include <vector>

#include "memory.h"
#include "support/database.h"

namespace sagleme_soak {
namespace {

constexpr std::uint32_t kFirstColumn = 2;
constexpr std::uint32_t kTexts = 5;  // in a row
constexpr std::size_t kUnits = 24;
constexpr std::size_t kMegabyte = std::size_t{1} << 20;
constexpr std::size_t kLimit = 16 * kMegabyte;

class LongTransactionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    lscoredb_options options{};
    options.size = sizeof options;
    options.durability = LSCOREDB_NO_SYNC;
    options.row_memory = kMegabyte;  // what is measured here is not kept for later on purpose
    options.log = LSCOREDB_NO_LOG;  // with one, a large commit stays in memory until the next begin
    ASSERT_EQ(0U, lscoredb_open(directory_.path().c_str(), &options, &database_));
    ASSERT_EQ(0U, lscoredb_context_open(database_, &context_));
  }
  void TearDown() override {
    EXPECT_EQ(0U, lscoredb_context_close(context_));
    EXPECT_EQ(0U, lscoredb_close(database_));
  }

  std::uint16_t MakeLayout(std::uint8_t type) {
    std::vector<LORVI_COLUMN_DEFINITION> columns;
    for (std::uint32_t i = 0; i < kTexts; ++i) columns.push_back({type, 1, 100 + i});
    columns.push_back({0, 0, 0});
    std::uint16_t layout = 0;
    EXPECT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_WRITE));
    EXPECT_EQ(0U, lorvi_context_create_layout(context_, 50, 0, columns.data(), 0, &layout));
    EXPECT_EQ(0U, lscoredb_commit(context_));
    return layout;
  }

  // Rows with the numbers of their texts in them, and something behind.
  void Fill(std::uint64_t rows) {
    std::uint16_t const layout = MakeLayout(LORV_TYPE_STRING);
    std::uint64_t number = 0;
    while (rows_.size() < rows) {
      ASSERT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_WRITE));
      for (int i = 0; i < 10000 && rows_.size() < rows; ++i) {
        std::uint64_t row = 0;
        ASSERT_EQ(0U, lorv_context_insert(context_, layout, &row));
        rows_.push_back(row);
        for (std::uint32_t column = 0; column < kTexts; ++column) {
          std::u16string text(kUnits, u'.');
          for (std::uint64_t rest = number++, at = 0; rest > 0; rest /= 10) {
            text[at++] = static_cast<char16_t>(u'0' + rest % 10);
          }
          ASSERT_EQ(0U,
                    lorv_context_put_string(context_, row, 0, kFirstColumn + column, text.c_str()));
        }
      }
      ASSERT_EQ(0U, lscoredb_commit(context_));
    }
  }

  // Reads all texts of some rows, in scopes or not, and returns the first failure.
  std::uint32_t Read(std::size_t rows, bool in_scopes) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < rows; ++i) {
      if (in_scopes) {
        EXPECT_EQ(0U, lscoredb_read_scope_begin(context_));
      }
      for (std::uint32_t column = 0; column < kTexts; ++column, ++number) {
        LORV_STRING* text = nullptr;
        std::uint32_t const status =
            lorv_context_get_string(context_, rows_[i], 0, kFirstColumn + column, &text);
        if (status != 0) return status;
        bool const right =
            text->length == kUnits &&
            (number == 0 || text->units[0] == static_cast<char16_t>(u'0' + number % 10));
        if (!right) return LSCOREDB_DAMAGED;
      }
      if (in_scopes) {
        EXPECT_EQ(0U, lscoredb_read_scope_end(context_));
      }
    }
    return 0;
  }

  // Leaves the transaction open.
  void ChangeAll() {
    ASSERT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_WRITE));
    for (std::uint64_t const row : rows_) {
      ASSERT_EQ(0U, lorv_context_put_string(context_, row, 0, kFirstColumn, u"another text"));
    }
  }

  sagleme_test::TemporaryDirectory directory_;
  lscoredb* database_ = nullptr;
  std::uint64_t context_ = 0;
  std::vector<std::uint64_t> rows_;
};

TEST_F(LongTransactionTest, TextsInScopes_TakeNoMemoryForLong) {
  std::uint64_t const usual = kLimitsWork ? 10000000 : 1000000;
  std::uint64_t const rows = FromEnvironment("SAGLEME_SOAK_STRINGS", usual) / kTexts;
  ASSERT_NO_FATAL_FAILURE(Fill(rows));
  ASSERT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_ONLY_TRANSACTION));
  ASSERT_EQ(0U, Read(100, true));
  std::size_t const before = BytesInUse();
  if (kLimitsWork) {
    MemoryLimit const limit(kLimit);
    EXPECT_EQ(0U, Read(rows, true));
  } else {
    EXPECT_EQ(0U, Read(rows, true));
  }
  EXPECT_LT(BytesInUse(), before + kMegabyte);
  EXPECT_EQ(0U, lscoredb_rollback(context_));

  // Without scopes the same texts are all kept.
  ASSERT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_ONLY_TRANSACTION));
  if (kLimitsWork) {
    std::uint32_t status = 0;
    {
      MemoryLimit const limit(kLimit);
      status = Read(rows, false);
    }
    EXPECT_EQ(LSCOREDB_NO_MEMORY, status);
    EXPECT_EQ(0U, Read(100, false)) << "the transaction goes on";
  } else {
    EXPECT_EQ(0U, Read(rows / 4, false));
    EXPECT_GT(BytesInUse(), before + rows / 4 * kTexts * kUnits * sizeof(char16_t));
  }
  EXPECT_EQ(0U, lscoredb_rollback(context_));
  EXPECT_LT(BytesInUse(), before + kMegabyte);
}

// Also what the heap would keep for later. The store's library keeps pages for its next batch, as
// many as the largest one so far had; hence the first commit.
TEST_F(LongTransactionTest, MemoryOfALargeTransaction_GoesBackToTheSystemWhenItEnds) {
  if (!kLimitsWork) return;
  ASSERT_NO_FATAL_FAILURE(Fill(150000));
  ChangeAll();
  ASSERT_EQ(0U, lscoredb_commit(context_));
  for (bool const commits : {false, true, false, true}) {
    std::size_t const before = ResidentBytes();
    ChangeAll();
    EXPECT_GT(ResidentBytes(), before + 20 * kMegabyte) << "the transaction is not large";
    ASSERT_EQ(0U, commits ? lscoredb_commit(context_) : lscoredb_rollback(context_));
    EXPECT_LT(ResidentBytes(), before + 8 * kMegabyte);
  }
}

TEST_F(LongTransactionTest, MemoryOfLargeCommits_GoesBackToTheSystemWhenTheDatabaseCloses) {
  if (!kLimitsWork) return;
  std::size_t const before = ResidentBytes();
  ASSERT_NO_FATAL_FAILURE(Fill(150000));
  ASSERT_NO_FATAL_FAILURE(ChangeAll());
  ASSERT_EQ(0U, lscoredb_commit(context_));
  EXPECT_GT(ResidentBytes(), before + 20 * kMegabyte) << "the library keeps no pages";
  TearDown();
  EXPECT_LT(ResidentBytes(), before + 5 * kMegabyte);
  SetUp();
}

// Rows that the store keeps in parts are put together in memory, which goes with the scope too.
TEST_F(LongTransactionTest, LargeRowsInScopes_AreGivenBackOneByOne) {
  constexpr std::size_t kSize = 17 * kMegabyte;
  std::uint16_t const layout = MakeLayout(LORV_TYPE_BINARY);
  for (char const mark : {'a', 'b', 'c', 'd'}) {
    std::vector<char> const bytes(kSize, mark);
    std::uint64_t row = 0;
    ASSERT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_WRITE));
    ASSERT_EQ(0U, lorv_context_insert(context_, layout, &row));
    ASSERT_EQ(0U, lorv_context_put_binary(context_, row, 0, kFirstColumn, bytes.data(), kSize));
    ASSERT_EQ(0U, lscoredb_commit(context_));
    rows_.push_back(row);
  }
  ASSERT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_WRITE));
  auto const first_byte = [&](std::uint64_t row) {
    LORV_BINARY* bytes = nullptr;
    EXPECT_EQ(0U, lorv_context_get_binary(context_, row, 0, kFirstColumn, &bytes));
    EXPECT_EQ(kSize, bytes->length);
    return static_cast<char>(bytes->bytes[0]);
  };
  std::size_t const before = BytesInUse();
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    ASSERT_EQ(0U, lscoredb_read_scope_begin(context_));
    EXPECT_EQ(static_cast<char>('a' + i), first_byte(rows_[i]));
    ASSERT_EQ(0U, lscoredb_read_scope_end(context_));
    EXPECT_LT(BytesInUse(), before + kMegabyte);
  }
  // What a written row still refers to stays.
  ASSERT_EQ(0U, lscoredb_read_scope_begin(context_));
  ASSERT_EQ(0U, lorv_context_put_binary(context_, rows_[1], 0, kFirstColumn + 1, "x", 1));
  ASSERT_EQ(0U, lscoredb_read_scope_end(context_));
  EXPECT_EQ('b', first_byte(rows_[1]));
  ASSERT_EQ(0U, lscoredb_commit(context_));
  ASSERT_EQ(0U, lscoredb_begin(context_, LSCOREDB_READ_ONLY_TRANSACTION));
  EXPECT_EQ('b', first_byte(rows_[1]));
  EXPECT_EQ('a', first_byte(rows_[0]));
}

}  // namespace
}  // namespace sagleme_soak
