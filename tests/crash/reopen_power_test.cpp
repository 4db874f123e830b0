// Losses of power while processes open and close the directory again and again, now with sync and
// now without: an opening takes what a closing left for durable, and syncs nothing.

#include <signal.h>

#include <algorithm>

#include "crash/directory.h"
#include "crash/recording.h"
#include "crash/rounds.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

using recorded_disk::Event;
using recorded_disk::Kind;

constexpr std::uint64_t kEventsOfAProcess = 1500;
constexpr int kLossesOfARecording = 50;

sagleme::Options WithLog(bool sync) {
  sagleme::Options options = UnsyncedOptions(true);
  options.no_sync = !sync;
  return options;
}

void Say(std::string_view kind, std::size_t teller, std::int64_t step) {
  recorded_disk::Note(std::string(kind) + std::to_string(teller) + " " + std::to_string(step));
}

// A durable step keeps also what anyone had done before it.
void Step(Bank& bank, sagleme::Context const& context, std::size_t teller, bool sync) {
  Progress const before = bank.Done();
  std::int64_t const step = bank.Step(context, static_cast<int>(teller));
  Say("", teller, step);
  if (!sync) return;
  for (std::size_t i = 0; i < before.size(); ++i) Say(kSynced, i, before[i]);
  Say(kSynced, teller, step);
}

// Until the recording ends the process.
void OpenAndClose(std::string const& directory, std::uint64_t seed, Tellers const& tellers) {
  std::mt19937_64 random(seed + tellers.front());
  for (;;) {
    bool const sync = random() % 2 == 0;
    Bank bank(directory, seed, WithLog(sync));
    sagleme::Context const context(bank.database());
    for (auto steps = random() % 8; steps > 0; --steps) {
      Step(bank, context, tellers[random() % tellers.size()], sync);
    }
  }
}

std::vector<Event> Record(std::uint64_t seed, std::vector<Tellers> const& processes) {
  Directory const directory;
  InChild([&] { Bank const bank(directory.path(), seed, WithLog(false)); });
  Recording const recording(directory.path());
  std::vector<std::unique_ptr<Child>> children;
  for (Tellers const& tellers : processes) {
    children.push_back(std::make_unique<Child>([&](Channel&) {
      recording.Join(kEventsOfAProcess);
      OpenAndClose(directory.path(), seed, tellers);
      return 0;
    }));
  }
  for (auto const& child : children) EXPECT_EQ(Child::kKilled, child->Wait());
  return recording.Events();
}

void Take(Event const& event, Disk& disk, Said& said) {
  disk.Take(event);
  if (event.kind == Kind::kNote) said.Hear(event.data);
}

void LosePower(std::uint64_t seed, std::vector<Tellers> const& processes, int losses) {
  std::vector<Event> const events = Record(seed, processes);
  std::mt19937_64 random(seed);
  std::vector<std::size_t> moments(static_cast<std::size_t>(losses));
  std::size_t const first = FirstMoment(events);
  for (std::size_t& moment : moments) moment = first + random() % (events.size() - first) + 1;
  std::sort(moments.begin(), moments.end());
  Disk disk;
  Said said;
  std::size_t taken = 0;
  for (std::size_t const moment : moments) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", event " + std::to_string(moment));
    for (; taken < moment; ++taken) Take(events[taken], disk, said);
    Directory const left;
    disk.BuildAfterLoss(left.path(), random);
    ExpectWholeBetween(left.path(), seed, said.synced, said.acknowledged);
    if (testing::Test::HasFailure()) return;
  }
}

void LosePowerOverAndOver(std::vector<Tellers> const& processes) {
  std::uint64_t seed = 1;
  for (int left = Rounds(40, 8); left > 0 && !testing::Test::HasFailure();
       left -= kLossesOfARecording) {
    LosePower(seed++, processes, std::min(left, kLossesOfARecording));
  }
}

// The changes go into the data file in several batches, each of which is synced, while the commits
// were not.
TEST(ReopenPowerTest, LossWhileAClosingWritesALargeLog_LeavesWholeCommits) {
  constexpr std::uint64_t kSeed = 7;
  constexpr int kSteps = 2500;
  constexpr std::size_t kEventsOfAClosing = 60;
  sagleme::Options options = WithLog(false);
  options.log_limit = std::uint64_t{64} << 20;
  Directory const directory;
  InChild([&] { Bank const bank(directory.path(), kSeed, options); });
  Recording const recording(directory.path());
  InChild([&] {
    recording.Join();
    Bank bank(directory.path(), kSeed, options);
    sagleme::Context const context(bank.database());
    for (std::size_t i = 0; i < kSteps; ++i) Step(bank, context, i % kTellers, false);
  });
  std::vector<Event> const events = recording.Events();
  std::mt19937_64 random(kSeed);
  Disk disk;
  Said said;
  for (std::size_t i = 0; i < events.size(); ++i) {
    Take(events[i], disk, said);
    if (i + kEventsOfAClosing < events.size()) continue;
    SCOPED_TRACE(events.size() - i);
    Directory const left;
    disk.BuildAfterLoss(left.path(), random);
    ExpectWholeBetween(left.path(), kSeed, said.synced, said.acknowledged);
    if (HasFailure()) return;
  }
}

// One process dies in its first commit after so many events; another one, which has the directory
// open already, then commits durably. Returns whether the first one lived to commit.
bool CommitAfterADeath(std::uint64_t seed, std::uint64_t events) {
  sagleme::Options const durable = WithLog(true);
  Directory const directory;
  InChild([&] { Bank const bank(directory.path(), seed, durable); });
  Recording const recording(directory.path());
  Child survivor([&](Channel& channel) {
    recording.Join();
    Bank bank(directory.path(), seed, durable);
    sagleme::Context const context(bank.database());
    channel.Say("open");
    channel.Hear();
    Step(bank, context, 0, true);
    raise(SIGKILL);  // closing would remove the files
    return 0;
  });
  EXPECT_EQ("open", survivor.Next());
  Child first([&](Channel&) {
    recording.Join(events);
    Bank bank(directory.path(), seed, durable);
    sagleme::Context const context(bank.database());
    Step(bank, context, 1, true);
    raise(SIGTERM);
    return 0;
  });
  bool const committed = first.Wait() != Child::kKilled;
  survivor.Send("commit");
  EXPECT_EQ(Child::kKilled, survivor.Wait());
  Said said;
  for (Event const& event : recording.Events()) {
    if (event.kind == Kind::kNote) said.Hear(event.data);
  }
  EXPECT_EQ(1, said.synced[0]);
  recording.ForEachLossAtItsEnd([&](std::string const& left) {
    ExpectWholeBetween(left, seed, said.synced, said.acknowledged);
  });
  return committed;
}

// The files of the log may be there, made by a process that did not live to sync their names.
TEST(ReopenPowerTest, LossAfterACommitThatFollowsADeath_LeavesIt) {
  constexpr std::uint64_t kMostEvents = 200;
  bool committed = false;
  for (std::uint64_t events = 1; !committed && !HasFailure(); ++events) {
    SCOPED_TRACE(events);
    ASSERT_LT(events, kMostEvents);
    committed = CommitAfterADeath(3, events);
  }
}

TEST(ReopenPowerTest, LossWhileAProcessOpensAndCloses_LeavesWholeCommits) {
  LosePowerOverAndOver({{0, 1, 2, 3}});
}

TEST(ReopenPowerTest, LossWhileTwoProcessesOpenAndClose_LeavesWholeCommits) {
  LosePowerOverAndOver({{0, 1}, {2, 3}});
}

}  // namespace
}  // namespace crash_test
