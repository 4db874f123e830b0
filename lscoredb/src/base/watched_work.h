#ifndef LSCOREDB_SRC_WATCHED_WORK_H
#define LSCOREDB_SRC_WATCHED_WORK_H

// Long work that the thread's watch observes and may stop: see lscoredb/watch.h. Without a watch, a
// step costs an addition and a comparison.

#include <lscoredb/watch.h>

#include <cstdint>

namespace lscore {

struct Watch {
  lscoredb_watch_callback callback = nullptr;
  void* user = nullptr;
  std::uint64_t done = 0;  // what it was told last in this call
  std::uint64_t total = 0;
  unsigned holds = 0;  // see WatchHold
};
// The calling thread's.
Watch& ThreadWatch() noexcept;

// Asks the watch of a thread that waits for a server. Returns whether the wait is to end.
bool WatchStopsWait() noexcept;

// Where a part of the work begins and ends, in thousandths of the whole.
struct WorkShare {
  std::uint64_t begin = 0;
  std::uint64_t end = 1000;
};

// While one lives, the thread's watch sees the work of whole calls as a part of this one: from
// `begin` to `end` thousandths of it.
class WatchedPart {
 public:
  explicit WatchedPart(WorkShare share);
  ~WatchedPart();
  WatchedPart(WatchedPart const&) = delete;
  WatchedPart& operator=(WatchedPart const&) = delete;

 private:
  static std::uint32_t Report(void* self, std::uint64_t done, std::uint64_t total);

  WorkShare const share_;
  lscoredb_watch_callback const callback_;
  void* const user_;
};

// While one lives, the thread's waits for a server do not ask its watch: others depend on the work,
// or it undoes what was stopped.
class WatchHold {
 public:
  WatchHold() { ++ThreadWatch().holds; }
  ~WatchHold() { --ThreadWatch().holds; }
  WatchHold(WatchHold const&) = delete;
  WatchHold& operator=(WatchHold const&) = delete;
};

// A call of the library that reports progress. What the watch is told begins anew with each.
class WatchedCall {
 public:
  WatchedCall() = default;
  ~WatchedCall() { ThreadWatch().done = ThreadWatch().total = 0; }
  WatchedCall(WatchedCall const&) = delete;
  WatchedCall& operator=(WatchedCall const&) = delete;
};

// Of a check, which begins with the pages of the file.
inline constexpr WorkShare kPageShare{0, 200};

class WatchedWork {
 public:
  // Work of unknown length: reports the steps themselves.
  WatchedWork() = default;
  // A part of the work, with about so many steps.
  WatchedWork(WorkShare share, std::uint64_t steps)
      : share_(share), steps_(steps), is_share_(true) {}

  // All throw LSCOREDB_STOPPED when the watch says so.
  void Advance(std::uint64_t steps = 1) { AdvanceTo(done_ + steps); }
  // REQUIRES: `done` is not below what it was before.
  void AdvanceTo(std::uint64_t done) {
    done_ = done;
    if (done_ >= report_at_) [[unlikely]]
      Report();
  }
  // A step that brings the work no further as it is counted.
  void Linger() {
    if (++lingered_ % kStepsBetween == 0) [[unlikely]]
      Report();
  }

 private:
  // A watch that reads a clock costs less than so many steps.
  static constexpr std::uint64_t kStepsBetween = 256;

  void Report();
  std::uint64_t DoneOfShare() const;

  WorkShare share_;
  std::uint64_t steps_ = 0;
  bool is_share_ = false;
  std::uint64_t done_ = 0;
  std::uint64_t report_at_ = 1;
  std::uint64_t lingered_ = 0;
};

}  // namespace lscore

#endif
