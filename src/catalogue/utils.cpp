#include "catalogue/utils.h"

#include <sagleme/ucs2.h>

#include <limits>
#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

namespace metalayer::ddl {

namespace {

constexpr unsigned int kBadArgument = SAGLEME_BAD_ARGUMENT;
constexpr unsigned int kStillReferenced = SAGLEME_TABLE_REFERENCED;
constexpr std::size_t kDecimalDigits = 21;  // of the largest 64-bit number, with the terminator

[[noreturn]] void ThrowTooManyDefinitions(std::size_t limit) {
  ucs2_stream<ErrBlt>() << "Number of column definitions exceeds the limit of " << limit << ".";
  Throw(kBadArgument);
}

// The kernel knows a column by the identity of its catalogue row, so a rename does not concern it.
unsigned long TokenOfColumn(RawView const& table, int ordinal) {
  RawColumn const column = RawColumn::ByRawColumnPK(table, static_cast<short>(ordinal));
  if (column.is_null()) FatalError();
  char16_t digits[kDecimalDigits] = {};
  u64_to_ucs2(column.oid, digits);
  return assure_token(digits);
}

template <typename Definition>
void FillRecord(Definition const& definition, unsigned long token, LORVI_COLUMN_DEFINITION* out) {
  out->token = token;
  out->type = LogicalTypeToKernelType(LogicalTypeFromColDef(definition));
  out->is_nullable = definition.is_nullable;
}

// The last record is never written, not even with the terminator: the room is found wanting before
// the next definition is looked at.
template <typename Definition>
int FillRecords(RawView const& table, span<Definition const> const& definitions, int first_ordinal,
                span<LORVI_COLUMN_DEFINITION> const& out) {
  if (out.size() == 1) ThrowTooManyDefinitions(out.size());
  std::size_t count = 0;
  while (!IsTerminator(definitions[count])) {
    int const ordinal = first_ordinal + static_cast<int>(count);
    FillRecord(definitions[count], TokenOfColumn(table, ordinal), &out[count]);
    if (++count == out.size() - 1) ThrowTooManyDefinitions(out.size());
  }
  out[count].type = 0;
  return static_cast<int>(count);
}

unsigned short BaseLayoutOf(LS_OBJ_REF const& base) {
  return base.oid == 0 ? MotherOfAllLayouts::metaclass_layout_handle() : LayoutHandleOf(base);
}

// A token that occurs twice would be two columns of one catalogue row: a broken catalogue.
unsigned short CreateLayout(unsigned long token, unsigned short base,
                            span<LORVI_COLUMN_DEFINITION const> const& columns) {
  std::uint16_t layout = 0;
  unsigned int const status = lorvi_context_create_layout(TlsContextHandle::context(), token, base,
                                                          columns.data(), 0, &layout);
  if (status == LORV_STATUS_DUPLICATE_TOKEN) FatalError();
  Check(status);
  return layout;
}

unsigned long TokenOfLayout(unsigned short layout) {
  LORVI_LAYOUT_INFO info;
  Check(lorvi_context_get_layout_info(TlsContextHandle::context(), layout, &info));
  return info.token;
}

[[noreturn]] void ThrowMappedByClass(RawView const& table, LS_OBJ_REF const& clr_class, int count) {
  std::u16string const table_name = FullNameOf(table);
  std::u16string const class_name = GetText(clr_class, ClrClass::kFullClassName);
  ucs2_stream<ErrBlt> text;
  text << "Table " << table_name << " is still referenced by clr class " << class_name;
  if (count == 2) text << " and another";
  if (count > 2) text << " and others";
  text << ".";
  Throw(kStillReferenced);
}

}  // namespace

// ---- definitions as kernel records ----------------------------------------------------------

void ToLorviColDef(LORV_COLUMN_DEFINITION const& definition, unsigned long token,
                   LORVI_COLUMN_DEFINITION* out) {
  FillRecord(definition, token, out);
}

void ToLorviColDef(LORV_COLUMN_DEFINITION_NAMES const& definition, unsigned long token,
                   LORVI_COLUMN_DEFINITION* out) {
  FillRecord(definition, token, out);
}

unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION const& definition) {
  return PrimTypeByTypeRef(definition.type);
}

unsigned char LogicalTypeFromColDef(LORV_COLUMN_DEFINITION_NAMES const& definition) {
  return definition.logical_type;
}

int ToLorviColDefs(RawView const& table, span<LORV_COLUMN_DEFINITION const> const& definitions,
                   int first_ordinal, span<LORVI_COLUMN_DEFINITION> const& out) {
  return FillRecords(table, definitions, first_ordinal, out);
}

int ToLorviColDefs(RawView const& table,
                   span<LORV_COLUMN_DEFINITION_NAMES const> const& definitions, int first_ordinal,
                   span<LORVI_COLUMN_DEFINITION> const& out) {
  return FillRecords(table, definitions, first_ordinal, out);
}

LORVI_COLUMN_DEFINITION KernelRecordOf(RawView const& table, RawColumn const& column) {
  short const ordinal = ColumnIndexOf(column);
  unsigned short const layout = LayoutHandleOf(table);
  LORVI_COLUMN_INFO info;
  Check(lorvi_context_get_column_info(TlsContextHandle::context(), layout,
                                      static_cast<std::uint16_t>(ordinal), &info));
  LORVI_COLUMN_DEFINITION record = {};
  record.token = info.token;
  record.type = LogicalTypeToKernelType(PrimTypeByTypeRef(column.get_ref(RawColumn::kDataType)));
  record.is_nullable = GetBool(column, RawColumn::kNullable) ? 1 : 0;
  return record;
}

// ---- kernel layouts -------------------------------------------------------------------------

unsigned short CreateKernelLayout(char16_t const* table_name, LS_OBJ_REF base,
                                  span<LORVI_COLUMN_DEFINITION const> const& columns) {
  unsigned long const token = assure_token(table_name);
  return CreateLayout(token, BaseLayoutOf(base), columns);
}

unsigned short RecreateTable(RawView& table, span<LORVI_COLUMN_DEFINITION const> const& columns) {
  unsigned long const token = TokenOfLayout(LayoutHandleOf(table));
  unsigned short const layout = CreateLayout(token, BaseLayoutOf(ParentOf(table)), columns);
  PutULong(table, RawView::kLayoutHandle, layout);
  return layout;
}

// ---- catalogue rows of a table --------------------------------------------------------------

void CheckTableIsNotUsedByLevel1(RawView const& table) {
  constexpr int kEnough = 3;  // the text distinguishes one, two and more
  db_util::db_iter_with_keys classes;
  OpenByRef(classes, ClrClass::index_id_ClrClassByMapper(), table);
  if (!classes.next()) return;
  LS_OBJ_REF const first = classes.current;
  int count = 1;
  while (count < kEnough && classes.next()) ++count;
  ThrowMappedByClass(table, first, count);
}

RawColumn GetNonInheritedColumn(RawView const& table, char16_t const* column_name) {
  Member const member = Member::ByMemberPK(table, column_name);
  if (member.is_null()) exceptions::ThrowNonexistentColumn(FullNameOf(table), column_name);
  if (GetBool(member, Member::kInherited)) {
    exceptions::ThrowColumnIsInherited(FullNameOf(table), column_name);
  }
  return RawColumn(member);
}

int GetColumnsCount(RawView const& table) {
  db_util::db_iter_with_keys columns;
  Key(columns.first_key).Ref(table).Long(std::numeric_limits<short>::max());
  Key(columns.last_key).Ref(table).Null();
  columns.open(RawColumn::index_id_RawColumnPK(), kReverse);
  return columns.next() ? ColumnIndexOf(columns.current) + 1 : 0;
}

RawView ExistingTable(char16_t const* full_name) {
  RawView const table = RawView::ByRawViewPK2fullname(full_name);
  if (table.is_null()) exceptions::ThrowNonexistentTable(full_name);
  return table;
}

Index ExistingIndex(char16_t const* name) {
  Index const index = Index::ByIndexPK(name);
  if (index.is_null()) exceptions::ThrowIndexNotFound(name);
  return index;
}

// Neighbours share ordinals while the scan is open; at its end they are unique again.
void ShiftColumns(RawView const& table, int first, int delta) {
  EnumColumns(table, first, -1, [delta](RawColumn const& column) {
    PutLong(column, RawColumn::kColumnIndex, static_cast<short>(ColumnIndexOf(column) + delta));
  });
}

std::u16string SetspecTextOf(LS_OBJ_REF const& table) {
  SetSpecifier const setspec = SetSpecifier::ByType(table);
  if (setspec.is_null()) FatalError();
  return GetText(setspec, SetSpecifier::kTypeId);
}

LS_OBJ_REF VacuumRequestOf(std::u16string const& setspec) {
  alignas(8) unsigned char key[db_util::db_iter_with_keys::kKeySize];
  Key(key).Text(setspec.c_str());
  return LookupByKey(Vacuum::index_id_VacuumTypeId(), key);
}

LS_OBJ_REF FirstByRef(unsigned long index_id, LS_OBJ_REF const& target) {
  alignas(8) unsigned char key[db_util::db_iter_with_keys::kKeySize];
  Key(key).Ref(target);
  return LookupByKey(index_id, key);
}

void OpenByRef(db_util::db_iter_with_keys& rows, unsigned long index_id, LS_OBJ_REF const& target) {
  Key(rows.first_key).Ref(target);
  Key(rows.last_key).Ref(target);
  rows.open(index_id, kForward);
}

}  // namespace metalayer::ddl
