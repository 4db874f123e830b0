// The bootstrap with one of its kernel calls refused: the status comes out, and what was committed
// up to there is taken up by the next process.

#include <gtest/gtest.h>

#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using sagleme_test::Database;
using sagleme_test::InChildProcess;
using sagleme_test::TemporaryDirectory;

constexpr uint32_t kRefused = LSCOREDB_IO_ERROR;

// What a child process found.
enum Outcome { kAsExpected = 0, kNothingRefused = 1, kAnotherStatus = 2, kLeftOpen = 3 };

int Bootstrap(Database& database) {
  return database.Bootstrap() == 0 && metalayer::IsMetalayerInitialized() ? kAsExpected
                                                                          : kAnotherStatus;
}

int BootstrapWithOneCallRefused(Database& database, int nth) {
  recording_kernel::FailNth(nth, kRefused);
  uint32_t const status = database.Bootstrap();
  bool const refused = recording_kernel::Failed();
  recording_kernel::FailNth(0, 0);
  if (!refused) return kNothingRefused;
  if (status != kRefused) return kAnotherStatus;
  return recording_kernel::OpenIterators() == 0 ? kAsExpected : kLeftOpen;
}

// The distance between refused calls is a prime, so that they are of every kind.
constexpr int kDistance = 197;

// Runs `attempt` in a process of its own for each call to refuse, until there is none.
template <typename Attempt>
void ForCalls(Attempt const& attempt) {
  int nth = 1;
  for (;; nth += kDistance) {
    TemporaryDirectory const directory;
    int const outcome = attempt(sagleme_test::NewPlace(directory.path()), nth);
    if (outcome == kNothingRefused) break;
    ASSERT_EQ(kAsExpected, outcome) << "call " << nth;
  }
  EXPECT_GT(nth, 5 * kDistance);
}

TEST(BootstrapFailureTest, AnyCallThatFails_IsResumedByTheSameProcess) {
  ForCalls([](std::string const& place, int nth) {
    return InChildProcess([&] {
      Database database(place);
      int const outcome = BootstrapWithOneCallRefused(database, nth);
      return outcome == kAsExpected ? Bootstrap(database) : outcome;
    });
  });
}

TEST(BootstrapFailureTest, AnyCallThatFails_IsResumedByTheNextProcess) {
  ForCalls([](std::string const& place, int nth) {
    int const outcome = InChildProcess([&] {
      Database database(place);
      return BootstrapWithOneCallRefused(database, nth);
    });
    if (outcome != kAsExpected) return outcome;
    return InChildProcess([&] {
      Database database(place);
      return Bootstrap(database);
    });
  });
}

}  // namespace
