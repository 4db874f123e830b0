#ifndef SAGLEME_TOOL_CLI_MANUAL_H
#define SAGLEME_TOOL_CLI_MANUAL_H

// The manual page and the completion of a shell, generated from the same declarations as --help.

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "cli/command.h"

namespace tool {

// REQUIRES: each command was attached to `app`.
std::string ManPage(CLI::App const& app, std::vector<std::unique_ptr<Command>> const& commands);
std::string BashCompletion(std::vector<std::unique_ptr<Command>> const& commands);

}  // namespace tool

#endif
