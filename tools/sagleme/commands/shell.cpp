#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>

#include "cli/interrupt.h"
#include "cli/parser.h"
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
bool RunOwn(std::vector<std::string> const& words, Session& session, Output& output) {
  std::string const& word = words.front();
  if (word == "begin") {
    session.Begin();
  } else if (word == "commit") {
    session.Commit();
  } else if (word == "rollback") {
    session.Rollback();
  } else if (word == "help" && words.size() == 1) {
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
  Parser parser(own, nullptr);
  Command* const command = parser.Parse(std::move(words));
  return command == nullptr ? Exit::kDone : command->Run(session, own);
}

Exit RunLine(std::string const& line, Session& session, Output& output) {
  return Guarded(output, [&] {
    std::vector<std::string> const words = SplitLine(line);
    if (words.empty() || RunOwn(words, session, output)) return Exit::kDone;
    return RunParsed(words, session, output);
  });
}

// A line of which the user may stop the work, and stays at the prompt.
Exit RunInterruptible(std::string const& line, Session& session, Output& output,
                      LineReader& reader) {
  try {
    return RunLine(line, session, output);
  } catch (Interrupted const&) {
    TakeInterrupt();
    reader.NoteInterrupt();
    output.out->Discard();
    output.Note("\ninterrupted\n");
    return Exit::kProblem;
  }
}

std::string Shell::Prompt(Session const& session) const {
  std::filesystem::path const directory(session.directory());
  return fmt::format("{}{}> ", directory.filename().string(), session.in_transaction() ? "*" : "");
}

Exit Shell::Run(Session& session, Output& output) {
  session.database();
  bool const terminal = isatty(STDIN_FILENO) == 1;
  std::optional<InterruptGuard> guard;
  if (terminal) guard.emplace();
  auto const reader =
      terminal
          ? MakeTerminalReader([&](std::string const& line) { return Completions(session, line); })
          : MakePlainReader();
  while (auto const line = reader->Next(Prompt(session))) {
    if (*line == "quit" || *line == "exit") break;
    Exit const exit = RunInterruptible(*line, session, output, *reader);
    if (exit != Exit::kDone && !terminal) return exit;
  }
  if (session.in_transaction()) output.Note("the open transaction is undone\n");
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeShell() { return std::make_unique<Shell>(); }

}  // namespace tool
