#ifndef SAGLEME_METALAYER_DDL_HPP
#define SAGLEME_METALAYER_DDL_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// Changes of the user schema.
//
// All of it runs on the caller's thread, in the thread's context and inside the transaction that is
// open there, and takes no lock. None of it touches objects: a table whose stored shape changes
// gets a new kernel layout and a row in Vacuum, and its objects stay under the old layout.
//
// Failures are thrown as db_util::db_exception or a class derived from it, with the text in the
// error buffer. A failure half way undoes nothing: what was written stays until the caller's
// transaction is rolled back, which is what a caller does then. A broken catalogue ends the
// process.
//
// Every change advances the schema generation, once per call unless it says otherwise.
//
// Names: where a function takes a table as text, it is the full name; where it takes a DottedName,
// leading segments may be missing. Rows handed in and out are valid until the transaction ends.

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

// Spans of column definitions count their terminator entry: they are never empty, and their size is
// the number of columns plus one.
template <typename T>
using span = std::span<T>;

inline constexpr std::size_t kMaxDefinitions = 112;  // in one call
inline constexpr std::size_t kMaxColumns = 115;      // in one table, all included

// Turns column descriptions into catalogue rows. Built on the stack for one operation; holds rows
// of the transaction that it was built in.
//
// A table has a row for each of its columns, inherited ones included, with dense ordinals;
// inherited ones come first and have the parent's ordinals. A reference column whose target table
// does not exist yet is deferred: it has no data type, but the target's name.
class SAGLEME_API MetaPopul8r {
 public:
  // `strict`: a reference column described by names must find its target table now. Ends the
  // process when the system tables' own rows are missing.
  explicit MetaPopul8r(bool strict);

  // Each writes one column row of `table`. Name and ordinal are taken as they are: that they are
  // free is watched by the catalogue's unique indexes alone. SAGLEME_TARGET_NOT_FOUND for a type
  // that does not exist, with the column and the type in the text.
  //
  // The type as a row: of a primitive type or of a table, and of nothing derived from them.
  void PopulateColumnMeta(LS_OBJ_REF table, LORV_COLUMN_DEFINITION const& definition, int ordinal,
                          bool inherited);
  // The type as a code, and the target's full name. SAGLEME_COLUMN_NOT_NULLABLE for a column that
  // is not nullable though its type always is.
  void PopulateColumnMeta(LS_OBJ_REF table, LORV_COLUMN_DEFINITION_NAMES const& definition,
                          int ordinal, bool inherited);
  // The column of a system table.
  void PopulateColumnMeta(LS_OBJ_REF table, COLUMN_INFO const& definition, int ordinal,
                          bool inherited);

  // Copies a parent's column rows into a child and returns the child's first free ordinal. Writes
  // nothing when the child has columns, or the parent is null.
  int CopyParentColumns(LS_OBJ_REF child, LS_OBJ_REF parent);

  // Gives all deferred columns of the database their data type. SAGLEME_TARGET_NOT_FOUND for the
  // first whose target still does not exist; those before it are done then.
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

// Asks for the table's objects to be moved to its current layout: a row of Vacuum with the kind 1,
// or the new layout in the row that is pending, whose kind stays.
SAGLEME_API void RegisterMove(RawView const& view);

}  // namespace metalayer

namespace metalayer::ddl {

// ---- shared by all schema changes ---------------------------------------------------------------

// One definition as the kernel takes it, with the token given. SAGLEME_INVALID_TYPE for a type that
// is none.
SAGLEME_API void ToLorviColDef(LORV_COLUMN_DEFINITION const& definition, unsigned long token,
                               LORVI_COLUMN_DEFINITION* out);
SAGLEME_API void ToLorviColDef(LORV_COLUMN_DEFINITION_NAMES const& definition, unsigned long token,
                               LORVI_COLUMN_DEFINITION* out);
SAGLEME_API unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION const& definition);
SAGLEME_API unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION_NAMES const& definition);

// Definitions whose catalogue rows exist, from `first_ordinal` on, as the kernel takes them, ended
// by a record of type 0. Returns the number of columns. A column's token is that of the decimal
// text of its row's identity. `out` takes two columns less than its size; SAGLEME_BAD_ARGUMENT for
// more.
SAGLEME_API int ToLorviColDefs(RawView const& table,
                               span<LORV_COLUMN_DEFINITION const> const& definitions,
                               int first_ordinal, span<LORVI_COLUMN_DEFINITION> const& out);
SAGLEME_API int ToLorviColDefs(RawView const& table,
                               span<LORV_COLUMN_DEFINITION_NAMES const> const& definitions,
                               int first_ordinal, span<LORVI_COLUMN_DEFINITION> const& out);

// A kernel layout of the columns of `base` (null: the root of all layouts) and then `columns`,
// which end with a record of type 0. Returns its number.
SAGLEME_API unsigned short CreateKernelLayout(char16_t const* table_name, LS_OBJ_REF base,
                                              span<LORVI_COLUMN_DEFINITION const> const& columns);
// A new layout for a table over its base's present one, under the token of its old one. Writes
// LayoutHandle and leaves the old layout as it is.
SAGLEME_API unsigned short RecreateTable(RawView& table,
                                         span<LORVI_COLUMN_DEFINITION const> const& columns);

// SAGLEME_TABLE_REFERENCED when a class maps the table.
SAGLEME_API void CheckTableIsNotUsedByLevel1(RawView const& table);
// A column that the table declares itself. SAGLEME_NO_SUCH_COLUMN: there is none,
// SAGLEME_COLUMN_INHERITED: it is inherited.
SAGLEME_API RawColumn GetNonInheritedColumn(RawView const& table, char16_t const* column_name);
// The highest ordinal plus one, 0 for none.
SAGLEME_API int GetColumnsCount(RawView const& table);
// SAGLEME_TABLE_NOT_FOUND for no such table, SAGLEME_INDEX_NOT_FOUND for no such index.
SAGLEME_API RawView ExistingTable(char16_t const* full_name);
SAGLEME_API Index ExistingIndex(char16_t const* name);

// Calls `callable` with each RawColumn row of the ordinals from `first` to before `end`; `end` -1
// is the last column. The rows may be changed by the callable.
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

// Both create a table, or, when one of that name exists, hold it against the definition and write
// nothing, the schema generation included. A null base is the root of all layouts.
// SAGLEME_BAD_ARGUMENT: more than kMaxColumns columns with the base's. SAGLEME_SCHEMA_MISMATCH: the
// existing table differs. SAGLEME_TARGET_NOT_FOUND, SAGLEME_COLUMN_NOT_NULLABLE: see MetaPopul8r.
//
// Types as rows. `base` is not looked up: one that is no table ends the process. `out_table` gets
// the new row, and nothing when the table exists; `out_layout` gets the layout number either way.
// Both may be null.
SAGLEME_API void CreateTableAndMeta(bool strict, char16_t const* name, db_util::LsObjRef base,
                                    span<LORV_COLUMN_DEFINITION const> columns,
                                    LS_OBJ_REF* out_table, unsigned short* out_layout);
// Types as codes and names. SAGLEME_BASE_NOT_FOUND for an unknown base. `out_layout` is written
// before an existing table is verified.
SAGLEME_API void CreateTableHigh(bool strict, char16_t const* name, char16_t const* base_name,
                                 span<LORV_COLUMN_DEFINITION_NAMES const> columns,
                                 unsigned short* out_layout);

// Adds columns behind the table's own ones, and as inherited columns to all descendants, whose own
// columns move up. Returns the table's new layout number. SAGLEME_BAD_ARGUMENT: no columns, or too
// many; SAGLEME_COLUMN_NAME_TAKEN: names in use, told all at once for the table, and for the first
// descendant that has any.
SAGLEME_API unsigned short AddColumns(char16_t const* full_name,
                                      span<LORV_COLUMN_DEFINITION_NAMES const> const& columns);
SAGLEME_API unsigned short AddColumns(DottedName const& name,
                                      span<LORV_COLUMN_DEFINITION_NAMES const> const& columns);

// Drops a column from the table that declares it and from all descendants. Returns the table's new
// layout number. The schema generation advances once per table. SAGLEME_COLUMN_INDEXED: an index
// holds the column, SAGLEME_COLUMN_MAPPED: a property maps it, SAGLEME_TABLE_REFERENCED: a class
// maps the table; each is found when the change reaches the table.
SAGLEME_API unsigned short DropColumn(char16_t const* table, char16_t const* column);
SAGLEME_API unsigned short DropColumn(DottedName const& table, char16_t const* column);

// Renames a column in the table that declares it and in all descendants. SAGLEME_COLUMN_NAME_TAKEN:
// the new name is taken, by the column itself too. No layout changes and no object is concerned.
SAGLEME_API void RenameColumn(char16_t const* table, char16_t const* old_name,
                              char16_t const* new_name);
SAGLEME_API void RenameColumn(DottedName const& table, char16_t const* old_name,
                              char16_t const* new_name);

// Gives a table a new full name, also in the reference columns that point at it.
// SAGLEME_TABLE_EXISTS: the name is taken, by the table itself too. Descendants keep their names,
// the kernel layout keeps its token.
SAGLEME_API void RenameTable(char16_t const* old_name, char16_t const* new_name);
SAGLEME_API void RenameTable(DottedName const& old_name, char16_t const* new_name);

// Takes a table with its indexes out of the catalogue and asks for its objects to be deleted: a row
// of Vacuum with the kind 2. `drop_children`: all descendants go too, else
// SAGLEME_TABLE_HAS_DESCENDANTS when there are any. `force`: reference columns
// (SAGLEME_TABLE_REFERENCED) and classes (SAGLEME_TABLE_REFERENCED) that point at the table do not
// hold it. The schema generation advances once per table, and once per index.
SAGLEME_API void DropTable(char16_t const* name, bool drop_children, bool force);

// Takes a table with all descendants out of the catalogue, none of which may have an index or an
// object: SAGLEME_TABLE_NOT_EMPTY. All is checked before anything goes. References and classes are
// not asked.
SAGLEME_API void DropTableCascade(char16_t const* name);

// Drops a set of tables, in the order of their rows' identities, that may refer to one another. For
// each table the first column that refers to it must lie inside the set, unless `force`. `names`
// ends with a null pointer.
SAGLEME_API void DropMutuallyReferencingTables(char16_t const** names, bool drop_children,
                                               bool force);
SAGLEME_API void DropMutuallyReferencingTables(std::vector<DottedName> const& names,
                                               bool drop_children, bool force);

// Forgets every mapped property and every class. The schema generation stays.
SAGLEME_API void CleanClrMetadata();

// ---- indexes ------------------------------------------------------------------------------------

// All create an index of at most 15 columns over a table and its descendants; its name is unique in
// the database. `columns` are ordinals ended by -1, bit i of `sort_mask` makes the i-th column
// descend, bit 0 of `flags` makes the index unique, and the kernel gets all flags.
// SAGLEME_INDEX_EXISTS: the name is in use. SAGLEME_BROKEN_CATALOGUE: an unknown ordinal, or too
// many columns, which the forms by ordinals find out after the kernel's index was made.
// SAGLEME_TOO_MANY_RECORDS: more than 114 ordinals.
SAGLEME_API void CreateIndexAndMeta(LS_OBJ_REF table, char16_t const* name,
                                    unsigned short sort_mask, short const* columns,
                                    unsigned int flags);
// SAGLEME_TABLE_NOT_FOUND for an unknown table, SAGLEME_COLUMN_NOT_FOUND for an unknown column.
SAGLEME_API void CreateIndexHigh(char16_t const* name, char16_t const* table_name,
                                 LORV_INDEXED_COLUMN const* columns, bool unique);
// The table found by its current layout number; SAGLEME_TABLE_NOT_FOUND for none.
SAGLEME_API void CreateIndexByLayoutId(unsigned short layout_id, char16_t const* name,
                                       unsigned short sort_mask, short const* columns,
                                       unsigned int flags);

// Removes an index: its rows first, the kernel's index last. A row without a handle goes without a
// kernel call and without advancing the schema generation. The argument is null afterwards.
SAGLEME_API void DropIndex(Index&& index);
// Removes the rows of an index's columns alone.
SAGLEME_API void DropIndexedColumns(Index const& index);
// SAGLEME_INDEX_NOT_FOUND for an unknown index. SAGLEME_INDEX_OF_ANOTHER_TABLE when it belongs to
// another table, an ancestor's too.
SAGLEME_API void DropIndex(char16_t const* name);
SAGLEME_API void DropIndex(char16_t const* table_name, char16_t const* name);
SAGLEME_API void DropIndex(DottedName const& table, char16_t const* name);

}  // namespace metalayer::ddl

#endif
