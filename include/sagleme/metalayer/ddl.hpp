#ifndef SAGLEME_METALAYER_DDL_HPP
#define SAGLEME_METALAYER_DDL_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// Changes of the user schema.
//
// All functions run on the caller's thread, in its context and inside the transaction that is open
// there, and take no lock. They never touch objects: a table whose stored shape changes gets a new
// kernel layout and a row in Vacuum, and its objects stay under the old layout.
//
// Failures are thrown as db_util::db_exception or a class derived from it, with the text in the
// error buffer. A failure halfway undoes nothing; the caller rolls its transaction back. A broken
// catalogue ends the process.
//
// Each change increments the schema generation, once per call unless stated otherwise.
//
// Names: a table given as text is a full name; in a DottedName, leading segments may be omitted.
// Rows passed in and returned are valid until the transaction ends.

#include <sagleme/sagleme.h>

#include <functional>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/keys.hpp>
#include <sagleme/metalayer/names.hpp>
#include <span>
#include <string>
#include <vector>

namespace metalayer {

struct COLUMN_INFO;

// Spans of column definitions include their terminator: they are never empty, and their size is the
// number of columns plus one.
template <typename T>
using span = std::span<T>;

inline constexpr std::size_t kMaxDefinitions = 112;  // in one call
inline constexpr std::size_t kMaxColumns = 115;      // in one table, all included

// Converts column descriptions to catalogue rows. Lives on the stack of one operation and holds
// rows of the transaction in which it was created.
//
// A table has a row for each of its columns, including inherited ones, with dense ordinals;
// inherited columns come first and have the parent's ordinals. A reference column whose target
// table does not exist yet is deferred: it has the target's name instead of a data type.
class SAGLEME_API MetaPopul8r {
 public:
  // `strict`: the target table of a reference column given by name must exist. Ends the process if
  // rows of system tables are missing.
  explicit MetaPopul8r(bool strict);

  // Each writes one column row of `table`. Name and ordinal are not checked; only the catalogue's
  // unique indexes refuse duplicates. SAGLEME_TARGET_NOT_FOUND for a type that does not exist, with
  // the column and the type in the text.
  //
  // The type as a row: of a primitive type or a table, but not of anything derived from them.
  void PopulateColumnMeta(LS_OBJ_REF table, LORV_COLUMN_DEFINITION const& definition, int ordinal,
                          bool inherited);
  // The type as a code, with the target's full name. SAGLEME_COLUMN_NOT_NULLABLE for a column that
  // must be nullable because of its type.
  void PopulateColumnMeta(LS_OBJ_REF table, LORV_COLUMN_DEFINITION_NAMES const& definition,
                          int ordinal, bool inherited);
  // The column of a system table.
  void PopulateColumnMeta(LS_OBJ_REF table, COLUMN_INFO const& definition, int ordinal,
                          bool inherited);

  // Copies a parent's column rows into a child and returns the child's first free ordinal. Writes
  // nothing if the child has columns or the parent is null.
  int CopyParentColumns(LS_OBJ_REF child, LS_OBJ_REF parent);

  // Resolves all deferred columns of the database. SAGLEME_TARGET_NOT_FOUND for the first whose
  // target still does not exist; earlier ones stay resolved.
  void UpdateRefTypes();

 private:
  // One row of CopyParentColumns.
  void CopyColumn(LS_OBJ_REF child, LS_OBJ_REF column, int ordinal);

  LS_OBJ_REF reference_primitive_;
  LS_OBJ_REF primitive_table_;
  LS_OBJ_REF raw_column_table_;
  LS_OBJ_REF reference_column_table_;
  LS_OBJ_REF raw_view_table_;
  bool strict_;
};

// Requests that vacuum moves the table's objects to its current layout: writes a row of Vacuum of
// kind 1, or the new layout into the pending row, whose kind stays.
SAGLEME_API void RegisterMove(RawView const& view);

}  // namespace metalayer

namespace metalayer::ddl {

// ---- shared by all schema changes ---------------------------------------------------------------

// Converts one definition to the kernel's form, with the given token. SAGLEME_INVALID_TYPE for an
// invalid type.
SAGLEME_API void ToLorviColDef(LORV_COLUMN_DEFINITION const& definition, unsigned long token,
                               LORVI_COLUMN_DEFINITION* out);
SAGLEME_API void ToLorviColDef(LORV_COLUMN_DEFINITION_NAMES const& definition, unsigned long token,
                               LORVI_COLUMN_DEFINITION* out);
SAGLEME_API unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION const& definition);
SAGLEME_API unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION_NAMES const& definition);

// Converts definitions whose catalogue rows exist, from `first_ordinal` on, to the kernel's form,
// ended by a record of type 0. Returns the number of columns. A column's token is that of its row's
// identity as decimal text. `out` takes two columns less than its size; SAGLEME_BAD_ARGUMENT for
// more.
SAGLEME_API int ToLorviColDefs(RawView const& table,
                               span<LORV_COLUMN_DEFINITION const> const& definitions,
                               int first_ordinal, span<LORVI_COLUMN_DEFINITION> const& out);
SAGLEME_API int ToLorviColDefs(RawView const& table,
                               span<LORV_COLUMN_DEFINITION_NAMES const> const& definitions,
                               int first_ordinal, span<LORVI_COLUMN_DEFINITION> const& out);

// Creates a kernel layout from the columns of `base` (null: the root of all layouts) and `columns`,
// which end with a record of type 0. Returns its number.
SAGLEME_API unsigned short CreateKernelLayout(char16_t const* table_name, LS_OBJ_REF base,
                                              span<LORVI_COLUMN_DEFINITION const> const& columns);
// Creates a new layout for a table over its base's current one, under the token of its old one.
// Updates LayoutHandle and keeps the old layout.
SAGLEME_API unsigned short RecreateTable(RawView& table,
                                         span<LORVI_COLUMN_DEFINITION const> const& columns);

// Throws SAGLEME_TABLE_REFERENCED if a class maps the table.
SAGLEME_API void CheckTableIsNotUsedByLevel1(RawView const& table);
// A column that the table itself declares. SAGLEME_NO_SUCH_COLUMN. SAGLEME_COLUMN_INHERITED: an
// ancestor declares it.
SAGLEME_API RawColumn GetNonInheritedColumn(RawView const& table, char16_t const* column_name);
// The highest ordinal plus one, 0 for none.
SAGLEME_API int GetColumnsCount(RawView const& table);
// Throw SAGLEME_TABLE_NOT_FOUND and SAGLEME_INDEX_NOT_FOUND.
SAGLEME_API RawView ExistingTable(char16_t const* full_name);
SAGLEME_API Index ExistingIndex(char16_t const* name);

// Calls `callable` with each RawColumn row with an ordinal from `first` up to but excluding `end`;
// an `end` of -1 means all. The callable may change the rows.
template <typename Callable>
void EnumColumns(RawView const& table, int first, int end, Callable&& callable) {
  if (first == end) return;
  db_util::db_iter_with_keys columns;
  Key(columns.first_key).Ref(table).Long(static_cast<short>(first));
  // The last ordinal of an open end is the highest that a short holds.
  Key(columns.last_key).Ref(table).Long(end == -1 ? 0x7FFF : static_cast<short>(end - 1));
  columns.open(RawColumn::index_id_RawColumnPK(), kForward);
  while (columns.next()) callable(RawColumn(columns.current));
}

// Calls `callable` with each direct child.
template <typename Callable>
void EnumChildren(LS_OBJ_REF parent, Callable&& callable) {
  db_util::db_iter_with_keys children;
  Key(children.first_key).Ref(parent);
  Key(children.last_key).Ref(parent);
  children.open(RawView::index_id_RawViewIdxInherits(), kForward);
  while (children.next()) callable(RawView(children.current));
}

// ---- tables -------------------------------------------------------------------------------------

// Both create a table. If a table of that name exists, they compare it with the definition and
// write nothing, not even the schema generation. A null base is the root of all layouts.
// SAGLEME_BAD_ARGUMENT: more than kMaxColumns columns, including the base's.
// SAGLEME_SCHEMA_MISMATCH: the existing table differs. SAGLEME_TARGET_NOT_FOUND,
// SAGLEME_COLUMN_NOT_NULLABLE: see MetaPopul8r.
//
// Types as rows. `base` is not looked up: a row that is not a table ends the process. `out_table`
// receives the new row, but nothing if the table exists; `out_layout` receives the layout number in
// both cases. Both may be null.
SAGLEME_API void CreateTableAndMeta(bool strict, char16_t const* name, db_util::LsObjRef base,
                                    span<LORV_COLUMN_DEFINITION const> columns,
                                    LS_OBJ_REF* out_table, unsigned short* out_layout);
// Types as codes and names. SAGLEME_BASE_NOT_FOUND for an unknown base. `out_layout` is written
// before an existing table is verified.
SAGLEME_API void CreateTableHigh(bool strict, char16_t const* name, char16_t const* base_name,
                                 span<LORV_COLUMN_DEFINITION_NAMES const> columns,
                                 unsigned short* out_layout);

// Appends columns to the table's own ones, and as inherited columns to all descendants, whose own
// columns move up. Returns the table's new layout number. SAGLEME_BAD_ARGUMENT: no columns, or too
// many. SAGLEME_COLUMN_NAME_TAKEN: lists all conflicts of the table and of the first descendant
// that has any.
SAGLEME_API unsigned short AddColumns(char16_t const* full_name,
                                      span<LORV_COLUMN_DEFINITION_NAMES const> const& columns);
SAGLEME_API unsigned short AddColumns(DottedName const& name,
                                      span<LORV_COLUMN_DEFINITION_NAMES const> const& columns);

// Drops a column from the table that declares it and from all descendants. Returns the table's new
// layout number. Increments the schema generation once per table. SAGLEME_COLUMN_INDEXED: an index
// uses the column. SAGLEME_COLUMN_MAPPED: a property maps it. SAGLEME_TABLE_REFERENCED: a class
// maps the table. Each table is checked when the change reaches it.
SAGLEME_API unsigned short DropColumn(char16_t const* table, char16_t const* column);
SAGLEME_API unsigned short DropColumn(DottedName const& table, char16_t const* column);

// Renames a column in the table that declares it and in all descendants. SAGLEME_COLUMN_NAME_TAKEN:
// the new name is taken, possibly by the column itself. Layouts and objects are unchanged.
SAGLEME_API void RenameColumn(char16_t const* table, char16_t const* old_name,
                              char16_t const* new_name);
SAGLEME_API void RenameColumn(DottedName const& table, char16_t const* old_name,
                              char16_t const* new_name);

// Renames a table, also in the reference columns that point at it. SAGLEME_TABLE_EXISTS: the name
// is taken, possibly by the table itself. Descendants keep their names, and the kernel layout keeps
// its token.
SAGLEME_API void RenameTable(char16_t const* old_name, char16_t const* new_name);
SAGLEME_API void RenameTable(DottedName const& old_name, char16_t const* new_name);

// Removes a table and its indexes from the catalogue and requests the deletion of its objects: a
// row of Vacuum of kind 2. With `drop_children` it removes all descendants, otherwise
// SAGLEME_TABLE_HAS_DESCENDANTS if there are any. With `force` it ignores reference columns and
// classes that point at the table, otherwise SAGLEME_TABLE_REFERENCED. Increments the schema
// generation once per table and once per index.
SAGLEME_API void DropTable(char16_t const* name, bool drop_children, bool force);

// Removes a table and all descendants from the catalogue. None may have an index or an object:
// SAGLEME_TABLE_NOT_EMPTY. Checks everything before it removes anything. Ignores references and
// classes.
SAGLEME_API void DropTableCascade(char16_t const* name);

// Drops a set of tables, which may refer to each other, in the order of their rows' identities.
// Unless `force`, the first column that refers to each table must be inside the set. `names` ends
// with a null pointer.
SAGLEME_API void DropMutuallyReferencingTables(char16_t const** names, bool drop_children,
                                               bool force);
SAGLEME_API void DropMutuallyReferencingTables(std::vector<DottedName> const& names,
                                               bool drop_children, bool force);

// Deletes all mapped properties and classes. The schema generation is unchanged.
SAGLEME_API void CleanClrMetadata();

// ---- indexes ------------------------------------------------------------------------------------

// All create an index of at most 15 columns on a table and its descendants; index names are unique
// in the database. `columns` are ordinals ended by -1; bit i of `sort_mask` makes the i-th column
// descending; bit 0 of `flags` makes the index unique; the kernel receives all flags.
// SAGLEME_INDEX_EXISTS: the name is taken. SAGLEME_BROKEN_CATALOGUE: an unknown ordinal, or too
// many columns, which the forms by ordinals detect after the kernel has created the index.
// SAGLEME_TOO_MANY_RECORDS: more than 114 ordinals.
SAGLEME_API void CreateIndexAndMeta(LS_OBJ_REF table, char16_t const* name,
                                    unsigned short sort_mask, short const* columns,
                                    unsigned int flags);
// SAGLEME_TABLE_NOT_FOUND, SAGLEME_COLUMN_NOT_FOUND.
SAGLEME_API void CreateIndexHigh(char16_t const* name, char16_t const* table_name,
                                 LORV_INDEXED_COLUMN const* columns, bool unique);
// Finds the table by its current layout number. SAGLEME_TABLE_NOT_FOUND.
SAGLEME_API void CreateIndexByLayoutId(unsigned short layout_id, char16_t const* name,
                                       unsigned short sort_mask, short const* columns,
                                       unsigned int flags);

// Removes an index: first its rows, then the kernel's index. For a row without a handle it neither
// calls the kernel nor increments the schema generation. The argument is null afterwards.
SAGLEME_API void DropIndex(Index&& index);
// Removes only the rows of an index's columns.
SAGLEME_API void DropIndexedColumns(Index const& index);
// SAGLEME_INDEX_NOT_FOUND. SAGLEME_INDEX_OF_ANOTHER_TABLE: it belongs to another table, possibly an
// ancestor.
SAGLEME_API void DropIndex(char16_t const* name);
SAGLEME_API void DropIndex(char16_t const* table_name, char16_t const* name);
SAGLEME_API void DropIndex(DottedName const& table, char16_t const* name);

}  // namespace metalayer::ddl

#endif
