// A writer that is killed without warning, over and over, on one database.

#include <random>

#include "crash/directory.h"
#include "crash/rounds.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

class KillTest : public testing::TestWithParam<int> {
 protected:
  void SetUp() override { random_.seed(static_cast<unsigned>(GetParam())); }

  int Random(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

  // A database at its beginning is killed sooner, in the midst of being made.
  void KillWriter(bool young) {
    bool const sync = Random(4) == 0;
    Child writer([&](Channel& channel) {
      Bank bank(directory_->path(), seed_, {.no_sync = !sync, .log = log_});
      WorkUntilTheEnd(channel, bank);
      return 0;
    });
    int const patience = young ? Random(3) : 4 + Random(sync ? 20 : 60);
    for (int i = 0; i < patience; ++i) {
      std::optional<std::string> const line = writer.Next();
      ASSERT_TRUE(line.has_value()) << "the writer ended by itself: " << writer.Wait();
      Note(*line, acknowledged_);
    }
    for (int volatile spin = young ? Random(30000000) : Random(300000); spin > 0;) spin = spin - 1;
    writer.Kill();
    NoteRest(writer, acknowledged_);
  }

  void StartOver() {
    directory_ = std::make_unique<Directory>();
    acknowledged_ = {};
    seed_ = random_();
  }

  std::unique_ptr<Directory> directory_;
  std::mt19937 random_;
  std::uint64_t seed_ = 0;
  std::uint32_t const log_ = GetParam() % 2 == 0 ? LSCOREDB_DEFAULT_LOG : LSCOREDB_NO_LOG;
  Progress acknowledged_{};
};

TEST_P(KillTest, KilledWriter_LeavesEveryAcknowledgedCommitAndNoHalfOne) {
  constexpr int kRoundsOfADatabase = 13;
  int const rounds = Rounds(52, 10);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    if (round % kRoundsOfADatabase == 0) StartOver();
    KillWriter(round % kRoundsOfADatabase < 2);
    ExpectWholeAfter(directory_->path(), seed_, acknowledged_);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, KillTest, testing::Range(1, 7));

}  // namespace
}  // namespace crash_test
