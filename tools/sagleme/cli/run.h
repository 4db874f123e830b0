#ifndef SAGLEME_TOOL_CLI_RUN_H
#define SAGLEME_TOOL_CLI_RUN_H

// Running a command with its failures told on standard error.

#include <string>

#include "cli/command.h"

namespace tool {

void TellFailure(Output const& output, std::string const& what, std::string const& advice);
Exit RunCommand(Command& command, Session& session, Output& output);

}  // namespace tool

#endif
