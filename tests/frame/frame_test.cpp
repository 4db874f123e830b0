#include "frame/frame.h"

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <csignal>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "frame/contexts.h"

namespace {

using namespace frame_test;
using metalayer::MetalayerFunction;
using namespace metalayer::exceptions;

void Say(char16_t const* text) { ucs2_stream<metalayer::ErrBlt>() << text; }

// Notes the thread's context when it is destroyed.
struct Witness {
  explicit Witness(std::vector<unsigned long>* out) : seen(out) {}
  ~Witness() { seen->push_back(Current()); }
  std::vector<unsigned long>* seen;
};

template <typename Eager>
class FrameTest : public ContextsTest {
 protected:
  template <typename Body>
  static unsigned int InFrame(Body&& body) {
    return MetalayerFunction<Eager::value>(kInner, body);
  }
};

struct FrameNames {
  template <typename Eager>
  static std::string GetName(int) {
    return Eager::value ? "Eager" : "Lazy";
  }
};
using Frames = ::testing::Types<std::true_type, std::false_type>;
TYPED_TEST_SUITE(FrameTest, Frames, FrameNames);

TYPED_TEST(FrameTest, Success_IsZeroAndTheOldContextIsBack) {
  unsigned long inside = 0;
  EXPECT_EQ(0u, this->InFrame([&] { inside = Current(); }));
  EXPECT_EQ(kInner, inside);
  EXPECT_EQ(kOuter, Current());
}

TYPED_TEST(FrameTest, Failure_IsItsCodeAndTheOldContextIsBack) {
  EXPECT_EQ(4711u, this->InFrame([] { db_util::db_exception::check(4711); }));
  EXPECT_EQ(kOuter, Current());
}

TYPED_TEST(FrameTest, EveryKindOfFailure_BecomesItsCode) {
  EXPECT_EQ(SAGLEME_NOT_PREPARED, this->InFrame([] { metalayer::Throw(SAGLEME_NOT_PREPARED); }));
  EXPECT_EQ(1u, this->InFrame([] { throw BadArg(1); }));
  EXPECT_EQ(2u, this->InFrame([] { throw BadTableArg(2, u"t"); }));
  EXPECT_EQ(3u, this->InFrame([] { throw BadNewTableArg(3, u"t"); }));
  EXPECT_EQ(4u, this->InFrame([] { throw BadBaseTableArg(4, u"t"); }));
  EXPECT_EQ(5u, this->InFrame([] { throw BadColumnArg(5, u"t", u"c"); }));
  EXPECT_EQ(6u, this->InFrame([] { throw BadNewColumnArg(6, u"t", u"c"); }));
  EXPECT_EQ(7u, this->InFrame([] { throw BadIndexArg(7, u"i"); }));
  EXPECT_EQ(8u,
            this->InFrame([] { throw AmbiguousIncompleteReverseUid(8, u"u", u"a", u"b", true); }));
}

TYPED_TEST(FrameTest, ForeignExceptions_PassThroughWithTheOldContextBack) {
  EXPECT_THROW(this->InFrame([] { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_EQ(kOuter, Current());
  EXPECT_THROW(this->InFrame([] { throw std::system_error(EDEADLK, std::generic_category()); }),
               std::system_error);
  EXPECT_EQ(kOuter, Current());
  EXPECT_THROW(this->InFrame([] { throw 42; }), int);
  EXPECT_EQ(kOuter, Current());
}

TYPED_TEST(FrameTest, LocalsOfTheBody_AreDestroyedInTheCallsContext) {
  std::vector<unsigned long> seen;
  this->InFrame([&] {
    Witness const witness(&seen);
    metalayer::Throw(1);
  });
  EXPECT_EQ((std::vector<unsigned long>{kInner}), seen);
}

TYPED_TEST(FrameTest, NestedFrames_EachPutTheirOwnersContextBack) {
  std::vector<unsigned long> seen;
  this->InFrame([&] {
    seen.push_back(MetalayerFunction<true>(7, [&] { seen.push_back(Current()); }));
    seen.push_back(Current());
    seen.push_back(MetalayerFunction<false>(8, [&] {
      seen.push_back(Current());
      metalayer::Throw(99);
    }));
    seen.push_back(Current());
  });
  EXPECT_EQ((std::vector<unsigned long>{7, 0, kInner, 8, 99, kInner}), seen);
  EXPECT_EQ(kOuter, Current());
}

TYPED_TEST(FrameTest, BodysText_StaysReadable) {
  this->InFrame([] {
    Say(u"text");
    metalayer::Throw(1);
  });
  EXPECT_EQ(u"text", TextOf(kInner));
  EXPECT_EQ(u"(null)", TextOf(kOuter));
}

TYPED_TEST(FrameTest, NextFailuresText_ReplacesTheOldOne) {
  this->InFrame([] { Say(u"first"); });
  this->InFrame([] { Say(u"second"); });
  EXPECT_EQ(u"second", TextOf(kInner));
}

// ---- what differs -------------------------------------------------------------------------------

using EagerFrameTest = FrameTest<std::true_type>;
using LazyFrameTest = FrameTest<std::false_type>;

TEST_F(EagerFrameTest, Entry_EmptiesTheBuffer) {
  InFrame([] { Say(u"text"); });
  std::u16string inside;
  InFrame([&] { inside = TextOf(kInner); });
  EXPECT_EQ(u"(null)", inside);
  EXPECT_EQ(u"(null)", TextOf(kInner));
}

TEST_F(EagerFrameTest, ClearRequest_IsLeftAlone) {
  InFrame([] {});
  EXPECT_EQ(0, metalayer::tls_clear_errbuf);
  metalayer::request_clear_errbuf();
  InFrame([] {});
  EXPECT_EQ(1, metalayer::tls_clear_errbuf);
}

TEST_F(LazyFrameTest, FrameThatWritesNothing_LeavesTheOldTextAndTheRequest) {
  InFrame([] { Say(u"text"); });
  InFrame([] { metalayer::Throw(1); });
  EXPECT_EQ(u"text", TextOf(kInner));
  EXPECT_EQ(1, metalayer::tls_clear_errbuf);
  InFrame([] { Say(u"next"); });
  EXPECT_EQ(u"next", TextOf(kInner));
  EXPECT_EQ(0, metalayer::tls_clear_errbuf);
}

// ---- the exported functions' side ---------------------------------------------------------------

TEST_F(EagerFrameTest, FailedCallsText_IsGoneAfterTheNextCallThatSucceeds) {
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_setspec_name_by_setspec_ref(kInner, 0, 0, nullptr));
  EXPECT_EQ(u"The argument setspec_oid is zero.", TextOf(kInner));
  recording_kernel::Answer<&lorv_context_get_string>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING**) { return LORV_STATUS_NULL; });
  char16_t const* name = u"untouched";
  EXPECT_EQ(0u, lorv_setspec_name_by_setspec_ref(kInner, 3, 4, &name));
  EXPECT_EQ(nullptr, name);
  EXPECT_EQ(u"(null)", TextOf(kInner));
}

TEST_F(EagerFrameTest, FailedCall_LeavesItsOutputAlone) {
  recording_kernel::Answer<&lorv_context_get_string>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING**) { return LORV_STATUS_NO_OBJECT; });
  char16_t const* name = u"untouched";
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, lorv_setspec_name_by_setspec_ref(kInner, 3, 4, &name));
  EXPECT_EQ(u"untouched", std::u16string(name));
}

TEST_F(EagerFrameTest, FramelessBooleans_PassTheirArgumentsOn) {
  recording_kernel::Answer<&lorv_context_get_ulong>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, uint64_t* out) {
        *out = 5;
        return 4242u;
      });
  recording_kernel::Answer<&lorv_context_put_ulong>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, uint64_t) { return 4243u; });
  recording_kernel::Record();
  uint64_t value = 0;
  EXPECT_EQ(4242u, lorv_meta_get_bool(kInner, 1, 2, 3, &value));
  EXPECT_EQ(5u, value);
  EXPECT_EQ(4243u, lorv_meta_put_bool(kInner, 1, 2, 3, 2));
  EXPECT_EQ(4243u, lorv_meta_put_bool(kInner, 1, 2, 3, 0));
  auto const& calls = recording_kernel::Calls();
  EXPECT_EQ((std::vector<uint64_t>{kInner, 1, 2, 3}), calls.at(0).numbers);
  EXPECT_EQ((std::vector<uint64_t>{kInner, 1, 2, 3, 1}), calls.at(1).numbers);
  EXPECT_EQ((std::vector<uint64_t>{kInner, 1, 2, 3, 0}), calls.at(2).numbers);
}

TEST_F(EagerFrameTest, Version_NeedsNoContext) { EXPECT_EQ(9u, lorv_get_metaschema_version()); }

TEST_F(EagerFrameTest, GenerationBeforeStartUp_ThrowsTheKernelsFailure) {
  recording_kernel::Answer<&lorv_context_get_ulong>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, uint64_t*) { return LORV_STATUS_NO_OBJECT; });
  recording_kernel::Record();
  unsigned int code = 0;
  try {
    lorv_get_metaschema_generation();
  } catch (db_util::db_exception const& failure) {
    code = failure.code();
  }
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, code);
  EXPECT_EQ((std::vector<uint64_t>{kOuter, 0, 0, 3}), recording_kernel::Calls().at(0).numbers);
}

TEST(FatalErrorDeathTest, FatalError_EndsTheProcess) {
  EXPECT_EXIT(metalayer::FatalError(), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
