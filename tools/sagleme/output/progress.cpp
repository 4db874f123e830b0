#include "output/progress.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/interrupt.h"
#include "output/text.h"

namespace tool {
namespace {

constexpr std::chrono::milliseconds kRedraw{100};

std::string TimeText(double seconds) {
  auto const whole = static_cast<std::uint64_t>(std::max(seconds, 0.0));
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

constexpr char const* kEmptyLine = "\r\x1b[K";

}  // namespace

Progress::~Progress() {
  if (line_shown_) output_.Note(kEmptyLine);
}

double Progress::Seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::Update(std::uint64_t done, std::uint64_t count) {
  CheckInterrupt();
  if (output_.err_is_terminal) Show(done, count);
}

sagleme::TransferReport Progress::report() {
  return [this](sagleme::TransferProgress const& so_far) {
    total_ = so_far.total;
    Update(so_far.done, so_far.objects);
  };
}

void Progress::Show(std::uint64_t done, std::uint64_t count) {
  if (Clock::now() - drawn_ < kRedraw) return;
  drawn_ = Clock::now();
  double const seconds = Seconds();
  std::string line = fmt::format("{}{} {}, {:.0f} a second", kEmptyLine, count, things_,
                                 static_cast<double>(count) / seconds);
  if (total_ != 0 && done != 0) {
    double const part = static_cast<double>(done) / static_cast<double>(total_);
    line += fmt::format(", {:.0f} %, {} left", 100 * part, TimeText(seconds / part - seconds));
  }
  output_.Note(line);
  line_shown_ = true;
}

void Progress::Finish(std::uint64_t count) {
  line_shown_ = false;
  if (output_.err_is_terminal) {
    output_.Note(
        fmt::format("{}{} in {}\n", kEmptyLine, Counted(count, things_), TimeText(Seconds())));
  } else {
    output_.Note(Counted(count, things_) + "\n");
  }
}

}  // namespace tool
