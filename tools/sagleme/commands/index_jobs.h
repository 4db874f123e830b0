#ifndef SAGLEME_TOOL_COMMANDS_INDEX_JOBS_H
#define SAGLEME_TOOL_COMMANDS_INDEX_JOBS_H

// Index builds with their progress on a terminal, and Ctrl-C, which leaves them to be resumed.

#include <functional>
#include <sagleme/index_build.hpp>
#include <string>

#include "output/format.h"

namespace tool {

// Runs a build, named so, with options that report to it. Returns what the build returns. Throws
// Interrupted, with a note how to go on, after Ctrl-C.
bool WatchBuild(Output const& output, std::string const& name, sagleme::IndexBuildOptions options,
                std::function<bool(sagleme::IndexBuildOptions const&)> const& build);

}  // namespace tool

#endif
