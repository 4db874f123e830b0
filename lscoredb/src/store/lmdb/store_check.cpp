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

// Neighbouring descriptors may belong to other threads, which may close them meanwhile. The thread
// sanitizer would report that as a race of fstat, so the system is called directly.
bool StatusOf(int file, struct stat& status) {
  return fstatat(file, "", &status, AT_EMPTY_PATH) == 0;
}

// The library returns only one of its descriptors. It opens the lock file before that one, or after
// it when it only reads, and right after it a second descriptor of the data file, the only one with
// O_DSYNC.
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
  ScanPages(file, header, depth, ThrowDamaged);
}

// A shorter file may be sound: unused pages at its end need not have been written. So the pages in
// use are scanned.
bool CheckReadLength(int file, pages::Header const& header) {
  struct stat status {};
  if (fstat(file, &status) != 0) Throw(LSCOREDB_IO_ERROR);
  if (static_cast<std::uint64_t>(status.st_size) >= SizeOf(header)) return true;
  CheckPages(file, header, PageDepth::kAll);
  return false;
}

// A file that is too short is extended, so that access to the map beyond its end reads zeros.
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

// The address of the map is not public. But the library returns the name of the first tree as an
// address on the root page of the tree of trees, whose number the header has.
char const* MapBegin(MDB_txn* txn, pages::Header const& header) {
  MDB_dbi main = 0;
  MDB_cursor* cursor = nullptr;
  MDB_val name{};
  MDB_val record{};
  CheckStore(CallLibrary([&] { return mdb_dbi_open(txn, nullptr, 0, &main); }));
  CheckStore(mdb_cursor_open(txn, main, &cursor));
  std::unique_ptr<MDB_cursor, void (*)(MDB_cursor*)> const open(cursor, mdb_cursor_close);
  CheckStore(CallLibrary([&] { return mdb_cursor_get(cursor, &name, &record, MDB_FIRST); }));
  auto const* const key = static_cast<char const*>(name.mv_data);
  std::uintptr_t const into_page = AddressOf(key) % header.page_size;
  char const* const page = key - into_page;
  if (Load<std::uint64_t>(page) != header.trees.root) Throw(LSCOREDB_DAMAGED);
  return page - header.trees.root * header.page_size;
}

}  // namespace lscore
