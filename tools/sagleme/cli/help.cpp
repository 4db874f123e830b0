#include "cli/help.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

namespace tool {
namespace {

constexpr std::size_t kLineLength = 80;
constexpr std::size_t kIndent = 2;
constexpr std::size_t kWidestTerm = 24;

std::vector<std::string> Wrapped(std::string const& text, std::size_t width) {
  std::vector<std::string> lines(1);
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    std::string& line = lines.back();
    if (line.empty()) {
      line = word;
    } else if (line.size() + 1 + word.size() <= width) {
      line += " " + word;
    } else {
      lines.push_back(word);
    }
  }
  return lines;
}

std::string Terms(std::string const& title, CLI::App const& app, bool arguments) {
  std::vector<std::pair<std::string, std::string>> terms;
  for (CLI::Option const* const option : app.get_options()) {
    if (option->get_positional() != arguments) continue;
    terms.emplace_back(OptionTerm(*option), option->get_description());
  }
  return terms.empty() ? "" : "\n" + title + ":\n" + TermList(terms);
}

}  // namespace

std::string UsageLine(CLI::App const& command, std::string const& program) {
  std::string usage = program + command.get_name();
  for (CLI::Option const* const option : command.get_options()) {
    if (!option->get_positional()) continue;
    std::string const name = option->get_name(true);
    std::string const more = option->get_expected_max() > 1 ? "..." : "";
    usage += " " + (option->get_required() ? name + more : "[" + name + more + "]");
  }
  return usage + " [OPTIONS]";
}

std::string OptionTerm(CLI::Option const& option) {
  if (option.get_positional()) return option.get_name(true);
  std::string names;
  for (std::string const& name : option.get_snames()) names += "-" + name + ", ";
  names += "--" + option.get_lnames().front();
  return option.get_expected_max() == 0 ? names : names + " " + option.get_type_name();
}

std::string TermList(std::vector<std::pair<std::string, std::string>> const& terms) {
  std::size_t widest = 0;
  for (auto const& [term, meaning] : terms) {
    if (term.size() <= kWidestTerm) widest = std::max(widest, term.size());
  }
  std::string const gap(kIndent, ' ');
  std::string text;
  for (auto const& [term, meaning] : terms) {
    auto const lines = Wrapped(meaning, kLineLength - widest - 2 * kIndent);
    text += gap + term;
    if (term.size() > widest) text += "\n" + gap + std::string(widest, ' ');
    if (term.size() <= widest) text += std::string(widest - term.size(), ' ');
    text += gap + lines.front() + "\n";
    for (std::size_t i = 1; i < lines.size(); ++i) {
      text += std::string(widest + 2 * kIndent, ' ') + lines[i] + "\n";
    }
  }
  return text;
}

std::string CommandHelp(CLI::App const& app, Command const& command, std::string const& program) {
  std::string text = "Usage: " + UsageLine(app, program) + "\n\n";
  for (std::string const& line : Wrapped(command.summary() + ".", kLineLength)) text += line + "\n";
  std::istringstream details(command.details());
  for (std::string paragraph; std::getline(details, paragraph);) {
    text += "\n";
    for (std::string const& line : Wrapped(paragraph, kLineLength)) text += line + "\n";
  }
  text += Terms("Arguments", app, true) + Terms("Options", app, false);
  text += "\nExamples:\n";
  for (Example const& example : command.examples()) {
    text += fmt::format("  {}{}\n      {}\n", program, example.For(program), example.meaning);
  }
  return text;
}

std::string ProgramHelp(CLI::App const& app,
                        std::vector<std::unique_ptr<Command>> const& commands) {
  std::vector<std::pair<std::string, std::string>> terms;
  for (auto const& command : commands) {
    if (!command->hidden()) terms.emplace_back(command->name(), command->summary());
  }
  return "Usage: sagleme COMMAND DB [ARGUMENTS] [OPTIONS]\n\n" + app.get_description() +
         "\n\nCommands:\n" + TermList(terms) + Terms("Options", app, false) +
         "\nsagleme help COMMAND shows the options of a command with examples.\n";
}

}  // namespace tool
