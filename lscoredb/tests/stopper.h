#ifndef LSCOREDB_TESTS_STOPPER_H
#define LSCOREDB_TESTS_STOPPER_H

// Waits for a server that is silent, and are stopped.

#include <lscoredb/watch.h>

#include <atomic>
#include <thread>

#include "postgres_proxy_test.h"

namespace lscoredb_test {

// A watch of the calling thread that another thread can tell to stop.
class Stopper {
 public:
  Stopper() { lscoredb_watch(&Stopper::Ask, this); }
  ~Stopper() { lscoredb_watch(nullptr, nullptr); }
  Stopper(Stopper const&) = delete;
  Stopper& operator=(Stopper const&) = delete;

  int asked() const { return asked_; }
  void Stop() { stop_ = true; }

 private:
  static std::uint32_t Ask(void* self, std::uint64_t, std::uint64_t) {
    auto& stopper = *static_cast<Stopper*>(self);
    ++stopper.asked_;
    return stopper.stop_ ? 1 : 0;
  }

  std::atomic<int> asked_{0};
  std::atomic<bool> stop_{false};
};

class StoppedWaitsTest : public PostgresProxyTest {
 protected:
  // The status of `work` when another thread stops it, while the server is silent.
  template <typename Work>
  std::uint32_t Stopped(Work&& work) {
    Stopper stopper;
    proxy_.Freeze();
    std::thread other([&] {
      while (stopper.asked() < 2) std::this_thread::yield();
      stopper.Stop();
    });
    std::uint32_t const status = work();
    other.join();
    proxy_.Thaw();
    return status;
  }
};

}  // namespace lscoredb_test

#endif
