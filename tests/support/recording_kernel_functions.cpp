// The contract's functions, in the test executable's own name. The calls of the layer are bound to
// these, since an executable's symbols come before those of its libraries.

#define LSCOREDB_BUILD  // makes the definitions visible to the libraries
#include <lscoredb/lscoredb.h>

#include "support/recording_kernel_internal.h"

using recording_kernel::KeyBytes;
using recording_kernel::Pass;

uint32_t lorv_context_get_ulong(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                uint64_t* out) {
  return Pass<&lorv_context_get_ulong>("lorv_context_get_ulong", context, oid, addr, column, out);
}

uint32_t lorv_context_get_long(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                               int64_t* out) {
  return Pass<&lorv_context_get_long>("lorv_context_get_long", context, oid, addr, column, out);
}

uint32_t lorv_context_get_float(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                float* out) {
  return Pass<&lorv_context_get_float>("lorv_context_get_float", context, oid, addr, column, out);
}

uint32_t lorv_context_get_double(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 double* out) {
  return Pass<&lorv_context_get_double>("lorv_context_get_double", context, oid, addr, column, out);
}

uint32_t lorv_context_get_decimal(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                  int64_t* out) {
  return Pass<&lorv_context_get_decimal>("lorv_context_get_decimal", context, oid, addr, column,
                                         out);
}

uint32_t lorv_context_get_string(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 LORV_STRING** out) {
  return Pass<&lorv_context_get_string>("lorv_context_get_string", context, oid, addr, column, out);
}

uint32_t lorv_context_get_binary(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 LORV_BINARY** out) {
  return Pass<&lorv_context_get_binary>("lorv_context_get_binary", context, oid, addr, column, out);
}

uint32_t lorv_context_get_reference(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                    LORV_REFERENCE* out) {
  return Pass<&lorv_context_get_reference>("lorv_context_get_reference", context, oid, addr, column,
                                           out);
}

uint32_t lorvi_context_get_refid(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 uint64_t* out) {
  return Pass<&lorvi_context_get_refid>("lorvi_context_get_refid", context, oid, addr, column, out);
}

uint32_t lorv_context_put_ulong(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                uint64_t value) {
  return Pass<&lorv_context_put_ulong>("lorv_context_put_ulong", context, oid, addr, column, value);
}

uint32_t lorv_context_put_long(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                               int64_t value) {
  return Pass<&lorv_context_put_long>("lorv_context_put_long", context, oid, addr, column, value);
}

uint32_t lorv_context_put_float(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                float value) {
  return Pass<&lorv_context_put_float>("lorv_context_put_float", context, oid, addr, column, value);
}

uint32_t lorv_context_put_double(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 double value) {
  return Pass<&lorv_context_put_double>("lorv_context_put_double", context, oid, addr, column,
                                        value);
}

uint32_t lorv_context_put_decimal(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                  int64_t millionths) {
  return Pass<&lorv_context_put_decimal>("lorv_context_put_decimal", context, oid, addr, column,
                                         millionths);
}

uint32_t lorv_context_put_string(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 char16_t const* text) {
  return Pass<&lorv_context_put_string>("lorv_context_put_string", context, oid, addr, column,
                                        text);
}

uint32_t lorv_context_put_binary(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 void const* data, uint64_t size) {
  return Pass<&lorv_context_put_binary>("lorv_context_put_binary", context, oid, addr, column, data,
                                        size);
}

uint32_t lorv_context_put_reference(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                    uint64_t target_oid, uint64_t target_addr) {
  return Pass<&lorv_context_put_reference>("lorv_context_put_reference", context, oid, addr, column,
                                           target_oid, target_addr);
}

uint32_t lorv_context_put_default(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column) {
  return Pass<&lorv_context_put_default>("lorv_context_put_default", context, oid, addr, column);
}

uint32_t lorv_context_get_setspec(uint64_t context, uint64_t oid, uint64_t addr,
                                  LORV_STRING** out) {
  return Pass<&lorv_context_get_setspec>("lorv_context_get_setspec", context, oid, addr, out);
}

uint32_t lorv_context_put_setspec(uint64_t context, uint64_t oid, uint64_t addr,
                                  char16_t const* setspec) {
  return Pass<&lorv_context_put_setspec>("lorv_context_put_setspec", context, oid, addr, setspec);
}

uint32_t lorv_context_insert_system(uint64_t context, uint16_t table_id, uint64_t* out_oid) {
  return Pass<&lorv_context_insert_system>("lorv_context_insert_system", context, table_id,
                                           out_oid);
}

uint32_t lorv_context_insert(uint64_t context, uint16_t table_id, uint64_t* out_oid) {
  return Pass<&lorv_context_insert>("lorv_context_insert", context, table_id, out_oid);
}

uint32_t lorvi_context_insert_with_id(uint64_t context, uint16_t table_id, uint64_t oid) {
  return Pass<&lorvi_context_insert_with_id>("lorvi_context_insert_with_id", context, table_id,
                                             oid);
}

uint32_t lorv_context_delete(uint64_t context, uint64_t oid, uint64_t addr) {
  return Pass<&lorv_context_delete>("lorv_context_delete", context, oid, addr);
}

uint32_t lorv_context_lookup(uint64_t context, uint64_t oid, uint64_t* out_addr) {
  return Pass<&lorv_context_lookup>("lorv_context_lookup", context, oid, out_addr);
}

uint32_t lorv_context_create_iterator(uint64_t context, uint64_t index_id, uint32_t flags,
                                      void const* first_key, void const* last_key,
                                      uint64_t* out_iterator) {
  recording_kernel::Call call;
  call.function = "lorv_context_create_iterator";
  call.numbers = {context, index_id, flags};
  call.keys = {KeyBytes(first_key), KeyBytes(last_key)};
  return recording_kernel::PassNoted<&lorv_context_create_iterator>(
      std::move(call), context, index_id, flags, first_key, last_key, out_iterator);
}

uint32_t lorv_iterator_next(uint64_t iterator, LORV_REFERENCE* out) {
  return Pass<&lorv_iterator_next>("lorv_iterator_next", iterator, out);
}

uint32_t lorv_iterator_free(uint64_t iterator) {
  return Pass<&lorv_iterator_free>("lorv_iterator_free", iterator);
}

uint32_t lorv_convert_ucs2_to_turbotext(char16_t const* text, uint32_t flags, uint8_t* buffer,
                                        uint32_t size) {
  return Pass<&lorv_convert_ucs2_to_turbotext>("lorv_convert_ucs2_to_turbotext", text, flags,
                                               buffer, size);
}

uint32_t lorv_convert_ucs2_to_setspectt(char16_t const* text, uint32_t upper, uint8_t* buffer,
                                        uint32_t size) {
  return Pass<&lorv_convert_ucs2_to_setspectt>("lorv_convert_ucs2_to_setspectt", text, upper,
                                               buffer, size);
}

uint32_t lorvi_context_create_layout(uint64_t context, uint64_t token, uint16_t base_layout_handle,
                                     LORVI_COLUMN_DEFINITION const* columns, uint32_t reserved,
                                     uint16_t* out_layout_handle) {
  return Pass<&lorvi_context_create_layout>("lorvi_context_create_layout", context, token,
                                            base_layout_handle, columns, reserved,
                                            out_layout_handle);
}

uint32_t lorvi_context_get_layout_info(uint64_t context, uint16_t layout_handle,
                                       LORVI_LAYOUT_INFO* out) {
  return Pass<&lorvi_context_get_layout_info>("lorvi_context_get_layout_info", context,
                                              layout_handle, out);
}

uint32_t lorvi_context_get_layout_infos_by_token(uint64_t context, uint64_t token, uint32_t* count,
                                                 LORVI_LAYOUT_INFO* out) {
  return Pass<&lorvi_context_get_layout_infos_by_token>("lorvi_context_get_layout_infos_by_token",
                                                        context, token, count, out);
}

uint32_t lorvi_context_get_column_info(uint64_t context, uint16_t layout_handle, uint16_t column,
                                       LORVI_COLUMN_INFO* out) {
  return Pass<&lorvi_context_get_column_info>("lorvi_context_get_column_info", context,
                                              layout_handle, column, out);
}

uint32_t lorvi_context_create_index(uint64_t context, uint64_t token, char16_t const* setspec,
                                    LORVI_COLUMN_DEFINITION const* columns, uint16_t sort_mask,
                                    uint32_t flags, uint64_t* out_index_id) {
  return Pass<&lorvi_context_create_index>("lorvi_context_create_index", context, token, setspec,
                                           columns, sort_mask, flags, out_index_id);
}

uint32_t lorvi_context_drop_index(uint64_t context, uint64_t index_id) {
  return Pass<&lorvi_context_drop_index>("lorvi_context_drop_index", context, index_id);
}

uint32_t lorvi_context_get_index_infos_by_token(uint64_t context, uint64_t token, uint32_t* count,
                                                LORVI_INDEX_INFO* out) {
  return Pass<&lorvi_context_get_index_infos_by_token>("lorvi_context_get_index_infos_by_token",
                                                       context, token, count, out);
}

uint32_t lorvi_context_get_index_setspec(uint64_t context, uint64_t index_id,
                                         char16_t const** out) {
  return Pass<&lorvi_context_get_index_setspec>("lorvi_context_get_index_setspec", context,
                                                index_id, out);
}
