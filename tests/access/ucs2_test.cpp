#include <gtest/gtest.h>
#include <sagleme/ucs2.h>

#include <cerrno>
#include <limits>
#include <string>
#include <vector>

namespace {

unsigned char const* Bytes(char const* text) {
  return reinterpret_cast<unsigned char const*>(text);
}

// ---- length, copies -----------------------------------------------------------------------------

TEST(Ucs2LenTest, Text_CountsUnitsBeforeTheTerminator) {
  EXPECT_EQ(0u, ucs2_len(u""));
  EXPECT_EQ(3u, ucs2_len(u"abc"));
  EXPECT_EQ(2u, ucs2_len(u"\xD83D\xDE00"));
}

TEST(Ucs2MemcpyTest, Units_AreCopied) {
  char16_t out[] = u"....";
  ucs2_memcpy(out, u"ab", 2);
  EXPECT_EQ(u"ab..", std::u16string(out));
}

TEST(Ucs2MemcpyTest, OverlappingRanges_BehaveAsAForwardCopy) {
  char16_t text[] = u"abcd";
  ucs2_memcpy(text + 1, text, 3);
  EXPECT_EQ(u"aaaa", std::u16string(text));
}

TEST(Ucs2ScpyTest, Terminator_IsCopied) {
  char16_t out[] = u"....";
  ucs2_scpy(out, u"ab");
  EXPECT_EQ(u"ab", std::u16string(out));
  EXPECT_EQ(u'.', out[3]);
}

TEST(Ucs2ScpySTest, WithRoom_Copies) {
  char16_t out[4] = u"...";
  EXPECT_EQ(0, ucs2_scpy_s(out, 4, u"abc"));
  EXPECT_EQ(u"abc", std::u16string(out));
}

TEST(Ucs2ScpySTest, WithoutRoomForTheTerminator_FailsAndEmptiesTheTarget) {
  char16_t out[4] = u"...";
  errno = 0;
  EXPECT_EQ(34, ucs2_scpy_s(out, 3, u"abc"));
  EXPECT_EQ(34, errno);
  EXPECT_EQ(u"", std::u16string(out));
}

TEST(Ucs2ScpySTest, BadArguments_AreReported) {
  char16_t out[4] = u"...";
  errno = 0;
  EXPECT_EQ(22, ucs2_scpy_s(nullptr, 4, u"abc"));
  EXPECT_EQ(22, errno);
  errno = 0;
  EXPECT_EQ(22, ucs2_scpy_s(out, 4, nullptr));
  EXPECT_EQ(22, errno);
  EXPECT_EQ(u'.', out[1]);
  EXPECT_EQ(0, out[0]);
  out[0] = u'x';
  EXPECT_EQ(22, ucs2_scpy_s(out, 0, nullptr));
  EXPECT_EQ(0, out[0]);
  out[0] = u'x';
  errno = 0;
  EXPECT_EQ(34, ucs2_scpy_s(out, 0, u"abc"));
  EXPECT_EQ(34, errno);
  EXPECT_EQ(0, out[0]);
}

TEST(Ucs2StrcatSTest, WithRoom_Appends) {
  char16_t out[6] = u"ab";
  EXPECT_EQ(0, ucs2_strcat_s(out, 6, u"cde"));
  EXPECT_EQ(u"abcde", std::u16string(out));
}

TEST(Ucs2StrcatSTest, WithoutRoom_FailsAndEmptiesTheTarget) {
  char16_t out[6] = u"ab";
  errno = 0;
  EXPECT_EQ(34, ucs2_strcat_s(out, 5, u"cde"));
  EXPECT_EQ(34, errno);
  EXPECT_EQ(0, out[0]);
}

TEST(Ucs2StrcatSTest, UnterminatedTarget_IsRefusedUnchanged) {
  char16_t out[3] = {u'a', u'b', u'c'};
  errno = 0;
  EXPECT_EQ(22, ucs2_strcat_s(out, 3, u"d"));
  EXPECT_EQ(22, errno);
  EXPECT_EQ(u'a', out[0]);
}

TEST(Ucs2StrcatSTest, BadArguments_AreReported) {
  char16_t out[4] = u"ab";
  errno = 0;
  EXPECT_EQ(22, ucs2_strcat_s(nullptr, 4, u"c"));
  EXPECT_EQ(22, errno);
  errno = 0;
  EXPECT_EQ(22, ucs2_strcat_s(out, 4, nullptr));
  EXPECT_EQ(22, errno);
  EXPECT_EQ(0, out[0]);
  EXPECT_EQ(u'b', out[1]);
  out[0] = u'x';
  errno = 0;
  EXPECT_EQ(34, ucs2_strcat_s(out, 0, u"c"));
  EXPECT_EQ(34, errno);
  EXPECT_EQ(0, out[0]);
}

TEST(AsciiToUcs2Test, Bytes_WidenBySignExtension) {
  char16_t out[4];
  EXPECT_EQ(3u, ascii_to_ucs2("a\x80z", out));
  EXPECT_EQ(u"a\xFF80z", std::u16string(out));
  EXPECT_EQ(0u, ascii_to_ucs2("", out));
  EXPECT_EQ(0, out[0]);
}

TEST(Ucs2ToAsciiTest, UnitsOutsideAscii_AreSkipped) {
  char out[8];
  EXPECT_EQ(3u, ucs2_to_ascii(u"a\x80\x100z\x7F", out));
  EXPECT_STREQ("az\x7F", out);
}

// ---- comparison ---------------------------------------------------------------------------------

TEST(Ucs2CmpTest, Result_IsTheDifferenceOfTheFirstUnitsThatDiffer) {
  EXPECT_EQ(0, ucs2_cmp(u"abc", u"abc"));
  EXPECT_EQ(-2, ucs2_cmp(u"abc", u"abe"));
  EXPECT_EQ(0xFFFF - 1, ucs2_cmp(u"\xFFFF", u"\x1"));
}

TEST(Ucs2CmpTest, Prefix_SortsFirst) {
  EXPECT_EQ(-'a', ucs2_cmp(u"", u"a"));
  EXPECT_EQ('c', ucs2_cmp(u"abc", u"ab"));
}

TEST(Ucs2IcmpTest, Case_IsIgnored) {
  EXPECT_EQ(0, ucs2_icmp(u"ABC", u"abc"));
  EXPECT_EQ(-1, ucs2_icmp(u"ABC", u"abd"));
  EXPECT_EQ(1, ucs2_icmp(u"b", u"A"));
}

TEST(Ucs2IcmpTest, Unit_CountsByItsLowByteOnly) {
  EXPECT_EQ(0, ucs2_icmp(u"\x0141", u"\x0041"));
  EXPECT_EQ(0, ucs2_icmp(u"\x0141", u"a"));
}

TEST(Ucs2IcmpTest, UnitWithoutALowByte_EndsTheText) {
  EXPECT_EQ(0, ucs2_icmp(u"a\x0100zzz", u"A"));
}

TEST(Ucs2IcmpTest, HighBytes_AreBelowLowOnes) {
  EXPECT_EQ(-1, ucs2_icmp(u"\x80", u"a"));
  EXPECT_EQ(-1, ucs2_icmp(u"\xFF", u""));
  EXPECT_EQ(1, ucs2_icmp(u"a", u""));
}

// ---- numbers ------------------------------------------------------------------------------------

TEST(Ucs2ToUi64Test, BlanksAndOnePlus_AreSkipped) {
  EXPECT_EQ(12u, ucs2_toui64_base10(u"  +12x", nullptr));
  EXPECT_EQ(12u, ucs2_toui64_base10(u"\t 12", nullptr));
  EXPECT_EQ(0u, ucs2_toui64_base10(u"++12", nullptr));
  EXPECT_EQ(0u, ucs2_toui64_base10(u"", nullptr));
}

TEST(Ucs2ToUi64Test, Minus_IsRefused) { EXPECT_EQ(0u, ucs2_toui64_base10(u" -12", nullptr)); }

TEST(Ucs2ToUi64Test, Overflow_IsAllOnes) {
  errno = 0;
  EXPECT_EQ(18446744073709551615u, ucs2_toui64_base10(u"18446744073709551615", nullptr));
  EXPECT_EQ(~uint64_t{0}, ucs2_toui64_base10(u"18446744073709551616", nullptr));
  EXPECT_EQ(~uint64_t{0}, ucs2_toui64_base10(u"184467440737095516150000001", nullptr));
  EXPECT_EQ(0, errno);
}

TEST(Ucs2ToUi64Test, NullText_WritesTheEndOnly) {
  char16_t const text[] = u"12x";
  char16_t const* end = text;
  EXPECT_EQ(12u, ucs2_toui64_base10(text, &end));
  EXPECT_EQ(text, end);
  errno = 0;
  EXPECT_EQ(0u, ucs2_toui64_base10(nullptr, &end));
  EXPECT_EQ(22, errno);
  EXPECT_EQ(nullptr, end);
  EXPECT_EQ(0u, ucs2_toui64_base10(nullptr, nullptr));
}

TEST(Ucs2ToI64Test, BothSigns_AreRead) {
  EXPECT_EQ(12, ucs2_toi64_base10(u" \t+12", nullptr));
  EXPECT_EQ(-12, ucs2_toi64_base10(u"-12", nullptr));
  EXPECT_EQ(0, ucs2_toi64_base10(u"+-12", nullptr));
}

TEST(Ucs2ToI64Test, PositiveOverflow_IsMinusOne) {
  EXPECT_EQ(std::numeric_limits<int64_t>::max(),
            ucs2_toi64_base10(u"9223372036854775807", nullptr));
  EXPECT_EQ(-1, ucs2_toi64_base10(u"9223372036854775808", nullptr));
  EXPECT_EQ(-1, ucs2_toi64_base10(u"+99999999999999999999999", nullptr));
}

TEST(Ucs2ToI64Test, NegativeOverflow_Saturates) {
  EXPECT_EQ(std::numeric_limits<int64_t>::min(),
            ucs2_toi64_base10(u"-9223372036854775808", nullptr));
  EXPECT_EQ(std::numeric_limits<int64_t>::min(),
            ucs2_toi64_base10(u"-9223372036854775809", nullptr));
}

TEST(Ucs2ToI64Test, End_IsBehindTheUnitThatStoppedTheNumber) {
  char16_t const text[] = u"12xy";
  char16_t const* end = nullptr;
  EXPECT_EQ(12, ucs2_toi64_base10(text, &end));
  EXPECT_EQ(text + 3, end);
  char16_t const negative[] = u"-99999999999999999999z.";
  ucs2_toi64_base10(negative, &end);
  EXPECT_EQ(negative + 22, end);
}

TEST(Ucs2ToI64Test, NullText_IsReported) {
  char16_t const* end = u"";
  errno = 0;
  EXPECT_EQ(0, ucs2_toi64_base10(nullptr, &end));
  EXPECT_EQ(22, errno);
  EXPECT_EQ(nullptr, end);
}

TEST(Ucs2TofTest, Double_IsRead) {
  EXPECT_EQ(1.5, ucs2_tof(u" \t1.5e0x"));
  EXPECT_EQ(-0.25, ucs2_tof(u"-0.25"));
  EXPECT_EQ(0.0, ucs2_tof(u"x"));
}

TEST(Ucs2TofTest, LongText_IsReadUpTo127UnitsByTheirLowBytes) {
  std::u16string const text = u"1." + std::u16string(125, u'0') + u"e3";
  EXPECT_EQ(1.0, ucs2_tof(text.c_str()));
  EXPECT_EQ(7.0, ucs2_tof(u"\x0137"));
}

TEST(DecimalOutputTest, Digits_AreWrittenAndCounted) {
  char16_t out[24];
  EXPECT_EQ(1u, u32_to_ucs2(0, out));
  EXPECT_EQ(u"0", std::u16string(out));
  EXPECT_EQ(10u, u32_to_ucs2(4294967295u, out));
  EXPECT_EQ(u"4294967295", std::u16string(out));
  EXPECT_EQ(20u, u64_to_ucs2(~uint64_t{0}, out));
  EXPECT_EQ(u"18446744073709551615", std::u16string(out));
  EXPECT_EQ(1u, u64_to_ucs2(0, out));
}

TEST(DecimalOutputTest, NegativeNumber_HasAMinusThatCounts) {
  char16_t out[24];
  EXPECT_EQ(2u, i64_to_ucs2(-5, out));
  EXPECT_EQ(u"-5", std::u16string(out));
  EXPECT_EQ(20u, i64_to_ucs2(std::numeric_limits<int64_t>::min(), out));
  EXPECT_EQ(u"-9223372036854775808", std::u16string(out));
  EXPECT_EQ(1u, i64_to_ucs2(0, out));
  EXPECT_EQ(u"0", std::u16string(out));
}

// ---- reversal, UTF-8 ----------------------------------------------------------------------------

TEST(Ucs2ReverseTest, Text_IsReversedInPlace) {
  char16_t text[] = u"abcd";
  EXPECT_EQ(3, ucs2_reverse(text, 3));
  EXPECT_EQ(u"cbad", std::u16string(text));
  EXPECT_EQ(1, ucs2_reverse(text, 1));
  EXPECT_EQ(-4, ucs2_reverse(text, -4));
  EXPECT_EQ(u"cbad", std::u16string(text));
}

TEST(Utf8OutputTest, Unit_TakesOneToThreeBytes) {
  unsigned char out[4] = {};
  EXPECT_EQ(1u, ucs2_char_to_utf8(u'\x7F', out));
  EXPECT_EQ(0x7F, out[0]);
  EXPECT_EQ(2u, ucs2_char_to_utf8(u'\x7FF', out));
  EXPECT_EQ(0xDF, out[0]);
  EXPECT_EQ(0xBF, out[1]);
  EXPECT_EQ(3u, ucs2_char_to_utf8(0xD83D, out));
  EXPECT_EQ(0xED, out[0]);
  EXPECT_EQ(0xA0, out[1]);
  EXPECT_EQ(0xBD, out[2]);
}

TEST(Utf8OutputTest, Sizes_AgreeWithWhatIsWritten) {
  char16_t const text[] = u"a\x80\x7FF\x800\xFFFF";
  EXPECT_EQ(1u, ucs2_char_utf8_size(0x7F));
  EXPECT_EQ(2u, ucs2_char_utf8_size(0x80));
  EXPECT_EQ(3u, ucs2_char_utf8_size(0x800));
  EXPECT_EQ(11u, ucs2_utf8_len(text));
  unsigned char out[16];
  EXPECT_EQ(11u, ucs2_to_utf8(text, out));
  EXPECT_EQ(0, out[11]);
}

TEST(Utf8InputTest, WrittenText_IsReadBack) {
  char16_t const text[] = u"a\x80\x7FF\x800\xD83D\xDE00\xFFFF";
  unsigned char bytes[32];
  char16_t back[16];
  ucs2_to_utf8(text, bytes);
  EXPECT_EQ(7u, utf8_to_ucs2(bytes, back));
  EXPECT_EQ(std::u16string(text), std::u16string(back));
}

TEST(Utf8InputTest, FourByteForms_AreReadAsThreeAndAStray) {
  char16_t out[8];
  EXPECT_EQ(3u, utf8_to_ucs2(Bytes("\xF0\x9F\x98\x80z!"), out));
  EXPECT_EQ(0x07D8, out[0]);  // 0x0 << 12 | 0x1F << 6 | 0x18
  EXPECT_EQ(0x3A, out[1]);    // the stray byte takes the next one with it
  EXPECT_EQ(u'!', out[2]);
}

TEST(Utf8InputTest, CutOffCharacter_EndsAtTheTerminator) {
  char16_t out[8] = {};
  EXPECT_EQ(2u, utf8_to_ucs2(Bytes("a\xE2"), out));
  EXPECT_EQ(0x2000, out[1]);
  EXPECT_EQ(2u, utf8_to_ucs2(Bytes("a\xC3"), out));
  EXPECT_EQ(0x00C0, out[1]);
}

TEST(Utf8InputBoundedTest, WithRoom_Terminates) {
  char16_t out[4] = u"...";
  EXPECT_EQ(3u, utf8_to_ucs2_s(Bytes("abc"), out, 4));
  EXPECT_EQ(u"abc", std::u16string(out));
}

TEST(Utf8InputBoundedTest, WithoutRoom_CountsWhatIsNeeded) {
  char16_t out[4] = u"...";
  EXPECT_EQ(3u, utf8_to_ucs2_s(Bytes("abc"), out, 3));
  EXPECT_EQ(u"abc", std::u16string(out, 3));
  EXPECT_EQ(0, out[3]);
  char16_t little[3] = u"..";
  EXPECT_EQ(4u, utf8_to_ucs2_s(Bytes("abcd"), little, 1));
  EXPECT_EQ(u"a.", std::u16string(little));
}

TEST(Utf8InputBoundedTest, WithoutAnyRoom_WritesNothing) {
  char16_t out[2] = u".";
  EXPECT_EQ(2u, utf8_to_ucs2_s(Bytes("ab"), out, 0));
  EXPECT_EQ(u'.', out[0]);
}

}  // namespace
