// The rows that describe the system tables, and the few that every database has beside them.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/ddl.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

#include "bootstrap/system_tables.h"
#include "catalogue/version.h"

namespace metalayer {

namespace {

struct PrimitiveType {
  char16_t const* name;
  unsigned char code;
};

constexpr PrimitiveType kPrimitiveTypes[] = {
    {u"key", LORV_TYPE_KEY},     {u"string", LORV_TYPE_STRING}, {u"binary", LORV_TYPE_BINARY},
    {u"long", LORV_TYPE_LONG},   {u"ulong", LORV_TYPE_ULONG},   {u"decimal", LORV_TYPE_DECIMAL},
    {u"float", LORV_TYPE_FLOAT}, {u"double", LORV_TYPE_DOUBLE}, {u"reference", kLogicalReference},
    {u"bool", kLogicalBool},
};

void InsertPrimitiveTypes() {
  if (!DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(LORV_TYPE_STRING).is_null()) return;
  for (PrimitiveType const& type : kPrimitiveTypes) DbPrimitiveType::Insert(type.name, type.code);
}

}  // namespace

void SystemTables::WriteRows() {
  InsertPrimitiveTypes();
  DescribeTables();
  GiveTypeIdsToUserTables();
  WriteVersion();
  InitializeGenerationIfDoesntExist();
  Yield();
}

void SystemTables::DescribeTables() {
  MetaPopul8r populator(true);
  for (TABLE_INFO& table : tables_) table.populate_metadata(populator);
}

// Tables of databases that were made before there were type ids.
void SystemTables::GiveTypeIdsToUserTables() {
  db_util::db_iter_with_keys views;
  Key(views.first_key).Null();
  Key(views.last_key).ULong(kLayouts - 1);
  views.open(RawView::index_id_RawViewPK(), kForward);
  while (views.next()) {
    if (TypeIdsMeta::ByTypeIdsMeta_Type(views.current).is_null()) NextTypeId(views.current);
  }
}

void SystemTables::WriteVersion() {
  long const current = static_cast<long>(kMetaschemaVersion);
  Configuration const row = Configuration::ByConfigurationParameter(kVersionRow);
  if (row.is_null()) {
    Configuration::Insert(kVersionRow, current);
    return;
  }
  long const found = GetLong(row, Configuration::kValue);
  if (found >= current) {
    ReportSchemaMismatchIf(static_cast<unsigned long>(found));
  } else {
    PutLong(row, Configuration::kValue, current);
  }
}

}  // namespace metalayer
