#include "fork.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
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

// Never destroyed, since a fork may come at any time.
Files& files = *new Files;

void LockFiles() { files.mutex.lock(); }
void UnlockFiles() { files.mutex.unlock(); }

void CloseFiles() {
  for (int const file : files.open) close(file);
  files.open.clear();
  files.mutex.unlock();
  ++process_number;
}

AtFork const close_files(LockFiles, UnlockFiles, CloseFiles);

}  // namespace

AtFork::AtFork(void (*before)(), void (*in_parent)(), void (*in_child)()) {
  if (pthread_atfork(before, in_parent, in_child) != 0) throw std::bad_alloc();
}

std::uint64_t ProcessNumber() noexcept { return process_number.load(std::memory_order_relaxed); }

void KeepFromChildren(int file) {
  std::lock_guard const lock(files.mutex);
  files.open.push_back(file);
}

void ForgetFile(int file) noexcept {
  std::lock_guard const lock(files.mutex);
  std::erase(files.open, file);
}

int OpenKept(char const* path, int flags, unsigned mode) noexcept {
  std::lock_guard const lock(files.mutex);
  int const file = open(path, flags | O_CLOEXEC, mode);
  if (file < 0) return file;
  try {
    files.open.push_back(file);
  } catch (std::bad_alloc const&) {
    close(file);
    errno = ENOMEM;
    return -1;
  }
  return file;
}

void CloseKept(int file) noexcept {
  std::lock_guard const lock(files.mutex);
  std::erase(files.open, file);
  close(file);
}

}  // namespace lscore
