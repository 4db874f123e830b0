#ifndef LSCOREDB_SRC_WRITE_PAUSE_H
#define LSCOREDB_SRC_WRITE_PAUSE_H

// No one commits while this lives, in whatever process: the library's lock for writing, with an
// empty transaction. For the store's own source files; one thread.

#include <lmdb.h>

#include <utility>

#include "store_errors.h"
#include "store_locks.h"

namespace lscore {

class WritePause {
 public:
  // Of files that no one else knows.
  explicit WritePause(MDB_env* env) { Begin(env); }
  WritePause(StoreLocks& locks, MDB_env* env) : turn_(locks) { Begin(env); }
  ~WritePause() {
    if (txn_ != nullptr) mdb_txn_abort(txn_);
  }
  WritePause(WritePause const&) = delete;
  WritePause& operator=(WritePause const&) = delete;

  MDB_txn* txn() const { return txn_; }
  // The library's number of the newest state.
  std::uint64_t state() const { return mdb_txn_id(txn_) - 1; }
  // The caller ends the transaction, before the pause ends or its turn.
  MDB_txn* Release() { return std::exchange(txn_, nullptr); }
  WriteTurn ReleaseTurn() { return std::move(turn_); }

 private:
  void Begin(MDB_env* env) { CheckStore(mdb_txn_begin(env, nullptr, 0, &txn_)); }

  WriteTurn turn_;
  MDB_txn* txn_ = nullptr;
};

}  // namespace lscore

#endif
