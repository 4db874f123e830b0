#include <sagleme/metalayer/records.hpp>

#include "frame/traps.h"

namespace db_util {
namespace {

constexpr unsigned int kIteratorNotFreed = SAGLEME_ITERATOR_NOT_FREED;

// If an iterator cannot be freed, the kernel and this library disagree on what is open, and nothing
// after that can be trusted.
void FreeIterator(unsigned long handle) {
  if (handle == 0) return;
  if (lorv_iterator_free(handle) != 0) raise_unexpected_except(kIteratorNotFreed);
}

}  // namespace

db_iterator::~db_iterator() { FreeIterator(handle); }

void db_iterator::free_resources() {
  FreeIterator(handle);
  handle = 0;
}

void db_iterator::open(unsigned long index_id, unsigned int flags, void const* first,
                       void const* last) {
  free_resources();
  current = null_obj_ref;
  metalayer::Check(lorv_context_create_iterator(metalayer::TlsContextHandle::context(), index_id,
                                                flags, first, last, &handle));
}

bool db_iterator::next() {
  LORV_REFERENCE record;
  metalayer::Check(lorv_iterator_next(handle, &record));
  // At the end the kernel sets only the identity.
  current = record.oid == 0 ? null_obj_ref : Fold(record);
  return record.oid != 0;
}

}  // namespace db_util

namespace metalayer {

LS_OBJ_REF LookupByKey(unsigned long index_id, void const* key) {
  db_util::db_iterator row;
  row.open(index_id, kForward, key, key);
  row.next();
  return row.current;
}

unsigned long GetULong(LS_OBJ_REF const& row, unsigned int column) {
  unsigned long value = 0;
  Check(lorv_context_get_ulong(TlsContextHandle::context(), row.oid, row.addr, column, &value));
  return value;
}

long GetLong(LS_OBJ_REF const& row, unsigned int column) {
  long value = 0;
  Check(lorv_context_get_long(TlsContextHandle::context(), row.oid, row.addr, column, &value));
  return value;
}

bool GetBool(LS_OBJ_REF const& row, unsigned int column) { return GetULong(row, column) != 0; }

std::u16string GetText(LS_OBJ_REF const& row, unsigned int column) {
  char16_t const* const text = db_record(row).get_string(column);
  return text == nullptr ? std::u16string() : std::u16string(text);
}

void PutULong(LS_OBJ_REF const& row, unsigned int column, unsigned long value) {
  Check(lorv_context_put_ulong(TlsContextHandle::context(), row.oid, row.addr, column, value));
}

void PutLong(LS_OBJ_REF const& row, unsigned int column, long value) {
  Check(lorv_context_put_long(TlsContextHandle::context(), row.oid, row.addr, column, value));
}

void PutBool(LS_OBJ_REF const& row, unsigned int column, bool value) {
  PutULong(row, column, value ? 1 : 0);
}

void PutText(LS_OBJ_REF const& row, unsigned int column, char16_t const* value) {
  Check(lorv_context_put_string(TlsContextHandle::context(), row.oid, row.addr, column, value));
}

void PutRef(LS_OBJ_REF const& row, unsigned int column, LS_OBJ_REF const& value) {
  Check(lorv_context_put_reference(TlsContextHandle::context(), row.oid, row.addr, column,
                                   value.oid, value.addr));
}

void DeleteRow(LS_OBJ_REF const& row) {
  Check(lorv_context_delete(TlsContextHandle::context(), row.oid, row.addr));
}

}  // namespace metalayer
