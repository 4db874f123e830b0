#include "store_check.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "bytes.h"
#include "format.h"
#include "library_call.h"
#include "open_error.h"
#include "store_errors.h"

namespace lscore {
namespace {

bool IsSameFile(struct stat const& a, struct stat const& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::uintptr_t AddressOf(void const* data) { return reinterpret_cast<std::uintptr_t>(data); }

std::uint64_t SizeOf(pages::Header const& header) {
  return (header.last_page + 1) * header.page_size;
}

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

// The neighbours' descriptors may be anybody's, who may close them meanwhile. Asked by fstat, that
// is a race to the thread sanitizer.
bool StatusOf(int file, struct stat& status) {
  return fstatat(file, "", &status, AT_EMPTY_PATH) == 0;
}

// The library tells only one of them. It opens the lock file before that one, or after it when it
// only reads, and the other one, which alone syncs by itself, right after it.
std::vector<int> FilesOf(MDB_env* env, int lock_file) {
  constexpr int kNear = 64;
  int const data = FileOf(env);
  std::vector<int> files{data};
  struct stat lock {};
  struct stat own {};
  struct stat status {};
  if (fstat(lock_file, &lock) != 0 || fstat(data, &own) != 0) return files;
  int file = data - 1;
  auto const is_lock = [&] {
    return file != lock_file && StatusOf(file, status) && IsSameFile(status, lock);
  };
  while (file >= 0 && !is_lock()) --file;
  if (file >= 0) files.push_back(file);
  bool const found = file >= 0;
  for (file = data + 1; file < data + kNear; ++file) {
    if (!found && is_lock()) files.push_back(file);
    if (!StatusOf(file, status) || !IsSameFile(status, own)) continue;
    if ((fcntl(file, F_GETFL) & O_DSYNC) == 0) continue;
    files.push_back(file);
    break;
  }
  return files;
}

void CheckDataFile(char const* directory, bool others_write) {
  std::string const path = std::string(directory) + "/data.mdb";
  int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) ThrowCannotOpen(path, errno);
  try {
    CheckFileHeader(file, others_write);
  } catch (...) {
    close(file);
    throw;
  }
  close(file);
}

void CheckPages(int file, pages::Header const& header, PageDepth depth) {
  WalkPages(file, header, depth, ThrowDamaged);
}

// A file may end early and be sound: pages at its end that nobody uses need not have been written.
// So its pages are walked.
bool CheckReadLength(int file, pages::Header const& header) {
  struct stat status {};
  if (fstat(file, &status) != 0) Throw(LSCOREDB_IO_ERROR);
  if (static_cast<std::uint64_t>(status.st_size) >= SizeOf(header)) return true;
  CheckPages(file, header, PageDepth::kAll);
  return false;
}

// A file that is made longer reads as zeros there.
void CheckLength(int file, pages::Header const& header) {
  if (CheckReadLength(file, header)) return;
  if (posix_fallocate(file, static_cast<off_t>(SizeOf(header)) - 1, 1) != 0) {
    Throw(LSCOREDB_DISK_FULL);
  }
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

std::uintptr_t MapBegin(MDB_env* env, MDB_txn* txn, unsigned tree) {
  MDB_val key{format::kFormatKey.size(), const_cast<char*>(format::kFormatKey.data())};
  MDB_val value;
  CheckStore(CallLibrary([&] { return mdb_get(txn, tree, &key, &value); }));
  std::size_t const page_size = PageSize(env);
  std::uintptr_t const page = AddressOf(value.mv_data) / page_size * page_size;
  auto const number = Load<std::uint64_t>(reinterpret_cast<char const*>(page));
  MDB_envinfo info{};
  CheckStore(mdb_env_info(env, &info));
  if (number > info.me_last_pgno || number * page_size > page) return 0;
  return page - number * page_size;
}

}  // namespace lscore
