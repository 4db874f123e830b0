// The exported functions' way in and out: the context that the kernel is asked in, the one that the
// thread has afterwards, and what a caller gets of an exception that is no failure of the layer.

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <new>
#include <sagleme/metalayer/errors.hpp>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "frame/contexts.h"

namespace {

using namespace frame_test;
using recording_kernel::Answer;

constexpr uint32_t kStatus = 4711;

class ExportedFramesTest : public ContextsTest {
 protected:
  // From now on the kernel answers the calls below by what `work` returns or throws.
  void AnswerBy(std::function<uint32_t()> work) {
    auto const answer = [this, work](uint64_t context) {
      EXPECT_EQ(kInner, context);
      inside_ = Current();
      return work();
    };
    Answer<&lorv_context_get_string>([answer](uint64_t context, uint64_t, uint64_t, uint32_t,
                                              LORV_STRING**) { return answer(context); });
    Answer<&lorv_context_lookup>(
        [answer](uint64_t context, uint64_t, uint64_t*) { return answer(context); });
  }

  template <typename Exception>
  void AnswerByThrowing(Exception const& exception) {
    AnswerBy([exception]() -> uint32_t { throw exception; });
  }

  // One call with an eager and one with a lazy frame. A refused one leaves its output alone.
  uint32_t CallEager() { return lorv_setspec_name_by_setspec_ref(kInner, 3, 4, &name_); }
  uint32_t CallLazy() { return lorv_crud_GetObjectTypeId(kInner, 3, 4, &type_id_); }

  void ExpectBackWithoutOutput() {
    EXPECT_EQ(kInner, inside_);
    EXPECT_EQ(kOuter, Current());
    EXPECT_EQ(u"untouched", std::u16string(name_));
    EXPECT_EQ(77u, type_id_);
  }

  unsigned long inside_ = 0;
  char16_t const* name_ = u"untouched";
  uint64_t type_id_ = 77;
};

TEST_F(ExportedFramesTest, EagerCallThatSucceeds_PutsTheCallersContextBack) {
  AnswerBy([] { return LORV_STATUS_NULL; });
  EXPECT_EQ(0u, CallEager());
  EXPECT_EQ(nullptr, name_);
  EXPECT_EQ(kInner, inside_);
  EXPECT_EQ(kOuter, Current());
}

TEST_F(ExportedFramesTest, LazyCallThatSucceeds_PutsTheCallersContextBack) {
  EXPECT_EQ(0u, lorv_crud_RefreshIssuedHandles(kInner));
  EXPECT_EQ(kOuter, Current());
  EXPECT_EQ(1, metalayer::tls_clear_errbuf);
}

TEST_F(ExportedFramesTest, CallThatFails_PutsTheCallersContextBack) {
  AnswerBy([] { return kStatus; });
  EXPECT_EQ(kStatus, CallEager());
  ExpectBackWithoutOutput();
  EXPECT_EQ(kStatus, CallLazy());
  ExpectBackWithoutOutput();
}

TEST_F(ExportedFramesTest, ForeignExceptions_LeaveTheCallWithTheCallersContextBack) {
  auto const expect_thrown = [this](auto const& exception) {
    using Exception = std::decay_t<decltype(exception)>;
    AnswerByThrowing(exception);
    EXPECT_THROW(CallEager(), Exception);
    ExpectBackWithoutOutput();
    EXPECT_THROW(CallLazy(), Exception);
    ExpectBackWithoutOutput();
  };
  expect_thrown(std::bad_alloc());
  expect_thrown(std::system_error(EDEADLK, std::generic_category()));
  expect_thrown(std::logic_error("text"));
  expect_thrown(std::length_error("text"));
  expect_thrown(std::bad_function_call());
  expect_thrown(42);
}

TEST_F(ExportedFramesTest, LazyCallWithoutText_LeavesTheTextAndTheRequest) {
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_setspec_name_by_setspec_ref(kInner, 0, 0, &name_));
  AnswerBy([] { return kStatus; });
  EXPECT_EQ(kStatus, CallLazy());
  EXPECT_EQ(u"The argument setspec_oid is zero.", TextOf(kInner));
  EXPECT_EQ(1, metalayer::tls_clear_errbuf);
  EXPECT_EQ(kStatus, CallEager());
  EXPECT_EQ(u"(null)", TextOf(kInner));
}

TEST_F(ExportedFramesTest, Version_NeedsNoContextAndNoKernel) {
  recording_kernel::Record();
  uint64_t version = 0;
  unsigned long context = 1;
  std::thread([&] {
    version = lorv_get_metaschema_version();
    context = Current();
  }).join();
  EXPECT_EQ(9u, version);
  EXPECT_EQ(0u, context);
  EXPECT_TRUE(recording_kernel::Calls().empty());
}

}  // namespace
