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

void Progress::UpdateShare(std::uint64_t done, std::uint64_t total) {
  CheckInterrupt();
  if (!output_.err_is_terminal || done == 0 || total == 0 || !Due()) return;
  Draw(fmt::format("{}: {}", things_, ShareText(done, total)));
}

bool Progress::Due() {
  if (Clock::now() - drawn_ < kRedraw) return false;
  drawn_ = Clock::now();
  return true;
}

void Progress::Draw(std::string const& line) {
  output_.Note(fmt::format("{}{}", kEmptyLine, line));
  line_shown_ = true;
}

std::string Progress::ShareText(std::uint64_t done, std::uint64_t total) const {
  double const part = static_cast<double>(done) / static_cast<double>(total);
  return fmt::format("{:.0f} %, {} left", 100 * part, TimeText(Seconds() / part - Seconds()));
}

void Progress::Show(std::uint64_t done, std::uint64_t count) {
  if (!Due()) return;
  std::string line =
      fmt::format("{} {}, {:.0f} a second", count, things_, static_cast<double>(count) / Seconds());
  if (done != 0 && done <= total_) line += ", " + ShareText(done, total_);
  Draw(line);
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
