// The command line: `sagleme COMMAND DB ...`.

#include <clocale>
#include <csignal>

#include "base/interrupt.h"
#include "base/truncation.h"
#include "cli/manual.h"
#include "cli/parser.h"
#include "cli/run.h"

namespace tool {
namespace {

std::string VersionText() {
  return std::string("sagleme ") + SAGLEME_VERSION + ", catalogue version " +
         std::to_string(lorv_get_metaschema_version()) + "\n";
}

Exit RunWords(std::vector<std::string> words, Output& output) {
  std::string directory;
  Parser parser(output, &directory);
  parser.AddPrinter("--version", "Show the version", VersionText);
  parser.AddPrinter("--man-page", "Print the manual page",
                    [&] { return ManPage(parser.app(), parser.commands()); });
  parser.AddPrinter("--bash-completion", "Print the completion for bash",
                    [&] { return BashCompletion(parser.commands()); });
  Command* const command = parser.Parse(std::move(words));
  if (command == nullptr) return Exit::kDone;
  Session session(directory);
  return command->Run(session, output);
}

// Ends like any program that lost its reader or was stopped by the user: killed by the signal,
// without a message.
int EndBy(int signal) {
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  return static_cast<int>(Exit::kRefused);
}

int Main(std::vector<std::string> words) {
  Output output = StandardOutput();
  try {
    Exit const exit = Guarded(output, [&] { return RunWords(std::move(words), output); });
    return static_cast<int>(exit);
  } catch (OutputClosed const&) {
    return EndBy(SIGPIPE);
  } catch (Interrupted const&) {
    return EndBy(SIGINT);
  }
}

}  // namespace
}  // namespace tool

int main(int argc, char** argv) {
  tool::ReserveStandardFiles();
  std::signal(SIGPIPE, SIG_IGN);  // a failed write says so, and ends the command in its own way
  tool::ReportTruncatedFiles();
  std::setlocale(LC_CTYPE, "C.UTF-8");
  return tool::Main({argv + 1, argv + argc});
}
