#ifndef SAGLEME_TESTS_FAILURES_SWEEP_H
#define SAGLEME_TESTS_FAILURES_SWEEP_H

// Each kernel call that one call of the layer makes is refused in turn.

#include <gtest/gtest.h>
#include <lscoredb/host.h>

#include "support/recording_kernel.h"

namespace failures_test {

inline constexpr uint32_t kRefused = LSCOREDB_IO_ERROR;

// The status comes out, nothing stays open, and the same call succeeds afterwards. `call` returns a
// status and makes fewer than `more_than_any` kernel calls; `start_over` undoes what it did.
template <typename Call, typename StartOver>
void ExpectRefusalsPassedOut(int more_than_any, Call&& call, StartOver&& start_over) {
  int calls = 1;
  for (;; ++calls) {
    ASSERT_LT(calls, more_than_any);
    recording_kernel::FailNth(calls, kRefused);
    uint32_t const status = call();
    bool const refused = recording_kernel::Failed();
    recording_kernel::FailNth(0, 0);
    ASSERT_EQ(refused ? kRefused : 0u, status) << "call " << calls;
    ASSERT_EQ(0, recording_kernel::OpenIterators()) << "call " << calls;
    start_over();
    if (!refused) break;
    ASSERT_EQ(0u, call()) << "again after call " << calls;
    start_over();
  }
  // A call that asked the kernel nothing would have proved nothing.
  EXPECT_GT(calls, 1);
}

}  // namespace failures_test

#endif
