#include "commands/commands.h"

#include <fmt/format.h>

#include <map>

#include "cli/command.h"

namespace tool {
namespace {

std::string Footer(Command const& command) {
  std::string text = "Examples:\n";
  for (Example const& example : command.examples()) {
    text += fmt::format("  sagleme {}\n      {}\n", example.line, example.meaning);
  }
  return text;
}

void DeclareFormat(CLI::App& app, Output& output) {
  std::map<std::string, Format> const names{{"table", Format::kTable},
                                            {"json", Format::kJson},
                                            {"csv", Format::kCsv},
                                            {"markdown", Format::kMarkdown}};
  CLI::CheckedTransformer transformer(names);
  transformer.description("");  // the numbers behind the names help nobody
  app.add_option("--format", output.chosen,
                 "Form of the list: table, json, csv or markdown. A table on a terminal, csv "
                 "elsewhere, unless given")
      ->transform(transformer)
      ->type_name("FORM");
}

}  // namespace

CLI::App* Attach(CLI::App& parser, Command& command, Output& output, std::string* directory) {
  CLI::App* const app = parser.add_subcommand(command.name(), command.summary());
  if (directory != nullptr) {
    app->add_option("DB", *directory, "The database's directory")->required()->type_name("");
  }
  command.Declare(*app);
  if (command.lists()) DeclareFormat(*app, output);
  app->footer(Footer(command));
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
  commands.push_back(MakeCheck());
  commands.push_back(MakeVacuum());
  commands.push_back(MakeCopy());
  commands.push_back(MakeDiagram());
  commands.push_back(MakeShell());
  return commands;
}

}  // namespace tool
