// A writer that is killed without warning, over and over, on one database.

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

#include "crash/bank.h"
#include "crash/child.h"
#include "crash/directory.h"

namespace crash_test {
namespace {

// Rounds of each test; SAGLEME_CRASH_ROUNDS has more of them done.
int Rounds() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  int const usual = 10;
#else
  int const usual = 52;
#endif
  char const* const wanted = std::getenv("SAGLEME_CRASH_ROUNDS");
  return wanted == nullptr ? usual : std::max(1, std::atoi(wanted));
}

// Works until it is killed. Says "teller step" for each step that it knows to be committed.
int Write(Channel& channel, std::string const& directory, std::uint64_t seed, bool sync) {
  Bank bank(directory, seed, {.no_sync = !sync});
  Progress const done = bank.Done();
  auto const say = [&](std::size_t teller, std::int64_t step) {
    channel.Say(std::to_string(teller) + " " + std::to_string(step));
  };
  for (std::size_t i = 0; i < done.size(); ++i) say(i, done[i]);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < done.size(); ++i) {
    threads.emplace_back([&, i] {
      sagleme::Context const context(bank.database());
      for (;;) say(i, bank.Step(context, static_cast<int>(i)));
    });
  }
  for (std::thread& thread : threads) thread.join();
  return 0;
}

class KillTest : public testing::TestWithParam<int> {
 protected:
  void SetUp() override { random_.seed(static_cast<unsigned>(GetParam())); }

  int Random(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

  void Note(std::string const& line) {
    std::istringstream fields(line);
    std::size_t teller = 0;
    std::int64_t step = 0;
    fields >> teller >> step;
    acknowledged_.at(teller) = std::max(acknowledged_.at(teller), step);
  }

  // A database at its beginning is killed sooner, in the midst of being made.
  void KillWriter(bool young) {
    bool const sync = Random(3) == 0;
    Child writer([&](Channel& channel) { return Write(channel, directory_->path(), seed_, sync); });
    int const patience = young ? Random(3) : 4 + Random(sync ? 20 : 60);
    for (int i = 0; i < patience; ++i) {
      std::optional<std::string> const line = writer.Next();
      ASSERT_TRUE(line.has_value()) << "the writer ended by itself: " << writer.Wait();
      Note(*line);
    }
    for (int volatile spin = young ? Random(30000000) : Random(300000); spin > 0;) spin = spin - 1;
    writer.Kill();
    while (std::optional<std::string> const line = writer.Next()) Note(*line);
  }

  // A step that was committed but not yet reported is there in full or not at all.
  void ExpectWhole() {
    Progress const acknowledged = acknowledged_;
    InChild([&] {
      Bank bank(directory_->path(), seed_, {.no_sync = true});
      Progress const done = bank.Done();
      for (std::size_t i = 0; i < done.size(); ++i) {
        EXPECT_GE(done[i], acknowledged[i]) << "teller " << i;
        EXPECT_LE(done[i], acknowledged[i] + 1) << "teller " << i;
      }
      bank.ExpectWhole();
    });
  }

  void StartOver() {
    directory_ = std::make_unique<Directory>();
    acknowledged_ = {};
    seed_ = random_();
  }

  std::unique_ptr<Directory> directory_;
  std::mt19937 random_;
  std::uint64_t seed_ = 0;
  Progress acknowledged_{};
};

TEST_P(KillTest, KilledWriter_LeavesEveryAcknowledgedCommitAndNoHalfOne) {
  constexpr int kRoundsOfADatabase = 13;
  int const rounds = Rounds();
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    if (round % kRoundsOfADatabase == 0) StartOver();
    KillWriter(round % kRoundsOfADatabase < 2);
    ExpectWhole();
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, KillTest, testing::Range(1, 7));

}  // namespace
}  // namespace crash_test
