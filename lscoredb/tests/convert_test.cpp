// Texts as key bytes: what the two conversions promise to those who write keys.

#include <gtest/gtest.h>
#include <lscoredb/lscoredb.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace lscoredb_test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Convert = std::uint32_t (*)(char16_t const*, std::uint32_t, std::uint8_t*, std::uint32_t);

class TextConversionTest : public testing::TestWithParam<Convert> {
 protected:
  static Bytes Converted(std::u16string const& text, std::uint32_t upper = 0) {
    Bytes bytes(GetParam()(text.c_str(), upper, nullptr, 0));
    std::uint32_t const size = static_cast<std::uint32_t>(bytes.size());
    EXPECT_EQ(GetParam()(text.c_str(), upper, bytes.data(), size), size);
    return bytes;
  }

  static Bytes Payload(std::u16string const& text, std::uint32_t upper = 0) {
    Bytes const bytes = Converted(text, upper);
    EXPECT_EQ(bytes.at(0), 0x80) << "no spare bits, one header byte";
    return Bytes(bytes.begin() + 1, bytes.end());
  }
};

TEST_P(TextConversionTest, EmptyOrMissingText_IsTheHeaderAlone) {
  EXPECT_EQ(Converted(u""), Bytes{0x80});
  std::uint8_t byte = 0;
  EXPECT_EQ(GetParam()(nullptr, 0, &byte, 1), 1U);
  EXPECT_EQ(byte, 0x80);
}

TEST_P(TextConversionTest, EveryUnit_TakesOneToThreeBytes) {
  EXPECT_EQ(Payload(u"A\x7F"), (Bytes{0x41, 0x7F}));
  EXPECT_EQ(Payload(u"\x80\x7FF"), (Bytes{0xC2, 0x80, 0xDF, 0xBF}));
  EXPECT_EQ(Payload(u"\x800\xFFFF"), (Bytes{0xE0, 0xA0, 0x80, 0xEF, 0xBF, 0xBF}));
}

TEST_P(TextConversionTest, LoneSurrogates_AreUnitsLikeOthers) {
  EXPECT_EQ(Payload(std::u16string{0xDC00, 0xD800}), (Bytes{0xED, 0xB0, 0x80, 0xED, 0xA0, 0x80}));
}

TEST_P(TextConversionTest, UpperBound_StandsAboveAllTextsWithThePrefix) {
  Bytes const bound = Payload(u"ab", 1);
  EXPECT_EQ(bound, (Bytes{'a', 'b', 0xFF}));
  EXPECT_LT(Payload(u"ab"), bound);
  EXPECT_LT(Payload(u"ab\xFFFF\xFFFF"), bound);
  EXPECT_GT(Payload(u"ac"), bound);
  EXPECT_LT(Payload(std::u16string(100, u'\xFFFF')), Payload(u"", 1));
}

TEST_P(TextConversionTest, TextBytes_AreNeverZeroOrTheUpperBound) {
  std::u16string all;
  for (std::uint32_t unit = 1; unit <= 0xFFFF; ++unit) all += static_cast<char16_t>(unit);
  Bytes const payload = Payload(all);
  EXPECT_EQ(std::count(payload.begin(), payload.end(), 0), 0);
  EXPECT_EQ(std::count(payload.begin(), payload.end(), 0xFF), 0);
}

TEST_P(TextConversionTest, ByteOrder_IsUnitOrder) {
  std::u16string previous(1, u'\x01');
  for (std::uint32_t unit = 2; unit <= 0xFFFF; ++unit) {
    std::u16string const text(1, static_cast<char16_t>(unit));
    ASSERT_LT(Payload(previous), Payload(text)) << unit;
    previous = text;
  }
}

TEST_P(TextConversionTest, SmallBuffer_GetsTheSizeAndIsNotOverrun) {
  std::u16string const text(200, u'\x4E00');
  std::uint32_t const needed = GetParam()(text.c_str(), 0, nullptr, 0);
  EXPECT_EQ(needed, 601U);
  for (std::uint32_t const size : {0U, 1U, 128U, needed - 1}) {
    Bytes buffer(needed, 0xAA);
    EXPECT_EQ(GetParam()(text.c_str(), 0, buffer.data(), size), needed);
    EXPECT_TRUE(std::all_of(buffer.begin() + size, buffer.end(),
                            [](std::uint8_t byte) { return byte == 0xAA; }));
  }
}

INSTANTIATE_TEST_SUITE_P(Turbotext, TextConversionTest,
                         testing::Values(lorv_convert_ucs2_to_turbotext));
INSTANTIATE_TEST_SUITE_P(Setspec, TextConversionTest,
                         testing::Values(lorv_convert_ucs2_to_setspectt));

}  // namespace
}  // namespace lscoredb_test
