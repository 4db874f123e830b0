// Losses of power while a database is backed up: what is left of the backup is that of before or
// after, and of the database at least what is in the backup.

#include <algorithm>
#include <sagleme/backup.hpp>
#include <sagleme/changes.hpp>
#include <sstream>

#include "crash/bank.h"
#include "crash/directory.h"
#include "crash/recording.h"
#include "crash/rounds.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

using recorded_disk::Event;
using recorded_disk::Kind;

constexpr std::uint64_t kSeed = 11;
constexpr int kBackups = 12;
constexpr std::string_view kBegun = "begun ";
constexpr std::string_view kDone = "done ";

// Without sync, the hardest: a commit is on the disk only when a backup has seen to it.
sagleme::Options Unsynced() { return UnsyncedOptions(true); }

std::string BankIn(std::string const& directory) { return directory + "/bank"; }
std::string BackupIn(std::string const& directory) { return directory + "/backup"; }

std::string TextOf(Progress const& progress) {
  std::ostringstream text;
  for (std::int64_t const steps : progress) text << steps << ' ';
  return text.str();
}
Progress ProgressOf(std::string_view text) {
  std::istringstream fields{std::string(text)};
  Progress progress{};
  for (std::int64_t& steps : progress) fields >> steps;
  return progress;
}

void Work(Bank& bank, int steps) {
  sagleme::Context const context(bank.database());
  for (int i = 0; i < steps; ++i) bank.Step(context, i % (kTellers + 1));
}

// How far everyone was at each backup, the first of which has the number 1, and how many of them
// are done; one more may have been under way.
struct Made {
  std::vector<Progress> states;
  std::size_t done = 0;

  void Hear(std::string_view line) {
    if (line.starts_with(kBegun)) states.push_back(ProgressOf(line.substr(kBegun.size())));
    if (line.starts_with(kDone)) done = states.size();
  }
};

class BackupPowerTest : public testing::Test {
 protected:
  // A backup is there before the recording begins, so that there is something to lose.
  static std::vector<Event> Record(Made& before) {
    Directory const directory;
    Child founding([&](Channel& channel) {
      Bank bank(BankIn(directory.path()), kSeed, Unsynced());
      bank.KeepChanges();
      Work(bank, 9);
      channel.Say(std::string(kBegun) + TextOf(bank.Done()));
      sagleme::Backup(bank.database(), BackupIn(directory.path()));
      channel.Say(std::string(kDone));
      return 0;
    });
    while (std::optional<std::string> const line = founding.Next()) before.Hear(*line);
    EXPECT_EQ(0, founding.Wait());
    Recording const recording(directory.path());
    InChild([&] {
      recording.Join();
      Bank bank(BankIn(directory.path()), kSeed, Unsynced());
      for (int i = 1; i <= kBackups; ++i) {
        Work(bank, 5 + i);
        recorded_disk::Note(std::string(kBegun) + TextOf(bank.Done()));
        sagleme::Backup(bank.database(), BackupIn(directory.path()),
                        {.full = i % 3 == 0, .prune = i % 6 == 0});
        recorded_disk::Note(std::string(kDone));
      }
    });
    std::vector<Event> events = recording.Events();
    ExpectRebuilt(directory.path(), events);
    return events;
  }

  // What the recording would miss, no loss of power could take.
  static void ExpectRebuilt(std::string const& directory, std::vector<Event> const& events) {
    Disk disk;
    for (Event const& event : events) disk.Take(event);
    Directory const rebuilt;
    disk.BuildAll(rebuilt.path());
    EXPECT_TRUE(FilesOf(directory) == FilesOf(rebuilt.path()));
  }

  // A restored state is the one that was backed up.
  static void ExpectRestored(std::string const& directory, sagleme::BackupPart const& part,
                             Progress const& expected) {
    std::string const place = directory + "/restored " + std::to_string(part.number);
    InChild([&] {
      sagleme::Restore(BackupIn(directory), place, {.until_commit = part.last});
      Bank restored(place, kSeed, Unsynced());
      sagleme::KeepChanges(restored.database(), {});  // its feed does not begin with the bank
      EXPECT_EQ(expected, restored.Done());
      restored.ExpectWhole();
    });
    std::filesystem::remove_all(place);
  }

  // The database has all that the backup has, and the backup goes on with it.
  static void ExpectToGoOn(std::string const& directory, std::uint64_t last) {
    Child worker([&](Channel& channel) {
      Bank bank(BankIn(directory), kSeed, Unsynced());
      EXPECT_LE(last, bank.database().Statistics().last_commit);
      Work(bank, 6);
      channel.Say(TextOf(bank.Done()));
      auto const part = sagleme::Backup(bank.database(), BackupIn(directory));
      EXPECT_TRUE(part.has_value() && !part->full);
      return 0;
    });
    std::optional<std::string> const done = worker.Next();
    ASSERT_EQ(0, worker.Wait());
    ExpectRestored(directory, sagleme::ListBackup(BackupIn(directory)).back(), ProgressOf(*done));
  }

  static void LookAt(std::string const& directory, Made const& made, std::mt19937_64& random) {
    std::vector<sagleme::BackupPart> parts;
    ASSERT_NO_THROW({
      sagleme::VerifyBackup(BackupIn(directory));
      parts = sagleme::ListBackup(BackupIn(directory));
    });
    ASSERT_FALSE(parts.empty());
    EXPECT_LE(made.done, parts.back().number);
    ASSERT_GE(made.states.size(), parts.back().number);
    for (auto const& part : {parts.back(), parts[random() % parts.size()]}) {
      ExpectRestored(directory, part, made.states[part.number - 1]);
    }
    ExpectToGoOn(directory, parts.back().last);
  }
};

TEST_F(BackupPowerTest, LossAtAnyMoment_LeavesTheBackupOfBeforeOrAfter) {
  Made made;
  std::vector<Event> const events = Record(made);
  std::size_t const first = static_cast<std::size_t>(
      std::find_if(events.begin(), events.end(),
                   [](Event const& event) { return event.kind == Kind::kBegun; }) -
      events.begin());
  std::mt19937_64 random(kSeed);
  std::vector<std::size_t> moments(static_cast<std::size_t>(Rounds(40, 8)));
  for (std::size_t& moment : moments) moment = first + random() % (events.size() - first) + 1;
  std::sort(moments.begin(), moments.end());
  Disk disk;
  std::size_t taken = 0;
  for (std::size_t const moment : moments) {
    SCOPED_TRACE("event " + std::to_string(moment));
    for (; taken < moment; ++taken) {
      disk.Take(events[taken]);
      if (events[taken].kind == Kind::kNote) made.Hear(events[taken].data);
    }
    Directory const left;
    disk.BuildAfterLoss(left.path(), random);
    LookAt(left.path(), made, random);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace crash_test
