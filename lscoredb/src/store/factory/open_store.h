#ifndef LSCOREDB_SRC_OPEN_STORE_H
#define LSCOREDB_SRC_OPEN_STORE_H

// The one place that knows which stores there are.

#include <memory>

#include "store.h"

namespace lscore {

// Opens the store in `directory`, which exists, or on the server that a URL names in its place;
// null opens a new one in memory, gone at its end.
std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options);

// Whether there is a store, of whatever format. Throws when a server cannot be asked.
bool StoreExists(char const* directory);

}  // namespace lscore

#endif
