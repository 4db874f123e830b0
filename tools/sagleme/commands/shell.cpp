#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>

#include "cli/run.h"
#include "commands/commands.h"
#include "shell/line_reader.h"
#include "shell/words.h"

namespace tool {
namespace {

class Shell : public Command {
 public:
  std::string name() const override { return "shell"; }
  std::string summary() const override {
    return "A prompt for the same commands, with transactions";
  }
  std::vector<Example> examples() const override {
    return {{"shell shop", "begin, commit and rollback enclose what belongs together"},
            {"shell shop < lines", "the first line that fails ends it, with its exit status"}};
  }
  void Declare(CLI::App&) override {}
  bool at_prompt() const override { return false; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string Prompt(Session const& session) const;
};

constexpr char const* kHelp =
    "begin       opens a transaction for the lines that follow\n"
    "commit      keeps what was done in it\n"
    "rollback    undoes what was done in it\n"
    "quit        ends; an open transaction is undone\n"
    "\n"
    "Commands are those of the command line, without the database's name:\n";

// The words of the prompt itself. False for others.
bool RunOwn(std::string const& word, Session& session, Output& output) {
  if (word == "begin") {
    session.Begin();
  } else if (word == "commit") {
    session.Commit();
  } else if (word == "rollback") {
    session.Rollback();
  } else if (word == "help") {
    output.Print(kHelp);
    for (auto const& command : MakeCommands()) {
      if (command->at_prompt()) {
        output.Print(fmt::format("{:<11} {}\n", command->name(), command->summary()));
      }
    }
  } else {
    return false;
  }
  return true;
}

Exit RunParsed(std::vector<std::string> words, Session& session, Output const& output) {
  Output own = output;  // what one line chooses does not last
  CLI::App app("", "");
  app.require_subcommand(1);
  auto const commands = MakeCommands();
  std::vector<CLI::App*> parsers;
  for (auto const& command : commands) {
    parsers.push_back(command->at_prompt() ? Attach(app, *command, own, nullptr) : nullptr);
  }
  std::reverse(words.begin(), words.end());  // the parser takes them from the end
  try {
    app.parse(words);
  } catch (CLI::ParseError const& error) {
    if (error.get_exit_code() == 0) return static_cast<Exit>(app.exit(error));
    TellFailure(own, error.what(), "See: help, or --help behind a command.");
    return Exit::kUsage;
  }
  for (std::size_t i = 0; i < commands.size(); ++i) {
    if (parsers[i] != nullptr && parsers[i]->parsed())
      return RunCommand(*commands[i], session, own);
  }
  return Exit::kUsage;
}

Exit RunLine(std::string const& line, Session& session, Output& output) {
  try {
    std::vector<std::string> const words = SplitLine(line);
    if (words.empty() || RunOwn(words.front(), session, output)) return Exit::kDone;
    return RunParsed(words, session, output);
  } catch (Failure const& failure) {
    TellFailure(output, failure.what(), failure.advice());
    return failure.exit();
  } catch (sagleme::Error const& error) {
    TellFailure(output, fmt::format("{} (status {})", error.what(), error.status()), "");
    return Exit::kRefused;
  }
}

std::string Shell::Prompt(Session const& session) const {
  std::filesystem::path const directory(session.directory());
  return fmt::format("{}{}> ", directory.filename().string(), session.in_transaction() ? "*" : "");
}

Exit Shell::Run(Session& session, Output& output) {
  session.database();
  bool const terminal = isatty(STDIN_FILENO) == 1;
  auto const reader =
      terminal
          ? MakeTerminalReader([&](std::string const& line) { return Completions(session, line); })
          : MakePlainReader();
  while (auto const line = reader->Next(Prompt(session))) {
    if (*line == "quit" || *line == "exit") break;
    Exit const exit = RunLine(*line, session, output);
    std::fflush(output.out);
    if (exit != Exit::kDone && !terminal) return exit;
  }
  if (session.in_transaction()) output.Note("the open transaction is undone\n");
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeShell() { return std::make_unique<Shell>(); }

}  // namespace tool
