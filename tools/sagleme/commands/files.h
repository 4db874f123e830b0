#ifndef SAGLEME_TOOL_COMMANDS_FILES_H
#define SAGLEME_TOOL_COMMANDS_FILES_H

// Files that users name; "-" is a standard stream.

#include <istream>
#include <memory>
#include <string>

namespace tool {

// Failure with kUsage when it cannot be read.
std::string ReadFile(std::string const& name);
// The same as a stream, for what is too large to be held.
std::unique_ptr<std::istream> OpenFile(std::string const& name);

}  // namespace tool

#endif
