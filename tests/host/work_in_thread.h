#ifndef SAGLEME_TESTS_HOST_WORK_IN_THREAD_H
#define SAGLEME_TESTS_HOST_WORK_IN_THREAD_H

// Work in a thread of its own, for tests that look at it while it goes on.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <sagleme/host.hpp>
#include <string>
#include <thread>

namespace sagleme_test {

// A test that gives up while the work goes on ends the process: nobody could wait for it.
class WorkInThread {
 public:
  explicit WorkInThread(std::function<void()> work)
      : thread_([this, its = std::move(work)] { Run(its); }) {}
  ~WorkInThread() {
    if (ended_ && thread_.joinable()) thread_.join();
  }
  WorkInThread(WorkInThread const&) = delete;
  WorkInThread& operator=(WorkInThread const&) = delete;

  // Waits until `there` returns true. False, and a failure of the test, if the work ends before.
  template <typename There>
  bool Until(There const& there) {
    for (bool ended = false; !there(); ended = ended_) {
      if (!ended) {
        std::this_thread::yield();
        continue;
      }
      ADD_FAILURE() << "the work ended before: " << (reason_.empty() ? "it is done" : reason_);
      return false;
    }
    return true;
  }
  // Waits for the end. The status of the error that the work threw; 0 if it threw none.
  std::uint32_t Status() {
    thread_.join();
    return status_;
  }

 private:
  void Run(std::function<void()> const& work) {
    try {
      work();
    } catch (sagleme::Error const& error) {
      status_ = error.status();
      reason_ = error.what();
    } catch (std::exception const& failure) {
      status_ = UINT32_MAX;
      reason_ = failure.what();
    }
    ended_ = true;
  }

  std::uint32_t status_ = 0;
  std::string reason_;
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

}  // namespace sagleme_test

#endif
