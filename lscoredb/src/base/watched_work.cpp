#include "watched_work.h"

#include <algorithm>

#include "status.h"

namespace lscore {
namespace {

constexpr std::uint64_t kWhole = 1000;

}  // namespace

Watch& ThreadWatch() noexcept {
  static thread_local Watch watch;
  return watch;
}

bool WatchStopsWait() noexcept {
  Watch const& watch = ThreadWatch();
  if (watch.callback == nullptr || watch.holds > 0) return false;
  return watch.callback(watch.user, watch.done, watch.total) != 0;
}

// The number of steps is an estimate, which may be too low.
std::uint64_t WatchedWork::DoneOfShare() const {
  if (steps_ == 0) return share_.begin;
  double const part = static_cast<double>(std::min(done_, steps_)) / static_cast<double>(steps_);
  return share_.begin +
         static_cast<std::uint64_t>(part * static_cast<double>(share_.end - share_.begin));
}

void WatchedWork::Report() {
  report_at_ = done_ + std::max(kStepsBetween, steps_ / kWhole);
  Watch& watch = ThreadWatch();
  if (watch.callback == nullptr) return;
  watch.done = is_share_ ? DoneOfShare() : done_;
  watch.total = is_share_ ? kWhole : 0;
  if (watch.callback(watch.user, watch.done, watch.total) != 0) Throw(LSCOREDB_STOPPED);
}

}  // namespace lscore
