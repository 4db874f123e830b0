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
  // Without the line's end; nothing at the end of the input.
  virtual std::optional<std::string> Next(std::string const& prompt) = 0;
};

// The history is kept in ~/.sagleme_history.
std::unique_ptr<LineReader> MakeTerminalReader(Completer completer);
std::unique_ptr<LineReader> MakePlainReader();

}  // namespace tool

#endif
