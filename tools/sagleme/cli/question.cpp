#include "cli/question.h"

#include <unistd.h>

#include <optional>

#include "base/interrupt.h"

namespace tool {
namespace {

// Byte by byte, so that nothing is consumed that the prompt must read.
std::optional<std::string> ReadLine() {
  std::string line;
  while (true) {
    if (!WaitForInput(STDIN_FILENO)) throw Interrupted();
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) <= 0) return std::nullopt;
    if (byte == '\n') return line;
    line += byte;
  }
}

}  // namespace

bool CanAsk(Output const& output) { return output.err_is_terminal && isatty(STDIN_FILENO) == 1; }

char AskLetter(Output const& output, std::string const& question, std::string const& letters) {
  output.Flush();
  while (true) {
    output.Note(question);
    auto const line = ReadLine();
    if (!line || line->empty()) return 0;
    if (line->size() == 1 && letters.find(line->front()) != std::string::npos) return line->front();
  }
}

}  // namespace tool
