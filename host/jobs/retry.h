#ifndef SAGLEME_HOST_JOBS_RETRY_H
#define SAGLEME_HOST_JOBS_RETRY_H

// Transactions that are run again after a conflict.

#include <cstdint>
#include <sagleme/host.hpp>
#include <thread>

namespace sagleme::jobs {

// Runs `work` in a transaction and commits it, again after each conflict. `conflict` is called
// before each further attempt. Throws the conflict of the last one, and everything else at once.
template <typename Work, typename Conflict>
void Retry(Context const& context, std::uint32_t attempts, Work&& work, Conflict&& conflict) {
  for (std::uint32_t attempt = 1;; ++attempt) {
    try {
      Transaction transaction(context);
      work(transaction);
      transaction.Commit();
      return;
    } catch (Error const& error) {
      if (error.status() != LSCOREDB_CONFLICT || attempt >= attempts) throw;
    }
    conflict();
    std::this_thread::yield();
  }
}

template <typename Work>
void Retry(Context const& context, std::uint32_t attempts, Work&& work) {
  Retry(context, attempts, work, [] {});
}

}  // namespace sagleme::jobs

#endif
