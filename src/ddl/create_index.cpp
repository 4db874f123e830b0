#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

#include "catalogue/utils.h"

namespace metalayer::ddl {

namespace {

constexpr int kSortMaskBits = 16;
constexpr short kEndOfColumns = -1;
constexpr unsigned int kBadIndexColumns = SAGLEME_BROKEN_CATALOGUE;
constexpr unsigned int kTableNotFound = SAGLEME_TABLE_NOT_FOUND;

bool IsAscending(unsigned short sort_mask, int position) {
  return ((sort_mask >> position) & 1) == 0;
}

RawColumn ExistingColumnForIndex(RawView const& table, int ordinal, char16_t const* index_name) {
  RawColumn const column = RawColumn::ByRawColumnPK(table, static_cast<short>(ordinal));
  if (!column.is_null()) return column;
  ucs2_stream<ErrBlt>() << "Raw column " << ordinal << " doesn't exist for index " << index_name
                        << ".";
  Throw(kBadIndexColumns);
}

[[noreturn]] void ThrowMaskTooNarrow(char16_t const* index_name) {
  ucs2_stream<ErrBlt>() << "Number of columns in index " << index_name << " doesn't fit into "
                        << kSortMaskBits << " bit sort mask.";
  Throw(kBadIndexColumns);
}

[[noreturn]] void ThrowMaskTooNarrow(char16_t const* index_name, char16_t const* table_name) {
  ucs2_stream<ErrBlt>() << "Number of columns in index " << index_name << " for table "
                        << table_name << " doesn't fit into " << kSortMaskBits << " bit sort mask.";
  Throw(kBadIndexColumns);
}

// One record stays free for the terminator.
void LoadIndexColumns(RawView const& table, char16_t const* index_name, short const* ordinals,
                      KernelRecords& records) {
  std::size_t count = 0;
  while (ordinals[count] != kEndOfColumns) {
    if (count == kMaxColumns - 1) Throw(kTooManyKernelRecords);
    RawColumn const column = ExistingColumnForIndex(table, ordinals[count], index_name);
    records.items[count++] = KernelRecordOf(table, column);
  }
  records.items[count].type = 0;
}

unsigned long CreateIndex(LS_OBJ_REF table, char16_t const* name, unsigned short sort_mask,
                          short const* columns, unsigned int flags) {
  if (!Index::ByIndexPK(name).is_null()) exceptions::ThrowIndexAlreadyExists(name);
  KernelRecords records;
  LoadIndexColumns(RawView(table), name, columns, records);
  unsigned long const token = assure_token(name);
  std::u16string const setspec = SetspecTextOf(table);
  std::uint64_t handle = 0;
  Check(lorvi_context_create_index(TlsContextHandle::context(), token, setspec.c_str(),
                                   records.items, sort_mask, flags, &handle));
  return handle;
}

void PopulateIndexMeta(LS_OBJ_REF table, char16_t const* name, unsigned long handle,
                       unsigned short sort_mask, short const* columns, bool unique) {
  LS_OBJ_REF const index = Index::Insert(name, table, unique ? 1 : 0, handle);
  if (index.oid == 0) FatalError();
  for (int position = 0; position < kSortMaskBits; ++position) {
    if (columns[position] == kEndOfColumns) return;
    RawColumn const column = ExistingColumnForIndex(RawView(table), columns[position], name);
    LS_OBJ_REF const row = IndexedColumn::Insert(
        index, column, static_cast<unsigned long>(position), IsAscending(sort_mask, position));
    if (row.oid == 0) FatalError();
  }
  ThrowMaskTooNarrow(name);
}

// The kernel comes first: the catalogue row holds its handle.
void CreateIndexWithRows(LS_OBJ_REF table, char16_t const* name, unsigned short sort_mask,
                         short const* columns, unsigned int flags) {
  unsigned long const handle = CreateIndex(table, name, sort_mask, columns, flags);
  PopulateIndexMeta(table, name, handle, sort_mask, columns, (flags & LORV_INDEX_UNIQUE) != 0);
  AdvanceSchemaGeneration();
}

short ExistingOrdinal(RawView const& table, char16_t const* table_name, char16_t const* column) {
  Member const member = Member::ByMemberPK(table, column);
  if (member.is_null()) exceptions::ThrowColumnNotFound(table_name, column);
  return ColumnIndexOf(member);
}

}  // namespace

void CreateIndexAndMeta(LS_OBJ_REF table, char16_t const* name, unsigned short sort_mask,
                        short const* columns, unsigned int flags) {
  CreateIndexWithRows(table, name, sort_mask, columns, flags);
}

// Sixteen positions for fifteen columns: the last holds at most the end of the list.
void CreateIndexHigh(char16_t const* name, char16_t const* table_name,
                     LORV_INDEXED_COLUMN const* columns, bool unique) {
  RawView const table = ExistingTable(table_name);
  unsigned int sort_mask = 0;
  short ordinals[kSortMaskBits];
  for (int i = 0; i < kSortMaskBits; ++i) {
    if (columns[i].name == nullptr) {
      ordinals[i] = kEndOfColumns;
      return CreateIndexWithRows(table, name, static_cast<unsigned short>(sort_mask), ordinals,
                                 unique ? LORV_INDEX_UNIQUE : 0);
    }
    ordinals[i] = ExistingOrdinal(table, table_name, columns[i].name);
    if (columns[i].ascending == 0) sort_mask |= 1u << i;
  }
  ThrowMaskTooNarrow(name, table_name);
}

void CreateIndexByLayoutId(unsigned short layout_id, char16_t const* name, unsigned short sort_mask,
                           short const* columns, unsigned int flags) {
  RawView const table = RawView::ByRawViewPK(layout_id);
  if (table.is_null()) {
    ucs2_stream<ErrBlt>() << "Table wit layout id " << layout_id << " not found.";
    Throw(kTableNotFound);
  }
  CreateIndexWithRows(table, name, sort_mask, columns, flags);
}

}  // namespace metalayer::ddl
