// The exported functions that create and drop indexes.

#include <sagleme/metalayer/ddl.hpp>

#include "api/lsdbmetalayer.h"

using namespace metalayer;

uint32_t lorv_create_index(uint64_t context, uint64_t table_oid, uint64_t table_addr,
                           char16_t const* name, uint16_t sort_mask, int16_t const* columns,
                           uint32_t flags) {
  return MetalayerFunction<true>(context, [&] {
    ddl::CreateIndexAndMeta({table_oid, table_addr}, name, sort_mask, columns, flags);
  });
}

uint32_t lorv_create_index_by_names(uint64_t context, char16_t const* name, char16_t const* table,
                                    LORV_INDEXED_COLUMN const* columns, bool unique) {
  return MetalayerFunction<true>(context,
                                 [&] { ddl::CreateIndexHigh(name, table, columns, unique); });
}

uint32_t lorv_create_index_ids(uint64_t context, uint16_t layout_id, char16_t const* name,
                               uint16_t sort_mask, int16_t const* columns, uint32_t flags) {
  return MetalayerFunction<true>(
      context, [&] { ddl::CreateIndexByLayoutId(layout_id, name, sort_mask, columns, flags); });
}

uint32_t lorv_drop_index(uint64_t context, uint64_t oid, uint64_t addr) {
  return MetalayerFunction<true>(context, [&] { ddl::DropIndex(Index(LS_OBJ_REF{oid, addr})); });
}

uint32_t lorv_drop_index_by_name(uint64_t context, char16_t const* name) {
  return MetalayerFunction<true>(context, [&] { ddl::DropIndex(name); });
}

uint32_t lorv_drop_index_by_table_and_name(uint64_t context, char16_t const* table,
                                           char16_t const* index) {
  return MetalayerFunction<true>(context, [&] { ddl::DropIndex(DottedName::Split(table), index); });
}
