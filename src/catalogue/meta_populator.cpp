#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

#include "catalogue/utils.h"

namespace metalayer {

namespace {

constexpr unsigned int kBadType = SAGLEME_TARGET_NOT_FOUND;

// What a column row is made of, whichever way the column was described.
struct ColumnRow {
  LS_OBJ_REF table;
  char16_t const* name;
  LS_OBJ_REF data_type;
  bool inherited;
  bool nullable;
  short ordinal;
};

void InsertColumn(ColumnRow const& row) {
  RawColumn::Insert(row.table, row.name, row.data_type, row.inherited, row.nullable, false,
                    row.ordinal);
}

void InsertReferenceColumn(ColumnRow const& row, char16_t const* target_name) {
  ReferenceRawColumn::Insert(row.table, row.name, row.data_type, row.inherited, row.nullable, false,
                             row.ordinal, target_name);
}

[[noreturn]] void ThrowTypeIsNoTable(char16_t const* column) {
  ucs2_stream<ErrBlt>() << "Refernce type for column " << column << " is not one of RawView.";
  Throw(kBadType);
}

[[noreturn]] void ThrowReferenceTypeNotFound(char16_t const* type, char16_t const* column) {
  ucs2_stream<ErrBlt>() << "Reference type " << type << " not found for column " << column << ".";
  Throw(kBadType);
}

[[noreturn]] void ThrowUnknownTargetType(std::u16string const& column, std::u16string const& type) {
  ucs2_stream<ErrBlt>() << "Column " << column << " refers to an unknown type " << type << ".";
  Throw(kBadType);
}

void AssureTypeName(char16_t const* type_name, char16_t const* column) {
  if (type_name != nullptr) return;
  ucs2_stream<ErrBlt>() << "Reference type name missing in column " << column << ".";
  Throw(kBadType);
}

LS_OBJ_REF ExistingPrimitiveType(unsigned char type, char16_t const* column) {
  DbPrimitiveType const row = DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(type);
  if (!row.is_null()) return row;
  ucs2_stream<ErrBlt>() << "Primitive type " << static_cast<unsigned int>(type)
                        << " not found for column " << column << ".";
  Throw(kBadType);
}

RawView TargetOfSystemColumn(char16_t const* short_name) {
  TABLE_INFO const* const target = TABLE_INFO::find_table(short_name);
  return target == nullptr ? RawView() : RawView::ByRawViewPK(target->layout);
}

LS_OBJ_REF ExistingRow(LS_OBJ_REF const& row) {
  if (row.oid == 0) FatalError();
  return row;
}

LS_OBJ_REF SystemTable(char16_t const* full_name) {
  return RawView::ByRawViewPK2fullname(full_name);
}

// A null target stands for a deferred column, for which the table is found later by its name.
void ResolveTarget(ReferenceRawColumn const& column) {
  if (column.get_ref(ReferenceRawColumn::kDataType).oid != 0) return;
  std::u16string const target_name = GetText(column, ReferenceRawColumn::kDataTypeName);
  RawView const target = RawView::ByRawViewPK2fullname(target_name.c_str());
  if (target.is_null()) {
    ThrowUnknownTargetType(GetText(column, ReferenceRawColumn::kName), target_name);
  }
  PutRef(column, ReferenceRawColumn::kDataType, target);
}

}  // namespace

MetaPopul8r::MetaPopul8r(bool strict)
    : reference_primitive_(DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(kLogicalReference)),
      primitive_table_(SystemTable(u"Lorvenstack.Metadata.DbPrimitiveType")),
      raw_column_table_(SystemTable(u"Lorvenstack.Internal.Metadata.RawColumn")),
      reference_column_table_(SystemTable(u"Lorvenstack.Internal.Metadata.ReferenceRawColumn")),
      raw_view_table_(SystemTable(u"Lorvenstack.Metadata.RawView")),
      strict_(strict) {
  ExistingRow(reference_primitive_);
  ExistingRow(primitive_table_);
  ExistingRow(raw_column_table_);
  ExistingRow(reference_column_table_);
  ExistingRow(raw_view_table_);
}

void MetaPopul8r::PopulateColumnMeta(LS_OBJ_REF table, LORV_COLUMN_DEFINITION const& definition,
                                     int ordinal, bool inherited) {
  ColumnRow const row{table,
                      definition.name,
                      definition.type,
                      inherited,
                      definition.is_nullable != 0,
                      static_cast<short>(ordinal)};
  unsigned short const layout = LayoutOf(definition.type);
  if (layout == ddl::LayoutHandleOf(primitive_table_)) return InsertColumn(row);
  if (layout != ddl::LayoutHandleOf(raw_view_table_)) ThrowTypeIsNoTable(definition.name);
  InsertReferenceColumn(row, ddl::FullNameOf(definition.type).c_str());
}

void MetaPopul8r::PopulateColumnMeta(LS_OBJ_REF table,
                                     LORV_COLUMN_DEFINITION_NAMES const& definition, int ordinal,
                                     bool inherited) {
  if (definition.is_nullable == 0 && IsDbTypeNullable(definition.logical_type)) {
    exceptions::ThrowColumnTypeMustBeNullable(ddl::FullNameOf(table), definition.name);
  }
  ColumnRow row{table,
                definition.name,
                db_util::null_obj_ref,
                inherited,
                definition.is_nullable != 0,
                static_cast<short>(ordinal)};
  if (definition.logical_type != kLogicalReference) {
    row.data_type = ExistingPrimitiveType(definition.logical_type, definition.name);
    return InsertColumn(row);
  }
  AssureTypeName(definition.type_name, definition.name);
  row.data_type = RawView::ByRawViewPK2fullname(definition.type_name);
  if (row.data_type.oid == 0 && strict_) {
    ThrowReferenceTypeNotFound(definition.type_name, definition.name);
  }
  InsertReferenceColumn(row, definition.type_name);
}

void MetaPopul8r::PopulateColumnMeta(LS_OBJ_REF table, COLUMN_INFO const& definition, int ordinal,
                                     bool inherited) {
  ColumnRow row{table,     definition.name,     db_util::null_obj_ref,
                inherited, definition.nullable, static_cast<short>(ordinal)};
  if (definition.type != kLogicalReference) {
    row.data_type = ExistingPrimitiveType(definition.type, definition.name);
    return InsertColumn(row);
  }
  AssureTypeName(definition.ref_table, definition.name);
  row.data_type = TargetOfSystemColumn(definition.ref_table);
  if (row.data_type.oid == 0 && strict_) {
    ThrowReferenceTypeNotFound(definition.ref_table, definition.name);
  }
  InsertReferenceColumn(row, definition.ref_table);
}

void MetaPopul8r::CopyColumn(LS_OBJ_REF child, LS_OBJ_REF column, int ordinal) {
  if (ddl::ColumnIndexOf(column) != ordinal) FatalError();
  bool const plain = LayoutOf(column) == ddl::LayoutHandleOf(raw_column_table_);
  if (!plain && LayoutOf(column) != ddl::LayoutHandleOf(reference_column_table_)) FatalError();
  std::u16string const name = GetText(column, RawColumn::kName);
  ColumnRow const row{child,
                      name.c_str(),
                      db_record(column).get_ref(RawColumn::kDataType),
                      true,
                      GetBool(column, RawColumn::kNullable),
                      static_cast<short>(ordinal)};
  if (plain) return InsertColumn(row);
  InsertReferenceColumn(row, GetText(column, ReferenceRawColumn::kDataTypeName).c_str());
}

int MetaPopul8r::CopyParentColumns(LS_OBJ_REF child, LS_OBJ_REF parent) {
  if (!RawColumn::ByRawColumnPK(child, 0).is_null()) return ddl::GetColumnsCount(RawView(parent));
  if (parent.oid == 0) return 0;
  int count = 0;
  ddl::EnumByRef(RawColumn::index_id_RawColumnPK(), parent,
                 [&](LS_OBJ_REF const& column) { CopyColumn(child, column, count++); });
  return count;
}

void MetaPopul8r::UpdateRefTypes() {
  db_util::db_iter_with_keys columns;
  RangeGlobalSetspecIndex(ReferenceRawColumn::setspec().c_str(), &columns);
  for (; columns.current.oid != 0; columns.next()) {
    ResolveTarget(ReferenceRawColumn(columns.current));
  }
}

}  // namespace metalayer
