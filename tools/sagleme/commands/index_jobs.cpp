#include "commands/index_jobs.h"

#include <fmt/format.h>
#include <lscoredb/watch.h>

#include "base/failure.h"
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
  void Show(sagleme::JobProgress const& progress) {
    if (!line_.has_value() || progress.done < last_) Begin(name_, progress.total);
    last_ = progress.done;
    line_->Update(progress.done, progress.done);
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
  std::uint64_t last_ = 0;
  std::optional<Progress> line_;
};

// Returns what the work returns; throws Interrupted after Ctrl-C, which `note` explains.
template <typename Work>
bool RunWatched(Output const& output, std::string const& note, Work&& work) {
  bool ended = false;
  try {
    ended = work();
  } catch (sagleme::Error const& error) {
    if (error.status() != LSCOREDB_STOPPED) throw;
    if (!InterruptPending()) throw Failure(Exit::kRefused, error.what());  // by another process
  } catch (Interrupted const&) {  // while the progress was shown
  }
  if (ended) return true;
  output.Note(note);
  throw Interrupted();
}

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
  std::string const note = fmt::format(
      "interrupted: the build of index {} is kept; \"sagleme jobs\" resumes or abandons it\n",
      name);
  return RunWatched(output, note, [&] { return build(options); });
}

void WatchJob(Output const& output, sagleme::Job const& job, sagleme::JobOptions options,
              std::function<bool(sagleme::JobOptions const&)> const& resume) {
  InterruptGuard const guard;
  bool const build = job.kind == sagleme::JobKind::kIndexBuild;
  BuildDisplay display(output, build ? "objects for " + job.description
                                     : fmt::format("done of the {}", JobKindName(job.kind)));
  Watch const watch;
  options.report = [&](sagleme::JobProgress const& progress) {
    if (InterruptPending()) return false;
    display.Show(progress);
    return true;
  };
  std::string const note =
      fmt::format("interrupted: the {} of {} is kept; \"sagleme jobs\" resumes or abandons it\n",
                  build ? "build" : JobKindName(job.kind), job.description);
  RunWatched(output, note, [&] { return resume(options); });
}

}  // namespace tool
