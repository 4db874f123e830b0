#include "library_call.h"

#include <lmdb.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "bytes.h"

namespace lscore {
namespace {

// Where a broken page leaves the innermost call of this thread.
[[gnu::tls_model("initial-exec")]] thread_local std::jmp_buf* landing = nullptr;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// The inode of the lock file; 0 if the file is gone.
std::uint64_t LockFileOf(MDB_env* env) {
  char const* directory = nullptr;
  char path[4096];
  struct stat status {};
  if (mdb_env_get_path(env, &directory) != 0) return 0;
  if (std::snprintf(path, sizeof path, "%s/lock.mdb", directory) >= int{sizeof path}) return 0;
  return stat(path, &status) == 0 ? status.st_ino : 0;
}

// The address of the mapped lock file; null if it is not mapped.
char* FindLockFile(MDB_env* env) {
  constexpr char kName[] = "/lock.mdb";
  std::uint64_t const wanted = LockFileOf(env);
  std::unique_ptr<std::FILE, CloseFile> const maps(std::fopen("/proc/self/maps", "re"));
  char line[4352];
  while (wanted != 0 && maps != nullptr && std::fgets(line, sizeof line, maps.get()) != nullptr) {
    std::uint64_t begin = 0;
    std::uint64_t inode = 0;
    if (std::sscanf(line, "%" SCNx64 "-%*x %*s %*x %*s %" SCNu64, &begin, &inode) != 2) continue;
    if (inode == wanted && std::strstr(line, kName) != nullptr) {
      return reinterpret_cast<char*>(begin);
    }
  }
  return nullptr;
}

// A mutex of the C library holds its owner's thread id in two words while it is locked.
bool IsHeldHere(char const* mutex) {
  constexpr std::uint32_t kThreadMask = 0x3FFFFFFF;
  auto const thread = static_cast<std::uint32_t>(gettid());
  return (Load<std::uint32_t>(mutex) & kThreadMask) == thread &&
         Load<std::uint32_t>(mutex + 8) == thread;
}

}  // namespace

void OnBrokenPage(MDB_env*, char const*) {
  if (landing != nullptr) std::longjmp(*landing, 1);
}

[[gnu::noinline]] int CallLibrary(int (*call)(void const*), void const* argument) {
  std::jmp_buf here;
  std::jmp_buf* const outer = landing;
  if (setjmp(here) != 0) {
    landing = outer;
    return kBrokenPage;
  }
  landing = &here;
  int const code = call(argument);
  landing = outer;
  return code;
}

// A call that was left by a jump keeps the library's write lock, a process-shared mutex at the head
// of the mapped lock file, and the library has no function to release it. So it is searched for
// there by its owner, this thread, and unlocked.
bool ReleaseWriteLock(MDB_env* env) noexcept {
  constexpr std::size_t kHeadOfLockFile = 256;  // both of the library's mutexes lie in it
  char* const file = FindLockFile(env);
  if (file == nullptr) return false;
  for (std::size_t at = 8; at + sizeof(pthread_mutex_t) <= kHeadOfLockFile; at += 8) {
    if (!IsHeldHere(file + at)) continue;
    return pthread_mutex_unlock(reinterpret_cast<pthread_mutex_t*>(file + at)) == 0;
  }
  return false;
}

}  // namespace lscore
