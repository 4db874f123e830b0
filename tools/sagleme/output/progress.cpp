#include "output/progress.h"

#include <fmt/format.h>

#include <algorithm>

namespace tool {
namespace {

constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::uint64_t kPlainStep = 100000;  // things a line when there is no total

std::string TimeText(double seconds) {
  auto const whole = static_cast<std::uint64_t>(std::max(seconds, 0.0));
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

double Progress::Seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::Update(std::uint64_t done, std::uint64_t count) {
  if (output_.err_is_terminal) {
    ShowOnTerminal(done, count);
  } else {
    ShowPlain(done, count);
  }
}

void Progress::ShowOnTerminal(std::uint64_t done, std::uint64_t count) {
  if (Clock::now() - drawn_ < kRedraw) return;
  drawn_ = Clock::now();
  double const seconds = Seconds();
  std::string line = fmt::format("\r\x1b[K{} {}, {:.0f} a second", count, things_,
                                 static_cast<double>(count) / seconds);
  if (total_ != 0 && done != 0) {
    double const part = static_cast<double>(done) / static_cast<double>(total_);
    line += fmt::format(", {:.0f} %, {} left", 100 * part, TimeText(seconds / part - seconds));
  }
  output_.Note(line);
}

void Progress::ShowPlain(std::uint64_t done, std::uint64_t count) {
  std::uint64_t const mark = total_ == 0 ? count / kPlainStep : 10 * done / total_;
  if (mark <= shown_) return;
  shown_ = mark;
  output_.Note(total_ == 0 ? fmt::format("{} {}\n", count, things_)
                           : fmt::format("{} {}, {} %\n", count, things_, 10 * mark));
}

void Progress::Finish(std::uint64_t count) {
  if (output_.err_is_terminal) {
    output_.Note(fmt::format("\r\x1b[K{} {} in {}\n", count, things_, TimeText(Seconds())));
  } else {
    output_.Note(fmt::format("{} {}\n", count, things_));
  }
}

}  // namespace tool
