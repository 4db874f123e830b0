#ifndef SAGLEME_BENCH_INDEX_ABANDON_H
#define SAGLEME_BENCH_INDEX_ABANDON_H

// The commits of an index build, one by one.

#include <lscoredb/host.h>
#include <lscoredb/index_build.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <stdexcept>

namespace bench {

class CommitTimes {
 public:
  template <typename Commit>
  void Measure(Commit&& commit) {
    auto const begin = std::chrono::steady_clock::now();
    std::uint32_t const status = commit();
    double const time =
        std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count();
    if (status != 0) throw std::runtime_error(lscoredb_status_text(status));
    longest_ = std::max(longest_, time);
    sum_ += time;
    ++count_;
  }
  // In nanoseconds.
  double longest() const { return longest_; }
  double sum() const { return sum_; }
  std::uint64_t count() const { return count_; }

 private:
  double longest_ = 0;
  double sum_ = 0;
  std::uint64_t count_ = 0;
};

inline constexpr std::uint64_t kEntriesOfCommit = 5000;

// Of all steps but the first, which reads and sorts the objects.
inline CommitTimes BuildIndexTimed(std::uint64_t context, std::uint64_t index) {
  CommitTimes times;
  CommitTimes unused;
  lscoredb_index_build build{};
  build.size = sizeof build;
  auto const step = [&] { return lscoredb_build_index(context, index, kEntriesOfCommit, &build); };
  unused.Measure(step);
  while (build.state != LSCOREDB_INDEX_READY) times.Measure(step);
  return times;
}

inline CommitTimes AbandonIndexTimed(std::uint64_t context, std::uint64_t index) {
  CommitTimes times;
  lscoredb_index_build build{};
  build.size = sizeof build;
  do {
    times.Measure(
        [&] { return lscoredb_abandon_index_step(context, index, kEntriesOfCommit, &build); });
  } while (build.state != LSCOREDB_INDEX_REMOVED);
  return times;
}

}  // namespace bench

#endif
