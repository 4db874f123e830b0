#include <fmt/format.h>

#include "cli/command.h"
#include "commands/commands.h"

namespace tool {
namespace {

constexpr std::pair<char const*, Format> kFormats[] = {{"table", Format::kTable},
                                                       {"records", Format::kRecords},
                                                       {"json", Format::kJson},
                                                       {"csv", Format::kCsv},
                                                       {"markdown", Format::kMarkdown}};

void DeclareFormat(CLI::App& app, Output& output) {
  app.add_option_function<std::string>(
         "--format", [&output](std::string const& name) { output.chosen = FormatNamed(name); },
         "Form of the list: table, records, json, csv or markdown. By default a table on a "
         "terminal and csv elsewhere")
      ->type_name("FORM");
}

}  // namespace

Format FormatNamed(std::string const& wanted) {
  std::vector<std::string> names;
  for (auto const& [name, format] : kFormats) {
    if (name == wanted) return format;
    names.emplace_back(name);
  }
  throw Failure(Exit::kUsage, fmt::format("unknown format \"{}\"", wanted),
                fmt::format("Choose one of: {}.", fmt::join(names, ", ")));
}

std::string Example::For(std::string const& program) const {
  if (!program.empty()) return line;
  auto const first = line.find(' ');
  auto const second = line.find(' ', first + 1);
  return line.substr(0, first) + (second == std::string::npos ? "" : line.substr(second));
}

CLI::App* Attach(CLI::App& parser, Command& command, Output& output, std::string* directory) {
  CLI::App* const app = parser.add_subcommand(command.name(), command.summary());
  if (directory != nullptr) {
    auto const [name, about] = command.place();
    app->add_option(name, *directory, about)->required()->type_name("");
  }
  command.Declare(*app);
  if (command.lists()) DeclareFormat(*app, output);
  app->set_help_flag("-h,--help", "Show this help");
  return app;
}

std::vector<std::unique_ptr<Command>> MakeCommands() {
  std::vector<std::unique_ptr<Command>> commands;
  commands.push_back(MakeCreate());
  commands.push_back(MakeInfo());
  commands.push_back(MakeTables());
  commands.push_back(MakeDescribe());
  commands.push_back(MakeSchema());
  commands.push_back(MakeApply());
  commands.push_back(MakeImport());
  commands.push_back(MakeExport());
  commands.push_back(MakeDump());
  commands.push_back(MakeLoad());
  commands.push_back(MakeGet());
  commands.push_back(MakeFind());
  commands.push_back(MakeScan());
  commands.push_back(MakeCount());
  commands.push_back(MakeInsert());
  commands.push_back(MakeSet());
  commands.push_back(MakeDelete());
  commands.push_back(MakeRetype());
  commands.push_back(MakeCheck());
  commands.push_back(MakeVacuum());
  commands.push_back(MakeJobs());
  commands.push_back(MakeCopy());
  commands.push_back(MakeBackup());
  commands.push_back(MakeRestore());
  commands.push_back(MakeChanges());
  commands.push_back(MakeDiagram());
  commands.push_back(MakeStubs());
#ifdef SAGLEME_TOOL_SQL
  commands.push_back(MakeSql());
#endif
  commands.push_back(MakeShell());
  commands.push_back(MakeComplete());
  return commands;
}

}  // namespace tool
