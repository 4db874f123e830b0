#include "late_sync.h"

#include <signal.h>

#include <algorithm>
#include <system_error>

namespace lscore {
namespace {

// A sync that failed is not repeated sooner: the disk may be gone for long.
constexpr LateSync::Delay kShortestRetry{100};

// Signals belong to the host's threads. A new thread inherits the mask.
class NoSignals {
 public:
  NoSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~NoSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  NoSignals(NoSignals const&) = delete;
  NoSignals& operator=(NoSignals const&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

void LateSync::Start(Delay delay) {
  std::lock_guard const lock(mutex_);
  delay_ = running_ ? std::min(delay_, delay) : delay;
  if (waiting_) due_ = std::min(due_, Clock::now() + delay_);
  wake_.notify_one();
  if (running_) return;
  NoSignals const none;
  try {
    thread_ = std::thread([this] { Run(); });
  } catch (std::system_error const&) {
    Throw(LSCOREDB_NO_MEMORY);
  }
  running_ = true;
}

void LateSync::Stop() noexcept {
  if (!thread_.joinable()) return;
  {
    std::lock_guard const lock(mutex_);
    stop_ = true;
  }
  wake_.notify_one();
  thread_.join();
  running_ = false;
}

void LateSync::Note() {
  if (!running_ || noted_.exchange(true)) return;
  std::lock_guard const lock(mutex_);
  Await(Clock::now() + delay_);
}

// REQUIRES: the mutex is held.
void LateSync::Await(Clock::time_point due) {
  due_ = waiting_ ? std::min(due_, due) : due;
  waiting_ = true;
  wake_.notify_one();
}

// Waits until a commit is due. Returns false at the end.
bool LateSync::AwaitDue(std::unique_lock<std::mutex>& lock) {
  while (!stop_ && !(waiting_ && Clock::now() >= due_)) {
    if (waiting_) {
      Clock::time_point const until = due_;
      wake_.wait_until(lock, until);
    } else {
      wake_.wait(lock);
    }
  }
  return !stop_;
}

// A commit that is published while a sync runs may be missed by it, so it is noted anew.
void LateSync::Run() {
  std::unique_lock lock(mutex_);
  while (AwaitDue(lock)) {
    waiting_ = false;
    noted_ = false;
    lock.unlock();
    Status const status = sync_();
    lock.lock();
    if (status != LORV_STATUS_OK) Await(Clock::now() + std::max(delay_, kShortestRetry));
  }
}

}  // namespace lscore
