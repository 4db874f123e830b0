#ifndef LSCOREDB_SRC_LATE_SYNC_H
#define LSCOREDB_SRC_LATE_SYNC_H

// The thread that syncs commits which returned before they were on disk. It sleeps until a commit
// has waited for as long as a commit may, and then syncs once for all commits of that time. A sync
// that failed is repeated.
//
// Any thread. The kernel starts this thread only for databases that are opened with a delay.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "status.h"

namespace lscore {

class LateSync {
 public:
  using Delay = std::chrono::milliseconds;
  using Work = std::function<Status()>;

  // `sync`: syncs every commit that was published before it is called.
  explicit LateSync(Work sync) : sync_(std::move(sync)) {}
  ~LateSync() { Stop(); }
  LateSync(LateSync const&) = delete;
  LateSync& operator=(LateSync const&) = delete;

  // Starts the thread, or shortens the delay of the one that runs. Throws LSCOREDB_NO_MEMORY when
  // the system has no thread left.
  void Start(Delay delay);
  // Waits for the thread's end. Commits that were noted may be left unsynced.
  void Stop() noexcept;
  bool running() const { return running_; }

  // A commit was published without a sync. Free while an earlier one is waiting.
  void Note();

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  bool AwaitDue(std::unique_lock<std::mutex>& lock);
  void Await(Clock::time_point due);

  Work const sync_;
  std::atomic<bool> running_{false};
  std::atomic<bool> noted_{false};  // a commit is waiting, or will be in a moment
  std::mutex mutex_;
  std::condition_variable wake_;
  Delay delay_{0};
  bool waiting_ = false;  // `due_` is set
  Clock::time_point due_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace lscore

#endif
