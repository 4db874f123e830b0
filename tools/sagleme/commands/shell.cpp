#include <fmt/format.h>
#include <unistd.h>

#include "base/interrupt.h"
#include "cli/help.h"
#include "cli/parser.h"
#include "commands/commands.h"
#include "commands/prompt.h"
#include "shell/line_reader.h"
#include "shell/settings.h"
#include "shell/words.h"

namespace tool {
namespace {

std::vector<std::pair<std::string, std::string>> OwnWords() {
  return {{"begin", "Open a transaction for the lines that follow"},
          {"commit", "Keep what was done in it"},
          {"rollback", "Undo what was done in it"},
          {"quit", "Leave; an open transaction is undone"},
          {"#", "Begins a comment"}};
}

class Shell : public Command {
 public:
  std::string name() const override { return "shell"; }
  std::string summary() const override {
    return "Open a prompt for the same commands, with transactions";
  }
  std::string details() const override {
    return "At the prompt, help lists the commands and settings. Ctrl-C stops a command; a second "
           "one at an empty prompt leaves.";
  }
  std::vector<Example> examples() const override {
    return {{"shell shop", "begin, commit and rollback enclose what belongs together"},
            {"shell shop < lines", "the first line that fails ends it, with its exit status"}};
  }
  void Declare(CLI::App&) override {}
  bool at_prompt() const override { return false; }
  Exit Run(Session& session, Output& output) override;

 private:
  Exit RunLine(std::string const& line, LineReader& reader);
  Exit RunWords(std::vector<std::string> const& words, Output& own);
  bool RunOwn(std::vector<std::string> const& words, Output const& own);
  std::string Prompt() const;

  Session* session_ = nullptr;
  Output const* output_ = nullptr;
  bool terminal_ = false;  // a person sits at it
  Settings settings_;
};

void PrintHelp(Output const& output) {
  std::vector<std::pair<std::string, std::string>> commands;
  for (auto const& command : MakeCommands()) {
    if (command->at_prompt() && !command->hidden()) {
      commands.emplace_back(command->name(), command->summary());
    }
  }
  output.Print("At the prompt:\n" + TermList(OwnWords()) + "\nSettings:\n" +
               TermList(Settings::Words()) + "\nCommands, without the name of the database:\n" +
               TermList(commands) +
               "\nhelp COMMAND shows the options of a command with examples.\n");
}

// The words of the prompt itself. False for others.
bool Shell::RunOwn(std::vector<std::string> const& words, Output const& own) {
  std::string const& word = words.front();
  if (settings_.Take(words, own)) return true;
  bool const is_own = word == "begin" || word == "commit" || word == "rollback";
  if (word == "help" && words.size() == 1) {
    PrintHelp(own);
    return true;
  }
  if (!is_own) return false;
  if (words.size() > 1) throw Failure(Exit::kUsage, fmt::format("{} takes no argument", word));
  if (word == "begin") session_->Begin();
  if (word == "commit") session_->Commit();
  if (word == "rollback") session_->Rollback();
  return true;
}

Exit Shell::RunWords(std::vector<std::string> const& words, Output& own) {
  if (words.empty() || RunOwn(words, own)) return Exit::kDone;
  Parser parser(own, nullptr);
  Command* const command = parser.Parse(words);
  if (command == nullptr) return Exit::kDone;
  // A command that changes something must not hang on whether its output is read.
  if (!command->lists()) own.out = output_->out;
  return command->Run(*session_, own);
}

Exit Shell::RunLine(std::string const& line, LineReader& reader) {
  return RunAtPrompt(*output_, settings_, terminal_, reader,
                     [&](Output& own) { return RunWords(SplitLine(line), own); });
}

std::string Shell::Prompt() const {
  return fmt::format("{}{}> ", sagleme::NameOfPlace(session_->directory()),
                     session_->in_transaction() ? "*" : "");
}

Exit Shell::Run(Session& session, Output& output) {
  session_ = &session;
  output_ = &output;
  session.database();
  terminal_ = isatty(STDIN_FILENO) == 1;
  std::optional<InterruptGuard> guard;
  if (terminal_) guard.emplace();
  auto const reader =
      terminal_
          ? MakeTerminalReader([&](std::string const& line) { return Completions(session, line); })
          : MakePlainReader();
  while (auto const line = reader->Next(Prompt())) {
    if (*line == "quit" || *line == "exit") break;
    Exit const exit = RunLine(*line, *reader);
    if (exit != Exit::kDone && !terminal_) return exit;
  }
  if (session.in_transaction()) output.Note("the open transaction is undone\n");
  return Exit::kDone;
}

// Words for completion in other programs: the shell's own, from outside.
class Complete : public Command {
 public:
  std::string name() const override { return "complete"; }
  std::string summary() const override { return "List what the last word of a line may be"; }
  std::vector<Example> examples() const override {
    return {{"complete shop \"scan Cust\"", "tables whose names begin with Cust"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("LINE", line_, "A line as at the prompt")->required()->type_name("");
  }
  bool at_prompt() const override { return false; }
  bool hidden() const override { return true; }
  Exit Run(Session& session, Output& output) override {
    for (std::string const& word : Completions(session, line_)) output.Print(word + "\n");
    return Exit::kDone;
  }

 private:
  std::string line_;
};

}  // namespace

std::unique_ptr<Command> MakeShell() { return std::make_unique<Shell>(); }
std::unique_ptr<Command> MakeComplete() { return std::make_unique<Complete>(); }

}  // namespace tool
