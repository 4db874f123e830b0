#ifndef LSCOREDB_SRC_OPEN_STORE_H
#define LSCOREDB_SRC_OPEN_STORE_H

// The one place that knows which stores there are.

#include <memory>

#include "store.h"

namespace lscore {

// Opens the store in `directory`, which must exist, or on the server that a URL names; null opens a
// new one in memory, which is gone when it is closed.
std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options);

// Remembers that a store without a log is to have none, if it can be written.
void RefuseLog(Store& store);

// Whether there is a store, of any format. Throws when a server cannot be asked.
bool StoreExists(char const* directory);

}  // namespace lscore

#endif
