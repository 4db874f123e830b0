// The bootstrap as a continuation: how it ends, and what an end in between leaves.

#include <gtest/gtest.h>

#include <new>

#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using Prepare = uint32_t (*)(uint64_t, continuation_context**, bool*);

class BootstrapCallsTest : public ::testing::TestWithParam<Prepare> {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    database_.Begin();
  }
  void TearDown() override { recording_kernel::Reset(); }

  uint32_t Start() { return GetParam()(database_.context(), &next_, &more_); }

  uint32_t GoOn() {
    continuation_context* const handle = next_;
    uint32_t const status = run_continuation(handle, &next_, &more_);
    free_continuation_handle(handle);
    return status;
  }

  // Runs what is left, all in one transaction.
  uint32_t RunToTheEnd(uint32_t status) {
    while (status == 0 && more_) status = GoOn();
    return status;
  }

  static unsigned long Current() { return *metalayer::TlsMetalayerContext::Current(); }

  sagleme_test::Database database_;
  continuation_context* next_ = reinterpret_cast<continuation_context*>(1);
  bool more_ = true;
};

TEST_P(BootstrapCallsTest, FailureBeforeTheFirstYield_IsTheResultOfTheCall) {
  recording_kernel::FailNth(1, LSCOREDB_IO_ERROR);
  EXPECT_EQ(LSCOREDB_IO_ERROR, Start());
  EXPECT_FALSE(more_);
  EXPECT_EQ(nullptr, next_);
  EXPECT_EQ(0u, Current());
}

TEST_P(BootstrapCallsTest, NormalEnd_IsAStepWithoutASuccessor) {
  EXPECT_EQ(0u, RunToTheEnd(Start()));
  EXPECT_FALSE(more_);
  EXPECT_EQ(nullptr, next_);
  EXPECT_TRUE(metalayer::IsMetalayerInitialized());
  EXPECT_EQ(0u, Current());
}

// Verified between its creation and that of the next table, so that what a host did at the yield in
// between is noticed.
TEST_P(BootstrapCallsTest, RootIndex_IsVerifiedTwiceBeforeTheNextTable) {
  recording_kernel::Record();
  EXPECT_EQ(0u, RunToTheEnd(Start()));
  bool created = false;
  int verified = 0;
  uint64_t token = 0;
  for (recording_kernel::Call const& call : recording_kernel::Calls()) {
    if (created && call.function == "lorvi_context_create_layout") break;
    if (created && call.function == "lorvi_context_get_index_infos_by_token") {
      EXPECT_EQ(token, call.numbers[1]);
      ++verified;
    }
    if (call.function != "lorvi_context_create_index") continue;
    EXPECT_FALSE(created) << "the root has one index";
    created = true;
    token = call.numbers[1];
  }
  EXPECT_TRUE(created);
  EXPECT_EQ(2, verified);
}

TEST_P(BootstrapCallsTest, BetweenSteps_ContextStaysTheThreads) {
  EXPECT_EQ(0u, Start());
  ASSERT_TRUE(more_);
  EXPECT_EQ(database_.context(), Current());
  free_continuation_handle(next_);
  EXPECT_EQ(0u, Current());
}

TEST_P(BootstrapCallsTest, RunThatWasGivenUp_CanBeBegunAgain) {
  uint32_t status = Start();
  for (int i = 0; i < 3 && status == 0 && more_; ++i) status = GoOn();
  ASSERT_EQ(0u, status);
  ASSERT_TRUE(more_);
  free_continuation_handle(next_);
  EXPECT_EQ(0, recording_kernel::OpenIterators());
  EXPECT_EQ(0u, RunToTheEnd(Start()));
  EXPECT_TRUE(metalayer::IsMetalayerInitialized());
}

TEST_P(BootstrapCallsTest, FailureInALaterStep_IsTheResultOfThatStepAndTheLast) {
  uint32_t status = Start();
  ASSERT_EQ(0u, status);
  recording_kernel::FailNth(30, LSCOREDB_IO_ERROR);
  status = RunToTheEnd(status);
  EXPECT_EQ(LSCOREDB_IO_ERROR, status);
  EXPECT_FALSE(more_);
  EXPECT_EQ(nullptr, next_);
  EXPECT_EQ(0, recording_kernel::OpenIterators());
  EXPECT_EQ(0u, Current());
}

TEST_P(BootstrapCallsTest, RunThatIsGivenUp_DestroysItsDescriptorsAndPutsTheSavedContextBack) {
  *metalayer::TlsMetalayerContext::Current() = 3;
  ASSERT_EQ(0u, Start());
  ASSERT_TRUE(more_);
  EXPECT_EQ(database_.context(), Current());
  EXPECT_NE(nullptr, metalayer::MetaschemaInit::inits());
  free_continuation_handle(next_);
  EXPECT_EQ(nullptr, metalayer::MetaschemaInit::inits());
  EXPECT_EQ(3u, Current());
  *metalayer::TlsMetalayerContext::Current() = 0;
}

TEST_P(BootstrapCallsTest, NormalEnd_DestroysTheDescriptorsAndPutsTheSavedContextBack) {
  *metalayer::TlsMetalayerContext::Current() = 3;
  EXPECT_EQ(0u, RunToTheEnd(Start()));
  EXPECT_EQ(nullptr, metalayer::MetaschemaInit::inits());
  EXPECT_EQ(3u, Current());
  *metalayer::TlsMetalayerContext::Current() = 0;
}

// The start empties the buffer; the steps behind it leave it alone.
TEST_P(BootstrapCallsTest, OldText_IsGoneWithTheStartAndLaterTextStaysOverTheSteps) {
  constexpr char16_t kText[] = u"The argument setspec_oid is zero.";
  uint64_t const context = database_.context();
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_setspec_name_by_setspec_ref(context, 0, 0, nullptr));
  EXPECT_EQ(kText, sagleme_test::LastText(context));
  ASSERT_EQ(0u, Start());
  EXPECT_EQ(nullptr, lorv_metalayer_errbuf(context));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_setspec_name_by_setspec_ref(context, 0, 0, nullptr));
  EXPECT_EQ(0u, RunToTheEnd(0));
  EXPECT_EQ(kText, sagleme_test::LastText(context));
}

void ThrowFromTheKernel() {
  recording_kernel::Answer<&lorv_context_create_iterator>(
      [](uint64_t, uint64_t, uint32_t, void const*, void const*, uint64_t*) -> uint32_t {
        throw std::bad_alloc();
      });
  recording_kernel::Answer<&lorvi_context_get_layout_infos_by_token>(
      [](uint64_t, uint64_t, uint32_t*, LORVI_LAYOUT_INFO*) -> uint32_t {
        throw std::bad_alloc();
      });
}

TEST_P(BootstrapCallsTest, ForeignExceptionBeforeTheFirstYield_LeavesTheCall) {
  ThrowFromTheKernel();
  EXPECT_THROW(Start(), std::bad_alloc);
  EXPECT_EQ(nullptr, metalayer::MetaschemaInit::inits());
  EXPECT_EQ(0u, Current());
}

TEST_P(BootstrapCallsTest, LaterForeignException_LeavesTheStepThatResumed) {
  uint32_t status = Start();
  for (int i = 0; i < 3 && status == 0; ++i) status = GoOn();
  ASSERT_EQ(0u, status);
  ASSERT_TRUE(more_);
  ThrowFromTheKernel();
  continuation_context* const handle = next_;
  EXPECT_THROW(run_continuation(handle, &next_, &more_), std::bad_alloc);
  EXPECT_EQ(nullptr, next_);
  EXPECT_FALSE(more_);
  EXPECT_EQ(nullptr, metalayer::MetaschemaInit::inits());
  EXPECT_EQ(0u, Current());
  free_continuation_handle(handle);
}

INSTANTIATE_TEST_SUITE_P(Names, BootstrapCallsTest,
                         ::testing::Values(&lorv_prepare_system_tables, &lorv_create_metadata),
                         [](auto const& prepare) {
                           return prepare.param == &lorv_prepare_system_tables
                                      ? std::string("PrepareSystemTables")
                                      : std::string("CreateMetadata");
                         });

}  // namespace
