#include "output/format.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/interrupt.h"

namespace tool {

void Output::Print(std::string_view text) const {
  CheckInterrupt();
  out->Write(text);
}

void Output::Note(std::string_view text) const {
  // On a terminal the two streams are read as one.
  if (out_is_terminal) out->Flush();
  std::fwrite(text.data(), 1, text.size(), stderr);
}

TerminalSize SizeOfTerminal() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return {};
  return {size.ws_row, size.ws_col};
}

Output StandardOutput() {
  Output output;
  output.out = std::make_shared<FileWriter>(STDOUT_FILENO, "standard output");
  output.out_is_terminal = isatty(STDOUT_FILENO) == 1;
  output.err_is_terminal = isatty(STDERR_FILENO) == 1;
  char const* const no_color = std::getenv("NO_COLOR");
  bool const refused = no_color != nullptr && *no_color != '\0';
  output.color = output.out_is_terminal && !refused;
  output.width = SizeOfTerminal().columns;
  return output;
}

}  // namespace tool
