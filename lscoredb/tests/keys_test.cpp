#include "keys.h"

#include <gtest/gtest.h>
#include <lscoredb/lscoredb.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "contract_key.h"

namespace lscore {
namespace {

using lscoredb_test::Key;

using Types = std::vector<std::uint8_t>;
using Sizes = std::vector<std::size_t>;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

template <typename Append, typename Value>
KeyBytes Encoded(Append append, Value const& value, bool descending = false) {
  KeyBytes out;
  append(out, value, descending);
  return out;
}

// The two encodings stand in the order of the values, backwards when descending, and neither begins
// the other.
template <typename Append, typename Value>
void ExpectRising(Append append, std::vector<Value> const& values) {
  for (std::size_t i = 1; i < values.size(); ++i) {
    KeyBytes const low = Encoded(append, values[i - 1]);
    KeyBytes const high = Encoded(append, values[i]);
    EXPECT_LT(low, high) << "at " << i;
    EXPECT_FALSE(high.starts_with(low)) << "at " << i;
    EXPECT_GT(Encoded(append, values[i - 1], true), Encoded(append, values[i], true)) << i;
    KeyBytes null;
    AppendNull(null, false);
    EXPECT_LT(null, low) << "at " << i;
    KeyBytes null_descending;
    AppendNull(null_descending, true);
    EXPECT_GT(null_descending, Encoded(append, values[i - 1], true)) << "at " << i;
  }
}

// What the key reads as, or nullopt when it is refused; then nothing was appended.
std::optional<KeyBytes> Read(std::vector<std::uint8_t> const& key,
                             std::vector<KeyColumn> const& columns) {
  KeyBytes out = "before";
  if (AppendContractKey(out, key.data(), columns)) return out.substr(6);
  EXPECT_EQ(out, "before");
  return std::nullopt;
}

std::optional<KeyBytes> Read(Key const& key, std::vector<KeyColumn> const& columns) {
  return Read(key.Bytes(), columns);
}

std::vector<std::u16string> const kTexts = {
    u"",
    u"\x01",
    u"\x01\x01",
    u"A",
    u"AA",
    u"AB",
    u"B",
    u"a",
    u"\x7F",
    u"\x80",
    u"\x7FF",
    u"\x800",
    std::u16string(1, char16_t{0xD800}),
    std::u16string{0xD800, 0xDC00},
    std::u16string(1, char16_t{0xDFFF}),
    u"\xE000",
    u"\xFFFF",
    u"\xFFFF\xFFFF",
};

std::vector<std::vector<std::uint8_t>> const kBinaries = {
    {},     {0},          {0, 0}, {0, 1}, {0, 2},    {0, 255}, {1},   {1, 0},
    {1, 1}, {1, 1, 0, 0}, {1, 2}, {2},    {2, 0, 0}, {254},    {255}, {255, 255},
};

TEST(KeysTest, SignedValues_StandInNumericOrder) {
  ExpectRising(AppendSigned,
               std::vector<std::int64_t>{std::numeric_limits<std::int64_t>::min(), -256, -1, 0, 1,
                                         255, 256, std::numeric_limits<std::int64_t>::max()});
}

TEST(KeysTest, UnsignedValues_StandInNumericOrder) {
  ExpectRising(AppendUnsigned, std::vector<std::uint64_t>{0, 1, 255, 256, std::uint64_t{1} << 63,
                                                          ~std::uint64_t{0}});
}

TEST(KeysTest, Doubles_StandInNumericOrderWithNotANumberOnTop) {
  ExpectRising(AppendDouble, std::vector<double>{-kInfinity, -1e300, -1.5, -1e-310, 0, 1e-310, 1.5,
                                                 1e300, kInfinity, std::nan("")});
}

TEST(KeysTest, Floats_StandInNumericOrderAndLikeTheDoubleOfTheSameValue) {
  ExpectRising(AppendFloat, std::vector<float>{-1e30F, -1.5F, 0, 1.5F, 1e30F});
  EXPECT_EQ(Encoded(AppendFloat, 0.1F), Encoded(AppendDouble, static_cast<double>(0.1F)));
}

TEST(KeysTest, NegativeZeroAndNegativeNotANumber_EqualTheirPositiveForms) {
  EXPECT_EQ(OrderedBits(-0.0), OrderedBits(0.0));
  EXPECT_EQ(OrderedBits(-std::nan("")), OrderedBits(std::nan("")));
}

TEST(KeysTest, Texts_StandInTheOrderOfTheirUnits) { ExpectRising(AppendText, kTexts); }

TEST(KeysTest, Text_EndsAtAZeroUnit) {
  EXPECT_EQ(Encoded(AppendText, std::u16string(u"a\0b", 3)), Encoded(AppendText, u"a"));
}

TEST(KeysTest, LongTexts_DifferOnlyAtTheirEnd) {
  std::u16string const stem(100000, u'\x4E00');
  ExpectRising(AppendText, std::vector<std::u16string>{stem, stem + u'a', stem + u'b'});
}

TEST(KeysTest, Binaries_StandInTheOrderOfTheirBytes) { ExpectRising(AppendBinary, kBinaries); }

TEST(KeysTest, RandomTexts_StandInTheOrderOfTheirUnits) {
  std::mt19937 random(20240611);
  std::array<char16_t, 8> const units{1, 2, 0x7F, 0x80, 0x7FF, 0x800, 0xDC00, 0xFFFF};
  auto const next = [&] {
    std::u16string text(random() % 5, u' ');
    for (char16_t& unit : text) unit = units[random() % units.size()];
    return text;
  };
  for (int i = 0; i < 5000; ++i) {
    std::u16string const a = next();
    std::u16string const b = next();
    EXPECT_EQ(a < b, Encoded(AppendText, a) < Encoded(AppendText, b));
    EXPECT_EQ(a<b, Encoded(AppendText, a, true)> Encoded(AppendText, b, true));
  }
}

TEST(KeysTest, ContractIntegers_ReadLikeTheValues) {
  for (std::uint8_t const type : Types{LORV_TYPE_LONG, LORV_TYPE_DECIMAL})
    EXPECT_EQ(Read(Key().Long(-7), {{type, false}}), Encoded(AppendSigned, std::int64_t{-7}));
  for (std::uint8_t const type : Types{LORV_TYPE_ULONG, LORV_TYPE_KEY, LORV_TYPE_REFERENCE})
    EXPECT_EQ(Read(Key().Unsigned(7), {{type, false}}), Encoded(AppendUnsigned, std::uint64_t{7}));
  for (std::uint8_t const type : Types{LORV_TYPE_FLOAT, LORV_TYPE_DOUBLE})
    EXPECT_EQ(Read(Key().Double(-2.5), {{type, false}}), Encoded(AppendDouble, -2.5));
}

TEST(KeysTest, ContractTexts_ReadLikeTheValuesAtEveryChunkBoundary) {
  for (std::size_t const length :
       Sizes{0, 1, 7, 8, 9, 30, 31, 32, 61, 62, 63, 93, 94, 600, 100000}) {
    std::u16string const text(length, u'x');
    EXPECT_EQ(Read(Key().Text(text), {{LORV_TYPE_STRING, false}}), Encoded(AppendText, text));
    EXPECT_EQ(Read(Key().Text(text), {{LORV_TYPE_STRING, true}}), Encoded(AppendText, text, true));
  }
  for (std::u16string const& text : kTexts)
    EXPECT_EQ(Read(Key().Text(text), {{LORV_TYPE_STRING, false}}), Encoded(AppendText, text));
}

TEST(KeysTest, ContractBinaries_ReadLikeTheValues) {
  for (std::vector<std::uint8_t> const& bytes : kBinaries)
    EXPECT_EQ(Read(Key().Chunks(bytes), {{LORV_TYPE_BINARY, false}}), Encoded(AppendBinary, bytes));
}

TEST(KeysTest, AboveTexts_IsAboveEveryTextWithThePrefixAndBelowTheRest) {
  KeyBytes const bound = *Read(Key().AboveTexts(u"ab"), {{LORV_TYPE_STRING, false}});
  EXPECT_LT(Encoded(AppendText, std::u16string(u"ab\xFFFF\xFFFF")), bound);
  EXPECT_LT(Encoded(AppendText, std::u16string(u"ab")), bound);
  EXPECT_GT(Encoded(AppendText, std::u16string(u"ac")), bound);
  KeyBytes const backwards = *Read(Key().AboveTexts(u"ab"), {{LORV_TYPE_STRING, true}});
  EXPECT_GT(Encoded(AppendText, std::u16string(u"ab\xFFFF"), true), backwards);
  EXPECT_LT(Encoded(AppendText, std::u16string(u"ac"), true), backwards);
}

TEST(KeysTest, SeveralColumns_AreTheirEncodingsOneBehindAnother) {
  std::vector<KeyColumn> const columns{
      {LORV_TYPE_STRING, false}, {LORV_TYPE_LONG, true}, {LORV_TYPE_BINARY, false}};
  KeyBytes expected;
  AppendText(expected, u"abcdefgh", false);
  EXPECT_EQ(Read(Key().Text(u"abcdefgh"), columns), expected);
  AppendSigned(expected, 5, true);
  EXPECT_EQ(Read(Key().Text(u"abcdefgh").Long(5), columns), expected);
  AppendNull(expected, false);
  EXPECT_EQ(Read(Key().Text(u"abcdefgh").Long(5).Null(), columns), expected);
}

// Written back, a key reads the same.
void ExpectThereAndBack(Key const& key, std::vector<KeyColumn> const& columns) {
  auto const encoded = Read(key, columns);
  ASSERT_TRUE(encoded);
  KeyBytes const written = ContractKey(*encoded, columns);
  EXPECT_EQ(std::vector<std::uint8_t>(written.begin(), written.end()), key.Bytes());
}

TEST(KeysTest, Key_IsWrittenBackInTheContractsForm) {
  for (bool const descending : {false, true}) {
    KeyColumn const text{LORV_TYPE_STRING, descending};
    KeyColumn const binary{LORV_TYPE_BINARY, descending};
    for (std::size_t const length : Sizes{0, 1, 8, 30, 31, 32, 62, 63, 600}) {
      ExpectThereAndBack(Key().Text(std::u16string(length, u'x')), {text});
      ExpectThereAndBack(Key().Chunks(std::vector<std::uint8_t>(length)), {binary});
    }
    for (std::u16string const& each : kTexts) ExpectThereAndBack(Key().Text(each), {text});
    for (auto const& each : kBinaries) ExpectThereAndBack(Key().Chunks(each), {binary});
    ExpectThereAndBack(Key().Long(-7).Unsigned(7).Double(-2.5).Null().Text(u"abcdefgh"),
                       {{LORV_TYPE_LONG, descending},
                        {LORV_TYPE_ULONG, !descending},
                        {LORV_TYPE_DOUBLE, descending},
                        text,
                        {LORV_TYPE_STRING, !descending}});
  }
}

TEST(KeysTest, LeadByteOfIntegerAndTextOfEight_IsDecidedByTheType) {
  Key const text = Key().Text(u"abcdefgh");
  EXPECT_EQ(text.Bytes()[0], 0x28);
  EXPECT_TRUE(Read(text, {{LORV_TYPE_STRING, false}}));
  EXPECT_FALSE(Read(text, {{LORV_TYPE_ULONG, false}}));
  EXPECT_FALSE(Read(Key().Unsigned(0x6161616161616161), {{LORV_TYPE_STRING, false}}));
}

TEST(KeysTest, Key_MayStopAfterAnyColumnAndBeEmpty) {
  EXPECT_EQ(Read(Key(), {{LORV_TYPE_LONG, false}}), KeyBytes());
  EXPECT_EQ(Read(Key(), {}), KeyBytes());
}

TEST(KeysTest, WrongBytes_AreRefused) {
  std::vector<KeyColumn> const number{{LORV_TYPE_ULONG, false}};
  std::vector<KeyColumn> const text{{LORV_TYPE_STRING, false}};
  KeyBytes out;
  EXPECT_FALSE(AppendContractKey(out, nullptr, number));
  EXPECT_FALSE(Read(Key().Unsigned(1).Unsigned(2), number)) << "more fields than columns";
  EXPECT_FALSE(Read(Key().Null(), {})) << "a field for no column";
  EXPECT_FALSE(Read(Key().Text(u"x"), number));
  EXPECT_FALSE(Read(Key().Raw({0x29}), number));
  EXPECT_FALSE(Read(Key().Raw({0x40}), text)) << "count above 31";
  EXPECT_FALSE(Read(Key().Raw({0x1F}), text)) << "count without its tag";
  EXPECT_FALSE(Read(Key().Raw({0x21, 'a'}), text)) << "text without its end";
  EXPECT_FALSE(Read(Key().Raw({0x21, 'a', 1, 'b', 0x80}), text)) << "chunk after a short one";
  EXPECT_FALSE(Read(Key().Raw({0x22, 'a', 0, 0x80}), text)) << "zero byte in a text";
}

TEST(KeysTest, EmptyChunkAfterAFullOne_IsRefused) {
  std::vector<std::uint8_t> key{0x3F};
  key.resize(32, 'x');
  key.insert(key.end(), {0x00, 0x80, 0xC0});
  EXPECT_FALSE(Read(key, {{LORV_TYPE_STRING, false}}));
}

// Every byte string that is cut or flipped lies in memory of just its size up to the first wrong
// byte, so that a sanitizer sees a reader that goes on.
TEST(KeysTest, Reader_StopsAtTheFirstWrongByte) {
  std::vector<KeyColumn> const columns{{LORV_TYPE_STRING, false}, {LORV_TYPE_LONG, false}};
  EXPECT_FALSE(Read(std::vector<std::uint8_t>{0x00}, columns));
  EXPECT_FALSE(Read(std::vector<std::uint8_t>{0x3F, 'a', 0x00}, columns));
  EXPECT_FALSE(Read(std::vector<std::uint8_t>{0x21, 'a', 0x01}, columns));
  EXPECT_FALSE(Read(std::vector<std::uint8_t>{0x60, 0x27}, columns));
  EXPECT_FALSE(Read(std::vector<std::uint8_t>{0x60, 0x60, 0x60}, columns));
}

// No field goes on for longer than a chunk behind a zero byte, so that so much room behind a broken
// key is all that a reader may touch; the buffer ends right there.
TEST(KeysTest, BrokenKeys_AreReadNoFurtherThanTheirFirstWrongByte) {
  std::mt19937 random(99);
  std::vector<KeyColumn> const columns{{LORV_TYPE_STRING, true},
                                       {LORV_TYPE_LONG, false},
                                       {LORV_TYPE_BINARY, false},
                                       {LORV_TYPE_STRING, false}};
  std::vector<std::uint8_t> const good = Key()
                                             .Text(std::u16string(70, u'x'))
                                             .Long(-1)
                                             .Chunks(std::vector<std::uint8_t>(40, 7))
                                             .Text(u"end")
                                             .Bytes();
  ASSERT_TRUE(Read(good, columns));
  std::size_t refused = 0;
  for (int i = 0; i < 20000; ++i) {
    std::vector<std::uint8_t> key = good;
    for (auto changes = 1 + random() % 3; changes > 0; --changes)
      key[random() % key.size()] = static_cast<std::uint8_t>(random());
    key.resize(random() % key.size());
    key.resize(key.size() + 32);
    if (!Read(key, columns)) ++refused;
  }
  EXPECT_GT(refused, 10000U);
}

TEST(OrderedIdsTest, Ids_StandInOrderAndReadBack) {
  KeyBytes previous;
  for (std::uint64_t const id :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{247}, std::uint64_t{248},
        std::uint64_t{255}, std::uint64_t{256}, std::uint64_t{65535}, std::uint64_t{65536},
        std::uint64_t{1} << 40, (std::uint64_t{1} << 56) - 1, std::uint64_t{1} << 56,
        ~std::uint64_t{0}}) {
    KeyBytes bytes;
    AppendOrderedId(bytes, id);
    EXPECT_LT(previous, bytes);
    previous = bytes;
    std::uint64_t read = 1234;
    EXPECT_EQ(ReadOrderedId(bytes + "rest", &read), bytes.size());
    EXPECT_EQ(read, id);
  }
}

TEST(OrderedIdsTest, CutOrOverlongBytes_AreRefusedAndNothingIsWritten) {
  using namespace std::string_view_literals;
  std::uint64_t id = 1234;
  for (std::string_view const bytes :
       {""sv, "\xF8"sv, "\xFF\x01\x02\x03\x04\x05\x06\x07"sv, "\xF8\x05"sv, "\xF9\x00\xFF"sv})
    EXPECT_EQ(ReadOrderedId(bytes, &id), 0U);
  EXPECT_EQ(id, 1234U);
}

}  // namespace
}  // namespace lscore
