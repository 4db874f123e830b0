#ifndef SAGLEME_TOOL_COMMANDS_INDEX_JOBS_H
#define SAGLEME_TOOL_COMMANDS_INDEX_JOBS_H

// Jobs with their progress on a terminal, and Ctrl-C, which leaves them to be resumed.

#include <functional>
#include <sagleme/index_build.hpp>
#include <sagleme/jobs.hpp>
#include <string>

#include "output/format.h"

namespace tool {

// Runs a build, named so, with options that report to it. Returns what the build returns. Throws
// Interrupted, with a note how to go on, after Ctrl-C.
bool WatchBuild(Output const& output, std::string const& name, sagleme::IndexBuildOptions options,
                std::function<bool(sagleme::IndexBuildOptions const&)> const& build);

// The same for a job that is resumed.
void WatchJob(Output const& output, sagleme::Job const& job, sagleme::JobOptions options,
              std::function<bool(sagleme::JobOptions const&)> const& resume);

}  // namespace tool

#endif
