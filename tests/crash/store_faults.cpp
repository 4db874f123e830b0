#include "crash/store_faults.h"

#include <dlfcn.h>
#include <lmdb.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>

#include "crash/volatile_disk.h"

namespace store_faults {
namespace {

struct State {
  std::recursive_mutex mutex;
  bool armed = false;
  Point point{};
  int until_first = 0;
  int times = 0;
  int acted = 0;
  Action action;
  int syncs = 0;
  std::vector<std::string> directories;
  // Of the batch that is being made.
  bool changed = false;
  bool changed_rows = false;
  bool changed_indexes = false;
  // The store's numbers of the trees.
  MDB_dbi rows = 0;
  MDB_dbi indexes = 0;
};

// Asks for no memory: where it fails is for the tests to say.
State& TheState() {
  static State state;
  return state;
}

// The function of that name behind this executable.
template <typename Function>
Function* Behind(char const* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function*>(found);
}

// What is to become of the operation.
int Pass(Point point) {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  if (!state.armed || state.point != point) return 0;
  if (--state.until_first > 0) return 0;
  if (state.times == 0) return 0;
  if (state.times > 0) --state.times;
  ++state.acted;
  return state.action();
}

int PassChange(MDB_dbi tree) {
  State& state = TheState();
  bool first = false;
  bool between = false;
  {
    std::lock_guard const lock(state.mutex);
    bool const of_index = tree == state.indexes;
    first = !state.changed;
    between = of_index && state.changed_rows && !state.changed_indexes;
    state.changed = true;
    state.changed_rows = state.changed_rows || tree == state.rows;
    state.changed_indexes = state.changed_indexes || of_index;
  }
  int code = first ? Pass(Point::kBeforeApply) : 0;
  if (code == 0 && between) code = Pass(Point::kBetweenRowsAndIndexes);
  return code;
}

using Path = std::array<char, 4096>;

std::string_view PathOf(int file, Path& target) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", file);
  ssize_t const size = readlink(link, target.data(), target.size());
  return {target.data(), size < 0 ? 0 : static_cast<std::size_t>(size)};
}

bool IsDataFile(int file) {
  Path path;
  return PathOf(file, path).ends_with("/data.mdb");
}

// Pages are written whole, the root is less than one.
bool IsRoot(std::size_t size) { return size < 512; }

void NoteWriting(int file, void const* data, std::size_t size, off_t at) {
  std::lock_guard const lock(TheState().mutex);
  volatile_disk::Writing(file, data, size, at);
}

ssize_t Fail(int code) {
  errno = code;
  return -1;
}

}  // namespace

void Arm(Point point, int nth, Action action, int times) {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  state.armed = true;
  state.point = point;
  state.until_first = nth;
  state.action = std::move(action);
  state.times = times;
  state.acted = 0;
}

void Disarm() {
  State& state = TheState();
  std::lock_guard const lock(state.mutex);
  state.armed = false;
  state.acted = 0;
}

int Acted() {
  std::lock_guard const lock(TheState().mutex);
  return TheState().acted;
}

int Kill() {
  raise(SIGKILL);
  return 0;
}

int Syncs() {
  std::lock_guard const lock(TheState().mutex);
  return TheState().syncs;
}

std::vector<std::string> SyncedDirectories() {
  std::lock_guard const lock(TheState().mutex);
  return TheState().directories;
}

}  // namespace store_faults

using namespace store_faults;

#define STANDS_BETWEEN extern "C" __attribute__((visibility("default")))

// ---- the store's functions ----------------------------------------------------------------------

STANDS_BETWEEN int mdb_dbi_open(MDB_txn* txn, char const* name, unsigned flags, MDB_dbi* tree) {
  static auto* const real = Behind<decltype(mdb_dbi_open)>("mdb_dbi_open");
  int const code = real(txn, name, flags, tree);
  if (code != 0 || name == nullptr) return code;
  std::lock_guard const lock(TheState().mutex);
  if (std::string_view(name) == "rows") TheState().rows = *tree;
  if (std::string_view(name) == "index") TheState().indexes = *tree;
  return code;
}

STANDS_BETWEEN int mdb_txn_begin(MDB_env* env, MDB_txn* parent, unsigned flags, MDB_txn** txn) {
  static auto* const real = Behind<decltype(mdb_txn_begin)>("mdb_txn_begin");
  int const code = real(env, parent, flags, txn);
  if (code != 0 || (flags & MDB_RDONLY) != 0) return code;
  std::lock_guard const lock(TheState().mutex);
  TheState().changed = TheState().changed_rows = TheState().changed_indexes = false;
  return code;
}

STANDS_BETWEEN int mdb_put(MDB_txn* txn, MDB_dbi tree, MDB_val* key, MDB_val* value,
                           unsigned flags) {
  static auto* const real = Behind<decltype(mdb_put)>("mdb_put");
  int const code = PassChange(tree);
  return code != 0 ? code : real(txn, tree, key, value, flags);
}

STANDS_BETWEEN int mdb_del(MDB_txn* txn, MDB_dbi tree, MDB_val* key, MDB_val* value) {
  static auto* const real = Behind<decltype(mdb_del)>("mdb_del");
  int const code = PassChange(tree);
  return code != 0 ? code : real(txn, tree, key, value);
}

STANDS_BETWEEN int mdb_txn_commit(MDB_txn* txn) {
  static auto* const real = Behind<decltype(mdb_txn_commit)>("mdb_txn_commit");
  int code = Pass(Point::kBeforeWriting);
  if (code != 0) {
    mdb_txn_abort(txn);
    return code;
  }
  code = real(txn);
  if (code == 0) Pass(Point::kAfterCommit);
  return code;
}

// ---- the system's functions ---------------------------------------------------------------------

STANDS_BETWEEN ssize_t pwrite(int file, void const* data, std::size_t size, off_t at) {
  static auto* const real = Behind<ssize_t(int, void const*, std::size_t, off_t)>("pwrite");
  if (!IsDataFile(file)) return real(file, data, size, at);
  bool const root = IsRoot(size);
  int const code = Pass(root ? Point::kBeforeRoot : Point::kWriting);
  if (code == kShort) return real(file, data, size / 2, at);
  if (code != 0) return Fail(code);
  NoteWriting(file, data, size, at);
  ssize_t const written = real(file, data, size, at);
  if (root) Pass(Point::kAfterRoot);
  return written;
}

STANDS_BETWEEN ssize_t writev(int file, iovec const* pieces, int count) {
  static auto* const real = Behind<ssize_t(int, iovec const*, int)>("writev");
  if (!IsDataFile(file)) return real(file, pieces, count);
  int const code = Pass(Point::kWriting);
  if (code == kShort) return real(file, pieces, (count + 1) / 2);
  if (code != 0) return Fail(code);
  off_t at = lseek(file, 0, SEEK_CUR);
  for (int i = 0; i < count; ++i) {
    NoteWriting(file, pieces[i].iov_base, pieces[i].iov_len, at);
    at += static_cast<off_t>(pieces[i].iov_len);
  }
  return real(file, pieces, count);
}

STANDS_BETWEEN int fdatasync(int file) {
  static auto* const real = Behind<int(int)>("fdatasync");
  if (!IsDataFile(file)) return real(file);
  int const code = Pass(Point::kBeforeSync);
  if (code != 0) return static_cast<int>(Fail(code));
  int const synced = real(file);
  {
    std::lock_guard const lock(TheState().mutex);
    ++TheState().syncs;
    if (synced == 0) volatile_disk::Synced();
  }
  Pass(Point::kAfterSync);
  return synced;
}

STANDS_BETWEEN int fsync(int file) {
  static auto* const real = Behind<int(int)>("fsync");
  struct stat status {};
  Path path;
  if (fstat(file, &status) == 0 && S_ISDIR(status.st_mode)) {
    std::lock_guard const lock(TheState().mutex);
    TheState().directories.emplace_back(PathOf(file, path));
  }
  return real(file);
}
