#include <fmt/format.h>
#include <lscoredb/watch.h>

#include <charconv>
#include <sagleme/backup.hpp>

#include "base/interrupt.h"
#include "base/watch.h"
#include "commands/commands.h"
#include "output/listing.h"
#include "output/progress.h"
#include "output/text.h"
#include "output/time_text.h"

namespace tool {
namespace {

// Runs a call of the library that may be interrupted, with its progress.
template <typename Work>
void Watched(Output const& output, std::string const& doing, Work const& work) {
  InterruptGuard const guard;
  Progress progress(output, doing);
  Watch const watch(
      [&](std::uint64_t done, std::uint64_t total) { progress.UpdateShare(done, total); });
  work();
}

class BackupCommand : public Command {
 public:
  std::string name() const override { return "backup"; }
  std::string summary() const override {
    return "Back up the database while others write: all of it, then what is new";
  }
  std::string details() const override {
    return "The first part in TARGET is a full copy. Later ones are increments, which hold what "
           "was committed since the part before. They need a database that keeps its changes "
           "(sagleme changes DB --keep 256M,7d) at least from one backup to the next; without, and "
           "on a server, each part is full, and asked for with --full.\n"
           "sagleme restore makes a database of a backup, as it was after any commit in it.";
  }
  std::vector<Example> examples() const override {
    return {{"backup shop /backup/shop", "add a part: full if it is the first"},
            {"backup shop /backup/shop --full --prune", "begin anew, and remove what is older"},
            {"backup shop /backup/shop --list", "list the parts; the database is not opened"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TARGET", target_,
                   "The backup's directory, which is made if it is missing; with --list or "
                   "--verify it may stand in the place of the database")
        ->type_name("");
    app.add_flag("--full", full_, "Add a full part, even if an increment would do");
    app.add_flag("--prune", prune_, "Then remove the parts before the last full one");
    app.add_flag("--list", list_, "Only list the parts: their commits, times and sizes");
    app.add_flag("--verify", verify_, "Only read all parts and compare their checksums");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  void Make(Session& session, Output const& output) const;
  static Exit Verify(std::string const& directory, Output const& output);

  std::string target_;
  bool full_ = false;
  bool prune_ = false;
  bool list_ = false;
  bool verify_ = false;
};

std::string AdviceFor(std::uint32_t status, Session const& session) {
  switch (status) {
    case LSCOREDB_NEEDS_FULL_BACKUP:
      if (sagleme::IsServerUrl(session.directory())) {
        return "Add a full part with --full. A database on a server has no others.";
      }
      return fmt::format(
          "Add a full part with --full. Increments after it are possible if the database keeps its "
          "changes for long enough: sagleme changes {} --keep 256M,7d",
          session.shown());
    case LSCOREDB_OTHER_BACKUP:
      return "Name another directory. A database that was put back to an earlier state by other "
             "means goes on in the same one with --full.";
    case LSCOREDB_NOT_A_BACKUP:
      return "Name a directory that does not exist, is empty, or holds a backup.";
    case LSCOREDB_BACKUP_BUSY:
      return "Try again when that backup has ended.";
    case LSCOREDB_BACKUP_DAMAGED:
      return "Begin another backup in a new directory.";
    default:
      return "";
  }
}

void Show(std::optional<sagleme::BackupPart> const& part, Output const& output) {
  if (!part.has_value()) return output.Note("nothing was committed since the last part\n");
  output.Note(part->full ? fmt::format("full part {}: up to commit {}, {} bytes\n", part->number,
                                       part->last, part->bytes)
                         : fmt::format("increment {}: commits {} to {}, {} bytes\n", part->number,
                                       part->first, part->last, part->bytes));
}

void BackupCommand::Make(Session& session, Output const& output) const {
  sagleme::Database const& database = session.database();
  std::optional<sagleme::BackupPart> part;
  try {
    Watched(output, "backing up", [&] {
      part = sagleme::Backup(database, target_, {full_, prune_});
    });
  } catch (sagleme::Error const& error) {
    if (error.status() == LSCOREDB_STOPPED) throw Interrupted();
    throw Failure(Exit::kRefused, fmt::format("cannot back up to {}", error.what()),
                  AdviceFor(error.status(), session));
  }
  Show(part, output);
}

void List(std::string const& directory, Output const& output) {
  Listing listing({"part", "kind", "first", "last", "time", "bytes"});
  for (sagleme::BackupPart const& part : sagleme::ListBackup(directory)) {
    listing.Add({Cell::Number(part.number), Cell::Text(part.full ? "full" : "increment"),
                 Cell::Number(part.first), Cell::Number(part.last), Cell::Text(TimeText(part.time)),
                 Cell::Number(part.bytes)});
  }
  listing.Print(output);
}

Exit BackupCommand::Verify(std::string const& directory, Output const& output) {
  try {
    Watched(output, "verifying", [&] { sagleme::VerifyBackup(directory); });
  } catch (sagleme::Error const& error) {
    if (error.status() != LSCOREDB_BACKUP_DAMAGED) throw;
    throw Failure(Exit::kProblem, error.what(),
                  "sagleme restore BACKUP TARGET --until COMMIT restores what is before it.");
  }
  output.Note("no problems found\n");
  return Exit::kDone;
}

Exit BackupCommand::Run(Session& session, Output& output) {
  if (list_ || verify_) {
    if (full_ || prune_ || (list_ && verify_)) {
      throw Failure(Exit::kUsage, fmt::format("{} stands alone", list_ ? "--list" : "--verify"),
                    "Leave out the other options.");
    }
    std::string const directory = target_.empty() ? session.directory() : target_;
    try {
      if (verify_) return Verify(directory, output);
      List(directory, output);
    } catch (sagleme::Error const& error) {
      if (error.status() == LSCOREDB_STOPPED) throw Interrupted();
      throw Failure(Exit::kCannotOpen, error.what());
    }
    return Exit::kDone;
  }
  if (target_.empty()) {
    throw Failure(Exit::kUsage, "the argument TARGET is missing",
                  "It is the directory of the backup.");
  }
  session.RequireNoTransaction("backup");
  Make(session, output);
  return Exit::kDone;
}

// ---- restore -----------------------------------------------------------------------------------

class RestoreCommand : public Command {
 public:
  std::string name() const override { return "restore"; }
  std::string summary() const override {
    return "Make a database of a backup, as it was after any commit in it";
  }
  std::string details() const override {
    return "The restored database is another one: it has a new identity and other numbers of "
           "commits, so begin a new backup of it. It has a log and keeps its changes if the one "
           "that was backed up did. It grows in TARGET.restoring, is checked, and gets its name "
           "when it is whole.";
  }
  std::vector<Example> examples() const override {
    return {{"restore /backup/shop shop", "the newest state in the backup"},
            {"restore /backup/shop shop --until 4711", "as it was after commit 4711"},
            {"restore /backup/shop shop --until 2026-03-01T09:30:00Z", "as it was at that time"}};
  }
  std::pair<std::string, std::string> place() const override {
    return {"BACKUP", "The backup's directory"};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TARGET", target_,
                   "The directory of the database, which must not exist or be empty")
        ->required()
        ->type_name("");
    app.add_option("--until", until_,
                   "Restore up to this commit, or to the last one before this time: "
                   "2026-03-01T09:30:00Z, with another zone such as +01:00, or without one in "
                   "local time. Default: everything")
        ->type_name("COMMIT|TIME");
    app.add_flag("--no-check", no_check_, "Do not check the restored database");
  }
  bool at_prompt() const override { return false; }
  Exit Run(Session& session, Output& output) override;

 private:
  sagleme::RestoreOptions Options() const;

  std::string target_;
  std::string until_;
  bool no_check_ = false;
};

sagleme::RestoreOptions RestoreCommand::Options() const {
  sagleme::RestoreOptions options;
  options.check = !no_check_;
  if (until_.empty()) return options;
  char const* const end = until_.data() + until_.size();
  auto const [read, error] = std::from_chars(until_.data(), end, options.until_commit);
  if (error == std::errc() && read == end && options.until_commit != 0) return options;
  options.until_commit = 0;
  std::optional<std::uint64_t> const time = ParseTime(until_);
  if (!time.has_value()) {
    throw Failure(Exit::kUsage, fmt::format("the option --until does not take \"{}\"", until_),
                  "It takes the number of a commit, or a time such as 2026-03-01T09:30:00Z.");
  }
  options.until_time = *time;
  return options;
}

// `at_target`: the failure is one of the target, not of the backup.
std::string AdviceForRestore(std::uint32_t status, std::string const& backup, bool at_target) {
  switch (status) {
    case LSCOREDB_NOT_IN_BACKUP:
      return fmt::format("What is in it: sagleme backup {} --list", backup);
    case LSCOREDB_CANNOT_OPEN:
      return at_target ? "Name a target that does not exist or is an empty directory." : "";
    case LSCOREDB_BACKUP_DAMAGED:
      return "With --until, what is before the damage may be restored.";
    case LSCOREDB_DAMAGED:
      return "The database was damaged when it was backed up. Restore an earlier state with "
             "--until, or this one with --no-check.";
    default:
      return "";
  }
}

Exit RestoreCommand::Run(Session& session, Output& output) {
  sagleme::RestoreOptions const options = Options();
  if (sagleme::IsServerUrl(target_)) {
    throw Failure(Exit::kUsage, "cannot restore to a server",
                  "Restore to a directory, and copy that with sagleme copy.");
  }
  sagleme::RestoredState state;
  try {
    Watched(output, "restoring",
            [&] { state = sagleme::Restore(session.directory(), target_, options); });
  } catch (sagleme::Error const& error) {
    if (error.status() == LSCOREDB_STOPPED) throw Interrupted();
    throw Failure(error.status() == LSCOREDB_NOT_A_BACKUP ? Exit::kCannotOpen : Exit::kRefused,
                  fmt::format("cannot restore: {}", error.what()),
                  AdviceForRestore(error.status(), session.directory(),
                                   std::string_view(error.what()).starts_with(target_)));
  }
  output.Note(fmt::format("restored the state after commit {}, of {}, to {}\n", state.commit,
                          TimeText(state.time), target_));
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeBackup() { return std::make_unique<BackupCommand>(); }

std::unique_ptr<Command> MakeRestore() { return std::make_unique<RestoreCommand>(); }

}  // namespace tool
