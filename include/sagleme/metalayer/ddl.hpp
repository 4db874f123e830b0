#ifndef SAGLEME_METALAYER_DDL_HPP
#define SAGLEME_METALAYER_DDL_HPP

// Changes of the user schema. All of it runs on the caller's thread inside the caller's transaction; a
// failure half way undoes nothing, that is the end of the transaction. None of it touches objects.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/names.hpp>
#include <sagleme/sagleme.h>

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace metalayer {

struct COLUMN_INFO;

// Spans of column definitions count their terminator entry.
template <typename T>
using span = std::span<T>;

inline constexpr std::size_t kMaxDefinitions = 112;  // in one call
inline constexpr std::size_t kMaxColumns = 115;      // in one table, all included

// Turns column descriptions into catalogue rows. Built on the stack for one operation.
class SAGLEME_API MetaPopul8r {
 public:
  // `strict`: a reference column's target table must exist now.
  explicit MetaPopul8r(bool strict);

  void PopulateColumnMeta(LS_OBJ_REF table, LORV_COLUMN_DEFINITION const& definition, int ordinal,
                          bool inherited);
  void PopulateColumnMeta(LS_OBJ_REF table, LORV_COLUMN_DEFINITION_NAMES const& definition,
                          int ordinal, bool inherited);
  void PopulateColumnMeta(LS_OBJ_REF table, COLUMN_INFO const& definition, int ordinal,
                          bool inherited);
  // Copies a parent's column rows into a child and returns the child's first free ordinal.
  int CopyParentColumns(LS_OBJ_REF child, LS_OBJ_REF parent);
  // Finishes all reference columns whose target did not exist when they were written.
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

// Asks for the table's objects to be moved to its current layout.
SAGLEME_API void RegisterMove(RawView const& view);

}  // namespace metalayer

namespace metalayer::ddl {

// ---- shared by all schema changes -------------------------------------------------------------------------

SAGLEME_API void ToLorviColDef(LORV_COLUMN_DEFINITION const& definition, unsigned long token,
                               LORVI_COLUMN_DEFINITION* out);
SAGLEME_API void ToLorviColDef(LORV_COLUMN_DEFINITION_NAMES const& definition, unsigned long token,
                               LORVI_COLUMN_DEFINITION* out);
SAGLEME_API unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION const& definition);
SAGLEME_API unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION_NAMES const& definition);
SAGLEME_API int ToLorviColDefs(RawView const& table,
                               span<LORV_COLUMN_DEFINITION const> const& definitions,
                               int first_ordinal, span<LORVI_COLUMN_DEFINITION> const& out);
SAGLEME_API int ToLorviColDefs(RawView const& table,
                               span<LORV_COLUMN_DEFINITION_NAMES const> const& definitions,
                               int first_ordinal, span<LORVI_COLUMN_DEFINITION> const& out);
SAGLEME_API unsigned short CreateKernelLayout(char16_t const* table_name, LS_OBJ_REF base,
                                              span<LORVI_COLUMN_DEFINITION const> const& columns);
SAGLEME_API unsigned short RecreateTable(RawView& table,
                                         span<LORVI_COLUMN_DEFINITION const> const& columns);
SAGLEME_API void CheckTableIsNotUsedByLevel1(RawView const& table);
SAGLEME_API RawColumn GetNonInheritedColumn(RawView const& table, char16_t const* column_name);
SAGLEME_API int GetColumnsCount(RawView const& table);
SAGLEME_API RawView ExistingTable(char16_t const* full_name);
SAGLEME_API Index ExistingIndex(char16_t const* name);

// Calls `callable` with each RawColumn row of the ordinals from `first` to before `end`; `end` -1 is the
// last column. The rows may be changed by the callable.
template <typename Callable>
void EnumColumns(RawView const& table, int first, int end, Callable&& callable);
// Calls `callable` with each direct child.
template <typename Callable>
void EnumChildren(LS_OBJ_REF parent, Callable&& callable);

// ---- tables -----------------------------------------------------------------------------------------------

SAGLEME_API void CreateTableAndMeta(bool strict, char16_t const* name, db_util::LsObjRef base,
                                    span<LORV_COLUMN_DEFINITION const> columns,
                                    LS_OBJ_REF* out_table, unsigned short* out_layout);
SAGLEME_API void CreateTableHigh(bool strict, char16_t const* name, char16_t const* base_name,
                                 span<LORV_COLUMN_DEFINITION_NAMES const> columns,
                                 unsigned short* out_layout);

SAGLEME_API unsigned short AddColumns(char16_t const* full_name,
                                      span<LORV_COLUMN_DEFINITION_NAMES const> const& columns);
SAGLEME_API unsigned short AddColumns(DottedName const& name,
                                      span<LORV_COLUMN_DEFINITION_NAMES const> const& columns);
SAGLEME_API unsigned short DropColumn(char16_t const* table, char16_t const* column);
SAGLEME_API unsigned short DropColumn(DottedName const& table, char16_t const* column);
SAGLEME_API void RenameColumn(char16_t const* table, char16_t const* old_name,
                              char16_t const* new_name);
SAGLEME_API void RenameColumn(DottedName const& table, char16_t const* old_name,
                              char16_t const* new_name);
SAGLEME_API void RenameTable(char16_t const* old_name, char16_t const* new_name);
SAGLEME_API void RenameTable(DottedName const& old_name, char16_t const* new_name);

SAGLEME_API void DropTable(char16_t const* name, bool drop_children, bool force);
SAGLEME_API void DropTableCascade(char16_t const* name);
SAGLEME_API void DropMutuallyReferencingTables(char16_t const** names, bool drop_children,
                                               bool force);
SAGLEME_API void DropMutuallyReferencingTables(std::vector<DottedName> const& names,
                                               bool drop_children, bool force);

// Forgets every mapped property and every class.
SAGLEME_API void CleanClrMetadata();

// ---- indexes ----------------------------------------------------------------------------------------------

SAGLEME_API void CreateIndexAndMeta(LS_OBJ_REF table, char16_t const* name,
                                    unsigned short sort_mask, short const* columns,
                                    unsigned int flags);
SAGLEME_API void CreateIndexHigh(char16_t const* name, char16_t const* table_name,
                                 LORV_INDEXED_COLUMN const* columns, bool unique);
// The table found by layout id.
SAGLEME_API void CreateIndexByLayoutId(unsigned short layout_id, char16_t const* name,
                                       unsigned short sort_mask, short const* columns,
                                       unsigned int flags);
// The argument is null afterwards.
SAGLEME_API void DropIndex(Index&& index);
SAGLEME_API void DropIndexedColumns(Index const& index);
SAGLEME_API void DropIndex(char16_t const* name);
SAGLEME_API void DropIndex(char16_t const* table_name, char16_t const* name);
SAGLEME_API void DropIndex(DottedName const& table, char16_t const* name);

}  // namespace metalayer::ddl

#include <sagleme/metalayer/ddl_walks.hpp>

#endif
