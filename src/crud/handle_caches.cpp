#include "crud/handle_caches.h"

#include <iterator>
#include <memory>
#include <mutex>
#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

namespace metalayer::crud {
namespace {

constexpr unsigned int kTableNotFound = SAGLEME_TABLE_NOT_FOUND;

struct HandleCaches : StatePart {
  static constexpr PartOf kPart = PartOf::kHandles;

  explicit HandleCaches(DatabaseState const& state) : database(state) {}

  DatabaseState const& database;

  std::mutex s_prop_infos_mtx;
  std::unordered_map<unsigned long, std::unique_ptr<PropertyAccessInfo>> s_prop_infos;

  std::mutex s_create_infos_mtx;
  std::unordered_map<unsigned long, std::unique_ptr<CreateInfo>> s_create_infos;
  // Records that lost their place to another table with the same type id. Their addresses are out,
  // so they live on until a refresh finds their table gone.
  std::vector<std::unique_ptr<CreateInfo>> s_displaced_create_infos;
};

HandleCaches& Caches() { return DatabaseState::Current().Get<HandleCaches>(); }

unsigned int LookUp(LS_OBJ_REF const& row) {
  uint64_t addr = 0;
  return lorv_context_lookup(TlsContextHandle::context(), row.oid, &addr);
}

void UpdateLocation(PropertyAccessInfo& info) {
  unsigned long const layout = GetULong(info.view, RawView::kLayoutHandle);
  long const index = GetLong(info.column, RawColumn::kColumnIndex);
  info.location.store(static_cast<uint32_t>(index) << 16 | static_cast<uint16_t>(layout),
                      std::memory_order_relaxed);
}

void UpdateLayout(CreateInfo& info) {
  unsigned long const layout = GetULong(info.view, RawView::kLayoutHandle);
  info.layout.store(static_cast<uint16_t>(layout), std::memory_order_relaxed);
}

// A table that got another set specifier got another layout with it.
void UpdateLayoutAndSet(CreateInfo& info) {
  uint16_t const layout = info.layout.load(std::memory_order_relaxed);
  UpdateLayout(info);
  if (info.layout.load(std::memory_order_relaxed) == layout) return;
  std::u16string setspec = CreateInfo::setspec_by_view(TlsContextHandle::context(), info.view);
  if (setspec != info.setspecs.front()) info.SetSetspec(std::move(setspec));
}

bool IsCached(unsigned long type_id) {
  return type_id < kLayouts &&
         std::atomic_ref(RawViewSlot(type_id).oid).load(std::memory_order_relaxed) != 0;
}

// A transaction that created a table and was rolled back leaves its row in the cache of views, and
// the next table gets the same type id: a filled slot is tried, and read again from the catalogue
// when its row is gone. In the catalogue a type id has no system mark, and one that has no slot is
// looked for there.
LS_OBJ_REF LiveRawView(unsigned long key) {
  unsigned long const type_id = key & ~kSystemCreate;
  if (type_id >= kLayouts) return LoadRawViewByTypeId(type_id);
  bool const was_cached = IsCached(type_id);
  LS_OBJ_REF const view = raw_view_by_type_id(key);
  return was_cached && IsGone(LookUp(view)) ? LoadRawViewByTypeId(type_id) : view;
}

// The entry stays behind empty when the record cannot be begun.
CreateInfo* BuildCreateInfo(unsigned long context, unsigned long key, DatabaseState const& database,
                            std::unique_ptr<CreateInfo>& entry) {
  auto info = std::make_unique<CreateInfo>();
  info->database = &database;
  info->view = LiveRawView(key);
  if (info->view.oid == 0) Throw(kTableNotFound);
  info->SetSetspec(CreateInfo::setspec_by_view(context, info->view));
  info->is_system = (key & kSystemCreate) != 0;
  entry = std::move(info);
  if (LookUp(entry->view) != LORV_STATUS_NO_OBJECT) UpdateLayout(*entry);
  return entry.get();
}

bool RefreshOne(PropertyAccessInfo& info) {
  if (IsGone(LookUp(info.view)) || IsGone(LookUp(info.column))) return false;
  UpdateLocation(info);
  return true;
}

// An empty entry is removed, so the next request creates a record.
bool RefreshOne(CreateInfo* info) {
  if (info == nullptr || IsGone(LookUp(info->view))) return false;
  UpdateLayoutAndSet(*info);
  return true;
}

}  // namespace

PropertyAccessInfo* PropertyHandle(LS_OBJ_REF const& view, LS_OBJ_REF const& column) {
  HandleCaches& caches = Caches();
  std::lock_guard const lock(caches.s_prop_infos_mtx);
  auto const known = caches.s_prop_infos.find(column.oid);
  if (known != caches.s_prop_infos.end()) return known->second.get();
  auto made = std::make_unique<PropertyAccessInfo>(view, column, &caches.database);
  PropertyAccessInfo& info =
      *caches.s_prop_infos.emplace(column.oid, std::move(made)).first->second;
  if (LookUp(view) != LORV_STATUS_NO_OBJECT && LookUp(column) != LORV_STATUS_NO_OBJECT) {
    UpdateLocation(info);
  }
  return &info;
}

CreateInfo* create_handle_from_typeid(unsigned long context, unsigned long key) {
  HandleCaches& caches = Caches();
  std::lock_guard const lock(caches.s_create_infos_mtx);
  auto const [entry, is_new] = caches.s_create_infos.try_emplace(key);
  std::unique_ptr<CreateInfo>& info = entry->second;
  if (!is_new && (info == nullptr || !IsGone(LookUp(info->view)))) return info.get();
  if (!is_new) caches.s_displaced_create_infos.push_back(std::move(info));
  return BuildCreateInfo(context, key, caches.database, info);
}

void RefreshPropertyHandles() {
  HandleCaches& caches = Caches();
  std::lock_guard const lock(caches.s_prop_infos_mtx);
  auto& infos = caches.s_prop_infos;
  for (auto entry = infos.begin(); entry != infos.end();) {
    entry = RefreshOne(*entry->second) ? std::next(entry) : infos.erase(entry);
  }
}

void RefreshCreateHandles() {
  HandleCaches& caches = Caches();
  std::lock_guard const lock(caches.s_create_infos_mtx);
  auto& infos = caches.s_create_infos;
  for (auto entry = infos.begin(); entry != infos.end();) {
    entry = RefreshOne(entry->second.get()) ? std::next(entry) : infos.erase(entry);
  }
  auto& displaced = caches.s_displaced_create_infos;
  for (auto info = displaced.begin(); info != displaced.end();) {
    info = RefreshOne(info->get()) ? std::next(info) : displaced.erase(info);
  }
}

}  // namespace metalayer::crud

std::u16string CreateInfo::setspec_by_view(unsigned long context, LS_OBJ_REF const& view) {
  metalayer::SetSpecifier const row(metalayer::SetSpecifier::ByType(view));
  if (row.is_null()) metalayer::FatalError();
  LORV_STRING* text = nullptr;
  unsigned int const status =
      lorv_context_get_string(context, row.oid, row.addr, metalayer::SetSpecifier::kTypeId, &text);
  if (status == LORV_STATUS_NULL) throw std::logic_error("a set specifier row has no text");
  metalayer::Check(status);
  return std::u16string(text->units, text->length);
}
