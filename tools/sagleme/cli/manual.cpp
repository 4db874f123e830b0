#include "cli/manual.h"

#include <fmt/format.h>

#include <sstream>

#include "cli/help.h"

namespace tool {
namespace {

// Text for a man page: a dot or quote at the start of a line would be a request, a hyphen is not a
// minus.
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
  std::istringstream details(command.details());
  for (std::string paragraph; std::getline(details, paragraph);) {
    page += ".PP\n" + Troff(paragraph) + "\n";
  }
  for (CLI::Option const* const option : app.get_options()) {
    if (option->check_name("--help")) continue;
    page +=
        ".TP\n.B " + Troff(OptionTerm(*option)) + "\n" + Troff(option->get_description()) + ".\n";
  }
  for (Example const& example : command.examples()) {
    page += ".PP\nExample: " + Troff(example.meaning) + "\n.PP\n.RS\n.nf\nsagleme " +
            Troff(example.line) + "\n.fi\n.RE\n";
  }
  return page;
}

}  // namespace

std::string ManPage(CLI::App const& app, std::vector<std::unique_ptr<Command>> const& commands) {
  std::string page =
      ".TH SAGLEME 1\n.SH NAME\nsagleme \\- look into, change, load and tidy databases\n"
      ".SH SYNOPSIS\n.B sagleme\n.I COMMAND DB\n[ARGUMENTS]\n.SH DESCRIPTION\n" +
      Troff(app.get_description()) + "\n.SH COMMANDS\n";
  for (auto const& command : commands) {
    if (command->hidden()) continue;
    page += ManOfCommand(*app.get_subcommand(command->name()), *command);
  }
  page +=
      ".SH ENVIRONMENT\n.TP\n.B NO_COLOR\nSet to anything, it keeps colours out of the output.\n"
      ".SH EXIT STATUS\n.TP\n0\nDone.\n.TP\n1\nA problem was found.\n.TP\n2\nWrong usage.\n"
      ".TP\n3\nThe database cannot be opened.\n.TP\n4\nThe work was refused or failed.\n"
      ".TP\n5\nThere is something to do (apply --plan).\n"
      ".TP\n6\nThe data file was truncated while it was open.\n";
  return page;
}

// The names of a database come from the tool itself, which completes a line as at the prompt.
std::string BashCompletion(std::vector<std::unique_ptr<Command>> const& commands) {
  std::string names = "help";
  for (auto const& command : commands) {
    if (!command->hidden()) names += " " + command->name();
  }
  return "# Completion of sagleme for bash.\n"
         "_sagleme() {\n"
         "  local word=\"${COMP_WORDS[COMP_CWORD]}\" directory=\"${COMP_WORDS[2]/#\\~/$HOME}\"\n"
         "  local command=\"${COMP_WORDS[1]}\" rest=(\"${COMP_WORDS[@]:3:COMP_CWORD-2}\")\n"
         "  COMPREPLY=()\n"
         "  if [ \"$COMP_CWORD\" -eq 1 ] || [ \"$command\" = help ]; then\n"
         "    COMPREPLY=($(compgen -W \"" +
         names +
         "\" -- \"$word\"))\n"
         "    return\n"
         "  fi\n"
         "  if [ \"$COMP_CWORD\" -gt 2 ]; then\n"
         "    mapfile -t COMPREPLY < <(\"${COMP_WORDS[0]}\" complete \"$directory\" \\\n"
         "      \"$command ${rest[*]}\" 2>/dev/null)\n"
         "  fi\n"
         "  if [ ${#COMPREPLY[@]} -eq 0 ]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
         "  fi\n"
         "  case \"${COMPREPLY[0]}\" in *=) compopt -o nospace 2>/dev/null ;; esac\n"
         "}\n"
         "complete -o filenames -F _sagleme sagleme\n";
}

}  // namespace tool
