// Start-up with one of its kernel calls refused: the status comes out, nothing is begun by
// half, and the same process can start up afterwards.

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using sagleme_test::Database;
using sagleme_test::InChildProcess;
using sagleme_test::TemporaryDirectory;

constexpr uint32_t kNotPrepared = SAGLEME_NOT_PREPARED;
constexpr uint32_t kNoLayout = SAGLEME_LAYOUT_NOT_FOUND;

// What a child process found.
enum Outcome { kAsExpected = 0, kNothingRefused, kAnotherStatus, kLeftOpen, kStarted, kNotAgain };

Outcome StartUpWithOneCallRefused(Database& database, int nth, uint32_t with, uint32_t expected) {
  recording_kernel::FailNth(nth, with);
  uint32_t const status = lorv_init_metalayer(database.context());
  bool const refused = recording_kernel::Failed();
  recording_kernel::FailNth(0, 0);
  if (!refused) return kNothingRefused;
  if (status != expected) return kAnotherStatus;
  if (recording_kernel::OpenIterators() != 0) return kLeftOpen;
  if (metalayer::IsMetalayerInitialized()) return kStarted;
  return lorv_init_metalayer(database.context()) == 0 ? kAsExpected : kNotAgain;
}

// The distance between refused calls is a prime, so that they are of every kind.
constexpr int kDistance = 7;

class StartUpFailureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    ASSERT_EQ(0, InChildProcess([&] { return static_cast<int>(Database(place_).Bootstrap()); }));
  }

  // In a process of its own, which knows nothing of the database yet.
  int InFreshProcess(int nth, uint32_t with, uint32_t expected) {
    return InChildProcess([&] {
      Database database(place_);
      database.Begin();
      *metalayer::TlsMetalayerContext::Current() = database.context();
      return static_cast<int>(StartUpWithOneCallRefused(database, nth, with, expected));
    });
  }

  std::string const& place() const { return place_; }

 private:
  TemporaryDirectory directory_;
  std::string const place_ = sagleme_test::NewPlace(directory_.path());
};

TEST_F(StartUpFailureTest, AnyCallThatFails_PassesTheStatusOutAndCanBeRepeated) {
  int nth = 1;
  for (;; nth += kDistance) {
    int const outcome = InFreshProcess(nth, LSCOREDB_IO_ERROR, LSCOREDB_IO_ERROR);
    if (outcome == kNothingRefused) break;
    ASSERT_EQ(kAsExpected, outcome) << "call " << nth;
  }
  EXPECT_GT(nth, 100);
}

// An iterator that cannot be freed leaves no way on, whatever start-up looked for with it.
TEST_F(StartUpFailureTest, IteratorThatTheKernelKeeps_EndsTheProcess) {
  constexpr int kTrapped = 128 + SIGABRT;
  int nth = 1;
  for (;; nth += kDistance) {
    int const outcome = InChildProcess([&] {
      Database database(place());
      database.Begin();
      recording_kernel::FailNthOf("lorv_iterator_free", nth, LSCOREDB_IO_ERROR);
      return lorv_init_metalayer(database.context()) == 0 ? kNothingRefused : kAnotherStatus;
    });
    if (outcome == kNothingRefused) break;
    ASSERT_EQ(kTrapped, outcome) << "free " << nth;
  }
  EXPECT_GT(nth, 50);
}

// While the ids are read, a layout or index that is missing is the mark of a catalogue in the
// making.
TEST_F(StartUpFailureTest, MissingLayoutOrIndex_IsAnIncompleteCatalogue) {
  EXPECT_EQ(kAsExpected, InFreshProcess(1, kNoLayout, kNotPrepared));
  EXPECT_EQ(kAsExpected, InFreshProcess(1, LORV_STATUS_NO_INDEX, kNotPrepared));
}

}  // namespace
