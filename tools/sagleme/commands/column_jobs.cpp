#include "commands/column_jobs.h"

#include <fmt/format.h>

#include "base/interrupt.h"
#include "output/progress.h"

namespace tool {

void WatchChange(Output const& output, sagleme::Change const& change,
                 std::function<bool(sagleme::ColumnChangeOptions const&)> const& prepare) {
  InterruptGuard const guard;
  std::string const what = sagleme::DescribeChange(change);
  bool ended = false;
  {
    Progress progress(output, what);
    sagleme::ColumnChangeOptions options;
    options.report = [&](sagleme::ColumnChangeProgress const& done) {
      if (InterruptPending()) return false;
      progress.UpdateShare(done.done, done.total);
      return true;
    };
    try {
      ended = prepare(options);
    } catch (Interrupted const&) {  // while the progress was shown
    }
  }
  if (ended) return;
  output.Note(fmt::format(
      "interrupted: what was done to {} is kept; the same apply goes on with it\n", what));
  throw Interrupted();
}

}  // namespace tool
