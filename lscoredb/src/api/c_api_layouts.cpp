#include "c_api.h"

namespace lscore {
namespace {

std::vector<Column> ReadColumns(LORVI_COLUMN_DEFINITION const* columns) {
  std::vector<Column> read;
  for (; columns->type != 0; ++columns) {
    if (read.size() == kMaxColumns) Throw(LSCOREDB_TOO_LARGE);
    Column column;
    column.token = Token{columns->token};
    column.type = columns->type;
    column.nullable = columns->is_nullable != 0;
    read.push_back(column);
  }
  return read;
}

LORVI_LAYOUT_INFO InfoOf(Layout const& layout) {
  return {Raw(layout.token()), layout.column_count(), Raw(layout.number()), Raw(layout.base())};
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lorvi_context_create_layout(uint64_t context, uint64_t token, uint16_t base_layout_handle,
                                     LORVI_COLUMN_DEFINITION const* columns, uint32_t reserved,
                                     uint16_t* out_layout_handle) {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (columns == nullptr || out_layout_handle == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (reserved != 0) return LSCOREDB_INVALID_ARGUMENT;
    *out_layout_handle = Raw(transaction.CreateLayout(
        Token{token}, LayoutNumber{base_layout_handle}, ReadColumns(columns)));
    return LORV_STATUS_OK;
  });
}

uint32_t lorvi_context_get_layout_info(uint64_t context, uint16_t layout_handle,
                                       LORVI_LAYOUT_INFO* out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    Layout const* const layout = transaction.FindLayout(LayoutNumber{layout_handle});
    if (layout == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
    *out = InfoOf(*layout);
    return LORV_STATUS_OK;
  });
}

uint32_t lorvi_context_get_layout_infos_by_token(uint64_t context, uint64_t token, uint32_t* count,
                                                 LORVI_LAYOUT_INFO* out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (count == nullptr) return LSCOREDB_NULL_ARGUMENT;
    std::vector<Layout const*> const found = transaction.LayoutsOf(Token{token});
    if (out == nullptr && *count != 0 && !found.empty()) return LSCOREDB_NULL_ARGUMENT;
    for (std::size_t i = 0; i < found.size() && i < *count; ++i) out[i] = InfoOf(*found[i]);
    *count = static_cast<uint32_t>(found.size());
    return LORV_STATUS_OK;
  });
}

uint32_t lorvi_context_get_column_info(uint64_t context, uint16_t layout_handle, uint16_t column,
                                       LORVI_COLUMN_INFO* out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    Layout const* const layout = transaction.FindLayout(LayoutNumber{layout_handle});
    if (layout == nullptr) return LSCOREDB_UNKNOWN_LAYOUT;
    if (column >= layout->column_count()) return LSCOREDB_UNKNOWN_COLUMN;
    Column const& found = layout->column(column);
    *out = {Raw(found.token), {found.nullable ? uint8_t{1} : uint8_t{0}, 0, 0}, found.type};
    return LORV_STATUS_OK;
  });
}
