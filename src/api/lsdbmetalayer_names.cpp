// The exported functions that answer for names: tokens, set specifiers, table references.

#include <sagleme/ucs2.h>

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/names.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "api/lsdbmetalayer.h"

namespace metalayer {
namespace {

char16_t const* TextOrNull(LS_OBJ_REF const& row, unsigned int column) {
  return db_record(row).get_string(column);
}

Token ExistingToken(uint64_t token) {
  Token const row(Token::ByNameToken(token));
  if (row.is_null()) exceptions::ThrowTokenNotFound(token);
  return row;
}

// The token that a table's layout carries: that of the table's name when the layout was made.
uint64_t TokenOfLayout(RawView const& table) {
  LORVI_LAYOUT_INFO layout;
  auto const handle = static_cast<unsigned short>(GetULong(table, RawView::kLayoutHandle));
  unsigned int const status =
      lorvi_context_get_layout_info(TlsContextHandle::context(), handle, &layout);
  if (status != 0) FatalError();
  return layout.token;
}

// Tables come before the dictionary. Never makes a token.
uint64_t TokenOfName(char16_t const* name) {
  RawView const table(RawView::ByRawViewPK2fullname(name));
  if (!table.is_null()) return TokenOfLayout(table);
  Token const row(Token::ByInvariantName(name));
  if (row.is_null()) exceptions::ThrowTokenNotFound(name);
  return GetULong(row, Token::kNameToken);
}

// The name that stands for a token. The text of some tokens is the identity of a catalogue row in
// decimal; these stand for that row, which is read at `column`.
char16_t const* ObjectName(uint64_t token, unsigned int column) {
  Token const row = ExistingToken(token);
  char16_t const* const text = TextOrNull(row, Token::kInvariantName);
  LS_OBJ_REF object{text == nullptr ? 0 : ucs2_toui64_base10(text, nullptr), 0};
  unsigned int const status =
      lorv_context_lookup(TlsContextHandle::context(), object.oid, &object.addr);
  if (status != 0 && status != LORV_STATUS_NO_OBJECT) db_util::db_exception::check(status);
  bool const names_object = status == 0 && object.oid != 0;
  return names_object ? TextOrNull(object, column) : TextOrNull(row, Token::kInvariantName);
}

uint32_t get_obj_name_by_token(uint64_t context, uint64_t token, unsigned int column,
                               char16_t const** out_name) {
  return MetalayerFunction<true>(context, [&] { *out_name = ObjectName(token, column); });
}

}  // namespace
}  // namespace metalayer

using namespace metalayer;

uint32_t lorv_assure_token(uint64_t context, char16_t const* name, uint64_t* out_token) {
  return MetalayerFunction<true>(context, [&] { *out_token = assure_token(name); });
}

uint32_t lorv_get_token(uint64_t context, char16_t const* name, uint64_t* out_token) {
  return MetalayerFunction<true>(context, [&] { *out_token = TokenOfName(name); });
}

uint32_t lorv_get_token_name(uint64_t context, uint64_t token, char16_t const** out_name) {
  return MetalayerFunction<true>(
      context, [&] { *out_name = TextOrNull(ExistingToken(token), Token::kInvariantName); });
}

uint32_t lorv_get_column_name_by_token(uint64_t context, uint64_t token,
                                       char16_t const** out_name) {
  return get_obj_name_by_token(context, token, RawColumn::kName, out_name);
}

uint32_t lorv_get_table_name_by_token(uint64_t context, uint64_t token, char16_t const** out_name) {
  return get_obj_name_by_token(context, token, RawView::kFullName, out_name);
}

uint32_t lorv_setspec_name_by_setspec_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                          char16_t const** out_name) {
  return MetalayerFunction<true>(context, [&] {
    if (oid == 0) exceptions::ThrowInvalidSetspec();
    *out_name = TextOrNull({oid, addr}, SetSpecifier::kTypeId);
  });
}

uint32_t lorv_setspec_ref_by_table_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                       uint64_t* out_oid, uint64_t* out_addr) {
  return MetalayerFunction<true>(context, [&] {
    PutOut(SetSpecifier::ByType({oid, addr}), out_oid, out_addr);
  });
}

uint32_t lorv_setspec_name_by_table_incomplete_reverse_uid(uint64_t context, char16_t const* uid,
                                                           char16_t const** out_name) {
  return MetalayerFunction<true>(context, [&] {
    RawView const table = RawViewByIncompleteReverseUid(uid);
    *out_name = TextOrNull(SetSpecifier::ByType(table), SetSpecifier::kTypeId);
  });
}

uint32_t lorv_table_ref_by_incomplete_reverse_uid(uint64_t context, char16_t const* uid,
                                                  uint64_t* out_oid, uint64_t* out_addr) {
  return MetalayerFunction<true>(
      context, [&] { PutOut(RawViewByIncompleteReverseUid(uid), out_oid, out_addr); });
}

uint32_t lorv_table_ref_by_layout_id(uint64_t context, uint16_t layout_id, uint64_t* out_oid,
                                     uint64_t* out_addr) {
  return MetalayerFunction<true>(context, [&] {
    RawView const table(RawView::ByRawViewPK(layout_id));
    if (table.is_null()) exceptions::ThrowTableNotFound(layout_id);
    PutOut(table, out_oid, out_addr);
  });
}
