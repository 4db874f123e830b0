#ifndef LSCOREDB_SRC_TRANSACTION_STATE_H
#define LSCOREDB_SRC_TRANSACTION_STATE_H

// What the parts of a transaction share. Belongs to the Transaction, which begins and ends it.

#include <memory>
#include <optional>
#include <utility>

#include "database.h"
#include "pending.h"
#include "status.h"
#include "store.h"

namespace lscore {

struct TransactionState {
  explicit TransactionState(std::shared_ptr<Database> its_database)
      : database(std::move(its_database)) {}

  // An identity that the context has reserved; it is used up by `++ids.next`.
  std::uint64_t NextId() {
    if (ids.empty()) ids = database->ids().Take();
    return ids.next;
  }

  std::shared_ptr<Database> const database;
  std::unique_ptr<Snapshot> snapshot;  // null: no transaction is open
  PendingChanges changes;
  std::optional<RefusedKey> refused;  // outlasts the transaction
  Status doomed = LORV_STATUS_OK;     // set when a write stopped half-way
  Sequence now = 0;                   // of the last write; scans see those of before they began
  IdRange ids;                        // outlasts transactions
};

}  // namespace lscore

#endif
