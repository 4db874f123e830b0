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

WatchedPart::WatchedPart(WorkShare share)
    : share_(share), callback_(ThreadWatch().callback), user_(ThreadWatch().user) {
  if (callback_ == nullptr) return;
  ThreadWatch() = {&WatchedPart::Report, this, 0, kWhole, ThreadWatch().holds};
}

WatchedPart::~WatchedPart() {
  if (callback_ == nullptr) return;
  ThreadWatch() = {callback_, user_, share_.end, kWhole, ThreadWatch().holds};
}

// Nothing is known of the length of the work: it stands at its beginning.
std::uint32_t WatchedPart::Report(void* self, std::uint64_t done, std::uint64_t total) {
  WatchedPart const& part = *static_cast<WatchedPart*>(self);
  std::uint64_t const share = total == 0 ? 0 : std::min(done, total) * kWhole / total;
  std::uint64_t const width = part.share_.end - part.share_.begin;
  return part.callback_(part.user_, part.share_.begin + width * share / kWhole, kWhole);
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
