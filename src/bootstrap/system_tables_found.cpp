// What a database already holds: its version, and the set specifiers and type ids of its tables.

#include <sagleme/sagleme.h>

#include <algorithm>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <stdexcept>

#include "bootstrap/system_tables.h"
#include "catalogue/version.h"
#include "metaschema/system_tables_init.h"

namespace metalayer {

namespace {

bool HasAllIndexes(TABLE_INFO const& table) {
  return std::all_of(table.indexes.get(), table.indexes.get() + table.nr_indexes,
                     [](INDEX_INFO const& index) { return index.index_id != 0; });
}

// The text of a row that this procedure wrote is never null.
std::u16string SetspecText(SetSpecifier const& row, TABLE_INFO const& table) {
  char16_t const* const text = row.get_string(SetSpecifier::kTypeId);
  if (text != nullptr) return text;
  if (!table.setspec.empty()) FatalError();
  throw std::length_error("a set specifier row has no text");
}

void FindSetspec(TABLE_INFO& table) {
  RawView const view = RawView::ByRawViewPK(table.layout);
  if (view.is_null()) return;
  if (GetULong(view, RawView::kLayoutHandle) != table.layout) FatalError();
  SetSpecifier const row = SetSpecifier::ByType(view);
  if (row.is_null()) return;
  std::u16string const text = SetspecText(row, table);
  if (table.setspec.empty()) table.setspec = text;
  if (table.setspec != text) FatalError();
}

// A missing row is skipped only if creation was interrupted before it.
void FindTypeId(TABLE_INFO& table, bool must_exist) {
  RawView const view = RawView::ByRawViewPK(table.layout);
  TypeIdsMeta const row = view.is_null() ? TypeIdsMeta() : TypeIdsMeta::ByTypeIdsMeta_Type(view);
  if (row.is_null()) {
    if (must_exist) FatalError();
    return;
  }
  unsigned long const type_id = GetULong(row, TypeIdsMeta::kTypeIdsMeta_Id);
  if (type_id == 0) FatalError();
  if (table.type_id == 0) table.type_id = type_id;
  if (table.type_id != type_id) FatalError();
}

}  // namespace

void SystemTables::FindWhatExists() {
  for (TABLE_INFO& table : loop_tables_) init_meta_table(table);
  RefuseNewerDatabase();
  FindSetspecs();
  RecoverSetspecs();
  FindTypeIds();
}

// Before anything but tokens is written to a database that a newer version made.
void SystemTables::RefuseNewerDatabase() {
  TABLE_INFO const& configuration = *MetaschemaInit::find_table(u"Configuration");
  if (configuration.layout == 0 || !HasAllIndexes(configuration)) return;
  Configuration const row = Configuration::ByConfigurationParameter(kVersionRow);
  if (row.is_null()) return;
  has_version_ = true;
  long const version = GetLong(row, Configuration::kValue);
  if (version > static_cast<long>(kMetaschemaVersion)) {
    ReportSchemaMismatchIf(static_cast<unsigned long>(version));
  }
}

void SystemTables::FindSetspecs() {
  if (!init_meta_table(raw_view_)) return;
  for (TABLE_INFO& table : loop_tables_) {
    if (table.layout != 0) {
      FindSetspec(table);
    } else if (!RawView::ByRawViewPK2fullname(table.full_name).is_null()) {
      FatalError();  // a row without a layout behind it
    }
  }
}

void SystemTables::FindTypeIds() {
  bool const has_views = init_meta_table(raw_view_);
  bool const has_type_ids = init_meta_table(type_ids_);
  if (!has_views || !has_type_ids) return;
  for (TABLE_INFO& table : tables_) {
    if (table.layout != 0) FindTypeId(table, has_version_);
  }
}

}  // namespace metalayer
