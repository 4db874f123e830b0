#include "fork.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <vector>

#include "status.h"

namespace lscore {
namespace {

std::atomic<std::uint64_t> process_number{1};

struct Files {
  std::mutex mutex;
  std::vector<int> open;
};

Files& TheFiles() {
  static auto* const files = new Files;  // a fork may come at any time
  return *files;
}

void LockFiles() { TheFiles().mutex.lock(); }
void UnlockFiles() { TheFiles().mutex.unlock(); }

void CloseFiles() {
  for (int const file : TheFiles().open) close(file);
  TheFiles().open.clear();
  TheFiles().mutex.unlock();
  ++process_number;
}

void Register(void (*before)(), void (*in_parent)(), void (*in_child)()) {
  if (pthread_atfork(before, in_parent, in_child) != 0) throw std::bad_alloc();
}

}  // namespace

std::uint64_t ProcessNumber() noexcept { return process_number.load(std::memory_order_relaxed); }

void InEveryChild(void (*forget)()) { Register(nullptr, nullptr, forget); }

void KeepFromChildren(int file) {
  static bool const registered = (Register(LockFiles, UnlockFiles, CloseFiles), true);
  static_cast<void>(registered);
  std::lock_guard const lock(TheFiles().mutex);
  TheFiles().open.push_back(file);
}

void ForgetFile(int file) noexcept {
  std::lock_guard const lock(TheFiles().mutex);
  std::erase(TheFiles().open, file);
}

}  // namespace lscore
