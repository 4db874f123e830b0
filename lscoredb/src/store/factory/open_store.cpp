#include "open_store.h"

#include "lmdb_store.h"

namespace lscore {

std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options) {
  return LmdbStore::Open(directory, options);
}

}  // namespace lscore
