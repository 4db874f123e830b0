// Many objects in one call: scans by pages, and columns of many objects, give what single calls
// give, whatever state the rows are in.

#include <lscoredb/bulk.h>

#include <algorithm>
#include <bit>
#include <random>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kReal = 3;
constexpr std::uint32_t kName = 4;
constexpr std::uint32_t kBytes = 5;
constexpr std::uint32_t kFriend = 6;
constexpr std::uint32_t kSmall = 7;
constexpr std::uint32_t kCount = 8;  // not nullable
constexpr int kRows = 700;           // several pages of entries, and of calls

struct Words {
  std::vector<std::uint64_t> values;
  std::vector<std::uint8_t> states;
};

struct Texts {
  std::vector<std::string> values;  // their bytes
  std::vector<std::uint8_t> states;
};

std::string BytesOf(Text const& text) {
  return {reinterpret_cast<char const*>(text.data()), text.size() * sizeof(char16_t)};
}

// Rows are committed, or pending, or some of each.
enum class Rows { kCommitted, kPending, kMixed };

class ManyTest : public KernelTest, public testing::WithParamInterface<Rows> {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100},
                                         {LORV_TYPE_DOUBLE, 101},
                                         {LORV_TYPE_STRING, 102},
                                         {LORV_TYPE_BINARY, 103},
                                         {LORV_TYPE_REFERENCE, 104},
                                         {LORV_TYPE_FLOAT, 105},
                                         {LORV_TYPE_ULONG, 106, false}});
    index_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, 100}});
    Restart();
    for (int i = 0; i < kRows; ++i) {
      if (GetParam() == Rows::kMixed && i == kRows / 2) Restart();
      rows_.push_back(MakeRow(i));
    }
    if (GetParam() == Rows::kCommitted) Restart();
  }

  // Every third has no values.
  Oid MakeRow(int i) {
    Oid const oid = session_.Insert(layout_);
    session_.PutLong(oid, kNumber, i - 300);
    if (i % 3 == 0) return oid;
    session_.PutDouble(oid, kReal, i / 4.0);
    session_.PutString(oid, kName, i % 2 == 0 ? Text(u"name") : Text(u"\u0442\u0435\u043a\u0441"));
    session_.PutBinary(oid, kBytes, Bytes(static_cast<std::size_t>(i % 5), 0x7F));
    session_.PutReference(oid, kFriend, rows_.front());
    session_.PutFloat(oid, kSmall, static_cast<float>(i));
    session_.PutULong(oid, kCount, ~std::uint64_t{0} - static_cast<std::uint64_t>(i));
    return oid;
  }

  Words ReadWords(Oids const& oids, std::uint32_t column, LayoutId layout = 0) {
    Words words{std::vector<std::uint64_t>(oids.size(), 99),
                std::vector<std::uint8_t>(oids.size(), 99)};
    Check(
        "lscoredb_read_words",
        lscoredb_read_words(session_.context(), static_cast<std::uint32_t>(oids.size()),
                            oids.data(), layout, column, words.values.data(), words.states.data()));
    return words;
  }

  Texts ReadValues(Oids const& oids, std::uint32_t column, LayoutId layout = 0) {
    std::vector<std::uint64_t> offsets(oids.size() + 1, 99);
    Texts texts{{}, std::vector<std::uint8_t>(oids.size(), 99)};
    void const* data = nullptr;
    Check("lscoredb_read_values",
          lscoredb_read_values(session_.context(), static_cast<std::uint32_t>(oids.size()),
                               oids.data(), layout, column, &data, offsets.data(),
                               texts.states.data()));
    for (std::size_t i = 0; i < oids.size(); ++i) {
      texts.values.emplace_back(static_cast<char const*>(data) + offsets[i],
                                offsets[i + 1] - offsets[i]);
    }
    return texts;
  }

  // All pages of a scan, by calls for so many objects.
  static Oids Pages(Scanner& scanner, std::uint32_t capacity, std::uint32_t flags = 0) {
    Oids seen;
    std::vector<LORV_REFERENCE> page(capacity);
    std::uint32_t count = capacity;
    while (count == capacity) {
      Check("lscoredb_iterator_next_many",
            lscoredb_iterator_next_many(scanner.handle(), flags, capacity, page.data(), &count));
      for (std::uint32_t i = 0; i < count; ++i) seen.push_back(page[i].oid);
    }
    return seen;
  }

  Oids Shuffled() const {
    Oids oids = rows_;
    std::shuffle(oids.begin(), oids.end(), std::mt19937(7));
    return oids;
  }

  LayoutId layout_ = 0;
  IndexId index_ = 0;
  Oids rows_;
};

TEST_P(ManyTest, Pages_OfAnySize_GiveTheRowsOfSingleSteps) {
  for (std::uint32_t const capacity : {1u, 2u, 64u, 255u, 256u, 257u, 1000u}) {
    for (std::uint32_t const flags : {0u, LSCOREDB_FETCH_ROWS}) {
      Scanner forward(session_, index_);
      EXPECT_EQ(rows_, Pages(forward, capacity, flags)) << capacity;
      Scanner back(session_, index_, Key(), Key(), LORV_ITERATOR_REVERSE);
      EXPECT_EQ(Oids(rows_.rbegin(), rows_.rend()), Pages(back, capacity, flags)) << capacity;
    }
  }
}

TEST_P(ManyTest, PagesOfARange_EndWithIt) {
  Scanner some(session_, index_, Key().Long(-250), Key().Long(350));
  EXPECT_EQ(Oids(rows_.begin() + 50, rows_.begin() + 651), Pages(some, 100));
  Scanner back(session_, index_, Key().Long(350), Key().Long(-250), LORV_ITERATOR_REVERSE);
  Oids const expected(rows_.begin() + 50, rows_.begin() + 651);
  EXPECT_EQ(Oids(expected.rbegin(), expected.rend()), Pages(back, 100));
  Scanner none(session_, index_, Key().Long(5000), Key().Long(6000));
  EXPECT_EQ(Oids(), Pages(none, 100));
}

TEST_P(ManyTest, StepsAndPagesByTurns_MissNothing) {
  Scanner scanner(session_, index_);
  Oids seen;
  std::vector<LORV_REFERENCE> page(30);
  for (std::uint32_t count = 30; count == 30;) {
    if (Oid const oid = scanner.Next()) seen.push_back(oid);
    Check("next_many", lscoredb_iterator_next_many(scanner.handle(), 0, 30, page.data(), &count));
    for (std::uint32_t i = 0; i < count; ++i) seen.push_back(page[i].oid);
  }
  EXPECT_EQ(rows_, seen);
}

// As many objects as a scan steps over.
std::uint32_t Counted(Scanner& scanner, std::uint32_t capacity) {
  std::uint32_t count = 99;
  Check("next_many", lscoredb_iterator_next_many(scanner.handle(), LSCOREDB_COUNT_ONLY, capacity,
                                                 nullptr, &count));
  return count;
}

TEST_P(ManyTest, Counts_OfAnySize_AreThoseOfPages) {
  for (std::uint32_t const flags : {LORV_ITERATOR_FORWARD, LORV_ITERATOR_REVERSE}) {
    for (std::uint32_t const capacity : {1u, 7u, 64u, 300u, 601u, 602u, 100000u}) {
      bool const reverse = flags == LORV_ITERATOR_REVERSE;
      Scanner scanner = reverse
                            ? Scanner(session_, index_, Key().Long(350), Key().Long(-250), flags)
                            : Scanner(session_, index_, Key().Long(-250), Key().Long(350));
      std::uint32_t all = 0;
      std::uint32_t count = capacity;
      while (count == capacity) all += count = Counted(scanner, capacity);
      EXPECT_EQ(601u, all) << capacity;
      EXPECT_EQ(0u, Counted(scanner, 5));
    }
  }
}

TEST_P(ManyTest, ScanBehindACount_GoesOnAtTheNextRow) {
  for (std::size_t const skipped : {1u, 2u, 100u, 333u, 690u}) {
    Scanner scanner(session_, index_);
    EXPECT_EQ(skipped, Counted(scanner, static_cast<std::uint32_t>(skipped)));
    EXPECT_EQ(0u, Counted(scanner, 0));
    EXPECT_EQ(rows_[skipped], scanner.Next());
    EXPECT_EQ(3u, Counted(scanner, 3));
    Oids const rest(rows_.begin() + static_cast<std::ptrdiff_t>(skipped) + 4, rows_.end());
    EXPECT_EQ(rest, Pages(scanner, 50));
    Scanner back(session_, index_, Key(), Key(), LORV_ITERATOR_REVERSE);
    EXPECT_EQ(skipped, Counted(back, static_cast<std::uint32_t>(skipped)));
    EXPECT_EQ(rows_[rows_.size() - 1 - skipped], back.Next());
  }
}

TEST_P(ManyTest, RowsThatGoBetweenCounts_AreNotCounted) {
  Scanner scanner(session_, index_);
  EXPECT_EQ(10u, Counted(scanner, 10));
  for (std::size_t i = 10; i < 300; i += 2) session_.Delete(rows_[i]);
  MakeRow(50);
  EXPECT_EQ(kRows - 10u - 145u, Counted(scanner, 100000));
}

// Long runs of single steps are read ahead.
TEST_P(ManyTest, LongRunsOfStepsBetweenPagesAndCounts_MissNothing) {
  for (std::uint32_t const flags : {LORV_ITERATOR_FORWARD, LORV_ITERATOR_REVERSE}) {
    Oids const expected =
        flags == LORV_ITERATOR_FORWARD ? rows_ : Oids(rows_.rbegin(), rows_.rend());
    for (std::size_t const steps : {4u, 5u, 6u, 13u, 21u, 22u, 150u}) {
      Scanner scanner(session_, index_, Key(), Key(), flags);
      std::vector<LORV_REFERENCE> page(3);
      std::size_t at = 0;
      while (at + steps + 8 < expected.size()) {
        for (std::size_t i = 0; i < steps; ++i) ASSERT_EQ(expected[at++], scanner.Next());
        std::uint32_t count = 0;
        Check("next_many",
              lscoredb_iterator_next_many(scanner.handle(), 0, 3, page.data(), &count));
        ASSERT_EQ(3u, count);
        for (LORV_REFERENCE const& each : page) ASSERT_EQ(expected[at++], each.oid);
        ASSERT_EQ(5u, Counted(scanner, 5));
        at += 5;
      }
      ASSERT_EQ(Oids(expected.begin() + static_cast<std::ptrdiff_t>(at), expected.end()),
                scanner.Rest());
    }
  }
}

TEST_P(ManyTest, RowsThatGoAheadOfALongRunOfSteps_AreNotDelivered) {
  for (std::size_t const steps : {5u, 6u, 12u}) {
    Scanner scanner(session_, index_);
    for (std::size_t i = 0; i < steps; ++i) ASSERT_EQ(rows_[i], scanner.Next());
    session_.Delete(rows_[steps]);
    session_.Delete(rows_[steps + 2]);
    session_.Delete(rows_[steps + 40]);
    MakeRow(static_cast<int>(steps) + 4);
    for (std::size_t const gone : {steps + 40, steps + 2, steps}) {
      rows_.erase(rows_.begin() + static_cast<std::ptrdiff_t>(gone));
    }
    EXPECT_EQ(Oids(rows_.begin() + static_cast<std::ptrdiff_t>(steps), rows_.end()),
              scanner.Rest());
    rows_ = session_.Scan(index_);
  }
}

TEST_P(ManyTest, RowChangedAheadOfALongRunOfSteps_HasItsNewLayout) {
  LayoutId const newer = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
  Scanner scanner(session_, index_);
  for (int i = 0; i < 8; ++i) scanner.Next();
  session_.PutLong(rows_[9], kNumber, 5000, newer);
  EXPECT_EQ(rows_[8], scanner.Next());
  LORV_REFERENCE const changed = scanner.NextReference();
  EXPECT_EQ(rows_[9], changed.oid);
  EXPECT_EQ(session_.LayoutOf(rows_[9]), changed.layout);
  EXPECT_EQ(rows_[10], scanner.Next());
}

TEST_P(ManyTest, LongRunOfSteps_EndsWithItsTransaction) {
  Scanner scanner(session_, index_);
  for (int i = 0; i < 8; ++i) scanner.Next();
  Restart();
  LORV_REFERENCE next{};
  EXPECT_EQ(LSCOREDB_NO_TRANSACTION, lorv_iterator_next(scanner.handle(), &next));
}

TEST_P(ManyTest, Page_NamesTheLayoutOfEachObject) {
  LayoutId const newer = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
  session_.PutLong(rows_[5], kNumber, -295, newer);
  Scanner scanner(session_, index_);
  std::vector<LORV_REFERENCE> page(10);
  std::uint32_t count = 0;
  ASSERT_EQ(0u, lscoredb_iterator_next_many(scanner.handle(), 0, 10, page.data(), &count));
  for (std::size_t i = 0; i < 10; ++i) EXPECT_EQ(session_.LayoutOf(rows_[i]), page[i].layout) << i;
}

TEST_P(ManyTest, RowsThatGoBetweenPages_AreNotDelivered) {
  Scanner scanner(session_, index_);
  std::vector<LORV_REFERENCE> page(10);
  std::uint32_t count = 0;
  ASSERT_EQ(0u, lscoredb_iterator_next_many(scanner.handle(), 0, 10, page.data(), &count));
  for (std::size_t i = 10; i < 300; i += 2) session_.Delete(rows_[i]);
  MakeRow(50);  // not of the range as it was
  Oids expected;
  for (std::size_t i = 10; i < rows_.size(); ++i) {
    if (i >= 300 || i % 2 == 1) expected.push_back(rows_[i]);
  }
  EXPECT_EQ(expected, Pages(scanner, 10));
}

TEST_P(ManyTest, Words_InAnyOrder_AreThoseOfSingleReads) {
  Oids const oids = Shuffled();
  Words const numbers = ReadWords(oids, kNumber);
  Words const reals = ReadWords(oids, kReal, layout_);
  Words const friends = ReadWords(oids, kFriend);
  Words const small = ReadWords(oids, kSmall);
  Words const counts = ReadWords(oids, kCount);
  for (std::size_t i = 0; i < oids.size(); ++i) {
    EXPECT_EQ(session_.Long(oids[i], kNumber), static_cast<std::int64_t>(numbers.values[i]));
    auto const real = session_.Double(oids[i], kReal);
    EXPECT_EQ(real.has_value() ? LSCOREDB_HAS_VALUE : LSCOREDB_IS_NULL, reals.states[i]);
    EXPECT_EQ(real.value_or(0), std::bit_cast<double>(reals.values[i]));
    EXPECT_EQ(session_.RefId(oids[i], kFriend).value_or(0), friends.values[i]);
    EXPECT_EQ(session_.Float(oids[i], kSmall).value_or(0),
              std::bit_cast<float>(static_cast<std::uint32_t>(small.values[i])));
    EXPECT_EQ(session_.ULong(oids[i], kCount), counts.values[i]);
    EXPECT_EQ(LSCOREDB_HAS_VALUE, counts.states[i]);
  }
}

TEST_P(ManyTest, Values_InAnyOrder_AreThoseOfSingleReads) {
  Oids const oids = Shuffled();
  Texts const names = ReadValues(oids, kName);
  Texts const bytes = ReadValues(oids, kBytes, layout_);
  Texts const sets = ReadValues(oids, 1);
  for (std::size_t i = 0; i < oids.size(); ++i) {
    auto const name = session_.String(oids[i], kName);
    EXPECT_EQ(name.has_value() ? LSCOREDB_HAS_VALUE : LSCOREDB_IS_NULL, names.states[i]);
    EXPECT_EQ(BytesOf(name.value_or(Text())), names.values[i]);
    auto const binary = session_.Binary(oids[i], kBytes);
    EXPECT_EQ(binary.has_value() ? LSCOREDB_HAS_VALUE : LSCOREDB_IS_NULL, bytes.states[i]);
    Bytes const expected = binary.value_or(Bytes());
    EXPECT_EQ(std::string(expected.begin(), expected.end()), bytes.values[i]);
    EXPECT_EQ(BytesOf(kSet), sets.values[i]);
  }
}

TEST_P(ManyTest, ColumnOfAnotherLayout_IsFoundByToken) {
  LayoutId const other = session_.CreateLayout(
      51, {{LORV_TYPE_STRING, 102}, {LORV_TYPE_LONG, 900}, {LORV_TYPE_ULONG, 901, false}});
  EXPECT_EQ(ReadValues(rows_, kName).values, ReadValues(rows_, 2, other).values);
  Words const added = ReadWords(rows_, 3, other);
  Words const zero = ReadWords(rows_, 4, other);
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    EXPECT_EQ(LSCOREDB_IS_NULL, added.states[i]);
    EXPECT_EQ(LSCOREDB_HAS_VALUE, zero.states[i]);
    EXPECT_EQ(0u, zero.values[i]);
  }
}

TEST_P(ManyTest, ObjectsThatAreGone_AreToldFromNulls) {
  session_.Delete(rows_[1]);
  Oids const oids{rows_[0], rows_[1], 0, rows_.back() + 100000, rows_[2]};
  std::vector<std::uint8_t> const expected{LSCOREDB_HAS_VALUE, LSCOREDB_IS_GONE, LSCOREDB_IS_GONE,
                                           LSCOREDB_IS_GONE, LSCOREDB_HAS_VALUE};
  Words const words = ReadWords(oids, kNumber);
  EXPECT_EQ(expected, words.states);
  EXPECT_EQ(0u, words.values[1]);
  Texts const texts = ReadValues(oids, 1);
  EXPECT_EQ(expected, texts.states);
  EXPECT_EQ("", texts.values[3]);
  EXPECT_STATUS(0, lscoredb_fetch(session_.context(), 5, oids.data()));
}

TEST_P(ManyTest, TextsAndBinaryValuesOfOneColumn_AreRefused) {
  LayoutId const other = session_.CreateLayout(
      51, {{LORV_TYPE_LONG, 200}, {LORV_TYPE_LONG, 201}, {LORV_TYPE_BINARY, 202}});
  Oid const binary = session_.Insert(other);
  session_.PutBinary(binary, kName, Bytes(3, 0x7F));
  Oids const oids{binary, rows_[1], rows_[2]};
  std::uint64_t offsets[4];
  std::uint8_t states[3];
  void const* data = nullptr;
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE, lscoredb_read_values(session_.context(), 3, oids.data(), 0,
                                                          kName, &data, offsets, states));
  EXPECT_EQ(nullptr, data);
  EXPECT_EQ(std::string(3, 0x7F), ReadValues({binary, binary}, kName).values[1]);
}

TEST_P(ManyTest, OwnWrites_AreRead) {
  session_.PutLong(rows_[7], kNumber, 1234567);
  session_.PutString(rows_[7], kName, u"changed");
  EXPECT_EQ(1234567u, ReadWords(rows_, kNumber).values[7]);
  EXPECT_EQ(BytesOf(u"changed"), ReadValues(rows_, kName).values[7]);
}

TEST_P(ManyTest, OwnWritesBetweenReadsOfTheSameObjects_AreRead) {
  Oids const oids(rows_.begin(), rows_.begin() + 200);
  Words const before = ReadWords(oids, kNumber);
  std::uint64_t savepoint = 0;
  Check("lscoredb_savepoint", lscoredb_savepoint(session_.context(), &savepoint));
  session_.PutLong(oids[7], kNumber, 1234567);
  session_.Delete(oids[8]);
  Words const between = ReadWords(oids, kNumber);
  EXPECT_EQ(1234567u, between.values[7]);
  EXPECT_EQ(LSCOREDB_IS_GONE, between.states[8]);
  EXPECT_EQ(LSCOREDB_IS_GONE, ReadWords(oids, kCount).states[8]);
  Check("lscoredb_rollback_to", lscoredb_rollback_to(session_.context(), savepoint));
  EXPECT_EQ(before.values, ReadWords(oids, kNumber).values);
  EXPECT_EQ(before.states, ReadWords(oids, kNumber).states);
  session_.Commit();
  session_.Begin();
  session_.PutLong(oids[9], kNumber, 77);
  session_.Commit();
  session_.Begin();
  EXPECT_EQ(77u, ReadWords(oids, kNumber).values[9]);
}

TEST_P(ManyTest, BadArguments_AreRefused) {
  std::uint64_t const context = session_.context();
  std::uint64_t values[2];
  std::uint64_t offsets[3];
  std::uint8_t states[2];
  void const* data = nullptr;
  LORV_REFERENCE page[2];
  std::uint32_t count = 77;
  Scanner scanner(session_, index_);
  std::uint64_t const scan = scanner.handle();
  EXPECT_STATUS(LSCOREDB_UNKNOWN_ITERATOR, lscoredb_iterator_next_many(99, 0, 2, page, &count));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_iterator_next_many(scan, 0, 2, nullptr, &count));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_iterator_next_many(scan, 0, 2, page, nullptr));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_iterator_next_many(scan, 4, 2, page, &count));
  std::uint32_t const both = LSCOREDB_FETCH_ROWS | LSCOREDB_COUNT_ONLY;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                lscoredb_iterator_next_many(scan, both, 2, page, &count));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_iterator_next_many(scan, LSCOREDB_COUNT_ONLY, 2, nullptr, nullptr));
  EXPECT_EQ(77u, count);
  Oid const* const oids = rows_.data();
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_read_words(context, 2, nullptr, 0, kNumber, values, states));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_read_words(context, 2, oids, 0, kNumber, nullptr, states));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_read_words(context, 2, oids, 0, kNumber, values, nullptr));
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE,
                lscoredb_read_words(context, 2, oids, 0, kName, values, states));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN,
                lscoredb_read_words(context, 2, oids, 0, 99, values, states));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_LAYOUT,
                lscoredb_read_words(context, 2, oids, 65535, kNumber, values, states));
  EXPECT_STATUS(LSCOREDB_WRONG_TYPE,
                lscoredb_read_values(context, 2, oids, 0, kNumber, &data, offsets, states));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_COLUMN,
                lscoredb_read_values(context, 2, oids, 0, 99, &data, offsets, states));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_read_values(context, 2, oids, 0, kName, nullptr, offsets, states));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lscoredb_read_values(context, 2, oids, 0, kName, &data, nullptr, states));
  EXPECT_STATUS(0, lscoredb_read_values(context, 0, nullptr, 0, 0, &data, offsets, nullptr));
  EXPECT_EQ(0u, offsets[0]);
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_fetch(context, 1, nullptr));
  EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_fetch(99, 0, nullptr));
}

// A caller that holds rows of a page asks so whether the scan behind them has ended.
TEST_P(ManyTest, AskingForNothing_TellsWhetherTheScanHasEnded) {
  std::uint64_t savepoint = 0;
  Check("lscoredb_savepoint", lscoredb_savepoint(session_.context(), &savepoint));
  Scanner scanner(session_, index_);
  std::uint32_t count = 77;
  EXPECT_STATUS(0, lscoredb_iterator_next_many(scanner.handle(), 0, 0, nullptr, &count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(rows_.front(), scanner.Next());
  EXPECT_STATUS(0, lscoredb_rollback_to(session_.context(), savepoint));
  EXPECT_STATUS(LSCOREDB_ROLLED_BACK,
                lscoredb_iterator_next_many(scanner.handle(), 0, 0, nullptr, &count));
}

TEST_P(ManyTest, NoObjects_AreRead) {
  EXPECT_STATUS(0,
                lscoredb_read_words(session_.context(), 0, nullptr, 0, kNumber, nullptr, nullptr));
  std::uint64_t offset = 99;
  void const* data = nullptr;
  EXPECT_STATUS(
      0, lscoredb_read_values(session_.context(), 0, nullptr, 0, kName, &data, &offset, nullptr));
  EXPECT_EQ(0u, offset);
}

TEST_P(ManyTest, ScanOfAnEndedTransaction_StaysRefused) {
  Scanner scanner(session_, index_);
  session_.Commit();
  LORV_REFERENCE page[2];
  std::uint32_t count = 77;
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION,
                lscoredb_iterator_next_many(scanner.handle(), 0, 2, page, &count));
  EXPECT_EQ(77u, count);
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_fetch(session_.context(), 0, nullptr));
  session_.Begin();
}

std::string NameOf(testing::TestParamInfo<Rows> const& info) {
  constexpr char const* kNames[] = {"CommittedRows", "PendingRows", "MixedRows"};
  return kNames[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Of, ManyTest,
                         testing::Values(Rows::kCommitted, Rows::kPending, Rows::kMixed), NameOf);

// Entries whose keys are cut come in the order of their whole texts.
class ManyLongKeysTest : public KernelTest {};

TEST_F(ManyLongKeysTest, Pages_KeepTheOrderOfLongTexts) {
  session_.Begin();
  LayoutId const layout = session_.CreateLayout(50, {{LORV_TYPE_STRING, 100}});
  IndexId const index = session_.CreateIndex(60, kSet, {{LORV_TYPE_STRING, 100}});
  Oids rows;
  for (int i = 0; i < 300; ++i) {
    rows.push_back(session_.Insert(layout));
    Text const text(i % 50 < 25 ? 900 : 5, static_cast<char16_t>(u'a' + i / 50));
    session_.PutString(rows.back(), 2, text + static_cast<char16_t>(u'z' - i % 26));
  }
  Restart();
  Oids const expected = session_.Scan(index);
  Scanner scanner(session_, index);
  Oids seen;
  std::vector<LORV_REFERENCE> page(64);
  for (std::uint32_t count = 64; count == 64;) {
    Check("next_many", lscoredb_iterator_next_many(scanner.handle(), 0, 64, page.data(), &count));
    for (std::uint32_t i = 0; i < count; ++i) seen.push_back(page[i].oid);
  }
  EXPECT_EQ(expected, seen);
  EXPECT_EQ(rows.size(), seen.size());
  for (std::size_t const skipped : {1u, 30u, 140u, 299u}) {
    Scanner counter(session_, index);
    std::uint32_t count = 0;
    Check("next_many",
          lscoredb_iterator_next_many(counter.handle(), LSCOREDB_COUNT_ONLY,
                                      static_cast<std::uint32_t>(skipped), nullptr, &count));
    EXPECT_EQ(skipped, count);
    EXPECT_EQ(expected[skipped], counter.Next());
  }
}

}  // namespace
}  // namespace lscoredb_test
