#include "progress.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace packages {
namespace {

constexpr int kBarWidth = 30;
constexpr int64_t kBarSteps = 200;
constexpr int64_t kLineSteps = 10;

std::string Bar(int64_t done, int64_t total) {
  auto const filled = static_cast<std::size_t>(kBarWidth * done / total);
  return std::string(filled, '#') + std::string(kBarWidth - filled, '.');
}

}  // namespace

Progress::Progress(std::string label, int64_t total)
    : label_(std::move(label)), total_(total), is_terminal_(isatty(STDOUT_FILENO) != 0) {}

Progress::~Progress() { Finish(); }

void Progress::Advance(int64_t count) {
  done_ += count;
  int64_t const steps = is_terminal_ ? kBarSteps : kLineSteps;
  bool const is_due = total_ == 0 || done_ * steps / total_ != drawn_ * steps / total_;
  if (is_due || done_ == total_) Draw();
}

void Progress::Finish() {
  if (line_is_open_) std::putchar('\n');
  line_is_open_ = false;
  std::fflush(stdout);
}

double Progress::Rate() const {
  std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - start_;
  return static_cast<double>(done_) / std::max(elapsed.count(), 1e-6);
}

std::string Progress::Text() const {
  if (total_ == 0) return fmt::format("{}", done_);
  return fmt::format("{} of {}, {:.0f}/s", done_, total_, Rate());
}

void Progress::Draw() {
  drawn_ = done_;
  if (is_terminal_) {
    std::string const bar = total_ == 0 ? std::string() : Bar(done_, total_) + "  ";
    fmt::print("\r{}  {}{} ", label_, bar, Text());
    line_is_open_ = true;
  } else {
    fmt::print("{}: {}\n", label_, Text());
  }
  std::fflush(stdout);
}

}  // namespace packages
