#ifndef SAGLEME_TOOL_SHELL_WORDS_H
#define SAGLEME_TOOL_SHELL_WORDS_H

// A line at the prompt, and what may complete it.

#include <string>
#include <vector>

#include "cli/session.h"

namespace tool {

// Splits at blanks; quotation marks of either kind keep blanks, a backslash keeps the next
// character, and a # in front of a word begins a comment. Failure with kUsage for a quotation mark
// that is never closed.
std::vector<std::string> SplitLine(std::string const& line);

// What the last word of a line may be: a command in first place; behind it an option, or what the
// argument or option takes there: a table, by its full or short name, a column of the table that
// the line names, an index, a form, a file. Sorted, without repetition.
std::vector<std::string> Completions(Session& session, std::string const& line);
// The beginning that all of them share.
std::string CommonBeginning(std::vector<std::string> const& words);
// Where the last word begins.
std::size_t LastWord(std::string const& line);

}  // namespace tool

#endif
