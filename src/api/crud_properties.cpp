// Reading and writing one property: one load through the handle, the caller's layout replaced by
// the handle's, and a jump into the kernel. No frame, no lock, no thread-local state: whatever
// could be decided beforehand was decided when the handle was made.

#include "crud/handles.h"

using metalayer::crud::ColumnLocation;
using metalayer::crud::Locate;

uint32_t lorv_crud_ReadBinary(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                              uint64_t addr, LORV_BINARY** out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_get_binary(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteBinary(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                               uint64_t addr, void const* data, uint64_t size) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_binary(context, oid, at.addr, at.column, data, size);
}

uint32_t lorv_crud_ReadDecimal(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                               uint64_t addr, int64_t* out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_get_decimal(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteDecimal(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                                uint64_t addr, int64_t value) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_decimal(context, oid, at.addr, at.column, value);
}

uint32_t lorv_crud_ReadDouble(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                              uint64_t addr, double* out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_get_double(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteDouble(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                               uint64_t addr, double value) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_double(context, oid, at.addr, at.column, value);
}

uint32_t lorv_crud_ReadFloat(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                             uint64_t addr, float* out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_get_float(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteFloat(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                              uint64_t addr, float value) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_float(context, oid, at.addr, at.column, value);
}

uint32_t lorv_crud_ReadLong(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                            uint64_t addr, int64_t* out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_get_long(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteLong(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                             uint64_t addr, int64_t value) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_long(context, oid, at.addr, at.column, value);
}

uint32_t lorv_crud_ReadULong(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                             uint64_t addr, uint64_t* out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_get_ulong(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteULong(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                              uint64_t addr, uint64_t value) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_ulong(context, oid, at.addr, at.column, value);
}

uint32_t lorv_crud_ReadBool(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                            uint64_t addr, uint64_t* out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_meta_get_bool(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteBool(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                             uint64_t addr, bool value) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_meta_put_bool(context, oid, at.addr, at.column, value);
}

uint32_t lorv_crud_WriteDefault(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                                uint64_t addr) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_default(context, oid, at.addr, at.column);
}

// The reference is written whatever the status: the caller tests the status first.
uint32_t lorv_crud_ReadRef(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                           uint64_t addr, LS_OBJ_REF* out) {
  ColumnLocation const at = Locate(handle, addr);
  LORV_REFERENCE reference{};
  uint32_t const status = lorv_context_get_reference(context, oid, at.addr, at.column, &reference);
  *out = db_util::Fold(reference);
  return status;
}

uint32_t lorv_crud_ReadRefId(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                             uint64_t addr, uint64_t* out) {
  ColumnLocation const at = Locate(handle, addr);
  return lorvi_context_get_refid(context, oid, at.addr, at.column, out);
}

uint32_t lorv_crud_WriteRef(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                            uint64_t addr, uint64_t target_oid, uint64_t target_addr) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_reference(context, oid, at.addr, at.column, target_oid, target_addr);
}

// The result is the kernel's own memory, so the text is terminated in it.
uint32_t lorv_crud_ReadString(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                              uint64_t addr, char16_t const** out) {
  ColumnLocation const at = Locate(handle, addr);
  LORV_STRING* text = nullptr;
  uint32_t const status = lorv_context_get_string(context, oid, at.addr, at.column, &text);
  if (status != 0) return status;
  char16_t* const units = text->units;
  units[text->length] = 0;
  *out = units;
  return 0;
}

uint32_t lorv_crud_WriteString(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                               uint64_t addr, char16_t const* text) {
  ColumnLocation const at = Locate(handle, addr);
  return lorv_context_put_string(context, oid, at.addr, at.column, text);
}
