#include "commands/prompt.h"

#include <fmt/format.h>

#include <chrono>
#include <memory>

#include "base/interrupt.h"
#include "cli/run.h"
#include "shell/pager.h"

namespace tool {
namespace {

Exit RunPaged(Output own, bool pages, LineReader& reader,
              std::function<Exit(Output& own)> const& work) {
  auto const pager =
      std::make_shared<PagerWriter>(own.out, SizeOfTerminal(), pages ? PagerCommand() : "");
  own.out = pager;
  try {
    return Guarded(own, [&] {
      Exit const exit = work(own);
      pager->Flush();
      return exit;
    });
  } catch (Interrupted const&) {
    TakeInterrupt();
    reader.NoteInterrupt();
    own.out->Discard();
    own.Note("\ninterrupted\n");
    return Exit::kProblem;
  } catch (OutputClosed const&) {
    if (!pager->started()) throw;
    return Exit::kDone;
  }
}

}  // namespace

Exit RunAtPrompt(Output const& output, Settings const& settings, bool terminal, LineReader& reader,
                 std::function<Exit(Output& own)> const& work) {
  Output own = output;
  settings.ApplyTo(own);
  auto const start = std::chrono::steady_clock::now();
  bool const pages = terminal && own.out_is_terminal && settings.paging();
  Exit const exit = RunPaged(std::move(own), pages, reader, work);
  std::chrono::duration<double> const took = std::chrono::steady_clock::now() - start;
  if (settings.timing()) output.Note(fmt::format("{:.3f} s\n", took.count()));
  return exit;
}

}  // namespace tool
