#include <fmt/format.h>

#include <filesystem>
#include <sagleme/host.hpp>
#include <set>

#include "commands/commands.h"

namespace tool {
namespace {

class Create : public Command {
 public:
  std::string name() const override { return "create"; }
  std::string summary() const override { return "Create a new database"; }
  std::vector<Example> examples() const override {
    return {{"create shop", "creates the directory shop with an empty database in it"},
            {"create shop --no-log", "creates one for programs that know no log too"},
            {"create postgresql://app@db1/shop", "creates a database on a PostgreSQL server"}};
  }
  void Declare(CLI::App& app) override {
    CLI::Option* const log =
        app.add_flag("--log", log_, "Write commits to a log first (the default), or fail");
    app.add_flag("--no-log", no_log_, "Write commits to the data file; kept for later openings")
        ->excludes(log);
  }
  bool at_prompt() const override { return false; }
  Exit Run(Session& session, Output& output) override;

 private:
  bool log_ = false;
  bool no_log_ = false;
};

// On a terminal only; in a log the steps would be noise.
void ShowStep(Output const& output, int step) {
  if (output.err_is_terminal) output.Note(fmt::format("\rbootstrap: step {}", step));
}

// An interrupted creation left only files of the kernel, and is continued.
void RefuseForeignFiles(std::string const& directory) {
  static std::set<std::string> const own{"data.mdb", "data.new", "lock.mdb", "layouts.lock",
                                         "log-0",    "log-1",    "log.lock"};
  std::error_code ignored;
  for (auto const& entry : std::filesystem::directory_iterator(directory, ignored)) {
    std::string const name = entry.path().filename();
    if (own.contains(name)) continue;
    throw Failure(
        Exit::kRefused,
        fmt::format("cannot create {}: the directory holds {}, which is not a database file",
                    directory, name),
        "Name a directory that does not exist or is empty.");
  }
}

// A misspelt URL would be taken for a directory. It is not shown, since it may hold a password.
void RefuseOtherUrls(std::string const& place) {
  std::string const scheme = place.substr(0, place.find(':'));
  bool const url =
      scheme == "postgresql" || scheme == "postgres" || place.find("://") != place.npos;
  bool const path = scheme.find_first_of("./") != scheme.npos;
  if (!url || path || sagleme::IsServerUrl(place) || scheme.size() == place.size()) return;
  throw Failure(Exit::kUsage, fmt::format("{}: does not begin the URL of a server", scheme),
                fmt::format("Write postgresql://host/database, or ./{}: for a directory.", scheme));
}

Exit Create::Run(Session& session, Output& output) {
  std::string const& directory = session.directory();
  RefuseOtherUrls(directory);
  bool const on_server = sagleme::IsServerUrl(directory);
  if (!on_server) RefuseForeignFiles(directory);
  if (on_server && (log_ || no_log_)) {
    std::string const option = log_ ? "--log" : "--no-log";
    throw Failure(Exit::kUsage, option + ": a database on a server has no log of ours",
                  fmt::format("Leave {} out.", option));
  }
  int steps = 0;
  try {
    sagleme::Options options;
    if (log_) options.log = LSCOREDB_LOG;
    if (no_log_) options.log = LSCOREDB_NO_LOG;
    sagleme::Database::Create(
        directory, [&](int step) { ShowStep(output, steps = step); }, options);
  } catch (sagleme::Error const& error) {
    bool const exists = sagleme::Database::ExistsIn(directory) && steps == 0;
    throw Failure(exists ? Exit::kRefused : Exit::kCannotOpen,
                  fmt::format("cannot create {}: {}", session.shown(), error.what()),
                  !exists     ? ""
                  : on_server ? "Name a schema that does not exist."
                              : "Name a directory that does not exist.");
  }
  output.Note(
      fmt::format("{}created {}\n", output.err_is_terminal ? "\r\x1b[K" : "", session.shown()));
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeCreate() { return std::make_unique<Create>(); }

}  // namespace tool
