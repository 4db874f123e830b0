#ifndef LSCOREDB_SRC_LAYOUT_RELEASE_H
#define LSCOREDB_SRC_LAYOUT_RELEASE_H

// Removes layouts that a host has released.

#include <vector>

#include "ids.h"
#include "store.h"

namespace lscore {

// Removes, in one batch, all released layouts that no object uses and no remaining layout is based
// on. Returns their numbers, now free, in ascending order. The others stay released.
// REQUIRES: no process knows the meaning of a number.
std::vector<LayoutNumber> CollectLayouts(Store& store);

}  // namespace lscore

#endif
