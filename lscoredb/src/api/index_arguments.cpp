#include "index_arguments.h"

#include <vector>

#include "layout.h"
#include "status.h"

namespace lscore {
namespace {

// Throws LSCOREDB_INVALID_ARGUMENT when the columns cannot be indexed.
std::vector<IndexColumn> ReadColumns(LORVI_COLUMN_DEFINITION const* columns) {
  std::vector<IndexColumn> read;
  for (; columns->type != 0; ++columns) {
    IndexColumn const column{Token{columns->token}, columns->type, columns->is_nullable != 0};
    bool const is_id = columns->token == LORV_TOKEN_ID;
    bool const is_setspec = columns->token == LORV_TOKEN_SETSPEC;
    bool const right_type =
        (!is_id || column.type == LORV_TYPE_ULONG || column.type == LORV_TYPE_KEY) &&
        (!is_setspec || column.type == LORV_TYPE_STRING);
    if (!IsColumnType(column.type) || !right_type || read.size() == kMaxIndexColumns) {
      Throw(LSCOREDB_INVALID_ARGUMENT);
    }
    read.push_back(column);
  }
  return read;
}

}  // namespace

std::unique_ptr<IndexDefinition> DefinitionOf(char16_t const* setspec,
                                              LORVI_COLUMN_DEFINITION const* columns,
                                              std::uint16_t sort_mask, std::uint32_t flags) {
  auto index = std::make_unique<IndexDefinition>();
  index->flags = flags;
  index->sort_mask = sort_mask;
  index->setspec = setspec;
  index->columns = ReadColumns(columns);
  return index;
}

}  // namespace lscore
