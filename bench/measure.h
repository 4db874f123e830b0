#ifndef SAGLEME_BENCH_MEASURE_H
#define SAGLEME_BENCH_MEASURE_H

// Time and memory of one piece of work.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace bench {

inline constexpr std::size_t kMegabyte = std::size_t{1} << 20;

// Memory of the process itself: pages of files that are mapped can be had again.
inline std::size_t OwnMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) return std::stoul(line.substr(8)) * 1024;
  }
  return 0;
}

// The most that the process had while the object lived.
class MemoryWatch {
 public:
  ~MemoryWatch() { Stop(); }
  std::size_t Stop() {
    over_ = true;
    if (thread_.joinable()) thread_.join();
    return most_;
  }

 private:
  std::atomic<bool> over_{false};
  std::size_t most_ = OwnMemory();
  std::thread thread_{[this] {
    while (!over_) {
      most_ = std::max(most_, OwnMemory());
      usleep(20000);
    }
  }};
};

// Of all threads, which is what a busy machine does not change.
inline double ProcessorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

inline double Measure(char const* what, std::function<void()> const& work) {
  std::size_t const before = OwnMemory();
  MemoryWatch watch;
  double const busy_before = ProcessorSeconds();
  auto const begin = std::chrono::steady_clock::now();
  work();
  std::chrono::duration<double> const took = std::chrono::steady_clock::now() - begin;
  double const busy = ProcessorSeconds() - busy_before;
  std::size_t const most = watch.Stop();
  std::printf("%-44s %9.3f s, busy %9.3f s, memory %6zu MiB, at most %6zu, then %6zu\n", what,
              took.count(), busy, before / kMegabyte, most / kMegabyte, OwnMemory() / kMegabyte);
  std::fflush(stdout);
  return took.count();
}

}  // namespace bench

#endif
