// Losses of power at any event of a recorded run, with any part of what was not synced.

#include <signal.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <sagleme/durability.hpp>

#include "crash/directory.h"
#include "crash/recording.h"
#include "crash/rounds.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

using recorded_disk::Event;
using recorded_disk::Kind;
using Options = sagleme::Options;

int Losses() { return Rounds(40, 8); }

constexpr std::uint64_t kSmallestLog = 64 * 1024;
constexpr std::uint64_t kEventsOfAProcess = 1500;
constexpr int kLossesOfARecording = 200;

// One of the processes that work in the directory.
struct Worker {
  Options options;
  Tellers tellers;
};

// Which commits are kept: all that returned, or those of which the workers say more.
enum class Kept { kAll, kSyncedNowAndThen, kSyncedLate, kNothing };

struct Setting {
  char const* name;
  std::vector<Worker> workers;
  Kept kept = Kept::kAll;
  bool from_nothing = false;  // the recording begins before the database is made
  bool while_all_work = false;
  bool keeps_changes = false;
};

Options Durable() { return {.log = LSCOREDB_NO_LOG}; }
Options Fast() { return {.no_sync = true, .log = LSCOREDB_NO_LOG}; }
Options WithLog(Options options) {
  options.log = LSCOREDB_LOG;
  options.log_limit = kSmallestLog;
  return options;
}

Setting Keeping(Setting setting) {
  setting.keeps_changes = true;
  return setting;
}

std::vector<Setting> Settings() {
  return {
      {"Durable", {{Durable(), {0, 1, 2, 3}}}},
      {"DurableWithLog", {{WithLog(Durable()), {0, 1, 2, 3}}}},
      {"FastWithLog", {{WithLog(Fast()), {0, 1, 2, 3}}}, Kept::kNothing},
      {"SyncedNowAndThenWithLog", {{WithLog(Fast()), {0, 1, 2, 3}}}, Kept::kSyncedNowAndThen},
      {"LateWithLog", {{WithLog(Fast()), {0, 1, 2, 3}}}, Kept::kSyncedLate},
      {"LateProcessesWithLog",
       {{WithLog(Fast()), {0, 1}}, {WithLog(Fast()), {2, 3}}},
       Kept::kSyncedLate},
      {"DurableBesideFast", {{Durable(), {0, 1}}, {Fast(), {2, 3}}}, Kept::kAll, false, true},
      {"DurableProcessesWithLog", {{WithLog(Durable()), {0, 1}}, {WithLog(Durable()), {2, 3}}}},
      {"Creation", {{Durable(), {0, 1, 2, 3}}}, Kept::kAll, true},
      {"CreationWithLog", {{WithLog(Durable()), {0, 1, 2, 3}}}, Kept::kAll, true},
      Keeping({"DurableKeepingChanges", {{WithLog(Durable()), {0, 1, 2, 3}}}}),
      Keeping({"FastKeepingChanges", {{WithLog(Fast()), {0, 1, 2, 3}}}, Kept::kNothing}),
      Keeping({"DurableProcessesKeepingChanges",
               {{WithLog(Durable()), {0, 1}}, {WithLog(Durable()), {2, 3}}}}),
  };
}

// Listens to the tellers of one process and notes, besides what they say, which of it is on the
// disk.
class Listening {
 public:
  explicit Listening(Bank& bank) : bank_(bank) {}

  void Hear(std::string const& line) {
    recorded_disk::Note(line);
    std::lock_guard const lock(mutex_);
    Note(line, done_);
    ++heard_;
    bool all = false;
    if (heard_ % kSyncEvery == 0 && bank_.Syncs(0)) {
      sagleme::Sync(bank_.database());
      all = true;
    }
    std::uint64_t const last = bank_.database().Statistics().last_commit;
    if (all || sagleme::SyncedCommit(bank_.database()) >= last) NoteSynced(done_);
    // What the teller itself did before is kept with the step.
    Progress step{};
    Note(line, step);
    for (std::size_t i = 0; i < step.size(); ++i) {
      if (step[i] != 0 && bank_.Syncs(step[i])) NoteSynced(step);
    }
  }

 private:
  static constexpr int kSyncEvery = 7;

  static void NoteSynced(Progress const& progress) {
    for (std::size_t i = 0; i < progress.size(); ++i) {
      recorded_disk::Note(std::string(kSynced) + std::to_string(i) + " " +
                          std::to_string(progress[i]));
    }
  }

  Bank& bank_;
  std::mutex mutex_;
  Progress done_{};
  int heard_ = 0;
};

class PowerTest : public testing::TestWithParam<Setting> {
 protected:
  // Everyone at work in a directory of its own until all have done enough.
  static std::vector<Event> Record(std::uint64_t seed) {
    Directory const directory;
    if (!GetParam().from_nothing) {
      InChild([&] {
        Bank bank(directory.path(), seed, GetParam().keeps_changes ? WithLog(Fast()) : Fast());
        if (GetParam().keeps_changes) bank.KeepChanges();
      });
    }
    Recording const recording(directory.path());
    std::vector<std::unique_ptr<Child>> children;
    for (Worker const& worker : GetParam().workers) {
      children.push_back(std::make_unique<Child>([&](Channel& channel) {
        recording.Join(kEventsOfAProcess);
        Bank bank(directory.path(), seed, worker.options);
        channel.Say("open");
        channel.Hear();
        Work(bank, worker.tellers);
        return 0;
      }));
    }
    // From then on the strictest of them holds for all.
    for (auto const& child : children) EXPECT_EQ("open", child->Next());
    for (auto const& child : children) child->Send("work");
    for (auto const& child : children) EXPECT_EQ(Child::kKilled, child->Wait());
    return WhatCounts(recording.Events());
  }

  static void Work(Bank& bank, Tellers const& tellers) {
    Kept const kept = GetParam().kept;
    if (kept == Kept::kAll || kept == Kept::kNothing) {
      return WorkUntilTheEnd(recorded_disk::Note, bank, tellers);
    }
    if (kept == Kept::kSyncedNowAndThen) bank.SyncEvery(4);
    if (kept == Kept::kSyncedLate)
      sagleme::SyncWithin(bank.database(), std::chrono::milliseconds(1));
    Listening listening(bank);
    WorkUntilTheEnd([&](std::string const& line) { listening.Hear(line); }, bank, tellers);
  }

  static std::vector<Event> WhatCounts(std::vector<Event> events) {
    auto const is_end = [](Event const& event) { return event.kind == Kind::kEnd; };
    if (!GetParam().while_all_work) return events;
    events.erase(std::find_if(events.begin(), events.end(), is_end), events.end());
    return events;
  }

  static void Take(Disk& disk, std::vector<Event> const& events, std::size_t from, std::size_t to,
                   Said& said) {
    for (std::size_t i = from; i < to; ++i) {
      disk.Take(events[i]);
      if (events[i].kind == Kind::kNote) said.Hear(events[i].data);
    }
  }

  static void LosePowerOverAndOver(std::uint64_t seed, int losses) {
    std::vector<Event> const events = Record(seed);
    std::mt19937_64 random(seed);
    std::vector<std::size_t> moments(static_cast<std::size_t>(losses));
    std::size_t const first = FirstMoment(events);
    for (std::size_t& moment : moments) moment = first + random() % (events.size() - first) + 1;
    std::sort(moments.begin(), moments.end());
    Disk disk;
    std::size_t taken = 0;
    Said said;
    for (std::size_t const moment : moments) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", event " + std::to_string(moment));
      Take(disk, events, taken, moment, said);
      taken = moment;
      Directory const left;
      disk.BuildAfterLoss(left.path(), random);
      if (random() % 4 == 0) {
        LoseAgain(left.path(), seed, said, random);
      } else {
        LookAt(left.path(), seed, said);
      }
      if (HasFailure()) return;
    }
  }

  // Power fails anew while the database is opened after a loss, or shortly after.
  static void LoseAgain(std::string const& directory, std::uint64_t seed, Said said,
                        std::mt19937_64& random) {
    Recording const recording(directory);
    InChild([&] {
      recording.Join();
      Bank bank(directory, seed, GetParam().workers.front().options);
      sagleme::Context const context(bank.database());
      Progress const done = bank.Done();
      auto const note = [](std::size_t teller, std::int64_t step) {
        recorded_disk::Note(std::to_string(teller) + " " + std::to_string(step));
      };
      for (std::size_t i = 0; i < done.size(); ++i) note(i, done[i]);
      for (std::size_t i = 0; i < done.size(); ++i)
        note(i, bank.Step(context, static_cast<int>(i)));
    });
    std::vector<Event> const events = recording.Events();
    std::size_t const first = FirstMoment(events);
    std::size_t const end = first + random() % (events.size() - first) + 1;
    Disk disk;
    Take(disk, events, 0, end, said);
    Directory const left;
    disk.BuildAfterLoss(left.path(), random);
    LookAt(left.path(), seed, said);
  }

  static void LookAt(std::string const& directory, std::uint64_t seed, Said const& said) {
    Progress const least = GetParam().kept == Kept::kAll       ? said.acknowledged
                           : GetParam().kept == Kept::kNothing ? Progress{}
                                                               : said.synced;
    ExpectWholeBetween(directory, seed, least, said.acknowledged);
  }
};

TEST_P(PowerTest, LossAtAnyMoment_LeavesWholeCommits) {
  std::uint64_t seed = 1;
  for (int left = Losses(); left > 0 && !HasFailure(); left -= kLossesOfARecording) {
    LosePowerOverAndOver(seed++, std::min(left, kLossesOfARecording));
  }
}

// Without sync and without a log a power failure may damage the file. Verification reports that, or
// else the data is consistent.
TEST(PowerWithoutSyncTest, LossAtAnyMoment_IsReportedByVerifyOrLeavesWhatCanBeRead) {
  constexpr std::uint64_t kSeed = 3;
  Directory const directory;
  InChild([&] { Bank const bank(directory.path(), kSeed, Fast()); });
  Recording const recording(directory.path());
  Child worker([&](Channel&) {
    recording.Join(kEventsOfAProcess);
    Bank bank(directory.path(), kSeed, Fast());
    WorkUntilTheEnd(recorded_disk::Note, bank, EveryTeller());
    return 0;
  });
  worker.Wait();
  std::vector<Event> const events = recording.Events();
  std::size_t const first = FirstMoment(events);
  std::mt19937_64 random(kSeed);
  Disk disk;
  std::size_t taken = 0;
  int const losses = Losses();
  for (int i = 1; i <= losses; ++i) {
    std::size_t const end = first + (events.size() - first) * static_cast<std::size_t>(i) /
                                        static_cast<std::size_t>(losses);
    for (; taken < end; ++taken) disk.Take(events[taken]);
    Directory const left;
    disk.BuildAfterLoss(left.path(), random);
    InChild([&] {
      try {
        Bank bank(left.path(), kSeed, {.no_sync = true, .verify = true});
        bank.Done();
      } catch (sagleme::Error const& refusal) {
        EXPECT_STRNE("", refusal.what());
      } catch (std::runtime_error const&) {
        // The bank misses what was there: an older state in part.
      }
    });
  }
}

// A sync on request keeps all that was committed before it, also without a log, as long as nothing
// follows it.
TEST(PowerOnRequestTest, LossAfterASyncOnRequest_LeavesAllCommits) {
  constexpr std::uint64_t kSeed = 4;
  for (Options const& options : {Fast(), WithLog(Fast())}) {
    for (bool const by_commit : {false, true}) {
      Directory const directory;
      InChild([&] { Bank const bank(directory.path(), kSeed, Fast()); });
      Recording const recording(directory.path());
      Child worker([&](Channel& channel) {
        recording.Join();
        Bank bank(directory.path(), kSeed, options);
        sagleme::Context const context(bank.database());
        constexpr int kSteps = 41;
        Progress done{};
        for (int i = 0; i < kSteps; ++i) {
          if (by_commit && i == kSteps - 1) bank.SyncEvery(1);
          auto const teller = static_cast<std::size_t>(i % (kTellers + 1));
          done[teller] = bank.Step(context, static_cast<int>(teller));
        }
        if (!by_commit) sagleme::Sync(bank.database());
        for (std::size_t i = 0; i < done.size(); ++i) {
          channel.Say(std::to_string(i) + " " + std::to_string(done[i]));
        }
        raise(SIGKILL);
        return 0;
      });
      Progress done{};
      NoteRest(worker, done);
      EXPECT_EQ(Child::kKilled, worker.Wait());
      recording.ForEachLossAtItsEnd(
          [&](std::string const& left) { ExpectWholeBetween(left, kSeed, done, done); });
    }
  }
}

// ---- the recording itself -----------------------------------------------------------------------

// What it would miss, no loss of power could take.
TEST(RecordingTest, Recording_HoldsAllThatWasWritten) {
  constexpr std::uint64_t kSeed = 5;
  for (Options const& options : {Durable(), Fast(), WithLog(Durable())}) {
    Directory const directory;
    Recording const recording(directory.path());
    InChild([&] {
      recording.Join();
      for (int opening = 0; opening < 3; ++opening) {
        Bank bank(directory.path(), kSeed, options);
        sagleme::Context const context(bank.database());
        for (int i = 0; i < 60; ++i) bank.Step(context, i % (kTellers + 1));
      }
    });
    Disk disk;
    for (Event const& event : recording.Events()) disk.Take(event);
    Directory const rebuilt;
    disk.BuildAll(rebuilt.path());
    EXPECT_TRUE(FilesOf(directory.path()) == FilesOf(rebuilt.path()));
  }
}

INSTANTIATE_TEST_SUITE_P(Settings, PowerTest, testing::ValuesIn(Settings()),
                         [](auto const& setting) { return setting.param.name; });

}  // namespace
}  // namespace crash_test
