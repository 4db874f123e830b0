#ifndef LSCOREDB_SRC_SAVEPOINTS_H
#define LSCOREDB_SRC_SAVEPOINTS_H

// The savepoints that a transaction has open, innermost last. One thread at a time.

#include <cstdint>
#include <vector>

#include "result_buffers.h"
#include "row_reader.h"
#include "scans.h"
#include "transaction_state.h"

namespace lscore {

class Savepoints {
 public:
  Savepoints(TransactionState& state, RowReader& reader, Scans& scans, ResultBuffers& results)
      : state_(state), reader_(reader), scans_(scans), results_(results) {}

  // Never 0, and unique in the process.
  std::uint64_t Set();
  // Undoes what was written since, and ends later savepoints and the scans that began since.
  // LSCOREDB_UNKNOWN_SAVEPOINT: there is no such open savepoint.
  Status RollbackTo(std::uint64_t savepoint);
  // Ends the savepoint and later ones without undoing anything.
  Status Release(std::uint64_t savepoint);

  // After a read scope ended and freed its results.
  void ForgetResults();
  void End() noexcept { savepoints_.clear(); }

 private:
  struct Savepoint {
    std::uint64_t number = 0;
    PendingChanges::Mark written;
    std::size_t handed_out = 0;  // result buffers made so far
    std::uint64_t scans = 0;     // scans opened so far
    Status doomed = LORV_STATUS_OK;
  };

  std::vector<Savepoint>::iterator Find(std::uint64_t number);

  TransactionState& state_;
  RowReader& reader_;
  Scans& scans_;
  ResultBuffers& results_;
  std::vector<Savepoint> savepoints_;
};

}  // namespace lscore

#endif
