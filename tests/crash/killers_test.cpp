// Several processes at work in one directory, each killed at any moment and begun again, while the
// others go on.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "crash/directory.h"
#include "crash/rounds.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

constexpr int kRoundsOfADatabase = 20;

enum class Log { kWithout, kWith, kKeepingChanges };

class KillersTest : public testing::TestWithParam<Log> {
 protected:
  int Random(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

  sagleme::Options AnyOptions() {
    sagleme::Options options = UnsyncedOptions(GetParam() != Log::kWithout);
    options.no_sync = Random(4) != 0;
    return options;
  }

  void StartOver() {
    workers_.clear();
    directory_ = std::make_unique<Directory>();
    acknowledged_ = {};
    seed_ = random_();
    sagleme::Options const options = AnyOptions();
    InChild([&] {
      Bank bank(directory_->path(), seed_, options);
      if (GetParam() == Log::kKeepingChanges) bank.KeepChanges();
    });
    for (std::size_t i = 0; i < acknowledged_.size(); ++i) workers_.push_back(Begin(i));
  }

  std::unique_ptr<Child> Begin(std::size_t teller) {
    return std::make_unique<Child>([this, teller, options = AnyOptions()](Channel& channel) {
      Bank bank(directory_->path(), seed_, options);
      WorkUntilTheEnd([&](std::string const& line) { channel.Say(line); }, bank, {teller});
      return 0;
    });
  }

  // Sometimes in the midst of opening.
  void KillOne() {
    auto const teller = static_cast<std::size_t>(Random(static_cast<int>(workers_.size())));
    Child& worker = *workers_[teller];
    for (int lines = Random(5); lines > 0; --lines) {
      std::optional<std::string> const line = worker.Next();
      ASSERT_TRUE(line.has_value()) << "a process ended by itself: " << worker.Wait();
      Note(*line, acknowledged_);
    }
    for (int volatile spin = Random(300000); spin > 0;) spin = spin - 1;
    End(worker);
    workers_[teller] = Begin(teller);
  }

  void End(Child& worker) {
    worker.Kill();
    NoteRest(worker, acknowledged_);
  }

  void KillAllAndLook() {
    for (auto const& worker : workers_) End(*worker);
    workers_.clear();
    ExpectWholeAfter(directory_->path(), seed_, acknowledged_);
  }

  std::unique_ptr<Directory> directory_;
  std::vector<std::unique_ptr<Child>> workers_;  // one for each teller
  std::mt19937 random_{static_cast<unsigned>(GetParam()) + 1};
  std::uint64_t seed_ = 0;
  Progress acknowledged_{};
};

TEST_P(KillersTest, KilledProcesses_HinderNobodyAndLeaveWholeCommits) {
  int const rounds = Rounds(60, 20);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    if (round % kRoundsOfADatabase == 0) StartOver();
    KillOne();
    if ((round + 1) % kRoundsOfADatabase == 0 || round + 1 == rounds) KillAllAndLook();
  }
}

std::string NameOf(testing::TestParamInfo<Log> const& info) {
  static constexpr std::array kNames = {"Without", "With", "KeepingChanges"};
  return kNames.at(static_cast<std::size_t>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Log, KillersTest,
                         testing::Values(Log::kWithout, Log::kWith, Log::kKeepingChanges), NameOf);

}  // namespace
}  // namespace crash_test
