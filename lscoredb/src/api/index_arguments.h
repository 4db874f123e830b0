#ifndef LSCOREDB_SRC_INDEX_ARGUMENTS_H
#define LSCOREDB_SRC_INDEX_ARGUMENTS_H

// The definition of an index as hosts pass it.

#include <lscoredb/lscoredb.h>

#include <cstdint>
#include <memory>

#include "definitions.h"

namespace lscore {

// A definition without id and token. Throws LSCOREDB_INVALID_ARGUMENT when the columns cannot be
// indexed. REQUIRES: the pointers are not null.
std::unique_ptr<IndexDefinition> DefinitionOf(char16_t const* setspec,
                                              LORVI_COLUMN_DEFINITION const* columns,
                                              std::uint16_t sort_mask, std::uint32_t flags);

}  // namespace lscore

#endif
