#include <sagleme/ucs2.h>

#include <algorithm>
#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

#include "catalogue/utils.h"
#include "metaschema/setspec.h"

namespace metalayer::ddl {

namespace {

// ---- writing a new table --------------------------------------------------------------------

void CheckColumnLimit(char16_t const* name, LS_OBJ_REF const& base, std::size_t span_size) {
  std::size_t const inherited = static_cast<std::size_t>(GetColumnsCount(RawView(base)));
  if (span_size - 1 + inherited > kMaxColumns) exceptions::ThrowTooManyColumns(name);
}

// The root's own specifier is the empty text, also while its row is not known yet.
std::u16string SetspecOfBase(LS_OBJ_REF const& base) {
  return base.oid == 0 ? std::u16string() : SetspecTextOf(base);
}

// Returns the ordinal of the first own column.
template <typename Definition>
int PopulateColumns(bool strict, RawView const& table, LS_OBJ_REF const& base,
                    span<Definition const> columns) {
  MetaPopul8r populator(strict);
  int const first = populator.CopyParentColumns(table, base);
  if (!RawColumn::ByRawColumnPK(table, static_cast<short>(first)).is_null()) return first;
  int ordinal = first;
  for (Definition const& column : columns.first(std::min(columns.size(), kMaxColumns))) {
    if (IsTerminator(column)) break;
    populator.PopulateColumnMeta(table, column, ordinal++, false);
  }
  return first;
}

template <typename Definition>
unsigned short CreateKernelLayoutT(RawView const& table, char16_t const* name, LS_OBJ_REF base,
                                   span<Definition const> columns, int first_ordinal) {
  KernelRecords records;
  ToLorviColDefs(table, columns, first_ordinal, records.items);
  return CreateKernelLayout(name, base, records.all());
}

RawView WrittenTable(char16_t const* name) {
  RawView const table = RawView::ByRawViewPK2fullname(name);
  if (table.is_null()) FatalError();
  return table;
}

// The catalogue rows come first: the layout's column tokens are made from their identities.
template <typename Definition>
unsigned short WriteTable(bool strict, char16_t const* name, LS_OBJ_REF const& given_base,
                          span<Definition const> columns, LS_OBJ_REF* out_table) {
  LS_OBJ_REF const base = given_base.oid != 0 ? given_base : MomRawView();
  CheckColumnLimit(name, base, columns.size());
  RawView const table = PopulateRawView(name, 0, base, true);
  if (out_table != nullptr) *out_table = table;
  NextSetspec(SetspecOfBase(base), table);
  NextTypeId(table);
  int const first = PopulateColumns(strict, table, base, columns);
  RawView const written = WrittenTable(name);
  unsigned short const layout = CreateKernelLayoutT(written, name, base, columns, first);
  PutULong(written, RawView::kLayoutHandle, layout);
  return layout;
}

// ---- verifying an existing table ------------------------------------------------------------

// A definition without a base means the root of all layouts.
bool HasBase(RawView const& table, LS_OBJ_REF const& given_base) {
  RawView const base = ParentOf(table);
  if (base.is_null() || given_base.oid != 0) return base.oid == given_base.oid;
  return LayoutHandleOf(base) == MotherOfAllLayouts::metaclass_layout_handle();
}

void VerifyBasetype(RawView const& table, LS_OBJ_REF const& given_base) {
  if (!HasBase(table, given_base)) exceptions::ThrowBaseTypeMismatch(FullNameOf(table));
}

// The untyped reference, which may refer to any object.
bool IsReferencePrimitive(LS_OBJ_REF const& type) {
  if (type.oid == 0) FatalError();
  bool const primitive = LayoutOf(type) == DbPrimitiveType::metaclass_layout_handle() ||
                         SetspecBeginsWith(type, DbPrimitiveType::setspec());
  return primitive && GetULong(type, DbPrimitiveType::kPrimitiveType) == kLogicalReference;
}

bool HasTarget(LORV_COLUMN_DEFINITION const& definition, LS_OBJ_REF const& type) {
  return definition.type.oid == type.oid;
}

// A shortened name suffices here. One that fits no table, or several, is no match; the text of that
// search is discarded, so only the mismatch is reported.
bool HasTarget(LORV_COLUMN_DEFINITION_NAMES const& definition, LS_OBJ_REF const& type) {
  if (definition.type_name == nullptr) return IsReferencePrimitive(type);
  DottedName reversed = DottedName::Split(definition.type_name);
  reversed.segments.reverse();
  try {
    return RawViewByIncompleteReverseUid(reversed.ToString().c_str()).oid == type.oid;
  } catch (exceptions::BadArg const&) {
    request_clear_errbuf();
    return false;
  }
}

template <typename Definition>
bool ColumnMatches(RawColumn const& column, Definition const& definition) {
  unsigned char const nullable = GetBool(column, RawColumn::kNullable) ? 1 : 0;
  if (nullable != definition.is_nullable) return false;
  LS_OBJ_REF const type = column.get_ref(RawColumn::kDataType);
  unsigned char const logical_type = PrimTypeByTypeRef(type);
  if (logical_type != LogicalTypeFromColDef(definition)) return false;
  if (ucs2_cmp(GetText(column, RawColumn::kName).c_str(), definition.name) != 0) return false;
  return logical_type != kLogicalReference || HasTarget(definition, type);
}

template <typename Definition>
void VerifyColumn(RawView const& table, RawColumn const& column, int ordinal,
                  Definition const& definition) {
  if (ColumnIndexOf(column) != ordinal) FatalError();
  if (ColumnMatches(column, definition)) return;
  exceptions::ThrowColumnDoesNotMatch(FullNameOf(table), GetText(column, RawColumn::kName));
}

// Compares the definitions with the table's own columns; inherited ones are checked with the base.
template <typename Definition>
void AssureType(RawView const& table, LS_OBJ_REF const& given_base,
                span<Definition const> definitions) {
  VerifyBasetype(table, given_base);
  int ordinal = 0;
  std::size_t own = 0;
  EnumByRef(RawColumn::index_id_RawColumnPK(), table, [&](LS_OBJ_REF const& row) {
    if (!GetBool(row, RawColumn::kInherited)) {
      Definition const& definition = definitions[own++];
      if (IsTerminator(definition)) {
        exceptions::ThrowIncorrectNumberOfColumns(FullNameOf(table), true);
      }
      VerifyColumn(table, RawColumn(row), ordinal, definition);
    }
    ++ordinal;
  });
  if (!IsTerminator(definitions[own])) {
    exceptions::ThrowIncorrectNumberOfColumns(FullNameOf(table), false);
  }
}

// ---- both together --------------------------------------------------------------------------

LS_OBJ_REF ExistingBase(char16_t const* name) {
  if (name == nullptr) return db_util::null_obj_ref;
  RawView const base = RawView::ByRawViewPK2fullname(name);
  if (base.is_null()) exceptions::ThrowNonexistentBaseTable(name);
  return base;
}

void StoreLayout(unsigned short* out, unsigned short layout) {
  if (out != nullptr) *out = layout;
}

// The layout of an existing table is returned before the definition is compared with it.
template <typename Definition>
void AssureOrWriteTable(bool strict, char16_t const* name, LS_OBJ_REF const& base,
                        span<Definition const> columns, LS_OBJ_REF* out_table,
                        unsigned short* out_layout) {
  RawView const existing = RawView::ByRawViewPK2fullname(name);
  if (!existing.is_null()) {
    if (out_layout != nullptr) *out_layout = LayoutHandleOf(existing);
    return AssureType(existing, base, columns);
  }
  StoreLayout(out_layout, WriteTable(strict, name, base, columns, out_table));
  AdvanceSchemaGeneration();
}

}  // namespace

void CreateTableAndMeta(bool strict, char16_t const* name, db_util::LsObjRef base,
                        span<LORV_COLUMN_DEFINITION const> columns, LS_OBJ_REF* out_table,
                        unsigned short* out_layout) {
  AssureOrWriteTable(strict, name, base, columns, out_table, out_layout);
}

void CreateTableHigh(bool strict, char16_t const* name, char16_t const* base_name,
                     span<LORV_COLUMN_DEFINITION_NAMES const> columns, unsigned short* out_layout) {
  AssureOrWriteTable(strict, name, ExistingBase(base_name), columns, nullptr, out_layout);
}

}  // namespace metalayer::ddl
