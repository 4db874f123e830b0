#include "crash/store_faults.h"

#include <dlfcn.h>
#include <lmdb.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string_view>

#include "crash/recorded_disk.h"

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

// A thread that does not live on in a child may have held it at the fork.
[[maybe_unused]] int const free_in_children =
    pthread_atfork(nullptr, nullptr, [] { new (&TheState().mutex) std::recursive_mutex; });

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

// What of the pieces was written, as one write: a process may end at any recorded event.
void RecordPieces(int file, iovec const* pieces, int count, off_t at, ssize_t written) {
  if (written <= 0 || !recorded_disk::IsRecording()) return;
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    bytes.append(static_cast<char const*>(pieces[i].iov_base), pieces[i].iov_len);
  }
  recorded_disk::Wrote(file, bytes.data(), static_cast<std::size_t>(written), at);
}

ssize_t WriteAt(int file, void const* data, std::size_t size, off_t at) {
  static auto* const real = Behind<ssize_t(int, void const*, std::size_t, off_t)>("pwrite");
  auto const lock = recorded_disk::Busy();
  ssize_t const written = real(file, data, size, at);
  if (written > 0) recorded_disk::Wrote(file, data, static_cast<std::size_t>(written), at);
  return written;
}

ssize_t WritePieces(int file, iovec const* pieces, int count) {
  static auto* const real = Behind<ssize_t(int, iovec const*, int)>("writev");
  auto const lock = recorded_disk::Busy();
  off_t const at = recorded_disk::IsRecording() ? lseek(file, 0, SEEK_CUR) : 0;
  ssize_t const written = real(file, pieces, count);
  RecordPieces(file, pieces, count, at, written);
  return written;
}

int SyncData(int file) {
  static auto* const real = Behind<int(int)>("fdatasync");
  auto const lock = recorded_disk::Busy();
  if (!recorded_disk::IsRecording()) return real(file);
  recorded_disk::Synced(file);
  return 0;
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
  if (!IsDataFile(file)) return WriteAt(file, data, size, at);
  bool const root = IsRoot(size);
  int const code = Pass(root ? Point::kBeforeRoot : Point::kWriting);
  if (code == kShort) return WriteAt(file, data, size / 2, at);
  if (code != 0) return Fail(code);
  ssize_t const written = WriteAt(file, data, size, at);
  if (root) Pass(Point::kAfterRoot);
  return written;
}

STANDS_BETWEEN ssize_t pwritev(int file, iovec const* pieces, int count, off_t at) {
  static auto* const real = Behind<ssize_t(int, iovec const*, int, off_t)>("pwritev");
  auto const lock = recorded_disk::Busy();
  ssize_t const written = real(file, pieces, count, at);
  RecordPieces(file, pieces, count, at, written);
  return written;
}

STANDS_BETWEEN ssize_t writev(int file, iovec const* pieces, int count) {
  if (!IsDataFile(file)) return WritePieces(file, pieces, count);
  int const code = Pass(Point::kWriting);
  if (code == kShort) return WritePieces(file, pieces, (count + 1) / 2);
  if (code != 0) return Fail(code);
  return WritePieces(file, pieces, count);
}

STANDS_BETWEEN int fdatasync(int file) {
  if (!IsDataFile(file)) return SyncData(file);
  int const code = Pass(Point::kBeforeSync);
  if (code != 0) return static_cast<int>(Fail(code));
  int const synced = SyncData(file);
  {
    std::lock_guard const lock(TheState().mutex);
    ++TheState().syncs;
  }
  Pass(Point::kAfterSync);
  return synced;
}

STANDS_BETWEEN int fsync(int file) {
  static auto* const real = Behind<int(int)>("fsync");
  struct stat status {};
  Path path;
  bool const is_directory = fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
  if (is_directory) {
    std::lock_guard const lock(TheState().mutex);
    TheState().directories.emplace_back(PathOf(file, path));
  }
  auto const lock = recorded_disk::Busy();
  if (!recorded_disk::IsRecording()) return real(file);
  is_directory ? recorded_disk::SyncedDirectory(file) : recorded_disk::Synced(file);
  return 0;
}
