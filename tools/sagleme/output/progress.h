#ifndef SAGLEME_TOOL_OUTPUT_PROGRESS_H
#define SAGLEME_TOOL_OUTPUT_PROGRESS_H

// Shows the progress of long work on standard error: one line that is redrawn, with rate,
// percentage and time left. Only on a terminal; elsewhere, as in the log of a nightly job, only the
// summary.

#include <chrono>
#include <cstdint>
#include <sagleme/host/transfer.hpp>
#include <string>

#include "output/format.h"

namespace tool {

class Progress {
 public:
  // `total` in the units of Update's `done`; 0 if unknown. `things` is the plural of what is
  // counted.
  Progress(Output const& output, std::string things, std::uint64_t total = 0)
      : output_(output), things_(std::move(things)), total_(total) {}
  // Removes the line if the work did not reach its summary.
  ~Progress();
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;

  // Throws Interrupted when the user has stopped the work.
  void Update(std::uint64_t done, std::uint64_t count);
  // The same for the library, which knows the total. Valid as long as this object.
  sagleme::TransferReport report();
  // The same for work that is not counted: only percentage and time left; nothing for a total of 0.
  void UpdateShare(std::uint64_t done, std::uint64_t total);
  // The summary: how many, and how long it took on a terminal.
  void Finish(std::uint64_t count);

 private:
  using Clock = std::chrono::steady_clock;

  void Show(std::uint64_t done, std::uint64_t count);
  bool Due();
  void Draw(std::string const& line);
  std::string ShareText(std::uint64_t done, std::uint64_t total) const;
  double Seconds() const;

  Output const& output_;
  std::string things_;
  std::uint64_t total_;
  bool line_shown_ = false;
  Clock::time_point start_ = Clock::now();
  Clock::time_point drawn_ = start_;
};

}  // namespace tool

#endif
