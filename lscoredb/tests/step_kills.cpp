// The functions stand before those of the libraries that they are named after, for this executable
// and for the kernel in it.

#include "step_kills.h"

#include <dlfcn.h>
#include <lmdb.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/uio.h>

namespace lscoredb_test {
namespace {

int steps_left = 0;

void Step() {
  if (steps_left > 0 && --steps_left == 0) raise(SIGKILL);
}

template <typename Function>
Function* Original(char const* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void KillAtStep(int step) { steps_left = step; }

}  // namespace lscoredb_test

using lscoredb_test::Original;
using lscoredb_test::Step;

extern "C" {

[[gnu::visibility("default")]] int mdb_del(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data) {
  static auto* const original = Original<decltype(mdb_del)>("mdb_del");
  Step();
  return original(txn, dbi, key, data);
}

[[gnu::visibility("default")]] int mdb_txn_commit(MDB_txn* txn) {
  static auto* const original = Original<decltype(mdb_txn_commit)>("mdb_txn_commit");
  Step();
  int const code = original(txn);
  Step();
  return code;
}

[[gnu::visibility("default")]] ssize_t pwritev(int file, iovec const* pieces, int count,
                                               off_t offset) {
  static auto* const original = Original<decltype(pwritev)>("pwritev");
  Step();
  ssize_t const written = original(file, pieces, count, offset);
  Step();
  return written;
}

[[gnu::visibility("default")]] int flock(int file, int operation) noexcept {
  static auto* const original = Original<int(int, int)>("flock");
  Step();
  return original(file, operation);
}

}  // extern "C"
