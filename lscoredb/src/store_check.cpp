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
#include "store_errors.h"

namespace lscore {
namespace {

struct AbortTransaction {
  void operator()(MDB_txn* txn) const { mdb_txn_abort(txn); }
};
using ReadTransaction = std::unique_ptr<MDB_txn, AbortTransaction>;

struct CloseCursor {
  void operator()(MDB_cursor* cursor) const { mdb_cursor_close(cursor); }
};

ReadTransaction BeginReading(MDB_env* env) {
  MDB_txn* txn = nullptr;
  CheckStore(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn));
  return ReadTransaction(txn);
}

std::uintptr_t AddressOf(void const* data) { return reinterpret_cast<std::uintptr_t>(data); }

// Walks a tree, and the trees that its values name, and looks where its bytes lie.
class LengthWalk {
 public:
  LengthWalk(MDB_txn* txn, std::size_t page_size, std::uint64_t size)
      : txn_(txn), page_size_(page_size), size_(size) {}

  void Walk(MDB_dbi tree) {
    MDB_cursor* opened = nullptr;
    CheckStore(mdb_cursor_open(txn_, tree, &opened));
    std::unique_ptr<MDB_cursor, CloseCursor> const cursor(opened);
    MDB_val key;
    MDB_val value;
    int code = mdb_cursor_get(opened, &key, &value, MDB_FIRST);
    for (; code == 0; code = mdb_cursor_get(opened, &key, &value, MDB_NEXT)) {
      CheckValue(key, value);
    }
    if (code != MDB_NOTFOUND) Throw(LSCOREDB_DAMAGED);
  }

 private:
  // A value behind the end of its key's page lies on pages of its own, which say their number.
  void CheckValue(MDB_val const& key, MDB_val const& value) const {
    std::uintptr_t const page = AddressOf(key.mv_data) / page_size_ * page_size_;
    auto const number = Load<std::uint64_t>(reinterpret_cast<char const*>(page));
    std::uintptr_t const begin = page - number * page_size_;
    std::uintptr_t const at = AddressOf(value.mv_data);
    if (at < begin || at - begin > size_ || value.mv_size > size_ - (at - begin)) {
      Throw(LSCOREDB_DAMAGED);
    }
  }

  MDB_txn* txn_;
  std::size_t page_size_;
  std::uint64_t size_;
};

void WalkAll(MDB_env* env, std::uint64_t size) {
  ReadTransaction const txn = BeginReading(env);
  LengthWalk walk(txn.get(), PageSize(env), size);
  walk.Walk(0);  // the store's own tree of free pages
  MDB_dbi names = 0;
  CheckStore(mdb_dbi_open(txn.get(), nullptr, 0, &names));
  walk.Walk(names);
  for (char const* const name : {"rows", "parts", "index", "definitions", "meta"}) {
    MDB_dbi tree = 0;
    int const code = mdb_dbi_open(txn.get(), name, 0, &tree);
    if (code == 0) walk.Walk(tree);
    if (code != 0 && code != MDB_NOTFOUND) Throw(LSCOREDB_DAMAGED);
  }
}

}  // namespace

std::size_t PageSize(MDB_env* env) {
  MDB_stat stat{};
  CheckStore(mdb_env_stat(env, &stat));
  return stat.ms_psize;
}

// A file may end early and be sound: pages at its end that nobody uses need not have been written.
// So it is made longer, where it reads as zeros, and then walked.
void CheckLength(MDB_env* env) {
  MDB_envinfo info{};
  int file = -1;
  struct stat status {};
  CheckStore(mdb_env_info(env, &info));
  CheckStore(mdb_env_get_fd(env, &file));
  std::uint64_t const size = (info.me_last_pgno + 1) * PageSize(env);
  if (fstat(file, &status) != 0) Throw(LSCOREDB_IO_ERROR);
  auto const found = static_cast<std::uint64_t>(status.st_size);
  if (found >= size) return;
  if (posix_fallocate(file, static_cast<off_t>(size) - 1, 1) != 0) Throw(LSCOREDB_DISK_FULL);
  try {
    WalkAll(env, found);
  } catch (...) {
    if (ftruncate(file, status.st_size) != 0) Throw(LSCOREDB_IO_ERROR);
    throw;
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

std::uintptr_t FindMap(MDB_env* env, unsigned tree) {
  ReadTransaction const txn = BeginReading(env);
  MDB_val key{format::kFormatKey.size(), const_cast<char*>(format::kFormatKey.data())};
  MDB_val value;
  CheckStore(mdb_get(txn.get(), tree, &key, &value));
  std::size_t const page_size = PageSize(env);
  std::uintptr_t const page = AddressOf(value.mv_data) / page_size * page_size;
  auto const number = Load<std::uint64_t>(reinterpret_cast<char const*>(page));
  MDB_envinfo info{};
  CheckStore(mdb_env_info(env, &info));
  if (number > info.me_last_pgno || number * page_size > page) return 0;
  return page - number * page_size;
}

}  // namespace lscore
