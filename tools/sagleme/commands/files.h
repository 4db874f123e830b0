#ifndef SAGLEME_TOOL_COMMANDS_FILES_H
#define SAGLEME_TOOL_COMMANDS_FILES_H

// Files that users name; "-" is a standard stream.

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

namespace tool {

// Failure with kUsage when it cannot be read.
std::string ReadFile(std::string const& name);
// The same as a stream, for files too large to hold. Its buffer, not the stream, throws from reads:
// Failure with kRefused if the system refuses to read, Interrupted if the user has stopped the
// command, even while it waits for a pipe.
std::unique_ptr<std::istream> OpenFile(std::string const& name);
// In bytes; 0 when it is not known, as for a pipe.
std::uint64_t SizeOfFile(std::string const& name);

}  // namespace tool

#endif
