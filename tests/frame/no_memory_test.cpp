// Memory that runs out in the frame: the exception reaches the caller as it is, with the caller's
// context back and no lock held.

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <new>
#include <sagleme/metalayer/errors.hpp>
#include <string>
#include <vector>

#include "crash/failing_memory.h"
#include "support/recording_kernel.h"

namespace {

constexpr uint64_t kOuter = 5;
// Contexts that nothing else has asked for, one a test.
constexpr uint64_t kLookedAt = 0x987654321;
constexpr uint64_t kNotMade = 0x987654322;
constexpr uint64_t kCalledIn = 0x987654323;

unsigned long Current() { return *metalayer::TlsMetalayerContext::Current(); }

class NoMemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    recording_kernel::Record();
    *metalayer::TlsMetalayerContext::Current() = kOuter;
  }
  void TearDown() override {
    failing_memory::FailNth(0);
    EXPECT_TRUE(recording_kernel::Names().empty());
    *metalayer::TlsMetalayerContext::Current() = 0;
  }

  // Whether `call` ended in std::bad_alloc when its `nth` request for memory was refused.
  template <typename Call>
  static bool RunsOut(int nth, Call const& call) {
    bool thrown = false;
    failing_memory::FailNth(nth);
    try {
      call();
    } catch (std::bad_alloc const&) {
      thrown = true;
    }
    bool const failed = failing_memory::Failed();
    failing_memory::FailNth(0);
    EXPECT_EQ(failed, thrown);
    return thrown;
  }
};

TEST_F(NoMemoryTest, LookAtAContextNeverSeen_MakesItsBuffer) {
  EXPECT_EQ(nullptr, lorv_metalayer_errbuf(kLookedAt));
  EXPECT_FALSE(RunsOut(1, [] { metalayer::errbuf_by_ctx(kLookedAt); }));
}

TEST_F(NoMemoryTest, BufferThatCannotBeMade_ThrowsAndReleasesTheLock) {
  int nth = 1;
  while (RunsOut(nth, [] { metalayer::errbuf_by_ctx(kNotMade); })) ++nth;
  EXPECT_LT(1, nth);
  EXPECT_EQ(nullptr, lorv_metalayer_errbuf(kNotMade));
}

TEST_F(NoMemoryTest, EagerCall_EndsBeforeItsWorkWithTheCallersContextBack) {
  uint64_t token = 77;
  EXPECT_TRUE(RunsOut(1, [&] { lorv_get_token(kCalledIn, u"name", &token); }));
  EXPECT_EQ(kOuter, Current());
  EXPECT_EQ(77u, token);
}

TEST_F(NoMemoryTest, FailureThatCannotBePrepared_IsTheLackOfMemory) {
  std::u16string const name(100, u'n');
  std::vector<LORV_COLUMN_DEFINITION> const many(113, {{1, 0}, 0, u"column"});
  metalayer::clean_errbuf_by_ctx(kOuter);
  uint32_t status = 77;
  auto const create = [&] {
    status = lorv_create_table(kOuter, name.c_str(), 0, 0, many.data(), nullptr, nullptr);
  };
  int nth = 1;
  for (; RunsOut(nth, create); ++nth) {
    EXPECT_EQ(77u, status);
    EXPECT_EQ(kOuter, Current());
  }
  EXPECT_LT(1, nth);
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, status);
}

// A number of this length does not fit into the stream itself.
TEST_F(NoMemoryTest, NumberThatCannotBeWritten_IsTheLackOfMemory) {
  metalayer::clean_errbuf_by_ctx(kOuter);
  unsigned int code = 0;
  int nth = 1;
  while (RunsOut(nth, [&code] {
    try {
      metalayer::exceptions::ThrowTokenNotFound(~0ul);
    } catch (db_util::db_exception const& failure) {
      code = failure.code();
    }
  })) {
    EXPECT_EQ(0u, code);
    ++nth;
  }
  EXPECT_LT(1, nth);
  EXPECT_EQ(SAGLEME_TOKEN_NOT_FOUND, code);
}

}  // namespace
