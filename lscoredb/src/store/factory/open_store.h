#ifndef LSCOREDB_SRC_OPEN_STORE_H
#define LSCOREDB_SRC_OPEN_STORE_H

// The one place that knows which stores there are.

#include <memory>

#include "store.h"

namespace lscore {

// Opens the store in `directory`, which exists; null opens a new one in memory, gone at its end.
std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options);

}  // namespace lscore

#endif
