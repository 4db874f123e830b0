#ifndef LSCOREDB_SRC_COPY_STORE_H
#define LSCOREDB_SRC_COPY_STORE_H

// Copies a store through the seam, whatever it is: one snapshot of the one, batches of the other.

#include "store.h"

namespace lscore {

// Writes the newest committed state into a new store in an empty directory, or on a server, without
// unused space, while others read and write. The copy goes on counting states where this store
// stands. A copy that was cut off is no database.
void CopyStore(Store& store, char const* directory);

}  // namespace lscore

#endif
