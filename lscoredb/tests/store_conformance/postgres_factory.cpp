// The factory of the kernel's tests over the store on a server: databases in memory lie there.

#include <filesystem>

#include "lmdb_store.h"
#include "open_store.h"
#include "postgres_store.h"
#include "postgres_url.h"

namespace lscore {

std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options) {
  if (directory == nullptr) return std::make_unique<PostgresStore>(NewServerUrl(), options);
  return LmdbStore::Open(directory, options);
}

// No test of these asks for a store that remembers it.
void RefuseLog(Store&) {}

bool StoreExists(char const* directory) {
  return std::filesystem::exists(std::filesystem::path(directory) / "data.mdb");
}

}  // namespace lscore
