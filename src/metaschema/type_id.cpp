// Type ids: given to tables for life, in rising order.

#include <atomic>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "frame/traps.h"
#include "metaschema/layout_tables.h"

namespace metalayer {

LS_OBJ_REF g_raw_views[kLayouts];

namespace {

// A key may carry flags in its four highest bits; the slot is that of the number below them.
constexpr unsigned long kNumberBits = ~0ul >> 4;

LS_OBJ_REF CachedRawView(unsigned long number) {
  LS_OBJ_REF* const slot = CurrentLayouts().raw_views.Find(number);
  if (slot == nullptr) return db_util::null_obj_ref;
  return {std::atomic_ref(slot->oid).load(std::memory_order_acquire),
          std::atomic_ref(slot->addr).load(std::memory_order_relaxed)};
}

// The identity last: who finds it set finds the address beside it.
void CacheRawView(unsigned long number, LS_OBJ_REF const& raw_view) {
  LS_OBJ_REF& slot = RawViewSlot(number);
  std::atomic_ref(slot.addr).store(raw_view.addr, std::memory_order_relaxed);
  std::atomic_ref(slot.oid).store(raw_view.oid, std::memory_order_release);
}

}  // namespace

void AssureTypeId(unsigned long type_id, LS_OBJ_REF raw_view) {
  TypeIdsMeta const by_table = TypeIdsMeta::ByTypeIdsMeta_Type(raw_view);
  if (!by_table.is_null()) {
    if (GetULong(by_table, TypeIdsMeta::kTypeIdsMeta_Id) != type_id) FatalError();
    return;
  }
  TypeIdsMeta const by_id = TypeIdsMeta::ByTypeIdsMeta_PK(type_id);
  if (by_id.is_null()) {
    TypeIdsMeta::Insert(type_id, raw_view);
    return;
  }
  if (raw_view.oid == 0) return;
  LS_OBJ_REF const owner = by_id.get_ref(TypeIdsMeta::kTypeIdsMeta_Type);
  if (owner.oid == 0) {
    PutRef(by_id, TypeIdsMeta::kTypeIdsMeta_Type, raw_view);
  } else if (owner.oid != raw_view.oid) {
    FatalError();
  }
}

unsigned long NextTypeId(LS_OBJ_REF raw_view) {
  if (raw_view.oid == 0) FatalError();
  db_util::db_iter_with_keys highest;
  Key(highest.first_key).ULong(~0ul);
  Key(highest.last_key).Null();
  highest.open(TypeIdsMeta::index_id_TypeIdsMeta_PK(), kReverse);
  if (!highest.next()) FatalError();
  unsigned long const type_id = GetULong(highest.current, TypeIdsMeta::kTypeIdsMeta_Id) + 1;
  TypeIdsMeta::Insert(type_id, raw_view);
  return type_id;
}

LS_OBJ_REF LoadRawViewByTypeId(unsigned long type_id) {
  TypeIdsMeta const row = TypeIdsMeta::ByTypeIdsMeta_PK(type_id);
  if (row.is_null()) FatalError();
  LS_OBJ_REF const raw_view = row.get_ref(TypeIdsMeta::kTypeIdsMeta_Type);
  if (raw_view.oid != 0 && type_id < kLayouts) CacheRawView(type_id, raw_view);
  return raw_view;
}

LS_OBJ_REF raw_view_by_type_id(unsigned long type_id) {
  if (type_id == 0) FatalError();
  unsigned long const number = type_id & kNumberBits;
  if (number >= kLayouts) return LoadRawViewByTypeId(type_id);
  LS_OBJ_REF const cached = CachedRawView(number);
  return cached.oid != 0 ? cached : LoadRawViewByTypeId(type_id);
}

unsigned long GetRootTypeId(unsigned long type_id) {
  TypeIdsMeta const row = TypeIdsMeta::ByTypeIdsMeta_PK(type_id);
  if (row.is_null()) FatalError();
  RawView current(row.get_ref(TypeIdsMeta::kTypeIdsMeta_Type));
  if (current.is_null()) FatalError();
  for (;;) {
    RawView const base(current.get_ref(RawView::kInherits));
    if (base.oid == MomRawView().oid) break;
    current = base;
  }
  if (current.is_null()) raise_assertion_failure_except();
  TypeIdsMeta const root = TypeIdsMeta::ByTypeIdsMeta_Type(current);
  if (root.is_null()) FatalError();
  return GetULong(root, TypeIdsMeta::kTypeIdsMeta_Id);
}

}  // namespace metalayer
