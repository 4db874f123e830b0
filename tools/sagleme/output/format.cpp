#include "output/format.h"

#include <unistd.h>

#include <cstdlib>

namespace tool {

Output StandardOutput() {
  Output output;
  output.out_is_terminal = isatty(STDOUT_FILENO) == 1;
  output.err_is_terminal = isatty(STDERR_FILENO) == 1;
  char const* const no_color = std::getenv("NO_COLOR");
  bool const refused = no_color != nullptr && *no_color != '\0';
  output.color = output.out_is_terminal && !refused;
  return output;
}

}  // namespace tool
