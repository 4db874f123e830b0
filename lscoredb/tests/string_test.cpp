#include <algorithm>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kText = 2;
constexpr std::uint32_t kOther = 3;
constexpr std::uint32_t kBinary = 4;

class StringTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(
        50, {{LORV_TYPE_STRING, 100}, {LORV_TYPE_STRING, 101}, {LORV_TYPE_BINARY, 102}});
    row_ = session_.Insert(layout_);
  }

  void ExpectKept(Text const& text) {
    session_.PutString(row_, kText, text);
    EXPECT_TRUE(session_.String(row_, kText) == text) << text.size() << " units, pending";
    Restart();
    EXPECT_TRUE(session_.String(row_, kText) == text) << text.size() << " units, committed";
  }

  // What a host does with a text before it reads it: a terminator behind the last unit.
  static char16_t const* Terminate(LORV_STRING* record) {
    record->units[record->length] = 0;
    return record->units;
  }

  LayoutId layout_ = 0;
  Oid row_ = 0;
};

TEST_F(StringTest, TextsOfAllLengths_AreKept) {
  for (std::size_t const length : Sizes{0, 1, 2, 3, 31, 32, 62, 63, 600, 4096, 100000})
    for (char16_t const unit : {u'a', u'\xFF', u'\x100', u'\xFFFF'}) ExpectKept(Text(length, unit));
}

TEST_F(StringTest, EveryUnit_IsKept) {
  Text narrow;
  for (std::uint32_t unit = 1; unit <= 0xFF; ++unit) narrow += static_cast<char16_t>(unit);
  ExpectKept(narrow);
  Text all;
  for (std::uint32_t unit = 1; unit <= 0xFFFF; ++unit) all += static_cast<char16_t>(unit);
  ExpectKept(all);
}

TEST_F(StringTest, LoneSurrogates_AreKept) {
  ExpectKept({0xD800});
  ExpectKept({u'a', 0xDFFF, 0xD800, u'b'});
}

TEST_F(StringTest, EmptyText_IsNotNull) {
  session_.PutString(row_, kText, u"");
  Restart();
  EXPECT_EQ(session_.String(row_, kText), u"");
  EXPECT_FALSE(session_.String(row_, kOther));
}

TEST_F(StringTest, CallersText_MayChangeAfterTheCall) {
  Text text = u"before";
  EXPECT_STATUS(0, lorv_context_put_string(session_.context(), row_, 0, kText, text.c_str()));
  text = u"AFTER!";
  Restart();
  EXPECT_EQ(session_.String(row_, kText), u"before");
}

TEST_F(StringTest, Text_HasRoomForATerminator) {
  for (std::size_t const length : Sizes{0, 1, 2, 3, 4, 7, 8, 31, 32, 600, 100000}) {
    Text const text(length, u'x');
    session_.PutString(row_, kText, text);
    session_.PutString(row_, kOther, text + u'y');
    Restart();
    LORV_STRING* const first = session_.StringRecord(row_, kText);
    LORV_STRING* const second = session_.StringRecord(row_, kOther);
    EXPECT_TRUE(Terminate(first) == text) << length;
    EXPECT_TRUE(Terminate(second) == text + u'y') << length;
    EXPECT_TRUE(Terminate(first) == text) << length;
  }
}

TEST_F(StringTest, WriteIntoAReadText_ChangesNothingStored) {
  session_.PutString(row_, kText, u"stored");
  for (int round = 0; round < 2; ++round) {
    LORV_STRING* const record = session_.StringRecord(row_, kText);
    std::fill_n(record->units, record->length, u'!');
    Restart();
    EXPECT_EQ(session_.String(row_, kText), u"stored");
    Restart();
  }
}

TEST_F(StringTest, Text_MayBeReadTwice) {
  session_.PutString(row_, kText, u"twice");
  Restart();
  char16_t const* const first = Terminate(session_.StringRecord(row_, kText));
  char16_t const* const second = Terminate(session_.StringRecord(row_, kText));
  EXPECT_EQ(Text(first), u"twice");
  EXPECT_EQ(Text(second), u"twice");
}

TEST_F(StringTest, Texts_StayValidUntilTheTransactionEndsWhateverBecomesOfTheRow) {
  Oids rows;
  for (int i = 0; i < 500; ++i) {
    rows.push_back(session_.Insert(layout_));
    session_.PutString(rows.back(), kText, Text(static_cast<std::size_t>(i), u'a'));
  }
  Restart();
  std::vector<char16_t const*> texts;
  for (Oid const row : rows) texts.push_back(Terminate(session_.StringRecord(row, kText)));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    session_.PutString(rows[i], kText, u"changed");
    EXPECT_EQ(session_.String(rows[i], kText), u"changed");
    if (i % 2 == 0) session_.Delete(rows[i]);
  }
  for (std::size_t i = 0; i < texts.size(); ++i) EXPECT_EQ(Text(texts[i]), Text(i, u'a'));
}

TEST_F(StringTest, PendingTexts_StayValidThroughLaterWrites) {
  session_.PutString(row_, kText, u"first");
  char16_t const* const first = Terminate(session_.StringRecord(row_, kText));
  session_.PutString(row_, kText, u"second");
  char16_t const* const second = Terminate(session_.StringRecord(row_, kText));
  session_.PutString(row_, kText, Text(5000, u'z'));
  EXPECT_EQ(Text(first), u"first");
  EXPECT_EQ(Text(second), u"second");
}

TEST_F(StringTest, SetSpecifier_IsATextLikeOthers) {
  Restart();
  LORV_STRING* record = nullptr;
  EXPECT_STATUS(0, lorv_context_get_setspec(session_.context(), row_, layout_, &record));
  EXPECT_EQ(Text(Terminate(record)), kSet);
  EXPECT_EQ(Text(Terminate(session_.StringRecord(row_, 1))), kSet);
  session_.PutSetspec(row_, u"elsewhere/");
  EXPECT_EQ(session_.Setspec(row_), u"elsewhere/");
  EXPECT_EQ(Text(Terminate(record)), kSet);
}

TEST_F(StringTest, ReadScope_EndsWithoutTouchingTextsReadOutsideIt) {
  session_.PutString(row_, kText, u"outside");
  session_.PutString(row_, kOther, u"inside");
  Restart();
  char16_t const* const outside = Terminate(session_.StringRecord(row_, kText));
  EXPECT_STATUS(0, lscoredb_read_scope_begin(session_.context()));
  EXPECT_EQ(Text(Terminate(session_.StringRecord(row_, kOther))), u"inside");
  EXPECT_EQ(Text(Terminate(session_.StringRecord(row_, kText))), u"outside");
  EXPECT_STATUS(0, lscoredb_read_scope_end(session_.context()));
  EXPECT_EQ(Text(outside), u"outside");
}

// A text that was first read inside a scope is not that scope's for good: read again outside, it
// has to outlive whatever later scopes do.
TEST_F(StringTest, TextReadAgainAfterItsScope_BelongsToTheOuterOne) {
  session_.PutString(row_, kText, Text(300, u'a'));
  session_.PutString(row_, kOther, Text(300, u'b'));
  Restart();
  EXPECT_STATUS(0, lscoredb_read_scope_begin(session_.context()));
  session_.StringRecord(row_, kText);
  EXPECT_STATUS(0, lscoredb_read_scope_end(session_.context()));
  char16_t const* const text = Terminate(session_.StringRecord(row_, kText));
  for (int i = 0; i < 3; ++i) {
    EXPECT_STATUS(0, lscoredb_read_scope_begin(session_.context()));
    Terminate(session_.StringRecord(row_, kOther));
    EXPECT_STATUS(0, lscoredb_read_scope_end(session_.context()));
  }
  EXPECT_EQ(Text(text), Text(300, u'a'));
}

TEST_F(StringTest, ReadScopes_NestAndEndWithTheTransaction) {
  session_.PutString(row_, kText, u"text");
  Restart();
  EXPECT_STATUS(0, lscoredb_read_scope_begin(session_.context()));
  char16_t const* const middle = Terminate(session_.StringRecord(row_, kText));
  EXPECT_STATUS(0, lscoredb_read_scope_begin(session_.context()));
  EXPECT_EQ(Text(Terminate(session_.StringRecord(row_, kText))), u"text");
  session_.PutString(row_, kOther, u"written inside");
  EXPECT_STATUS(0, lscoredb_read_scope_end(session_.context()));
  EXPECT_EQ(Text(middle), u"text");
  Restart();
  EXPECT_EQ(session_.String(row_, kOther), u"written inside");
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_read_scope_end(session_.context()))
      << "no scope is left open by the transaction before";
}

TEST_F(StringTest, WritesInsideAScope_OutliveIt) {
  EXPECT_STATUS(0, lscoredb_read_scope_begin(session_.context()));
  session_.PutString(row_, kText, Text(700, u'w'));
  EXPECT_STATUS(0, lscoredb_read_scope_end(session_.context()));
  EXPECT_EQ(session_.String(row_, kText), Text(700, u'w'));
  Restart();
  EXPECT_EQ(session_.String(row_, kText), Text(700, u'w'));
}

TEST_F(StringTest, BinariesOfAllSizes_AreKept) {
  for (std::size_t const size : Sizes{0, 1, 3, 4, 5, 600, 4095, 4096, 1 << 20, 20 << 20}) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7);
    session_.PutBinary(row_, kBinary, bytes);
    EXPECT_TRUE(session_.Binary(row_, kBinary) == bytes) << size << " bytes, pending";
    Restart();
    EXPECT_TRUE(session_.Binary(row_, kBinary) == bytes) << size << " bytes, committed";
  }
}

TEST_F(StringTest, EmptyBinary_IsNotNull) {
  EXPECT_FALSE(session_.Binary(row_, kBinary));
  session_.PutBinary(row_, kBinary, {});
  Restart();
  EXPECT_EQ(session_.Binary(row_, kBinary), Bytes{});
}

TEST_F(StringTest, Binary_IsWritableMemoryOfTheCaller) {
  session_.PutBinary(row_, kBinary, {1, 2, 3});
  Restart();
  LORV_BINARY* const record = session_.BinaryRecord(row_, kBinary);
  std::fill_n(record->bytes, record->length, std::uint8_t{9});
  Restart();
  EXPECT_EQ(session_.Binary(row_, kBinary), (Bytes{1, 2, 3}));
}

TEST_F(StringTest, BinaryOfFourGibibytes_IsRefusedBeforeItIsRead) {
  session_.PutBinary(row_, kBinary, {1});
  EXPECT_STATUS(LSCOREDB_TOO_LARGE, lorv_context_put_binary(session_.context(), row_, 0, kBinary,
                                                            "", std::uint64_t{1} << 32));
  EXPECT_EQ(session_.Binary(row_, kBinary), Bytes{1});
}

TEST_F(StringTest, BinaryWithASizeAndNoData_IsRefused) {
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lorv_context_put_binary(session_.context(), row_, 0, kBinary, nullptr, 3));
}

}  // namespace
}  // namespace lscoredb_test
