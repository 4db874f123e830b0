#ifndef SAGLEME_TOOL_CLI_HELP_H
#define SAGLEME_TOOL_CLI_HELP_H

// The text of --help, generated from the declarations of commands.

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "cli/command.h"

namespace tool {

// "sagleme scan DB TABLE [OPTIONS]"; `program` precedes the command, with a blank, and is empty at
// the prompt.
std::string UsageLine(CLI::App const& command, std::string const& program);
// An option or argument as a user writes it, with what stands for its value.
std::string OptionTerm(CLI::Option const& option);

std::string CommandHelp(CLI::App const& app, Command const& command, std::string const& program);
// All commands, with the options of the program itself.
std::string ProgramHelp(CLI::App const& app, std::vector<std::unique_ptr<Command>> const& commands);

// Two columns: terms, and what they mean, in lines of at most 80 characters.
std::string TermList(std::vector<std::pair<std::string, std::string>> const& terms);

}  // namespace tool

#endif
