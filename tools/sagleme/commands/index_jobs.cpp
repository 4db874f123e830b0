#include "commands/index_jobs.h"

#include <fmt/format.h>
#include <lscoredb/watch.h>

#include "base/interrupt.h"
#include "base/watch.h"
#include "output/progress.h"

namespace tool {
namespace {

std::string ThingsOf(std::string const& name, sagleme::IndexBuildState state) {
  bool const compares = state == sagleme::IndexBuildState::kWriteOnly;
  return fmt::format("objects {} for {}", compares ? "compared" : "indexed", name);
}

// A line of progress for each part of a build: the scan, the entries, the search for duplicates.
class BuildDisplay {
 public:
  BuildDisplay(Output const& output, std::string name) : output_(output), name_(std::move(name)) {}

  void ShowScan(std::uint64_t done) {
    if (!line_.has_value()) Begin(fmt::format("objects read for {}", name_), 0);
    line_->Update(done, done);
  }
  void Show(sagleme::IndexBuildProgress const& progress) {
    bool const same = line_.has_value() && state_ == progress.state;
    if (!same) Begin(ThingsOf(name_, progress.state), progress.total);
    state_ = progress.state;
    line_->Update(progress.done, progress.done);
  }

 private:
  void Begin(std::string things, std::uint64_t total) {
    line_.reset();
    line_.emplace(output_, std::move(things), total);
  }

  Output const& output_;
  std::string const name_;
  std::optional<sagleme::IndexBuildState> state_;
  std::optional<Progress> line_;
};

}  // namespace

bool WatchBuild(Output const& output, std::string const& name, sagleme::IndexBuildOptions options,
                std::function<bool(sagleme::IndexBuildOptions const&)> const& build) {
  InterruptGuard const guard;
  BuildDisplay display(output, name);
  Watch const watch([&](std::uint64_t done, std::uint64_t) { display.ShowScan(done); });
  options.report = [&](sagleme::IndexBuildProgress const& progress) {
    if (InterruptPending()) return false;
    display.Show(progress);
    return true;
  };
  bool ended = false;
  try {
    ended = build(options);
  } catch (sagleme::Error const& error) {
    if (error.status() != LSCOREDB_STOPPED) throw;
  } catch (Interrupted const&) {  // while the progress was shown
  }
  if (ended) return true;
  output.Note(fmt::format(
      "interrupted: the build of index {} is kept; \"sagleme jobs\" resumes or abandons it\n",
      name));
  throw Interrupted();
}

}  // namespace tool
