// Start-up: what a process must know of an existing database.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <vector>

#include "catalogue/start_up.h"
#include "catalogue/version.h"
#include "metaschema/system_tables_init.h"

namespace metalayer {

namespace {

constexpr unsigned int kNotPrepared = SAGLEME_NOT_PREPARED;
constexpr unsigned int kVersionMismatch = SAGLEME_VERSION_MISMATCH;
constexpr unsigned int kTokenTable = 1;
constexpr unsigned int kFirstLoadedTable = 2;

template <typename Row>
Row Required(Row row) {
  if (row.is_null()) Throw(kNotPrepared);
  return row;
}

// Fills table ids and index ids of all classes; the table ids in table order.
std::vector<unsigned short> LoadTableIds() {
  std::vector<unsigned short> ids(nr_meta_table_inits(), 0);
  TokenMain::Init();
  // An empty dictionary belongs to a database that was cut off before its first names.
  Required(Token::ByNameToken(metaschema_init_generated_from_json[kTokenTable].token));
  ids[0] = g_inits[0](std::u16string(), 0);
  ids[kTokenTable] = Token::metaclass_layout_handle();
  for (unsigned int i = kFirstLoadedTable; i < nr_meta_table_inits(); ++i) {
    ids[i] = g_inits[i](std::u16string(), 0);
  }
  return ids;
}

// A missing layout or index marks a database that is only partly built.
std::vector<unsigned short> LoadTableIdsOrRefuse() try {
  return LoadTableIds();
} catch (db_util::db_exception const& failure) {
  if (failure.code() != LORV_STATUS_NO_INDEX && failure.code() != kNoTable) throw;
  Throw(kNotPrepared);
}

// Fills set specifier and type id of one class.
void LoadTable(unsigned int number, unsigned short table_id) {
  RawView const view = Required(RawView::ByRawViewPK(table_id));
  SetSpecifier const set = Required(SetSpecifier::ByType(view));
  TypeIdsMeta const type = Required(TypeIdsMeta::ByTypeIdsMeta_Type(view));
  g_inits[number](GetText(set, SetSpecifier::kTypeId),
                  GetULong(type, TypeIdsMeta::kTypeIdsMeta_Id));
}

LS_OBJ_REF FindSchemaGeneration() {
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(UserSchemaGeneration::setspec().c_str(), &objects);
  LS_OBJ_REF const found = objects.current;
  if (found.oid == 0) Throw(kNotPrepared);
  if (objects.next()) FatalError();
  return found;
}

}  // namespace

unsigned int InitMetalayer() {
  StartUp& start_up = CurrentStartUp();
  std::lock_guard const lock(start_up.mutex);
  if (start_up.done) return 0;
  std::vector<unsigned short> const table_ids = LoadTableIdsOrRefuse();
  // The last table's row is the last that creation writes.
  Required(RawView::ByRawViewPK(table_ids.back()));
  for (unsigned int i = kFirstLoadedTable; i < nr_meta_table_inits(); ++i) {
    LoadTable(i, table_ids[i]);
  }
  Configuration const version = Required(Configuration::ByConfigurationParameter(kVersionRow));
  ReportSchemaMismatchIf(static_cast<unsigned long>(GetLong(version, Configuration::kValue)));
  MomRawView() = RawView::ByRawViewPK(MotherOfAllLayouts::metaclass_layout_handle());
  start_up.generation = FindSchemaGeneration();
  start_up.done = true;
  return 0;
}

bool IsMetalayerInitialized() { return CurrentStartUp().done; }

void SetMetalayerUninitialized() {
  CurrentStartUp().done = false;
  SchemaGeneration() = db_util::null_obj_ref;
}

void PrepareGeneratedMetaClassesForReading() {
  for (unsigned int i = kFirstLoopTable; i < nr_meta_table_inits(); ++i) {
    init_meta_table(MetaschemaInit::inits()[i]);
  }
}

void ReportSchemaMismatchIf(unsigned long database_version) {
  if (database_version == kMetaschemaVersion) return;
  ucs2_stream<ErrBlt>() << "This version of Lorvenstack has metaschema version "
                        << kMetaschemaVersion << ", while the database has version "
                        << database_version << ".";
  Throw(kVersionMismatch);
}

void InitializeGenerationIfDoesntExist() {
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(UserSchemaGeneration::setspec().c_str(), &objects);
  if (objects.current.oid == 0) UserSchemaGeneration::Insert(0);
}

}  // namespace metalayer
