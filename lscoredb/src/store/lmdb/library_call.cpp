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

// Where the innermost call of this thread is left to.
[[gnu::tls_model("initial-exec")]] thread_local std::jmp_buf* landing = nullptr;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// The inode of the lock file, 0 when there is none any more.
std::uint64_t LockFileOf(MDB_env* env) {
  char const* directory = nullptr;
  char path[4096];
  struct stat status {};
  if (mdb_env_get_path(env, &directory) != 0) return 0;
  if (std::snprintf(path, sizeof path, "%s/lock.mdb", directory) >= int{sizeof path}) return 0;
  return stat(path, &status) == 0 ? status.st_ino : 0;
}

// Where the lock file lies in memory, null when it does not.
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

// A mutex that is held begins with the thread that holds it, which stands there twice.
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
