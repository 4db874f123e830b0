#include <lscoredb/durability.h>

#include "c_api.h"

namespace lscore {
namespace {

constexpr std::uint32_t kMostDelay = 3'600'000;

template <typename Work>
Status WithDatabase(lscoredb* database, Work&& work) noexcept {
  return Guarded([&]() -> Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    work(*database->database);
    return LORV_STATUS_OK;
  });
}

void RequireWritable(Database& database) {
  if (database.store().read_only()) Throw(LSCOREDB_READ_ONLY_DATABASE);
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lscoredb_commit_flags(uint64_t context, uint32_t flags) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if ((flags & ~LSCOREDB_COMMIT_SYNC) != 0) return LSCOREDB_INVALID_ARGUMENT;
    if ((flags & LSCOREDB_COMMIT_SYNC) != 0) transaction.RequireSync();
    return transaction.Commit();
  });
}

uint32_t lscoredb_require_sync(uint64_t context) {
  return WithTransaction(context, [](Transaction& transaction) {
    transaction.RequireSync();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_sync_within(lscoredb* database, uint32_t milliseconds) {
  return WithDatabase(database, [&](Database& found) {
    if (milliseconds == 0 || milliseconds > kMostDelay) Throw(LSCOREDB_INVALID_ARGUMENT);
    RequireWritable(found);
    found.commits().RequireSync(std::chrono::milliseconds(milliseconds));
  });
}

uint32_t lscoredb_sync(lscoredb* database) {
  return WithDatabase(database, [](Database& found) { found.store().Sync(); });
}

uint32_t lscoredb_synced_commit(lscoredb* database, uint64_t* out) {
  return WithDatabase(database, [&](Database& found) {
    if (out == nullptr) Throw(LSCOREDB_NULL_ARGUMENT);
    *out = Raw(found.store().Statistics().synced_commit);
  });
}

uint32_t lscoredb_checkpoint(lscoredb* database) {
  return WithDatabase(database, [](Database& found) {
    RequireWritable(found);
    found.store().Checkpoint();
  });
}
