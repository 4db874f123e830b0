// The life of objects: made with their set specifier, found with their type, deleted.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/crud.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "crud/handle_caches.h"
#include "frame/frame.h"

namespace metalayer::crud {
namespace {

constexpr unsigned long kNoType = 0;

// `type_id` is stored last, so an entry that shows one has its view.
unsigned long CachedType(LayoutEntry& entry, LS_OBJ_REF* out_view) {
  unsigned long const type_id = std::atomic_ref(entry.type_id).load(std::memory_order_acquire);
  if (type_id != kNoType) {
    out_view->oid = std::atomic_ref(entry.raw_view.oid).load(std::memory_order_relaxed);
    out_view->addr = std::atomic_ref(entry.raw_view.addr).load(std::memory_order_relaxed);
  }
  return type_id;
}

// The view of a layout's entry is gone: its table was dropped, or was rolled back and the layout
// now belongs to another one. If the catalogue still names the same view, there is no better
// answer.
unsigned long ReloadedType(LS_OBJ_REF const& object, LS_OBJ_REF const& gone_view) {
  unsigned long const type_id = AssureCurrentLayoutId(object);
  LS_OBJ_REF view = db_util::null_obj_ref;
  CachedType(EntryOfLayout(LayoutOf(object)), &view);
  return view.oid == gone_view.oid ? kNoType : type_id;
}

// Writes the set specifier of a new object and returns its address word. The layout alone is an
// address.
uint64_t EnterSet(uint64_t context, char16_t const* set, uint64_t oid, uint16_t layout) {
  Check(lorv_context_put_setspec(context, oid, layout, set));
  return layout;
}

}  // namespace

// The layout that the view names is not compared with the object's: an object under a superseded
// layout keeps its table's type.
unsigned long GetObjectTypeId(LS_OBJ_REF object) {
  unsigned short const layout = LayoutOf(object);
  if (layout == 0) return kNoType;
  LS_OBJ_REF view = db_util::null_obj_ref;
  unsigned long const type_id = CachedType(EntryOfLayout(layout), &view);
  if (type_id == kNoType) return AssureCurrentLayoutId(object);
  uint64_t current = 0;
  unsigned int const status = lorv_context_get_ulong(TlsContextHandle::context(), view.oid,
                                                     view.addr, RawView::kLayoutHandle, &current);
  if (IsGone(status)) return ReloadedType(object, view);
  Check(status);
  return static_cast<uint16_t>(current) == 0 ? kNoType : type_id;
}

}  // namespace metalayer::crud

using metalayer::Check;
using metalayer::MetalayerFunction;
namespace crud = metalayer::crud;

uint32_t lorv_crud_CreateObject(uint64_t context, CreateInfo const* handle, uint64_t* out_oid,
                                uint64_t* out_addr) {
  return MetalayerFunction<false>(context, [&] {
    crud::RequireOwn(handle);
    char16_t const* const set = handle->set.load(std::memory_order_acquire);
    uint16_t const layout = handle->layout.load(std::memory_order_relaxed);
    uint64_t oid = 0;
    Check(handle->is_system ? lorv_context_insert_system(context, layout, &oid)
                            : lorv_context_insert(context, layout, &oid));
    uint64_t const addr = crud::EnterSet(context, set, oid, layout);
    *out_oid = oid;
    *out_addr = addr;
  });
}

uint32_t lorv_crud_CreateObjectWithId(uint64_t context, CreateInfo const* handle, uint64_t oid,
                                      uint64_t* out_addr) {
  return MetalayerFunction<false>(context, [&] {
    crud::RequireOwn(handle);
    if (handle->is_system) metalayer::FatalError();
    char16_t const* const set = handle->set.load(std::memory_order_acquire);
    uint16_t const layout = handle->layout.load(std::memory_order_relaxed);
    Check(lorvi_context_insert_with_id(context, layout, oid));
    *out_addr = crud::EnterSet(context, set, oid, layout);
  });
}

uint32_t lorv_crud_DeleteObject(uint64_t context, uint64_t /*handle*/, uint64_t oid,
                                uint64_t addr) {
  return lorv_context_delete(context, oid, addr);
}

uint32_t lorv_crud_DeleteObject_NoHandle(uint64_t context, uint64_t oid, uint64_t addr) {
  return lorv_context_delete(context, oid, addr);
}

// An unknown id costs one kernel call and keeps the last failure's text.
uint32_t lorv_crud_Lookup(uint64_t context, uint64_t oid, uint64_t* out_addr,
                          uint64_t* out_type_id) {
  uint32_t const status = lorv_context_lookup(context, oid, out_addr);
  if (status != 0) return status;
  return MetalayerFunction<false>(context, [&] {
    *out_type_id = crud::GetObjectTypeId({oid, *out_addr});
  });
}

uint32_t lorv_crud_GetObjectTypeId(uint64_t context, uint64_t oid, uint64_t /*addr*/,
                                   uint64_t* out_type_id) {
  return MetalayerFunction<false>(context, [&] {
    uint64_t addr = 0;
    Check(lorv_context_lookup(context, oid, &addr));
    *out_type_id = crud::GetObjectTypeId({oid, addr});
  });
}

uint32_t lorv_crud_ReadRefAndType(uint64_t context, PropertyAccessInfo const* handle, uint64_t oid,
                                  uint64_t addr, LS_OBJ_REF* out, uint64_t* out_type_id) {
  uint32_t status = 0;
  uint32_t const frame_status = MetalayerFunction<false>(context, [&] {
    crud::RequireOwn(handle);
    crud::ColumnLocation const at = crud::Locate(handle, addr);
    LORV_REFERENCE reference{};
    status = lorv_context_get_reference(context, oid, at.addr, at.column, &reference);
    if (status != 0) return;
    *out = db_util::Fold(reference);
    *out_type_id = crud::GetObjectTypeId(*out);
  });
  return frame_status != 0 ? frame_status : status;
}
