#ifndef SAGLEME_TOOL_OUTPUT_PROGRESS_H
#define SAGLEME_TOOL_OUTPUT_PROGRESS_H

// Tells on standard error how far a long work is: one line with rate and time left on a terminal, a
// plain line for each tenth elsewhere.

#include <chrono>
#include <cstdint>
#include <string>

#include "output/format.h"

namespace tool {

class Progress {
 public:
  // `total` in the units of Update's `done`; 0 when it is not known. `things` are what is counted.
  Progress(Output const& output, std::string things, std::uint64_t total)
      : output_(output), things_(std::move(things)), total_(total) {}

  void Update(std::uint64_t done, std::uint64_t count);
  // The last line: how many, and how fast on a terminal.
  void Finish(std::uint64_t count);

 private:
  using Clock = std::chrono::steady_clock;

  void ShowOnTerminal(std::uint64_t done, std::uint64_t count);
  void ShowPlain(std::uint64_t done, std::uint64_t count);
  double Seconds() const;

  Output const& output_;
  std::string things_;
  std::uint64_t total_;
  std::uint64_t shown_ = 0;  // tenths, or hundred thousands when the total is not known
  Clock::time_point start_ = Clock::now();
  Clock::time_point drawn_ = start_;
};

}  // namespace tool

#endif
