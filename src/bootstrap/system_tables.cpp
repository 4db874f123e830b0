#include "bootstrap/system_tables.h"

#include <sagleme/ucs2.h>

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "frame/cps.h"
#include "metaschema/system_tables_init.h"

namespace metalayer {

namespace {

constexpr unsigned long kAutoToken = 3;

TABLE_INFO& FindTable(char16_t const* name) {
  TABLE_INFO* const table = MetaschemaInit::find_table(name);
  if (table == nullptr) FatalError();
  return *table;
}

// The table with its bases, these first. The root is ready before this is called.
void AssureAndVerify(TABLE_INFO& table, bool fill) {
  if (table.base == nullptr) return;
  AssureAndVerify(*table.base, fill);
  // Gives the column tokens too, so also when the layout exists.
  table.create_metatable();
  table.verify();
  if (!fill) return;
  populate_setspec(table);
  table.populate_raw_view();
}

void AssureSetspecAndIndexes(TABLE_INFO& table) {
  if (table.base == nullptr) return;
  AssureSetspecAndIndexes(*table.base);
  populate_setspec(table);
  table.create_metatable_indexes();
}

}  // namespace

unsigned short ReadyClass(TABLE_INFO const& table, unsigned long type_id) {
  return g_inits[&table - MetaschemaInit::inits()](table.setspec, type_id);
}

INDEX_INFO& DeclaredIndex(TABLE_INFO& table, char16_t const* name) {
  for (unsigned short i = 0; i < table.nr_indexes; ++i) {
    if (ucs2_cmp(table.indexes[i].name, name) == 0) return table.indexes[i];
  }
  FatalError();
}

void MetaschemaInit::CreateAndVerifyMetatables(StepSink& sink) {
  SystemTables(sink).CreateAndVerify();
}

SystemTables::SystemTables(StepSink& sink)
    : tables_(MetaschemaInit::inits(), nr_meta_table_inits()),
      loop_tables_(tables_.subspan(kFirstLoopTable)),
      root_(tables_[0]),
      token_(tables_[1]),
      set_specifier_(tables_[2]),
      raw_view_(FindTable(u"RawView")),
      type_ids_(FindTable(u"TypeIdsMeta")),
      sink_(sink) {}

void SystemTables::CreateAndVerify() {
  PrepareRoot();
  PrepareDictionary();
  PrepareSetSpecifiers();
  FindWhatExists();
  PrepareViewsAndTypeIds();
  PrepareOtherTables();
  WriteRows();
  RepairOldIndexes();
}

void SystemTables::Yield() { sink_(0); }

// ---- root ---------------------------------------------------------------------------------------

void SystemTables::PrepareRoot() {
  root_.setspec.clear();
  root_.create_metatable();
  Yield();
  root_.verify();
  root_.create_metatable_indexes();
  Yield();
  root_.verify_metatable_indexes();
  root_.verify();
  root_.verify_metatable_indexes();
}

// ---- dictionary ---------------------------------------------------------------------------------

// Root and dictionary need no token that is not predefined, so both can be made before it works.
void SystemTables::PrepareDictionary() {
  token_.setspec = u"~";
  token_.create_metatable();
  Yield();
  token_.verify();
  token_.create_metatable_indexes();
  Yield();
  token_.verify_metatable_indexes();
  TokenMain::Init();
  if (Token::ByNameToken(token_.token).is_null()) {
    InsertPredefinedTokens();
    Yield();
  }
  token_.verify();
  token_.verify_metatable_indexes();
  TokenMain::Init();
  ReadyClass(root_, 0);
}

void SystemTables::InsertPredefinedTokens() {
  assure_predefined_token(kAutoToken, u"__auto");
  MetaschemaInit::EnumPredefinedTokens(assure_predefined_token);
}

// ---- set specifiers -----------------------------------------------------------------------------

void SystemTables::PrepareSetSpecifiers() {
  set_specifier_.setspec = u"a~";
  set_specifier_.create_metatable();
  Yield();
  set_specifier_.verify();
  CreateSetSpecifierIndexes();
  Yield();
  VerifySetSpecifierIndexes();
  ReadyClass(set_specifier_, 0);
  populate_setspec(root_);
  populate_setspec(token_);
  populate_setspec(set_specifier_);
  Yield();
}

// The index of the old name may exist as a unique one; RepairOldIndexes replaces it at the end.
void SystemTables::CreateSetSpecifierIndexes() {
  std::u16string setspec = set_specifier_.setspec;
  for (unsigned short i = 0; i < set_specifier_.nr_indexes; ++i) {
    INDEX_INFO& index = set_specifier_.indexes[i];
    if (ucs2_cmp(index.name, kSpecifierIndex) != 0) index.create_metatable_index(&setspec);
  }
}

void SystemTables::VerifySetSpecifierIndexes() {
  for (unsigned short i = 0; i < set_specifier_.nr_indexes; ++i) {
    INDEX_INFO& index = set_specifier_.indexes[i];
    if (ucs2_cmp(index.name, kSpecifierIndex) != 0) index.verify();
  }
}

// ---- views and type ids, which every other table's rows need ------------------------------------

void SystemTables::PrepareViewsAndTypeIds() {
  AssureAndVerify(raw_view_, false);
  Yield();
  AssureSetspecAndIndexes(raw_view_);
  AssureAndVerify(type_ids_, false);
  AssureSetspecAndIndexes(type_ids_);
  Yield();
  ReadyClass(raw_view_, 0);
  ReadyClass(type_ids_, 0);
  root_.populate_raw_view();
  token_.populate_raw_view();
  set_specifier_.populate_raw_view();
  AssureAndVerify(raw_view_, true);
  AssureAndVerify(type_ids_, true);
  Yield();
  if (!init_meta_table(raw_view_) || !init_meta_table(type_ids_)) FatalError();
}

// ---- all other tables ---------------------------------------------------------------------------

void SystemTables::PrepareOtherTables() {
  ReserveTypeIds();
  for (TABLE_INFO& table : loop_tables_) AssureAndVerify(table, true);
  GiveTypeIds();
  Yield();
  CreateOtherIndexes();
  ReadyClasses();
}

// The row of number 0 is a floor to count from. A predefined number is taken before any is given
// out, with or without its table.
void SystemTables::ReserveTypeIds() {
  AssureTypeId(0, db_util::null_obj_ref);
  for (TABLE_INFO const& table : tables_) {
    if (table.type_id != 0) AssureTypeId(table.type_id, table.raw_view);
  }
}

void SystemTables::GiveTypeIds() {
  for (TABLE_INFO const& table : tables_) {
    if (table.raw_view.oid == 0) FatalError();
    if (table.type_id != 0) AssureTypeId(table.type_id, table.raw_view);
  }
  for (TABLE_INFO& table : tables_) {
    if (table.type_id == 0) table.type_id = NextTypeId(table.raw_view);
  }
}

void SystemTables::CreateOtherIndexes() {
  for (TABLE_INFO& table : loop_tables_) table.create_metatable_indexes();
  Yield();
  for (TABLE_INFO& table : loop_tables_) table.verify_metatable_indexes();
}

void SystemTables::ReadyClasses() {
  for (TABLE_INFO const& table : loop_tables_) {
    if (table.setspec.empty() || table.type_id == 0) FatalError();
    ReadyClass(table, table.type_id);
  }
}

}  // namespace metalayer
