#ifndef SAGLEME_METALAYER_RECORDS_HPP
#define SAGLEME_METALAYER_RECORDS_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// Thin typed wrappers of the kernel's rows and index scans: references, row handles, and iterators
// that own what they open. Everything works in the thread's context and is valid inside one frame.

#include <cstddef>
#include <sagleme/metalayer/context.hpp>
#include <sagleme/metalayer/errors.hpp>

namespace db_util {

using LsObjRef = ::LS_OBJ_REF;
inline constexpr LsObjRef null_obj_ref{0, 0};

// The two-word form of a reference that the kernel returned.
inline LsObjRef Fold(LORV_REFERENCE const& reference) {
  return {reference.oid, reference.position << 16 | reference.layout};
}

// A row handle: a reference with getters, and no ownership. `Handle` supplies the context.
template <typename Handle>
class db_recordT : public LsObjRef {
 public:
  db_recordT() : LsObjRef(null_obj_ref) {}
  explicit db_recordT(LsObjRef reference) : LsObjRef(reference) {}

  bool is_null() const { return oid == 0; }

  // The text of a column, terminated in place in kernel memory; a null pointer for null.
  char16_t const* get_string(unsigned int column) const;
  // The reference in a column; the null reference for null.
  LsObjRef get_ref(unsigned int column) const;
};

// Owner of a kernel iterator: frees it, and ends the process if the kernel refuses.
class SAGLEME_API db_iterator {
 public:
  db_iterator() = default;
  db_iterator(db_iterator const&) = delete;
  db_iterator& operator=(db_iterator const&) = delete;
  virtual ~db_iterator();

  // Opens a scan; an open one is freed first. The keys must live as long as the iterator.
  void open(unsigned long index_id, unsigned int flags, void const* first, void const* last);
  // Moves to the next row, which becomes `current`; false at the end, with `current` null.
  bool next();
  void free_resources();

  unsigned long handle = 0;
  LsObjRef current = null_obj_ref;
};

// An iterator with room for the two keys of its range.
class SAGLEME_API db_iter_with_keys : public db_iterator {
 public:
  static constexpr std::size_t kKeySize = 1024;

  using db_iterator::open;
  void open(unsigned long index_id, unsigned int flags) {
    open(index_id, flags, first_key, last_key);
  }

  alignas(8) unsigned char first_key[kKeySize];
  alignas(8) unsigned char last_key[kKeySize];
};

}  // namespace db_util

namespace metalayer {

// The handle policy of every row in this library: the thread's context.
struct TlsContextHandle {
  static unsigned long context() { return *TlsMetalayerContext::Current(); }
};

using db_record = db_util::db_recordT<TlsContextHandle>;

inline constexpr unsigned int kForward = LORV_ITERATOR_FORWARD;
inline constexpr unsigned int kReverse = LORV_ITERATOR_REVERSE;

// The first row of `index_id` with exactly this key, null for none. At most one row is read.
SAGLEME_API LS_OBJ_REF LookupByKey(unsigned long index_id, void const* key);

// Column reads and writes in the thread's context; a failure is thrown with the kernel's code.
SAGLEME_API unsigned long GetULong(LS_OBJ_REF const& row, unsigned int column);
SAGLEME_API long GetLong(LS_OBJ_REF const& row, unsigned int column);
SAGLEME_API bool GetBool(LS_OBJ_REF const& row, unsigned int column);
SAGLEME_API std::u16string GetText(LS_OBJ_REF const& row, unsigned int column);  // null: empty
SAGLEME_API void PutULong(LS_OBJ_REF const& row, unsigned int column, unsigned long value);
SAGLEME_API void PutLong(LS_OBJ_REF const& row, unsigned int column, long value);
SAGLEME_API void PutBool(LS_OBJ_REF const& row, unsigned int column, bool value);
SAGLEME_API void PutText(LS_OBJ_REF const& row, unsigned int column, char16_t const* value);
SAGLEME_API void PutRef(LS_OBJ_REF const& row, unsigned int column, LS_OBJ_REF const& value);
SAGLEME_API void DeleteRow(LS_OBJ_REF const& row);

// Where the class of a system table keeps what it knows of its table in one database.
struct MetaclassSlots {
  std::u16string* setspec;
  unsigned long* type_id;
  unsigned short* table_id;
  unsigned long* index_ids[3];  // in the order of declaration, null after the last
};

// The slots of class `number` in the database of the thread's context. Without a context, and for
// the first database opened, they are the exported statics of the class.
SAGLEME_API MetaclassSlots const& SlotsOfMetaclass(unsigned int number);

// A non-zero kernel status as an exception.
inline void Check(unsigned int status) {
  if (status != 0) db_util::db_exception::check(status);
}

}  // namespace metalayer

// ---- templates ----------------------------------------------------------------------------------

namespace db_util {

template <typename Handle>
char16_t const* db_recordT<Handle>::get_string(unsigned int column) const {
  LORV_STRING* record = nullptr;
  unsigned int const status =
      lorv_context_get_string(Handle::context(), oid, addr, column, &record);
  if (status == LORV_STATUS_NULL) return nullptr;
  if (status != 0) db_exception::check(status);
  char16_t* const units = record->units;
  units[record->length] = 0;
  return units;
}

template <typename Handle>
LsObjRef db_recordT<Handle>::get_ref(unsigned int column) const {
  LORV_REFERENCE record;
  unsigned int const status =
      lorv_context_get_reference(Handle::context(), oid, addr, column, &record);
  if (status == LORV_STATUS_NULL) return null_obj_ref;
  if (status != 0) db_exception::check(status);
  return Fold(record);
}

}  // namespace db_util

#endif
