// The command line: `sagleme COMMAND DB ...`.

#include <fmt/format.h>

#include <clocale>
#include <cstring>

#include "cli/command.h"

namespace tool {
namespace {

constexpr char const* kAbout =
    "Looks into databases, defines and changes their schema, loads and dumps data, checks and "
    "tidies.\n"
    "\n"
    "Exit status: 0 done, 1 a problem was found, 2 usage, 3 cannot open, 4 refused.";

void Report(Output const& output, std::string const& what, std::string const& advice) {
  output.Note(fmt::format("sagleme: {}\n", what));
  if (!advice.empty()) output.Note(fmt::format("  {}\n", advice));
}

int RunCommand(Command& command, std::string const& directory, Output& output) {
  try {
    Session session(directory);
    return static_cast<int>(command.Run(session, output));
  } catch (Failure const& failure) {
    Report(output, failure.what(), failure.advice());
    return static_cast<int>(failure.exit());
  } catch (sagleme::Error const& error) {
    Report(output, fmt::format("{} (status {})", error.what(), error.status()), "");
    return static_cast<int>(Exit::kRefused);
  } catch (std::exception const& error) {
    Report(output, error.what(), "");
    return static_cast<int>(Exit::kRefused);
  }
}

int ReportUsage(CLI::App& app, CLI::ParseError const& error, Output const& output) {
  if (error.get_exit_code() == 0) return app.exit(error);  // help
  Report(output, error.what(), "See: sagleme --help, or --help behind a command.");
  return static_cast<int>(Exit::kUsage);
}

int Main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  Output output = StandardOutput();
  CLI::App app(kAbout, "sagleme");
  app.require_subcommand(1);
  app.failure_message(CLI::FailureMessage::simple);
  std::string directory;
  auto const commands = MakeCommands();
  std::vector<CLI::App*> parsers;
  for (auto const& command : commands) {
    parsers.push_back(Attach(app, *command, output, &directory));
  }
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& error) {
    return ReportUsage(app, error, output);
  }
  for (std::size_t i = 0; i < commands.size(); ++i) {
    if (parsers[i]->parsed()) return RunCommand(*commands[i], directory, output);
  }
  return static_cast<int>(Exit::kUsage);
}

}  // namespace
}  // namespace tool

int main(int argc, char** argv) { return tool::Main(argc, argv); }
