// Puts a Debian package database into an object database, asks it questions from a second process,
// and changes its schema in a third.

#include <fmt/core.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "evolve.h"
#include "load.h"
#include "progress.h"
#include "query.h"
#include "schema.h"
#include "text.h"

namespace packages {
namespace {

enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,
  kWrongUse = 2,
  kMalformedInput = 3,
  kUnreadableInput = 4,
  kInterrupted = 130,
};

constexpr char const* kExitStatuses =
    "Exit status: 0 done; 1 the database refused something; 2 wrong use; 3 stanzas were malformed, "
    "and\n"
    "their transactions are not kept; 4 the file cannot be read; 130 interrupted. Whatever it is,\n"
    "the database is whole, and the same command takes it on from where it is.";

volatile std::sig_atomic_t g_stop_asked = 0;

void AskStop(int) { g_stop_asked = 1; }

struct Arguments {
  std::string file = "/var/lib/dpkg/status";
  std::string database = "packages.db";
  int64_t batch = 500;
  bool load_only = false;
  bool query_only = false;
  bool evolve = false;
  Questions questions = {"libc6", "bash"};
};

sagleme::Database OpenWithProgress(std::string const& directory) {
  Progress progress("making the catalogue, step", 0);
  return OpenOrCreate(directory, [&](int) { progress.Advance(); });
}

void PrepareSchema(Session& session) {
  Transaction transaction(session);
  CreateSchema(session);
  transaction.Commit();
}

void PrintLoaded(LoadResult const& result) {
  fmt::print("loaded: {} packages new, {} written again, {} no longer installed\n", result.added,
             result.updated, result.not_installed);
  fmt::print("dependencies: {} drawn now, {} on what is not in the database\n", result.linked,
             result.unlinked);
  if (result.malformed != 0) {
    fmt::print("malformed: {} stanzas; not kept with their transactions: {}\n", result.malformed,
               result.not_kept);
  }
}

int RunLoad(Arguments const& arguments) {
  ControlFile file(arguments.file);
  Session session(OpenWithProgress(arguments.database));
  RefuseEvolved(session, arguments.database);
  PrepareSchema(session);
  LoadOptions options;
  options.batch = arguments.batch;
  options.is_interrupted = [] { return g_stop_asked != 0; };
  options.complain = [](std::string const& text) { fmt::print(stderr, "{}\n", text); };
  LoadResult const result = Load(session, file, options);
  PrintLoaded(result);
  return result.malformed == 0 ? kDone : kMalformedInput;
}

int RunQuery(Arguments const& arguments) {
  Session session(sagleme::Database::Open(arguments.database));
  RefuseEvolved(session, arguments.database);
  AnswerAll(session, arguments.questions);
  return kDone;
}

// The second process: the same program, on the same directory, with nothing of the first in its
// memory.
int QueryInNewProcess(char const* program, Arguments const& arguments) {
  std::vector<std::string> words = {program,        "--query-only",
                                    "--database",   arguments.database,
                                    "--depends-on", arguments.questions.depended_on,
                                    "--show",       arguments.questions.shown};
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::fflush(stdout);
  pid_t child = 0;
  int state = 0;
  if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, argv.data(), environ) != 0 ||
      waitpid(child, &state, 0) != child) {
    fmt::print(stderr, "packages: the second process could not be started\n");
    return kFailed;
  }
  return WIFEXITED(state) ? WEXITSTATUS(state) : kFailed;
}

int Run(char const* program, Arguments const& arguments) {
  if (arguments.query_only) return RunQuery(arguments);
  if (arguments.evolve) {
    Evolve(arguments.database, arguments.questions.shown);
    return kDone;
  }
  fmt::print("{} -> {}\n", arguments.file, sagleme::ShownPlace(arguments.database));
  int const loaded = RunLoad(arguments);
  if (arguments.load_only) return loaded;
  int const asked = QueryInNewProcess(program, arguments);
  return loaded == kDone ? asked : loaded;
}

int RunGuarded(char const* program, Arguments const& arguments) {
  try {
    return Run(program, arguments);
  } catch (Interrupted const&) {
    fmt::print(stderr, "packages: interrupted; what was committed is kept\n");
    return kInterrupted;
  } catch (UnreadableFile const& failure) {
    fmt::print(stderr, "packages: {}\n", failure.what());
    return kUnreadableInput;
  } catch (db_util::db_exception const& failure) {
    fmt::print(stderr, "packages: status {}: {}\n", failure.code(),
               lscoredb_status_text(failure.code()));
  } catch (std::exception const& failure) {
    fmt::print(stderr, "packages: {}\n", failure.what());
  }
  return kFailed;
}

std::string CheckName(std::string const& name) {
  constexpr std::size_t kLongest = 250;
  bool const is_name = !name.empty() && name.size() <= kLongest && IsStorable(name);
  return is_name ? std::string() : "is no package name";
}

void Declare(CLI::App& app, Arguments& arguments) {
  app.add_option("FILE", arguments.file, "A package database or an archive's package index")
      ->capture_default_str();
  app.add_option("-d,--database", arguments.database,
                 "Directory of the database, made when missing, or its URL on a server")
      ->capture_default_str();
  app.add_option("--batch", arguments.batch, "Packages in a transaction")
      ->check(CLI::Range(int64_t{1}, int64_t{1000000}))
      ->capture_default_str();
  CLI::Option* const load_only =
      app.add_flag("--load-only", arguments.load_only, "Load, and ask nothing");
  CLI::Option* const query_only =
      app.add_flag("--query-only", arguments.query_only, "Ask a database that was loaded before")
          ->excludes(load_only);
  app.add_flag("--evolve", arguments.evolve,
               "Copy a database that was loaded before to DATABASE.evolved, and change the schema\n"
               "of the copy while its objects stay")
      ->excludes(load_only)
      ->excludes(query_only);
  app.add_option("--depends-on", arguments.questions.depended_on, "Whose dependents are listed")
      ->check(CheckName)
      ->capture_default_str();
  app.add_option("--show", arguments.questions.shown, "Which package is shown whole")
      ->check(CheckName)
      ->capture_default_str();
  app.footer(kExitStatuses);
}

}  // namespace
}  // namespace packages

int main(int argc, char** argv) {
  packages::Arguments arguments;
  CLI::App app("Loads a Debian package database into an object database and asks it questions.");
  packages::Declare(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& error) {
    return app.exit(error) == 0 ? packages::kDone : packages::kWrongUse;
  }
  if (!arguments.evolve) {
    std::signal(SIGINT, packages::AskStop);
    std::signal(SIGTERM, packages::AskStop);
  }
  return packages::RunGuarded(argv[0], arguments);
}
