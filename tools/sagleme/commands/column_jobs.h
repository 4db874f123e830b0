#ifndef SAGLEME_TOOL_COMMANDS_COLUMN_JOBS_H
#define SAGLEME_TOOL_COMMANDS_COLUMN_JOBS_H

// Changes of columns in batches, with their progress on a terminal, and Ctrl-C, which leaves them
// to be continued.

#include <functional>
#include <sagleme/schema_plan.hpp>

#include "output/format.h"

namespace tool {

// Prepares a change with options that report to it. Throws Interrupted, with a note how to go on,
// after Ctrl-C.
void WatchChange(Output const& output, sagleme::Change const& change,
                 std::function<bool(sagleme::ColumnChangeOptions const&)> const& prepare);

}  // namespace tool

#endif
