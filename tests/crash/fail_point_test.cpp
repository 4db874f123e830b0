// What is left of a commit that ends, or fails, at each of its points.

#include <lmdb.h>

#include <cerrno>

#include "crash/directory.h"
#include "crash/recording.h"
#include "crash/rounds.h"
#include "crash/store_faults.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

using store_faults::Point;

constexpr std::uint64_t kSeed = 7;

// The points are those of a commit into the data file.
sagleme::Options const kWithoutLog{.log = LSCOREDB_NO_LOG};

class FailPointTest : public testing::Test {
 protected:
  // Lets a child work until its end at a point that `arm` chooses. Returns what it acknowledged.
  Progress Work(std::function<void()> const& arm, Recording const* recording = nullptr) {
    Child writer([&](Channel& channel) {
      if (recording != nullptr) recording->Join();
      Bank bank(directory_.path(), kSeed, kWithoutLog);
      WorkUntilTheEnd(channel, bank, arm);
      return 0;
    });
    Progress acknowledged{};
    NoteRest(writer, acknowledged);
    EXPECT_EQ(Child::kKilled, writer.Wait());
    return acknowledged;
  }

  Directory directory_;
};

std::string Describe(Point point, int passage) {
  return "point " + std::to_string(static_cast<int>(point)) + ", passage " +
         std::to_string(passage);
}

TEST_F(FailPointTest, EndAtAnyPoint_LeavesWholeCommits) {
  for (Point const point : store_faults::kAllPoints) {
    for (int const nth : {1, 2, 9}) {
      SCOPED_TRACE(Describe(point, nth));
      Progress const acknowledged =
          Work([&] { store_faults::Arm(point, nth, store_faults::Kill); });
      ExpectWholeAfter(directory_.path(), kSeed, acknowledged);
    }
  }
}

TEST_F(FailPointTest, LossOfPowerAtAnyPoint_LeavesWholeCommits) {
  for (Point const point : store_faults::kAllPoints) {
    for (int const nth : {1, 2, 3, 12}) {
      SCOPED_TRACE(Describe(point, nth));
      InChild([&] { Bank const bank(directory_.path(), kSeed, kWithoutLog); });
      Recording const recording(directory_.path());
      Progress const acknowledged =
          Work([&] { store_faults::Arm(point, nth, store_faults::Kill); }, &recording);
      recording.ForEachLossAtItsEnd(
          [&](std::string const& left) { ExpectWholeAfter(left, kSeed, acknowledged); });
    }
  }
}

// Everyone at work in turn, in one thread.
class Turns {
 public:
  explicit Turns(std::string const& directory, std::uint64_t seed = kSeed)
      : bank_(directory, seed, kWithoutLog) {
    for (int i = 0; i < 8; ++i) Step();
  }

  Bank& bank() { return bank_; }
  void Step() {
    sagleme::Context const context(bank_.database());
    bank_.Step(context, next_++ % (kTellers + 1));
  }
  // The status of a step that must not succeed.
  std::uint32_t RefusedStep() {
    try {
      Step();
    } catch (sagleme::Error const& refusal) {
      EXPECT_STRNE("", refusal.what());
      return refusal.status();
    }
    return 0;
  }

 private:
  Bank bank_;
  int next_ = 0;
};

struct Failure {
  Point point;
  int code;
  std::uint32_t status;
};

void ExpectFailuresLeaveNothing(Turns& turns) {
  Failure const failures[] = {
      {Point::kBeforeApply, ENOMEM, LSCOREDB_NO_MEMORY},
      {Point::kBetweenRowsAndIndexes, MDB_MAP_FULL, LSCOREDB_MAP_FULL},
      {Point::kBetweenRowsAndIndexes, MDB_CORRUPTED, LSCOREDB_DAMAGED},
      {Point::kBeforeWriting, ENOSPC, LSCOREDB_DISK_FULL},
      {Point::kWriting, ENOSPC, LSCOREDB_DISK_FULL},
      {Point::kWriting, EDQUOT, LSCOREDB_DISK_FULL},
      {Point::kWriting, EFBIG, LSCOREDB_DISK_FULL},
      {Point::kWriting, EIO, LSCOREDB_IO_ERROR},
      {Point::kWriting, store_faults::kShort, LSCOREDB_IO_ERROR},
      {Point::kBeforeSync, EIO, LSCOREDB_IO_ERROR},
      {Point::kBeforeSync, ENOSPC, LSCOREDB_DISK_FULL},
  };
  for (Failure const& failure : failures) {
    SCOPED_TRACE(Describe(failure.point, 1) + ", code " + std::to_string(failure.code));
    Progress const before = turns.bank().Done();
    auto const fail = [&] { return failure.code; };
    store_faults::Arm(failure.point, 1, fail, store_faults::kForEver);
    EXPECT_EQ(failure.status, turns.RefusedStep());
    EXPECT_LE(1, store_faults::Acted());
    store_faults::Disarm();
    EXPECT_EQ(before, turns.bank().Done());
    turns.bank().ExpectWhole();
    turns.Step();
    turns.bank().ExpectWhole();
  }
}

TEST_F(FailPointTest, FailureAtAnyPoint_IsReportedAndLeavesNothingAndWorkContinues) {
  int const rounds = Rounds(1, 1);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Directory const directory;
    InChild([&] {
      Turns turns(directory.path(), kSeed + static_cast<std::uint64_t>(round));
      ExpectFailuresLeaveNothing(turns);
    });
  }
}

TEST_F(FailPointTest, RootThatCannotBeWritten_EndsTheUseOfTheDatabaseUntilItIsOpenedAgain) {
  Progress before{};
  Child writer([&](Channel& channel) {
    Turns turns(directory_.path());
    Progress const done = turns.bank().Done();
    for (std::size_t i = 0; i < done.size(); ++i) {
      channel.Say(std::to_string(i) + " " + std::to_string(done[i]));
    }
    store_faults::Arm(Point::kBeforeRoot, 1, [] { return EIO; });
    EXPECT_EQ(LSCOREDB_IO_ERROR, turns.RefusedStep());
    EXPECT_EQ(1, store_faults::Acted());
    EXPECT_EQ(LSCOREDB_IO_ERROR, turns.RefusedStep());
    return 0;
  });
  NoteRest(writer, before);
  EXPECT_EQ(0, writer.Wait());
  InChild([&] {
    Turns turns(directory_.path());
    turns.bank().ExpectWhole();
  });
}

}  // namespace
}  // namespace crash_test
