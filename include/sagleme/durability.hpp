#ifndef SAGLEME_DURABILITY_HPP
#define SAGLEME_DURABILITY_HPP

// When commits reach the disk, for what Options::no_sync alone does not say. See
// <lscoredb/durability.h>. All functions throw Error.

#include <lscoredb/durability.h>

#include <chrono>
#include <sagleme/host/database.hpp>

namespace sagleme {

// The commit of the transaction is synced before it returns, and all commits before it are.
inline void RequireSync(RawTransaction const& transaction) {
  detail::CheckKernel(lscoredb_require_sync(transaction.context()));
}

// From now on each commit of a database with a log, opened with Options::no_sync, is synced at most
// so much later. Starts a thread in the kernel.
inline void SyncWithin(Database const& database, std::chrono::milliseconds delay) {
  bool const fits = delay.count() > 0 && delay < std::chrono::hours(2);
  detail::CheckKernel(lscoredb_sync_within(database.handle(),
                                           fits ? static_cast<std::uint32_t>(delay.count()) : 0));
}

// Syncs every commit that has returned, in any process. Any thread.
inline void Sync(Database const& database) {
  detail::CheckKernel(lscoredb_sync(database.handle()));
}

// The newest commit that is known to survive a power failure; 0: none is known.
inline std::uint64_t SyncedCommit(Database const& database) {
  std::uint64_t commit = 0;
  detail::CheckKernel(lscoredb_synced_commit(database.handle(), &commit));
  return commit;
}

// Writes what is in the log to the data file. Any thread; commits go on meanwhile.
inline void Checkpoint(Database const& database) {
  detail::CheckKernel(lscoredb_checkpoint(database.handle()));
}

}  // namespace sagleme

#endif
