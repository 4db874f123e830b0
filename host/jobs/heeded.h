#ifndef SAGLEME_HOST_JOBS_HEEDED_H
#define SAGLEME_HOST_JOBS_HEEDED_H

// The control of long work that is no job, since there is nothing to resume: a check, a load.

#include <lscoredb/watch.h>

#include <algorithm>
#include <cstdint>
#include <sagleme/jobs.hpp>

#include "jobs/run.h"

namespace sagleme::jobs {

class Heeded {
 public:
  // Null: nothing stops or slows the work.
  explicit Heeded(JobControl const* control) : control_(control) {}

  // The work is that far. Waits for the control's pause once it is `batch` further than at the last
  // one. Throws Error of LSCOREDB_STOPPED when the control is stopped, also while it waits.
  void At(std::uint64_t done, std::uint64_t batch) {
    if (control_ == nullptr) return;
    if (done - std::min(done, paused_at_) >= batch) {
      paused_at_ = done;
      Wait(std::chrono::milliseconds(0), control_, [] {});
    }
    if (control_->stopped()) detail::CheckKernel(LSCOREDB_STOPPED);
  }

 private:
  JobControl const* control_;
  std::uint64_t paused_at_ = 0;
};

}  // namespace sagleme::jobs

#endif
