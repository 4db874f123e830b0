#ifndef LSCOREDB_SRC_CHECKPOINT_H
#define LSCOREDB_SRC_CHECKPOINT_H

// Writes a layer into the image.
//
// A layer may be written in several batches: as long as the image's position says that it does not
// hold the layer, every reader has the layer over the image and finds each of its keys there, and
// recovery reads the layer from the log again. So an image that holds a part of it, in key order,
// is as good as one that holds none, once the layer's log is on the disk.

#include <cstddef>
#include <string>

#include "log_layers.h"
#include "store.h"

namespace lscore {

// Where in a layer the next batch goes on.
struct CheckpointPlace {
  logformat::Generation layer{0};
  std::size_t tree = 0;
  std::string key;          // the first one of the tree that is not written; empty: all of it
  std::size_t written = 0;  // entries
};

// How much goes into one batch. An entry behind all others of its tree shares a new page with those
// that follow, and may count as a part of an entry; any other one may change a page of its own.
struct SliceLimit {
  std::size_t entries;
  std::size_t appended_in_one = 1;
};

// Writes at most so many entries as of `state`, in key order, from `*place` on, and moves it.
// Returns whether all are written.
bool WriteSlice(Batch& image, LogLayer const& layer, CommitId state, CheckpointPlace* place,
                SliceLimit const& limit);

// All of them in one batch.
void WriteLayer(Batch& image, LogLayer const& layer, CommitId state);
// Those of one tree.
void WriteTree(Batch& image, LogLayer const& layer, CommitId state, Tree tree);

}  // namespace lscore

#endif
