#ifndef SAGLEME_TOOL_SHELL_LINE_READER_H
#define SAGLEME_TOOL_SHELL_LINE_READER_H

// Lines from a terminal, edited, with history and completion, or from any other input as they come.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tool {

// What may complete the last word of a line.
using Completer = std::function<std::vector<std::string>(std::string const& line)>;

class LineReader {
 public:
  virtual ~LineReader() = default;
  // Without the line's end; nothing at the end of the input, or when the user leaves with Ctrl-C.
  virtual std::optional<std::string> Next(std::string const& prompt) = 0;
  // The line read last was stopped by Ctrl-C: another one at an empty prompt leaves.
  virtual void NoteInterrupt() {}
};

// The history is kept in ~/.sagleme_history. Ctrl-C empties the line; on an empty one it leaves
// when it is the second in a row. REQUIRES: an InterruptGuard.
std::unique_ptr<LineReader> MakeTerminalReader(Completer completer);
std::unique_ptr<LineReader> MakePlainReader();

}  // namespace tool

#endif
