// The exported functions that change tables and columns.

#include <sagleme/metalayer/ddl.hpp>

#include "api/lsdbmetalayer.h"

namespace metalayer {
namespace {

using exceptions::CheckNonEmptyStringArg;
using exceptions::CheckPtrArg;

bool IsTerminator(LORV_COLUMN_DEFINITION const& definition) { return definition.type.oid == 0; }
bool IsTerminator(LORV_COLUMN_DEFINITION_NAMES const& definition) {
  return definition.name == nullptr;
}

// The list as a span that counts its terminator.
template <typename Definition>
span<Definition const> ToColumnDefinitionsSpan(char16_t const* table_name,
                                               Definition const* definitions) {
  for (std::size_t i = 0; i <= kMaxDefinitions; ++i)
    if (IsTerminator(definitions[i])) return {definitions, i + 1};
  exceptions::ThrowTooManyColumns(table_name);
}

// `strict`: the tables that reference columns name must exist now.
uint32_t lorv_create_table_high_impl(bool strict, uint64_t context, char16_t const* name,
                                     char16_t const* base_table_name,
                                     LORV_COLUMN_DEFINITION_NAMES const* column_definitions,
                                     uint16_t* out_layout_id) {
  return MetalayerFunction<true>(context, [&] {
    CheckNonEmptyStringArg(name, u"name");
    CheckPtrArg(column_definitions, u"column_definitions");
    if (base_table_name != nullptr) CheckNonEmptyStringArg(base_table_name, u"base_table_name");
    auto const columns = ToColumnDefinitionsSpan(name, column_definitions);
    ddl::CreateTableHigh(strict, name, base_table_name, columns, out_layout_id);
  });
}

// Layout numbers go out widened, where the host wants them at all.
void PutOutLayout(unsigned int layout, uint64_t* out_layout_id) {
  if (out_layout_id != nullptr) *out_layout_id = layout;
}

}  // namespace
}  // namespace metalayer

using namespace metalayer;

uint32_t lorv_create_table(uint64_t context, char16_t const* name, uint64_t base_oid,
                           uint64_t base_addr, LORV_COLUMN_DEFINITION const* column_definitions,
                           uint64_t* out_oid, uint64_t* out_addr) {
  return MetalayerFunction<true>(context, [&] {
    CheckNonEmptyStringArg(name, u"name");
    CheckPtrArg(column_definitions, u"column_definitions");
    auto const columns = ToColumnDefinitionsSpan(name, column_definitions);
    LS_OBJ_REF table = db_util::null_obj_ref;
    ddl::CreateTableAndMeta(false, name, {base_oid, base_addr}, columns, &table, nullptr);
    if (out_oid != nullptr) *out_oid = table.oid;
    if (out_addr != nullptr) *out_addr = table.addr;
  });
}

uint32_t lorv_create_table_by_names(uint64_t context, char16_t const* name,
                                    char16_t const* base_table_name,
                                    LORV_COLUMN_DEFINITION_NAMES const* column_definitions,
                                    uint16_t* out_layout_id) {
  return lorv_create_table_high_impl(false, context, name, base_table_name, column_definitions,
                                     out_layout_id);
}

uint32_t lorv_create_table_high_check_types(uint64_t context, char16_t const* name,
                                            char16_t const* base_table_name,
                                            LORV_COLUMN_DEFINITION_NAMES const* column_definitions,
                                            uint16_t* out_layout_id) {
  return lorv_create_table_high_impl(true, context, name, base_table_name, column_definitions,
                                     out_layout_id);
}

uint32_t lorv_drop_table_cascade(uint64_t context, char16_t const* full_table_name) {
  return MetalayerFunction<true>(context, [&] { ddl::DropTableCascade(full_table_name); });
}

uint32_t lorv_drop_table_by_name(uint64_t context, char16_t const* full_table_name,
                                 bool drop_children, bool force) {
  return MetalayerFunction<true>(context,
                                 [&] { ddl::DropTable(full_table_name, drop_children, force); });
}

uint32_t lorv_drop_tables_by_names(uint64_t context, char16_t const** names, bool drop_children,
                                   bool force) {
  return MetalayerFunction<true>(
      context, [&] { ddl::DropMutuallyReferencingTables(names, drop_children, force); });
}

uint32_t lorv_rename_table(uint64_t context, char16_t const* full_table_name,
                           char16_t const* new_table_name) {
  return MetalayerFunction<true>(context,
                                 [&] { ddl::RenameTable(full_table_name, new_table_name); });
}

uint32_t lorv_alter_table_add_columns(uint64_t context, char16_t const* full_table_name,
                                      LORV_COLUMN_DEFINITION_NAMES const* added_columns,
                                      uint64_t* out_layout_id) {
  return MetalayerFunction<true>(context, [&] {
    CheckNonEmptyStringArg(full_table_name, u"full_table_name");
    CheckPtrArg(added_columns, u"added_columns");
    auto const columns = ToColumnDefinitionsSpan(full_table_name, added_columns);
    PutOutLayout(ddl::AddColumns(full_table_name, columns), out_layout_id);
  });
}

uint32_t lorv_alter_table_drop_column_by_names(uint64_t context, char16_t const* full_table_name,
                                               char16_t const* column_name,
                                               uint64_t* out_layout_id) {
  return MetalayerFunction<true>(
      context, [&] { PutOutLayout(ddl::DropColumn(full_table_name, column_name), out_layout_id); });
}

uint32_t lorv_alter_table_rename_column(uint64_t context, char16_t const* full_table_name,
                                        char16_t const* column_name,
                                        char16_t const* column_new_name) {
  return MetalayerFunction<true>(
      context, [&] { ddl::RenameColumn(full_table_name, column_name, column_new_name); });
}

uint32_t lorv_clrmetadata_clean(uint64_t context) {
  return MetalayerFunction<true>(context, [] { ddl::CleanClrMetadata(); });
}
