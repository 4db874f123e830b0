#include <sagleme/ucs2.h>

#include <algorithm>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/types.hpp>

#include "frame/traps.h"
#include "metaschema/descriptors.h"

namespace metalayer {

namespace {

// The length of a list that ends at its first entry without a name.
template <typename Record, std::size_t Size>
unsigned short CountNamed(Record const (&list)[Size]) {
  auto const end = std::find_if(std::begin(list), std::end(list),
                                [](Record const& record) { return record.name == nullptr; });
  return static_cast<unsigned short>(end - std::begin(list));
}

bool SameName(char16_t const* a, char16_t const* b) { return ucs2_cmp(a, b) == 0; }

using NameField = char16_t[TABLE_INFO_DERIVED_FROM_STATIC::kNameSize];

void Assign(NameField& field, char16_t const* text) {
  if (ucs2_scpy_s(field, std::size(field), text) != 0) raise_assertion_failure_except();
}

void Append(NameField& field, char16_t const* text) {
  if (ucs2_strcat_s(field, std::size(field), text) != 0) raise_assertion_failure_except();
}

}  // namespace

unsigned int nr_meta_table_inits() { return nr_meta_table_inits_generated_from_json; }

// ---- columns ------------------------------------------------------------------------------------

COLUMN_INFO::COLUMN_INFO() : COLUMN_INFO_STATIC{} {}

COLUMN_INFO& COLUMN_INFO::operator=(COLUMN_INFO_STATIC const& record) {
  static_cast<COLUMN_INFO_STATIC&>(*this) = record;
  set_nullable_type();
  return *this;
}

void COLUMN_INFO::set_nullable_type() {
  switch (type) {
    case LORV_TYPE_STRING:
    case LORV_TYPE_BINARY:
    case LORV_TYPE_REFERENCE:
      nullable = true;
      return;
    case LORV_TYPE_LONG:
    case LORV_TYPE_ULONG:
    case LORV_TYPE_DECIMAL:
    case LORV_TYPE_FLOAT:
    case LORV_TYPE_DOUBLE:
    case LORV_TYPE_KEY:
    case kLogicalBool:
      nullable = false;
      return;
    default:
      FatalError();
  }
}

// ---- indexes ------------------------------------------------------------------------------------

INDEX_INFO::INDEX_INFO() : INDEX_INFO_STATIC{} {}

INDEX_INFO& INDEX_INFO::operator=(INDEX_INFO_STATIC const& record) {
  static_cast<INDEX_INFO_STATIC&>(*this) = record;
  return *this;
}

void INDEX_INFO::init_column_infos() {
  nr_columns = 0;
  for (char16_t const* const column : columns) {
    if (column == nullptr) return;
    column_infos[nr_columns] = table->find_column(column);
    if (column_infos[nr_columns] == nullptr) FatalError();
    ++nr_columns;
  }
}

// ---- tables: what follows from the record alone -------------------------------------------------

TABLE_INFO_DERIVED_FROM_STATIC::TABLE_INFO_DERIVED_FROM_STATIC()
    : TABLE_INFO_STATIC{},
      unique_identifier_reversed{},
      unique_identifier{},
      full_name{},
      full_name_reversed{} {}

TABLE_INFO_DERIVED_FROM_STATIC::TABLE_INFO_DERIVED_FROM_STATIC(TABLE_INFO_STATIC const& record)
    : TABLE_INFO_DERIVED_FROM_STATIC() {
  static_cast<TABLE_INFO_STATIC&>(*this) = record;
  set_fullnames();
  set_base_table();
  nr_columns = CountNamed(record.columns);
  calc_total_nr_columns();
  nr_indexes = CountNamed(record.indexes);
}

void TABLE_INFO_DERIVED_FROM_STATIC::set_fullnames() {
  Assign(full_name_reversed, name);
  Assign(full_name, is_public ? u"Lorvenstack.Metadata." : u"Lorvenstack.Internal.Metadata.");
  Append(full_name_reversed,
         is_public ? u".Metadata.Lorvenstack" : u".Metadata.Internal.Lorvenstack");
  Append(full_name, name);
  Assign(unique_identifier_reversed, full_name_reversed);
  Append(unique_identifier_reversed, u".Raw.Lorvenstack");
  Assign(unique_identifier, u"Lorvenstack.Raw.");
  Append(unique_identifier, full_name);
}

void TABLE_INFO_DERIVED_FROM_STATIC::set_base_table() {
  if (base_table == nullptr) {
    base = nullptr;
  } else if (base == nullptr) {
    base = TABLE_INFO::find_table(base_table);
  }
}

void TABLE_INFO_DERIVED_FROM_STATIC::calc_total_nr_columns() {
  total_nr_columns = nr_columns;
  for (TABLE_INFO const* t = base; t != nullptr; t = t->base) {
    total_nr_columns = static_cast<unsigned short>(total_nr_columns + t->nr_columns);
  }
}

// ---- tables -------------------------------------------------------------------------------------

TABLE_INFO& TABLE_INFO::operator=(TABLE_INFO_STATIC const& record) {
  static_cast<TABLE_INFO_DERIVED_FROM_STATIC&>(*this) = TABLE_INFO_DERIVED_FROM_STATIC(record);
  copy_columns();
  copy_indexes();
  return *this;
}

void TABLE_INFO::copy_columns() {
  columns = std::make_unique<COLUMN_INFO[]>(kMaxOwnColumns);
  int ordinal = base == nullptr ? 0 : base->total_nr_columns;
  for (std::size_t i = 0; i < nr_columns; ++i) {
    columns[i] = TABLE_INFO_STATIC::columns[i];
    columns[i].column_index = static_cast<short>(ordinal++);
    columns[i].table = this;
  }
}

void TABLE_INFO::copy_indexes() {
  indexes = std::make_unique<INDEX_INFO[]>(kMaxOwnIndexes);
  for (std::size_t i = 0; i < nr_indexes; ++i) {
    indexes[i] = TABLE_INFO_STATIC::indexes[i];
    indexes[i].table = this;
    indexes[i].init_column_infos();
  }
}

TABLE_INFO* TABLE_INFO::find_table(char16_t const* name) {
  return MetaschemaInit::find_table(name);
}

COLUMN_INFO* TABLE_INFO::find_column(char16_t const* column_name) const {
  for (TABLE_INFO const* t = this; t != nullptr; t = t->base) {
    for (std::size_t i = 0; i < t->nr_columns; ++i) {
      if (SameName(t->columns[i].name, column_name)) return &t->columns[i];
    }
  }
  return nullptr;
}

COLUMN_INFO* TABLE_INFO::find_column(unsigned short ordinal) const {
  TABLE_INFO const* t = this;
  while (t->total_nr_columns - t->nr_columns > ordinal) t = t->base;
  return &t->columns[static_cast<std::size_t>(ordinal - (t->total_nr_columns - t->nr_columns))];
}

INDEX_INFO* TABLE_INFO::find_index_by_token(unsigned long index_token) {
  for (std::size_t i = 0; i < nr_indexes; ++i) {
    indexes[i].assure_token();
    if (indexes[i].token == index_token) return &indexes[i];
  }
  return nullptr;
}

INDEX_INFO* TABLE_INFO::find_index(char16_t const* index_name) const {
  for (std::size_t i = 0; i < nr_indexes; ++i) {
    if (!SameName(indexes[i].name, index_name)) return &indexes[i];
  }
  return nullptr;
}

// ---- all tables ---------------------------------------------------------------------------------

std::unique_ptr<TABLE_INFO[]> MetaschemaInit::g_inits_;
std::unique_ptr<MetaschemaInit::TableByName> MetaschemaInit::g_table_by_name_;

DescriptorSet* Descriptors::Find(unsigned long context) {
  std::lock_guard const lock(mutex_);
  auto const found = sets_.find(context);
  return found == sets_.end() ? nullptr : &found->second;
}

// The exported variables can hold one set.
void Descriptors::Begin(unsigned long context) {
  std::lock_guard const lock(mutex_);
  sets_.erase(context);
  sets_.try_emplace(context, exported_ && sets_.empty());
}

void Descriptors::End(unsigned long context) {
  std::lock_guard const lock(mutex_);
  sets_.erase(context);
}

namespace {

DescriptorSet* CurrentDescriptors() {
  return DatabaseState::Current().Get<Descriptors>().Find(*TlsMetalayerContext::Current());
}

}  // namespace

// The map must be full before the first record is assigned, since base tables are found through it,
// and a table reads the finished counts of its base, which precedes it.
MetaschemaInit::MetaschemaInit()
    : database_(DatabaseState::Share(*TlsMetalayerContext::Current())),
      context_(*TlsMetalayerContext::Current()) {
  auto& descriptors = database_->Get<Descriptors>();
  descriptors.Begin(context_);
  try {
    auto& tables = descriptors.Find(context_)->tables;
    tables = std::make_unique<TABLE_INFO[]>(nr_meta_table_inits());
    FillMetaTableInits();
    for (unsigned int i = 0; i < nr_meta_table_inits(); ++i) {
      tables[i] = metaschema_init_generated_from_json[i];
    }
  } catch (...) {
    descriptors.End(context_);
    throw;
  }
}

MetaschemaInit::~MetaschemaInit() { database_->Get<Descriptors>().End(context_); }

TABLE_INFO* MetaschemaInit::inits() {
  DescriptorSet const* const set = CurrentDescriptors();
  return set == nullptr ? nullptr : set->tables.get();
}

void MetaschemaInit::FillMetaTableInits() {
  DescriptorSet* const set = CurrentDescriptors();
  if (set == nullptr) FatalError();
  if (set->by_name == nullptr) set->by_name = std::make_unique<TableByName>();
  if (!set->by_name->empty()) return;
  if (set->tables == nullptr) FatalError();
  for (unsigned int i = 0; i < nr_meta_table_inits(); ++i) {
    set->by_name->emplace(metaschema_init_generated_from_json[i].name, &set->tables[i]);
  }
}

TABLE_INFO* MetaschemaInit::table_by_name(char16_t const* name) {
  DescriptorSet const* const set = CurrentDescriptors();
  if (set == nullptr || set->by_name == nullptr) return nullptr;
  auto const found = set->by_name->find(name);
  return found == set->by_name->end() ? nullptr : found->second;
}

void MetaschemaInit::EnumPredefinedTokens(
    std::function<void(unsigned long token, char16_t const* text)> const& callback) {
  auto const report = [&callback](unsigned long token, char16_t const* text) {
    if (token != 0) callback(token, text);
  };
  TABLE_INFO const* const tables = inits();
  for (unsigned int i = 0; i < nr_meta_table_inits(); ++i) {
    TABLE_INFO_STATIC const& record = metaschema_init_generated_from_json[i];
    report(record.token, tables[i].full_name);
    for (std::size_t c = 0; c < tables[i].nr_columns; ++c) {
      report(record.columns[c].token, record.columns[c].name);
    }
    for (std::size_t x = 0; x < tables[i].nr_indexes; ++x) {
      report(record.indexes[x].token, record.indexes[x].name);
    }
  }
}

}  // namespace metalayer
