#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <barrier>
#include <locale>
#include <sagleme/metalayer/errors.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

using metalayer::ErrBlt;
using Stream = ucs2_stream<ErrBlt>;

constexpr unsigned long kMaxUnits = 7168;

std::u16string TextOf(unsigned long context) {
  char16_t const* const text = lorv_metalayer_errbuf(context);
  return text == nullptr ? u"(null)" : text;
}

class ErrbufTest : public ::testing::Test {
 protected:
  void SetUp() override {
    *metalayer::TlsMetalayerContext::Current() = kContext;
    metalayer::clean_errbuf_by_ctx(kContext);
    metalayer::is_errbuf_clear_requested();
  }
  void TearDown() override { *metalayer::TlsMetalayerContext::Current() = 0; }

  std::u16string Text() const { return TextOf(kContext); }

  static constexpr unsigned long kContext = 31;
};

TEST_F(ErrbufTest, ContextNeverSeen_HasNoText) {
  EXPECT_EQ(nullptr, lorv_metalayer_errbuf(0x123456789));
  EXPECT_EQ(nullptr, lorv_metalayer_errbuf(0x123456789));
}

TEST_F(ErrbufTest, Context_HasOneBufferForEver) {
  unsigned long const buffer = metalayer::errbuf_by_ctx(99);
  EXPECT_EQ(buffer, metalayer::errbuf_by_ctx(99));
  EXPECT_EQ(buffer, metalayer::clean_errbuf_by_ctx(99));
  EXPECT_NE(buffer, metalayer::errbuf_by_ctx(98));
}

TEST_F(ErrbufTest, Writes_AppendWithoutASeparator) {
  Stream stream;
  stream << u"one" << u"two";
  EXPECT_EQ(u"onetwo", Text());
}

TEST_F(ErrbufTest, Append_ReturnsTheNewLength) {
  unsigned long const buffer = metalayer::errbuf_by_ctx(kContext);
  EXPECT_EQ(3u, metalayer::errbuf_blt_sz(buffer, u"abc"));
  EXPECT_EQ(3u, metalayer::errbuf_blt_sz(buffer, u""));
  EXPECT_EQ(5u, metalayer::errbuf_blt_sz(buffer, u"de"));
  ErrBlt::buf_clear(buffer);
  EXPECT_EQ(nullptr, lorv_metalayer_errbuf(kContext));
}

TEST_F(ErrbufTest, Numbers_StandInOrderBetweenTexts) {
  Stream stream;
  stream << u"a" << 112 << u"b" << 18446744073709551615ul << std::u16string(u"c") << -7 << u"d";
  EXPECT_EQ(u"a112b18446744073709551615c-7d", Text());
}

TEST_F(ErrbufTest, NumbersHaveNoGroups_WhateverTheHostsLocale) {
  struct Grouped : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  std::locale const before = std::locale::global(std::locale(std::locale::classic(), new Grouped));
  {
    Stream stream;
    stream << 1234567;
  }
  std::locale::global(before);
  EXPECT_EQ(u"1234567", Text());
}

TEST_F(ErrbufTest, EightBitTexts_WidenBySignExtension) {
  Stream stream;
  stream << "a\x80\xFF";
  EXPECT_EQ(u"a\xFF80\xFFFF", Text());
}

TEST_F(ErrbufTest, SingleUnitsAndEmptyTexts_AreAppended) {
  Stream stream;
  stream << u'x' << std::u16string() << u"" << "" << u'y';
  EXPECT_EQ(u"xy", Text());
}

TEST_F(ErrbufTest, LongTexts_AreWrittenWholeThroughTheChunks) {
  for (std::size_t const size : {127u, 128u, 129u, 256u, 257u, 1000u}) {
    metalayer::clean_errbuf_by_ctx(kContext);
    std::u16string text;
    for (std::size_t i = 0; i < size; ++i) text += static_cast<char16_t>(u'a' + i % 26);
    Stream stream;
    stream << text;
    EXPECT_EQ(text, Text()) << size;
  }
}

// ---- truncation ---------------------------------------------------------------------------------

TEST_F(ErrbufTest, FullBuffer_TakesTheLastUnitAndNoMore) {
  unsigned long const buffer = metalayer::errbuf_by_ctx(kContext);
  std::u16string const almost(kMaxUnits - 1, u'a');
  EXPECT_EQ(kMaxUnits - 1, metalayer::errbuf_blt_sz(buffer, almost.c_str()));
  EXPECT_EQ(kMaxUnits, metalayer::errbuf_blt_sz(buffer, u"xyz"));
  EXPECT_EQ(kMaxUnits, metalayer::errbuf_blt_sz(buffer, u"more"));
  EXPECT_EQ(almost + u"x", Text());
  EXPECT_EQ(0, lorv_metalayer_errbuf(kContext)[kMaxUnits]);
}

TEST_F(ErrbufTest, BlockCopy_IsCutAtTheEndToo) {
  unsigned long const buffer = metalayer::errbuf_by_ctx(kContext);
  std::u16string const text(kMaxUnits + 100, u'b');
  metalayer::errbuf_blt(buffer, text.data(), text.data() + text.size());
  metalayer::errbuf_blt(buffer, text.data(), text.data() + 1);
  EXPECT_EQ(std::u16string(kMaxUnits, u'b'), Text());
}

TEST_F(ErrbufTest, Truncation_CutsASurrogatePair) {
  Stream stream;
  stream << std::u16string(kMaxUnits - 1, u'a') << u"\xD83D\xDE00";
  EXPECT_EQ(0xD83D, Text().back());
  EXPECT_EQ(kMaxUnits, Text().size());
}

// ---- the clear request --------------------------------------------------------------------------

TEST_F(ErrbufTest, ClearRequest_IsReadAndResetInOneStep) {
  metalayer::request_clear_errbuf();
  EXPECT_EQ(1, metalayer::tls_clear_errbuf);
  EXPECT_TRUE(metalayer::is_errbuf_clear_requested());
  EXPECT_FALSE(metalayer::is_errbuf_clear_requested());
}

TEST_F(ErrbufTest, ClearRequest_TakesEffectWithTheNextWrite) {
  Stream stream;
  stream << u"old";
  metalayer::request_clear_errbuf();
  EXPECT_EQ(u"old", Text());
  stream << u"new" << u"er";
  EXPECT_EQ(u"newer", Text());
}

TEST_F(ErrbufTest, EmptyRange_LeavesTheRequestPending) {
  Stream stream;
  stream << u"old";
  metalayer::request_clear_errbuf();
  stream << std::u16string() << "";
  EXPECT_EQ(u"old", Text());
  stream << u'n';
  EXPECT_EQ(u"n", Text());
}

TEST_F(ErrbufTest, LongNameAsFirstPiece_LosesItsFullChunksToTheRequest) {
  Stream stream;
  stream << u"old";
  metalayer::request_clear_errbuf();
  stream << std::u16string(128, u'a') + u"tail";
  EXPECT_EQ(u"tail", Text());
}

TEST_F(ErrbufTest, LongEightBitTextAsFirstPiece_LosesItsFullChunksToo) {
  Stream stream;
  stream << u"old";
  metalayer::request_clear_errbuf();
  stream << (std::string(256, 'a') + "tail").c_str();
  EXPECT_EQ(u"tail", Text());
}

TEST_F(ErrbufTest, LongEightBitText_IsWrittenWholeThroughTheChunks) {
  Stream stream;
  stream << u"x" << std::string(300, 'a').c_str() << 7;
  EXPECT_EQ(u"x" + std::u16string(300, u'a') + u"7", Text());
}

TEST_F(ErrbufTest, NameOfExactlyOneChunk_SurvivesTheRequest) {
  metalayer::request_clear_errbuf();
  Stream stream;
  stream << std::u16string(128, u'a');
  EXPECT_EQ(std::u16string(128, u'a'), Text());
}

TEST_F(ErrbufTest, Request_GoesToTheContextThatIsWrittenNext) {
  Stream here;
  here << u"here";
  metalayer::request_clear_errbuf();
  *metalayer::TlsMetalayerContext::Current() = kContext + 1;
  Stream there;
  there << u"there";
  EXPECT_EQ(u"here", TextOf(kContext));
  EXPECT_EQ(u"there", TextOf(kContext + 1));
  EXPECT_FALSE(metalayer::is_errbuf_clear_requested());
}

TEST_F(ErrbufTest, Writer_StaysWithTheContextItWasMadeIn) {
  Stream stream;
  *metalayer::TlsMetalayerContext::Current() = kContext + 2;
  stream << u"text";
  EXPECT_EQ(u"text", TextOf(kContext));
}

// ---- threads ------------------------------------------------------------------------------------

TEST_F(ErrbufTest, RequestOfOneThread_IsNotSeenByAnother) {
  metalayer::request_clear_errbuf();
  bool seen = true;
  std::thread([&] { seen = metalayer::is_errbuf_clear_requested(); }).join();
  EXPECT_FALSE(seen);
  EXPECT_TRUE(metalayer::is_errbuf_clear_requested());
}

TEST_F(ErrbufTest, NewThread_HasNoContext) {
  unsigned long context = 1;
  std::thread([&] { context = *metalayer::TlsMetalayerContext::Current(); }).join();
  EXPECT_EQ(0u, context);
}

TEST_F(ErrbufTest, ThreadsWithContextsOfTheirOwn_DoNotMixTheirTexts) {
  constexpr unsigned long kThreads = 4;
  constexpr int kRounds = 200;
  std::barrier start(static_cast<std::ptrdiff_t>(kThreads));
  std::vector<std::thread> threads;
  std::vector<int> wrong(kThreads, 0);
  for (unsigned long i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        unsigned long const context = 1000 + i * kRounds + static_cast<unsigned long>(round);
        *metalayer::TlsMetalayerContext::Current() = context;
        Stream stream;
        stream << u"context " << context;
        std::string const digits = std::to_string(context);
        std::u16string const expected = u"context " + std::u16string(digits.begin(), digits.end());
        if (TextOf(context) != expected) ++wrong[i];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(kThreads, 0), wrong);
}

}  // namespace
