#include "cli/run.h"

#include <fmt/format.h>
#include <lscoredb/watch.h>

#include <sagleme/failure.hpp>

#include "base/interrupt.h"

namespace tool {
namespace {

Exit ExitOf(sagleme::Failure::Kind kind) {
  switch (kind) {
    case sagleme::Failure::Kind::kBadData:
      return Exit::kProblem;
    case sagleme::Failure::Kind::kBadInput:
      return Exit::kUsage;
    case sagleme::Failure::Kind::kCannotOpen:
      return Exit::kCannotOpen;
    case sagleme::Failure::Kind::kRefused:
      break;
  }
  return Exit::kRefused;
}

}  // namespace

void ReportFailure(Output const& output, std::string const& what, std::string const& advice) {
  output.Note(fmt::format("sagleme: {}\n", what));
  if (!advice.empty()) output.Note(fmt::format("  {}\n", advice));
}

namespace {

// The command's output comes first. A failure to write it is reported too, unless that is how the
// command failed.
void ReportBehindOutput(Output const& output, std::string const& what, std::string const& advice) {
  try {
    output.Flush();
  } catch (Failure const& failure) {
    if (failure.what() != what) ReportFailure(output, failure.what(), failure.advice());
  } catch (OutputClosed const&) {  // nobody waits for it, but for what became of the command
  }
  ReportFailure(output, what, advice);
}

}  // namespace

Exit Guarded(Output const& output, std::function<Exit()> const& work) {
  try {
    Exit const exit = work();
    output.Flush();
    return exit;
  } catch (Failure const& failure) {
    ReportBehindOutput(output, failure.what(), failure.advice());
    return failure.exit();
  } catch (sagleme::Failure const& failure) {
    ReportBehindOutput(output, failure.what(), failure.advice());
    return ExitOf(failure.kind());
  } catch (OutputClosed const&) {
    throw;
  } catch (Interrupted const&) {
    throw;
  } catch (sagleme::Error const& error) {
    if (error.status() == LSCOREDB_STOPPED) throw Interrupted();
    ReportBehindOutput(output, fmt::format("{} (status {})", error.what(), error.status()), "");
  } catch (std::exception const& error) {
    ReportBehindOutput(output, error.what(), "");
  }
  return Exit::kRefused;
}

}  // namespace tool
