#ifndef LSCOREDB_SRC_LAYOUT_RELEASE_H
#define LSCOREDB_SRC_LAYOUT_RELEASE_H

// Taking away layouts that a host has released.

#include <vector>

#include "ids.h"
#include "store.h"

namespace lscore {

// Takes away, in one batch, all released layouts that no object stands under and that no layout
// that stays was made on; returns their numbers, which are free then, rising. The others wait for
// the next time. REQUIRES: no process knows the meaning of a number.
std::vector<LayoutNumber> CollectLayouts(Store& store);

}  // namespace lscore

#endif
