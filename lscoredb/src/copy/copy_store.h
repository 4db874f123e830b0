#ifndef LSCOREDB_SRC_COPY_STORE_H
#define LSCOREDB_SRC_COPY_STORE_H

// Copies a store of any kind into one of any kind, through the seam: reads one snapshot and writes
// batches.

#include "store.h"

namespace lscore {

// Writes the newest committed state into a new store, in an empty directory or on a server, while
// others read and write the source. Returns the number of that state. The copy has no unused space,
// and its commit numbers continue from the source's. An incomplete copy cannot be opened as a
// database.
CommitId CopyStore(Store& store, char const* directory);

}  // namespace lscore

#endif
