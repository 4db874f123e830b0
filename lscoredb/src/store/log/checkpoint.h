#ifndef LSCOREDB_SRC_CHECKPOINT_H
#define LSCOREDB_SRC_CHECKPOINT_H

// Writes what layers changed into the image.

#include "log_layers.h"

namespace lscore {

// Writes what a layer changed up to `state` into a batch of the image, in the order of the keys.
void WriteLayer(Batch& image, LogLayer const& layer, CommitId state);

}  // namespace lscore

#endif
