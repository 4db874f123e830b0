#ifndef CATALOGUE_UTILS_H
#define CATALOGUE_UTILS_H

// Shared only by the schema changes: kernel records of columns, and catalogue rows that belong to a
// table. Everything works in the thread's context and transaction; the rows returned are valid
// until its end.

#include <sagleme/metalayer/ddl.hpp>
#include <sagleme/metalayer/keys.hpp>
#include <string>

namespace metalayer::ddl {

// Raised without a text: a list of kernel records is full before its columns end.
inline constexpr unsigned int kTooManyKernelRecords = SAGLEME_TOO_MANY_RECORDS;

// A table's additions over its base, ended by a record of type 0.
struct KernelRecords {
  LORVI_COLUMN_DEFINITION items[kMaxColumns] = {};

  span<LORVI_COLUMN_DEFINITION const> all() const { return items; }
};

inline bool IsTerminator(LORV_COLUMN_DEFINITION const& definition) {
  return definition.type.oid == 0;
}
inline bool IsTerminator(LORV_COLUMN_DEFINITION_NAMES const& definition) {
  return definition.name == nullptr;
}

inline std::u16string FullNameOf(LS_OBJ_REF const& table) {
  return GetText(table, RawView::kFullName);
}
inline short ColumnIndexOf(LS_OBJ_REF const& column) {
  return static_cast<short>(GetLong(column, RawColumn::kColumnIndex));
}
inline unsigned short LayoutHandleOf(LS_OBJ_REF const& table) {
  return static_cast<unsigned short>(GetULong(table, RawView::kLayoutHandle));
}
// Null for a root.
inline RawView ParentOf(RawView const& table) { return RawView(table.get_ref(RawView::kInherits)); }

// The kernel record of a column as it stands in the table's present layout: it keeps its token.
LORVI_COLUMN_DEFINITION KernelRecordOf(RawView const& table, RawColumn const& column);

// Adds `delta` to the ordinals of the table's columns from `first` on.
void ShiftColumns(RawView const& table, int first, int delta);

// The text of the table's set specifier. Ends the process when the table has no row for it.
std::u16string SetspecTextOf(LS_OBJ_REF const& table);

// The pending request for the objects of a set specifier, null for none.
LS_OBJ_REF VacuumRequestOf(std::u16string const& setspec);

// The first row of an index on a reference column that refers to `target`, null for none.
LS_OBJ_REF FirstByRef(unsigned long index_id, LS_OBJ_REF const& target);

// Opens `rows` over all rows of an index whose first column refers to `target`.
void OpenByRef(db_util::db_iter_with_keys& rows, unsigned long index_id, LS_OBJ_REF const& target);

// Calls `callable` with the reference of each of them; it may delete the row.
template <typename Callable>
void EnumByRef(unsigned long index_id, LS_OBJ_REF const& target, Callable&& callable) {
  db_util::db_iter_with_keys rows;
  OpenByRef(rows, index_id, target);
  while (rows.next()) callable(rows.current);
}

}  // namespace metalayer::ddl

#endif
