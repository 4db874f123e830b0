#include "cli/manual.h"

#include <fmt/format.h>

#include "cli/help.h"

namespace tool {
namespace {

// Text for a man page: a dot or quote in front of a line would be a request, a hyphen is no minus.
std::string Troff(std::string const& text) {
  std::string escaped;
  bool line_start = true;
  for (char const each : text) {
    if (line_start && (each == '.' || each == '\'')) escaped += "\\&";
    line_start = each == '\n';
    if (each == '\\') {
      escaped += "\\e";
    } else if (each == '-') {
      escaped += "\\-";
    } else {
      escaped += each;
    }
  }
  return escaped;
}

std::string ManOfCommand(CLI::App const& app, Command const& command) {
  std::string page = ".SS " + Troff(command.name()) + "\n";
  page += ".B " + Troff(UsageLine(app, "sagleme ")) + "\n.PP\n" + Troff(command.summary()) + ".\n";
  for (CLI::Option const* const option : app.get_options()) {
    if (option->get_name() == "--help") continue;
    page +=
        ".TP\n.B " + Troff(OptionTerm(*option)) + "\n" + Troff(option->get_description()) + ".\n";
  }
  for (Example const& example : command.examples()) {
    page += ".PP\nExample: " + Troff(example.meaning) + "\n.PP\n.RS\n.nf\nsagleme " +
            Troff(example.line) + "\n.fi\n.RE\n";
  }
  return page;
}

std::string LongOptions(CLI::App const& app) {
  std::string names;
  for (CLI::Option const* const option : app.get_options()) {
    for (std::string const& name : option->get_lnames()) names += " --" + name;
  }
  return names;
}

}  // namespace

std::string ManPage(CLI::App const& app, std::vector<std::unique_ptr<Command>> const& commands) {
  std::string page =
      ".TH SAGLEME 1\n.SH NAME\nsagleme \\- look into, change, load and tidy databases\n"
      ".SH SYNOPSIS\n.B sagleme\n.I COMMAND DB\n[ARGUMENTS]\n.SH DESCRIPTION\n" +
      Troff(app.get_description()) + "\n.SH COMMANDS\n";
  for (auto const& command : commands) {
    page += ManOfCommand(*app.get_subcommand(command->name()), *command);
  }
  page +=
      ".SH ENVIRONMENT\n.TP\n.B NO_COLOR\nSet to anything, it keeps colours out of the output.\n"
      ".SH EXIT STATUS\n.TP\n0\nDone.\n.TP\n1\nA problem was found.\n.TP\n2\nWrong usage.\n"
      ".TP\n3\nThe database cannot be opened.\n.TP\n4\nThe work was refused.\n";
  return page;
}

std::string BashCompletion(CLI::App const& app) {
  std::string commands;
  std::string cases;
  for (CLI::App const* const command : app.get_subcommands({})) {
    commands += (commands.empty() ? "" : " ") + command->get_name();
    cases += fmt::format("    {}) options=\"{}\" ;;\n", command->get_name(),
                         LongOptions(*command).substr(1));
  }
  return fmt::format(
      "# Completion of sagleme for bash.\n"
      "_sagleme() {{\n"
      "  local word=\"${{COMP_WORDS[COMP_CWORD]}}\" options=\"\"\n"
      "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
      "    COMPREPLY=($(compgen -W \"{}\" -- \"$word\"))\n"
      "    return\n"
      "  fi\n"
      "  case \"${{COMP_WORDS[1]}}\" in\n"
      "{}"
      "  esac\n"
      "  case \"$word\" in\n"
      "    -*) COMPREPLY=($(compgen -W \"$options\" -- \"$word\")) ;;\n"
      "    *) COMPREPLY=($(compgen -f -- \"$word\")) ;;\n"
      "  esac\n"
      "}}\n"
      "complete -o filenames -F _sagleme sagleme\n",
      commands, cases);
}

}  // namespace tool
