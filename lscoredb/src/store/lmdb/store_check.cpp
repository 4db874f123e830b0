#include "store_check.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "bytes.h"
#include "format.h"
#include "library_call.h"
#include "store_errors.h"

namespace lscore {
namespace {

struct AbortTransaction {
  void operator()(MDB_txn* txn) const { mdb_txn_abort(txn); }
};
using ReadTransaction = std::unique_ptr<MDB_txn, AbortTransaction>;

ReadTransaction BeginReading(MDB_env* env) {
  MDB_txn* txn = nullptr;
  CheckStore(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn));
  return ReadTransaction(txn);
}

bool IsSameFile(struct stat const& a, struct stat const& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::uintptr_t AddressOf(void const* data) { return reinterpret_cast<std::uintptr_t>(data); }

[[noreturn]] void ThrowDamaged(PageFault const&) { Throw(LSCOREDB_DAMAGED); }

}  // namespace

std::size_t PageSize(MDB_env* env) {
  MDB_stat stat{};
  CheckStore(mdb_env_stat(env, &stat));
  return stat.ms_psize;
}

int FileOf(MDB_env* env) {
  int file = -1;
  CheckStore(mdb_env_get_fd(env, &file));
  return file;
}

// The library tells only one of them. It opens the lock file before that one, and the other one,
// which alone syncs by itself, right after it.
std::vector<int> FilesOf(MDB_env* env) {
  constexpr int kNear = 64;
  int const data = FileOf(env);
  std::vector<int> files{data};
  char const* directory = nullptr;
  struct stat lock {};
  struct stat status {};
  CheckStore(mdb_env_get_path(env, &directory));
  if (stat((std::string(directory) + "/lock.mdb").c_str(), &lock) == 0) {
    int file = data - 1;
    while (file >= 0 && (fstat(file, &status) != 0 || !IsSameFile(status, lock))) --file;
    if (file >= 0) files.push_back(file);
  }
  struct stat own {};
  if (fstat(data, &own) != 0) return files;
  for (int file = data + 1; file < data + kNear; ++file) {
    if (fstat(file, &status) != 0 || !IsSameFile(status, own)) continue;
    if ((fcntl(file, F_GETFL) & O_DSYNC) == 0) continue;
    files.push_back(file);
    break;
  }
  return files;
}

void CheckDataFile(char const* directory) {
  std::string const path = std::string(directory) + "/data.mdb";
  int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) return;  // the library says why, if the file is there
  try {
    CheckFileHeader(file);
  } catch (...) {
    close(file);
    throw;
  }
  close(file);
}

// A state that the file's head does not show was overtaken by two commits, and the next one is
// newer; or the file is not the one that the processes know which have it open.
void CheckPages(MDB_env* env, PageDepth depth) {
  std::uint64_t last = 0;
  for (int same = 0; same < kWalkAttempts;) {
    ReadTransaction const txn = BeginReading(env);
    std::uint64_t const state = mdb_txn_id(txn.get());
    if (WalkPages(FileOf(env), state, depth, ThrowDamaged)) return;
    same = state == last ? same + 1 : 0;
    last = state;
  }
  Throw(LSCOREDB_DAMAGED);
}

// A file may end early and be sound: pages at its end that nobody uses need not have been written.
// So its pages are walked, and then it is made longer, where it reads as zeros.
void CheckLength(MDB_env* env) {
  MDB_envinfo info{};
  int const file = FileOf(env);
  struct stat status {};
  CheckStore(mdb_env_info(env, &info));
  std::uint64_t const size = (info.me_last_pgno + 1) * PageSize(env);
  if (fstat(file, &status) != 0) Throw(LSCOREDB_IO_ERROR);
  if (static_cast<std::uint64_t>(status.st_size) >= size) return;
  CheckPages(env, PageDepth::kAll);
  if (posix_fallocate(file, static_cast<off_t>(size) - 1, 1) != 0) Throw(LSCOREDB_DISK_FULL);
}

bool IsDiskFull(MDB_env* env) {
  int file = -1;
  struct stat status {};
  struct rlimit limit {};
  struct statvfs disk {};
  CheckStore(mdb_env_get_fd(env, &file));
  if (fstat(file, &status) != 0 || getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
  auto const size = static_cast<rlim_t>(status.st_size);
  if (limit.rlim_cur != RLIM_INFINITY && size + PageSize(env) > limit.rlim_cur) return true;
  return fstatvfs(file, &disk) == 0 && disk.f_bavail * disk.f_frsize < PageSize(env);
}

std::uintptr_t FindMap(MDB_env* env, unsigned tree) {
  ReadTransaction const txn = BeginReading(env);
  MDB_val key{format::kFormatKey.size(), const_cast<char*>(format::kFormatKey.data())};
  MDB_val value;
  CheckStore(CallLibrary([&] { return mdb_get(txn.get(), tree, &key, &value); }));
  std::size_t const page_size = PageSize(env);
  std::uintptr_t const page = AddressOf(value.mv_data) / page_size * page_size;
  auto const number = Load<std::uint64_t>(reinterpret_cast<char const*>(page));
  MDB_envinfo info{};
  CheckStore(mdb_env_info(env, &info));
  if (number > info.me_last_pgno || number * page_size > page) return 0;
  return page - number * page_size;
}

}  // namespace lscore
