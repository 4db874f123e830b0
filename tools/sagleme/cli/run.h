#ifndef SAGLEME_TOOL_CLI_RUN_H
#define SAGLEME_TOOL_CLI_RUN_H

// Runs commands and reports their failures on standard error.

#include <functional>
#include <string>

#include "cli/command.h"

namespace tool {

void ReportFailure(Output const& output, std::string const& what, std::string const& advice);

// Runs `work` and flushes the output, also if `work` fails; reports what either throws and turns it
// into an exit status.
// OutputClosed and Interrupted pass.
Exit Guarded(Output const& output, std::function<Exit()> const& work);

}  // namespace tool

#endif
