#ifndef LSCOREDB_SRC_C_API_H
#define LSCOREDB_SRC_C_API_H

// Shared by the exported functions: the way from a handle to its transaction, and the one place
// where failures become statuses.

#include "context.h"
#include "status.h"

namespace lscore {

// Runs `work` with the open transaction of a context.
template <typename Work>
Status WithTransaction(std::uint64_t handle, Work&& work) noexcept {
  return Guarded([&]() -> Status {
    Context* const context = Contexts().Find(handle);
    if (context == nullptr) return LSCOREDB_UNKNOWN_CONTEXT;
    Transaction& transaction = context->transaction();
    if (!transaction.open()) return LSCOREDB_NO_TRANSACTION;
    return work(transaction);
  });
}

template <typename Work>
Status WithWriting(std::uint64_t handle, Work&& work) noexcept {
  return WithTransaction(handle, [&](Transaction& transaction) -> Status {
    return transaction.read_only() ? transaction.refusal_of_writes() : work(transaction);
  });
}

}  // namespace lscore

#endif
