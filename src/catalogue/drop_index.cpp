#include <limits>
#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <utility>

#include "catalogue/utils.h"

namespace metalayer::ddl {

namespace {

// An index belongs to the one table that it was declared on, not to that table's descendants.
void CheckIfIndexBelongsToTable(RawView const& table, Index const& index) {
  if (index.get_ref(Index::kTable).oid == table.oid) return;
  exceptions::ThrowIndexNotFoundInType(GetText(index, Index::kName), FullNameOf(table));
}

void DropIndexOfTable(RawView const& table, char16_t const* name) {
  Index index = ExistingIndex(name);
  CheckIfIndexBelongsToTable(table, index);
  DropIndex(std::move(index));
}

}  // namespace

void DropIndexedColumns(Index const& index) {
  db_util::db_iter_with_keys columns;
  Key(columns.first_key).Ref(index).Null();
  Key(columns.last_key).Ref(index).ULong(std::numeric_limits<unsigned long>::max());
  columns.open(IndexedColumn::index_id_IndexedColumnPK(), kForward);
  while (columns.next()) DeleteRow(columns.current);
}

// The kernel's index goes last. A row without a handle never had one, and then nothing has changed
// for anybody who scans indexes.
void DropIndex(Index&& index) {
  DropIndexedColumns(index);
  unsigned long const handle = GetULong(index, Index::kIndexHandle);
  DeleteRow(index);
  index = Index();
  if (handle == 0) return;
  Check(lorvi_context_drop_index(TlsContextHandle::context(), handle));
  AdvanceSchemaGeneration();
}

void DropIndex(char16_t const* name) { DropIndex(ExistingIndex(name)); }

void DropIndex(char16_t const* table_name, char16_t const* name) {
  DropIndexOfTable(ExistingTable(table_name), name);
}

void DropIndex(DottedName const& table, char16_t const* name) {
  DropIndexOfTable(DottedName2RawView(table), name);
}

}  // namespace metalayer::ddl
