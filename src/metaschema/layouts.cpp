// From layout numbers to types.

#include <atomic>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "metaschema/layout_tables.h"

namespace metalayer {

LayoutEntry g_layouts[kLayouts];
LS_OBJ_REF g_mom_rv = db_util::null_obj_ref;

LayoutTables::LayoutTables(DatabaseState const& state)
    : layouts(state.exported() ? g_layouts : nullptr),
      raw_views(state.exported() ? g_raw_views : nullptr),
      mom_rv(state.exported() ? &g_mom_rv : &own_mom_rv_) {}

LayoutTables::~LayoutTables() { *mom_rv = db_util::null_obj_ref; }

LayoutEntry& EntryOfLayout(unsigned short layout) { return CurrentLayouts().layouts.At(layout); }
LS_OBJ_REF& RawViewSlot(unsigned long number) {
  if (number >= kLayouts) FatalError();
  return CurrentLayouts().raw_views.At(number);
}
LS_OBJ_REF& MomRawView() { return *CurrentLayouts().mom_rv; }

namespace {

unsigned long TypeIdOf(LS_OBJ_REF const& raw_view) {
  TypeIdsMeta const row = TypeIdsMeta::ByTypeIdsMeta_Type(raw_view);
  if (row.is_null()) FatalError();
  return GetULong(row, TypeIdsMeta::kTypeIdsMeta_Id);
}

// The type id last: who finds it set finds the row beside it.
void Remember(unsigned short layout, unsigned long type_id, LS_OBJ_REF const& raw_view) {
  LayoutEntry& entry = EntryOfLayout(layout);
  std::atomic_ref(entry.raw_view.oid).store(raw_view.oid, std::memory_order_relaxed);
  std::atomic_ref(entry.raw_view.addr).store(raw_view.addr, std::memory_order_relaxed);
  std::atomic_ref(entry.type_id).store(type_id, std::memory_order_release);
}

// The table's row must be readable still, in this very transaction.
unsigned long RememberTypeOf(unsigned short layout, LS_OBJ_REF const& raw_view) {
  unsigned long const type_id = TypeIdOf(raw_view);
  Remember(layout, type_id, raw_view);
  GetULong(raw_view, RawView::kLayoutHandle);
  return type_id;
}

bool IsGone(unsigned int status) {
  return status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE;
}

// The table that owns the object's set specifier; null when object or table is gone.
LS_OBJ_REF TableBySetspec(LS_OBJ_REF const& object) {
  LORV_STRING* text = nullptr;
  unsigned int const status =
      lorv_context_get_setspec(TlsContextHandle::context(), object.oid, object.addr, &text);
  if (IsGone(status)) return db_util::null_obj_ref;
  Check(status);
  std::u16string const setspec(text->units, text->length);
  return SetSpecifier::ByTypeId_postV2_3(setspec.c_str()).get_ref(SetSpecifier::kType);
}

bool HasLayout(LS_OBJ_REF const& raw_view) {
  uint64_t layout = 0;
  unsigned int const status = lorv_context_get_ulong(
      TlsContextHandle::context(), raw_view.oid, raw_view.addr, RawView::kLayoutHandle, &layout);
  if (IsGone(status)) return false;
  Check(status);
  return static_cast<unsigned short>(layout) != 0;
}

}  // namespace

unsigned short GetRootLayoutHandle() {
  return static_cast<unsigned short>(GetULong(MomRawView(), RawView::kLayoutHandle));
}

unsigned long AssureCurrentLayoutId(LS_OBJ_REF object) {
  unsigned short const layout = LayoutOf(object);
  RawView const current = RawView::ByRawViewPK(layout);
  if (!current.is_null()) return RememberTypeOf(layout, current);
  // A superseded layout names no table any more; the object's set specifier does.
  LS_OBJ_REF const table = TableBySetspec(object);
  return table.oid != 0 && HasLayout(table) ? RememberTypeOf(layout, table) : 0;
}

}  // namespace metalayer
