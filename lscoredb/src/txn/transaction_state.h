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

  // The next object or index id of the context's reserved range; `++ids.next` uses it up.
  std::uint64_t NextId() {
    if (ids.empty()) ids = database->ids().Take();
    return ids.next;
  }

  std::shared_ptr<Database> const database;
  std::unique_ptr<Snapshot> snapshot;  // null: no transaction is open
  PendingChanges changes;
  std::optional<RefusedKey> refused;  // outlasts the transaction
  Status doomed = LORV_STATUS_OK;     // why a write stopped half-way; Commit returns it
  Sequence now = 0;                   // of the last write; a scan sees writes up to its begin
  unsigned far_lookups = 0;           // of keys, which took a round trip each
  IdRange ids;                        // outlasts transactions
};

}  // namespace lscore

#endif
