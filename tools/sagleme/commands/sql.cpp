#include <fmt/format.h>
#include <unistd.h>

#include "base/interrupt.h"
#include "commands/commands.h"
#include "commands/files.h"
#include "commands/prompt.h"
#include "shell/line_reader.h"
#include "shell/settings.h"
#include "sqlshell/dot_commands.h"
#include "sqlshell/sql_connection.h"

namespace tool {
namespace {

class Sql : public Command {
 public:
  std::string name() const override { return "sql"; }
  std::string summary() const override { return "Run SQL, or open a prompt for it"; }
  std::string details() const override {
    return "SQL is SQLite's, and CREATE TABLE ... UNDER base, ALTER TABLE, CREATE INDEX and DROP "
           "define tables of this database. At the prompt .help lists the commands.";
  }
  std::vector<Example> examples() const override {
    return {{"sql shop", "a prompt"},
            {"sql shop \"SELECT Name, City FROM Customer WHERE Visits > 10\"", "one statement"},
            {"sql shop --file report.sql --format json", "the statements of a file"},
            {"sql shop --wrapper shop.sqlite", "a file for clients that load the extension"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("STATEMENT", statement_, "Statements, with semicolons between them")
        ->type_name("");
    app.add_option("--file", file_, "Run the statements of a file; - is the standard input")
        ->type_name("FILE");
    app.add_option("--wrapper", wrapper_,
                   "Make a file of SQLite's that attaches this database in clients that load the "
                   "extension")
        ->type_name("FILE");
  }
  bool at_prompt() const override { return false; }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  Exit Prompt();
  Exit RunText(std::string const& text, LineReader& reader);
  void RunWhole(std::string const& text, Output const& own);
  std::string PromptText(bool more) const;

  std::string statement_;
  std::string file_;
  std::string wrapper_;
  Session* session_ = nullptr;
  Output const* output_ = nullptr;
  std::optional<SqlConnection> connection_;
  Settings settings_;
  std::optional<DotCommands> commands_;
  bool terminal_ = false;
  std::size_t line_ = 1;  // of the input, where the text begins
};

std::string Sql::PromptText(bool more) const {
  std::string const name = sagleme::NameOfPlace(session_->directory());
  if (more) return std::string(name.size() + (connection_->in_transaction() ? 1 : 0), ' ') + "> ";
  return fmt::format("{}{}> ", name, connection_->in_transaction() ? "*" : "");
}

void Sql::RunWhole(std::string const& text, Output const& own) {
  if (text.starts_with('.')) return commands_->Run(text, own);
  connection_->Run(text, own, terminal_ ? 0 : line_);
}

Exit Sql::RunText(std::string const& text, LineReader& reader) {
  Output chosen = *output_;
  if (commands_->format().has_value()) chosen.chosen = commands_->format();
  return RunAtPrompt(chosen, settings_, terminal_, reader, [&](Output& own) {
    RunWhole(text, own);
    return Exit::kDone;
  });
}

Exit Sql::Prompt() {
  terminal_ = isatty(STDIN_FILENO) == 1;
  std::optional<InterruptGuard> guard;
  if (terminal_) guard.emplace();
  auto const reader = terminal_ ? MakeTerminalReader([this](std::string const& line) {
    return SqlCompletions(*connection_, line);
  })
                                : MakePlainReader();
  std::string text;
  std::size_t lines = 0;
  for (;;) {
    auto const line = reader->Next(PromptText(!text.empty()));
    bool const ends = !line.has_value();
    if (!ends) text += *line + "\n", ++lines;
    bool const dot = text.starts_with('.');
    if (!ends && !dot && !IsWhole(text)) continue;
    if (dot) text.pop_back();
    if (ends && IsWhole(text) && text.empty()) break;
    if (text == ".quit" || text == ".exit") break;
    Exit const exit = RunText(text, *reader);
    if (exit != Exit::kDone && !terminal_) return exit;
    line_ += lines;
    lines = 0;
    text.clear();
    if (ends) break;
  }
  if (connection_->in_transaction()) output_->Note("the open transaction is undone\n");
  return Exit::kDone;
}

Exit Sql::Run(Session& session, Output& output) {
  session_ = &session;
  output_ = &output;
  if (!wrapper_.empty()) {
    session.database();
    WriteWrapper(session.directory(), wrapper_);
    return Exit::kDone;
  }
  if (!statement_.empty() && !file_.empty()) {
    throw Failure(Exit::kUsage, "a statement and --file are given",
                  "Give one of them, or none for a prompt.");
  }
  connection_.emplace(session.directory());
  commands_.emplace(session, *connection_, settings_, ReadFile);
  if (statement_.empty() && file_.empty()) return Prompt();
  if (file_.empty()) {
    connection_->Run(statement_, output);
  } else {
    connection_->Run(ReadFile(file_), output, 1);
  }
  if (connection_->in_transaction()) output.Note("the open transaction is undone\n");
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeSql() { return std::make_unique<Sql>(); }

}  // namespace tool
