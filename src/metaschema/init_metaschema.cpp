// The descriptors' dealings with the kernel: layouts and indexes of the system tables, made, found
// and compared with the definition.

#include <sagleme/ucs2.h>

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <sagleme/metalayer/types.hpp>

#include "metaschema/system_tables_init.h"

namespace metalayer {

namespace {

unsigned long Context() { return TlsContextHandle::context(); }

// Asks for one layout made with the token; the number that the kernel answers.
unsigned int FindLayout(unsigned long token, LORVI_LAYOUT_INFO* out) {
  uint32_t count = 1;
  Check(lorvi_context_get_layout_infos_by_token(Context(), token, &count, out));
  return count;
}

void RequireMatch(bool matches) {
  if (!matches) FatalError();
}

}  // namespace

// ---- tokens -------------------------------------------------------------------------------------

void TABLE_INFO::assure_token() {
  if (token == 0) token = metalayer::assure_token(full_name);
}

void COLUMN_INFO::assure_token() {
  if (token == 0) token = metalayer::assure_token(name);
}

void INDEX_INFO::assure_token() {
  if (token == 0) token = metalayer::assure_token(name);
}

// ---- layouts ------------------------------------------------------------------------------------

unsigned short TABLE_INFO::get_layout() {
  assure_token();
  LORVI_LAYOUT_INFO info{};
  unsigned int const count = FindLayout(token, &info);
  if (count == 0) return 0;
  if (count != 1 || info.token != token) FatalError();
  return info.layout_handle;
}

void COLUMN_INFO::define_column(LORVI_COLUMN_DEFINITION* out) {
  assure_token();
  out->type = LogicalTypeToKernelType(type);
  out->token = token;
  out->is_nullable = nullable ? 1 : 0;
}

void TABLE_INFO::define_columns(LORVI_COLUMN_DEFINITION* out) {
  for (std::size_t i = 0; i < nr_columns; ++i) columns[i].define_column(out++);
  *out = LORVI_COLUMN_DEFINITION{};
}

void TABLE_INFO::create_metatable() {
  if (layout == 0) layout = get_layout();
  // Needed for the column tokens too, so also when the layout exists.
  LORVI_COLUMN_DEFINITION definitions[kMaxOwnColumns + 1];
  define_columns(definitions);
  if (layout != 0) return;
  // The kernel gives a root layout its first two columns itself.
  unsigned short const base_layout =
      base == nullptr ? MotherOfAllLayouts::metaclass_layout_handle() : base->layout;
  LORVI_COLUMN_DEFINITION const* const first = base == nullptr ? definitions + 2 : definitions;
  Check(lorvi_context_create_layout(Context(), token, base_layout, first, 0, &layout));
}

void TABLE_INFO::verify() {
  LORVI_LAYOUT_INFO info{};
  RequireMatch(FindLayout(token, &info) == 1);
  verify(&info);
}

void TABLE_INFO::verify(LORVI_LAYOUT_INFO* info) const {
  RequireMatch(info->token == token && info->layout_handle == layout);
  if (base == nullptr) return;
  verify_base_table(info->base_layout_handle);
  unsigned int const end = base->total_nr_columns + 0u + nr_columns;
  RequireMatch(info->column_count == end && info->column_count == total_nr_columns);
  for (unsigned int ordinal = base->total_nr_columns; ordinal < end; ++ordinal) {
    columns[ordinal - base->total_nr_columns].verify(static_cast<unsigned short>(ordinal));
  }
}

void TABLE_INFO::verify_base_table(unsigned short kernel_base) const {
  if (kernel_base == 0) {
    RequireMatch(base_table == nullptr);
    return;
  }
  RequireMatch(base_table != nullptr);
  LORVI_LAYOUT_INFO info{};
  Check(lorvi_context_get_layout_info(Context(), kernel_base, &info));
  RequireMatch(base != nullptr && base->layout == kernel_base);
}

void COLUMN_INFO::verify(unsigned short ordinal) const {
  LORVI_COLUMN_INFO info{};
  Check(lorvi_context_get_column_info(Context(), table->layout, ordinal, &info));
  RequireMatch(token != 0 && token == info.token);
  RequireMatch(info.type == LogicalTypeToKernelType(type));
  RequireMatch(ordinal == column_index);
}

// ---- indexes ------------------------------------------------------------------------------------

bool INDEX_INFO::load_metatable_index(std::u16string* setspec) {
  if (index_id != 0) return true;
  assure_token();
  LORVI_INDEX_INFO info{};
  unsigned int const status = get_index_info_by_token(token, &info);
  if (status == LORV_STATUS_NO_INDEX) return false;
  if (status != 0) Throw(status);
  index_id = info.index_id;
  char16_t const* text = nullptr;
  Check(lorvi_context_get_index_setspec(Context(), index_id, &text));
  if (setspec->empty()) {
    *setspec = text;
  } else {
    RequireMatch(*setspec == text);
  }
  return true;
}

void INDEX_INFO::create_metatable_index(std::u16string* setspec) {
  if (load_metatable_index(setspec)) return;
  LORVI_COLUMN_DEFINITION definitions[kMaxIndexColumns + 1] = {};
  unsigned short count = 0;
  for (; count < kMaxIndexColumns && column_infos[count] != nullptr; ++count) {
    column_infos[count]->define_column(&definitions[count]);
  }
  RequireMatch(count == nr_columns);
  Check(lorvi_context_create_index(Context(), token, setspec->c_str(), definitions, 0, flags,
                                   &index_id));
}

void INDEX_INFO::verify() {
  LORVI_INDEX_INFO info{};
  Check(get_index_info_by_token(token, &info));
  verify(&info);
}

void INDEX_INFO::verify(LORVI_INDEX_INFO const* info) const {
  RequireMatch(info->token == token && info->index_id == index_id && info->flags == flags);
  RequireMatch(info->reserved == 0 && info->attribute_count == nr_columns);
  for (unsigned short i = 0; i < nr_columns; ++i) {
    RequireMatch(ucs2_cmp(column_infos[i]->name, columns[i]) == 0);
  }
}

void TABLE_INFO::create_metatable_indexes() {
  for (unsigned short i = 0; i < nr_indexes; ++i) indexes[i].create_metatable_index(&setspec);
}

void TABLE_INFO::load_metatable_indexes() {
  for (unsigned short i = 0; i < nr_indexes; ++i) indexes[i].load_metatable_index(&setspec);
}

void TABLE_INFO::verify_metatable_indexes() {
  for (unsigned short i = 0; i < nr_indexes; ++i) indexes[i].verify();
}

// ---- readiness ----------------------------------------------------------------------------------

// A table or index that is missing is the mark of a database that is only partly built.
bool init_meta_table(TABLE_INFO& table) try {
  table.layout = table.get_layout();
  if (table.layout == 0) return false;
  table.load_metatable_indexes();
  auto const number = static_cast<std::size_t>(&table - MetaschemaInit::inits());
  if (g_inits[number](std::u16string(), table.type_id) != table.layout) FatalError();
  return true;
} catch (db_util::db_exception const& failure) {
  if (failure.code() != LORV_STATUS_NO_INDEX && failure.code() != kNoTable) throw;
  return false;
}

}  // namespace metalayer
