#ifndef SAGLEME_TOOL_CLI_QUESTION_H
#define SAGLEME_TOOL_CLI_QUESTION_H

// Questions to the user at the terminal.

#include <string>

#include "output/format.h"

namespace tool {

// Whether a user can answer: questions and answers both go through a terminal.
bool CanAsk(Output const& output);

// Asks until one of the letters is typed, and returns it; 0 when the input ends or a line is empty.
// Throws Interrupted at Ctrl-C inside an InterruptGuard.
char AskLetter(Output const& output, std::string const& question, std::string const& letters);

}  // namespace tool

#endif
