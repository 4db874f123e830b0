// The functions stand before those of the system that they are named after, for this executable and
// for the libraries in it.

#include "file_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace lscoredb_test {
namespace {

int until_killed = 0;
int until_full = 0;
bool full = false;

// Returns whether the call fails for want of room.
bool Step(bool needs_room) {
  if (until_killed > 0 && --until_killed == 0) raise(SIGKILL);
  if (until_full > 0 && --until_full == 0) full = true;
  if (!full || !needs_room) return false;
  errno = ENOSPC;
  return true;
}

template <typename Function>
Function* Original(char const* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void KillAtFileCall(int call) { until_killed = call; }

void FillDiskAtFileCall(int call) {
  until_full = call;
  full = false;
}

bool DiskWasFull() { return full; }

}  // namespace lscoredb_test

using lscoredb_test::Original;
using lscoredb_test::Step;

extern "C" {

[[gnu::visibility("default")]] ssize_t pwrite(int file, void const* from, size_t size, off_t at) {
  static auto* const original = Original<ssize_t(int, void const*, size_t, off_t)>("pwrite");
  return Step(true) ? -1 : original(file, from, size, at);
}

[[gnu::visibility("default")]] ssize_t pwritev(int file, iovec const* pieces, int count, off_t at) {
  static auto* const original = Original<ssize_t(int, iovec const*, int, off_t)>("pwritev");
  return Step(true) ? -1 : original(file, pieces, count, at);
}

[[gnu::visibility("default")]] int fdatasync(int file) {
  static auto* const original = Original<int(int)>("fdatasync");
  Step(false);
  return original(file);
}

[[gnu::visibility("default")]] int fsync(int file) {
  static auto* const original = Original<int(int)>("fsync");
  Step(false);
  return original(file);
}

[[gnu::visibility("default")]] int rename(char const* from, char const* to) noexcept {
  static auto* const original = Original<int(char const*, char const*)>("rename");
  return Step(true) ? -1 : original(from, to);
}

[[gnu::visibility("default")]] int unlink(char const* path) noexcept {
  static auto* const original = Original<int(char const*)>("unlink");
  Step(false);
  return original(path);
}

[[gnu::visibility("default")]] int mkdir(char const* path, mode_t mode) noexcept {
  static auto* const original = Original<int(char const*, mode_t)>("mkdir");
  return Step(true) ? -1 : original(path, mode);
}

}  // extern "C"
