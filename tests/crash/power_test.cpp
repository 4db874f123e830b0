// Losses of power at any event of a recorded run, with any part of what was not synced.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

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

struct Setting {
  char const* name;
  std::vector<Worker> workers;
  bool acknowledged_is_kept = true;
  bool from_nothing = false;  // the recording begins before the database is made
  bool while_all_work = false;
  bool keeps_changes = false;
};

Options Durable() { return {}; }
Options Fast() { return {.no_sync = true}; }
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
      {"FastWithLog", {{WithLog(Fast()), {0, 1, 2, 3}}}, false},
      {"DurableBesideFast", {{Durable(), {0, 1}}, {Fast(), {2, 3}}}, true, false, true},
      {"DurableProcessesWithLog", {{WithLog(Durable()), {0, 1}}, {WithLog(Durable()), {2, 3}}}},
      {"Creation", {{Durable(), {0, 1, 2, 3}}}, true, true},
      {"CreationWithLog", {{WithLog(Durable()), {0, 1, 2, 3}}}, true, true},
      Keeping({"DurableKeepingChanges", {{WithLog(Durable()), {0, 1, 2, 3}}}}),
      Keeping({"FastKeepingChanges", {{WithLog(Fast()), {0, 1, 2, 3}}}, false}),
      Keeping({"DurableProcessesKeepingChanges",
               {{WithLog(Durable()), {0, 1}}, {WithLog(Durable()), {2, 3}}}}),
  };
}

// Where it begins with what the processes did.
std::size_t FirstMoment(std::vector<Event> const& events) {
  auto const begun = std::find_if(events.begin(), events.end(),
                                  [](Event const& event) { return event.kind == Kind::kBegun; });
  return static_cast<std::size_t>(begun - events.begin());
}

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
        WorkUntilTheEnd(recorded_disk::Note, bank, worker.tellers);
        return 0;
      }));
    }
    // From then on the strictest of them holds for all.
    for (auto const& child : children) EXPECT_EQ("open", child->Next());
    for (auto const& child : children) child->Send("work");
    for (auto const& child : children) EXPECT_EQ(Child::kKilled, child->Wait());
    return WhatCounts(recording.Events());
  }

  static std::vector<Event> WhatCounts(std::vector<Event> events) {
    auto const is_end = [](Event const& event) { return event.kind == Kind::kEnd; };
    if (!GetParam().while_all_work) return events;
    events.erase(std::find_if(events.begin(), events.end(), is_end), events.end());
    return events;
  }

  static void Take(Disk& disk, std::vector<Event> const& events, std::size_t from, std::size_t to,
                   Progress& acknowledged) {
    for (std::size_t i = from; i < to; ++i) {
      disk.Take(events[i]);
      if (events[i].kind == Kind::kNote) Note(events[i].data, acknowledged);
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
    Progress acknowledged{};
    for (std::size_t const moment : moments) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", event " + std::to_string(moment));
      Take(disk, events, taken, moment, acknowledged);
      taken = moment;
      Directory const left;
      disk.BuildAfterLoss(left.path(), random);
      if (random() % 4 == 0) {
        LoseAgain(left.path(), seed, acknowledged, random);
      } else {
        LookAt(left.path(), seed, acknowledged);
      }
      if (HasFailure()) return;
    }
  }

  // Power fails anew while the database is opened after a loss, or shortly after.
  static void LoseAgain(std::string const& directory, std::uint64_t seed, Progress acknowledged,
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
    Take(disk, events, 0, end, acknowledged);
    Directory const left;
    disk.BuildAfterLoss(left.path(), random);
    LookAt(left.path(), seed, acknowledged);
  }

  static void LookAt(std::string const& directory, std::uint64_t seed,
                     Progress const& acknowledged) {
    Progress const least = GetParam().acknowledged_is_kept ? acknowledged : Progress{};
    ExpectWholeBetween(directory, seed, least, acknowledged);
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

// ---- the recording itself -----------------------------------------------------------------------

std::map<std::string, std::string> FilesOf(std::string const& directory) {
  std::map<std::string, std::string> files;
  for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
    std::string const name = entry.path().string().substr(directory.size());
    std::ifstream file(entry.path(), std::ios::binary);
    files[name] = {std::istreambuf_iterator<char>(file), {}};
  }
  return files;
}

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
