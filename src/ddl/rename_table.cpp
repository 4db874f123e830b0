#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "catalogue/utils.h"

namespace metalayer::ddl {

namespace {

void WriteNames(RawView const& table, char16_t const* full_name) {
  std::u16string name;
  std::u16string uid;
  std::u16string uid_reversed;
  MakeTableNames(full_name, &name, &uid, &uid_reversed);
  PutText(table, RawView::kFullName, full_name);
  PutText(table, RawView::kName, name.c_str());
  PutText(table, RawView::kUniqueIdentifier, uid.c_str());
  PutText(table, RawView::kUniqueIdentifierReversed, uid_reversed.c_str());
}

void RenameTable(RawView const& table, char16_t const* new_name) {
  if (!RawView::ByRawViewPK2fullname(new_name).is_null()) {
    exceptions::ThrowNamedTableAlreadyExists(new_name);
  }
  WriteNames(table, new_name);
  EnumByRef(ReferenceRawColumn::index_id_ReferenceRawColumnByDataType(), table,
            [new_name](LS_OBJ_REF const& column) {
              PutText(column, ReferenceRawColumn::kDataTypeName, new_name);
            });
  AdvanceSchemaGeneration();
}

}  // namespace

void RenameTable(char16_t const* old_name, char16_t const* new_name) {
  exceptions::CheckNonEmptyStringArg(old_name, u"full_table_name");
  exceptions::CheckNonEmptyStringArg(new_name, u"new_table_name");
  RenameTable(ExistingTable(old_name), new_name);
}

void RenameTable(DottedName const& old_name, char16_t const* new_name) {
  RenameTable(DottedName2RawView(old_name), new_name);
}

}  // namespace metalayer::ddl
