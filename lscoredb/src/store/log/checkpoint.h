#ifndef LSCOREDB_SRC_CHECKPOINT_H
#define LSCOREDB_SRC_CHECKPOINT_H

// Writes the changes of layers into the image.

#include "log_layers.h"

namespace lscore {

// Writes a layer's changes up to `state` into a batch of the image, in key order.
void WriteLayer(Batch& image, LogLayer const& layer, CommitId state);

}  // namespace lscore

#endif
