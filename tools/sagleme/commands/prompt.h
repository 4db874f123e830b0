#ifndef SAGLEME_TOOL_COMMANDS_PROMPT_H
#define SAGLEME_TOOL_COMMANDS_PROMPT_H

// What the prompts have in common: how one line's work is run.

#include <functional>

#include "cli/command.h"
#include "output/format.h"
#include "shell/line_reader.h"
#include "shell/settings.h"

namespace tool {

// Runs `work` with an output of its own, so that what the line chooses does not last: as the
// settings say, paged on a terminal, and timed. The user may stop the work or leave the pager, and
// stays at the prompt. Returns how the work ended.
Exit RunAtPrompt(Output const& output, Settings const& settings, bool terminal, LineReader& reader,
                 std::function<Exit(Output& own)> const& work);

}  // namespace tool

#endif
