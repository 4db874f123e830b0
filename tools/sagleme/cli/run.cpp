#include "cli/run.h"

#include <fmt/format.h>

namespace tool {

void TellFailure(Output const& output, std::string const& what, std::string const& advice) {
  output.Note(fmt::format("sagleme: {}\n", what));
  if (!advice.empty()) output.Note(fmt::format("  {}\n", advice));
}

Exit RunCommand(Command& command, Session& session, Output& output) {
  try {
    return command.Run(session, output);
  } catch (Failure const& failure) {
    TellFailure(output, failure.what(), failure.advice());
    return failure.exit();
  } catch (sagleme::Error const& error) {
    TellFailure(output, fmt::format("{} (status {})", error.what(), error.status()), "");
  } catch (std::exception const& error) {
    TellFailure(output, error.what(), "");
  }
  return Exit::kRefused;
}

}  // namespace tool
