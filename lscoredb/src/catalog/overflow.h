#ifndef LSCOREDB_SRC_OVERFLOW_H
#define LSCOREDB_SRC_OVERFLOW_H

// Rows that are too large for one value of the store: a stub among the rows, and chunks.

#include <cstdint>
#include <string>
#include <string_view>

#include "ids.h"
#include "store.h"

namespace lscore {

// A key of kOverflow.
std::string ChunkKey(ObjectId id, std::uint32_t chunk);
// The whole image. Throws LSCOREDB_DAMAGED if a chunk is missing or has the wrong size.
std::string AssembleImage(View const& view, ObjectId id, std::string_view stub);

}  // namespace lscore

#endif
