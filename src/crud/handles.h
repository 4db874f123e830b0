#ifndef CRUD_HANDLES_H
#define CRUD_HANDLES_H

// The records behind the handles of object access.
//
// A handle is the address of one of these records. The caches (handle_caches.h) of its database own
// them and are the only writers, under their locks. The object path reads `location` and `layout`
// at any time without a lock, so each is one atomic word: a reader gets both halves of a `location`
// from one refresh. Handles end with their database.

#include <sagleme/sagleme.h>

#include <atomic>
#include <bit>
#include <cstring>
#include <forward_list>
#include <sagleme/metalayer/records.hpp>
#include <string>
#include <utility>

namespace metalayer {
class DatabaseState;
}

struct PropertyAccessInfo {
  PropertyAccessInfo(LS_OBJ_REF table, LS_OBJ_REF member,
                     metalayer::DatabaseState const* of = nullptr)
      : view(table), column(member), database(of) {}

  // Bits 0 to 15: the table's layout; bits 16 to 31: the column's index. First, so that the object
  // path loads it straight through the handle.
  std::atomic<uint32_t> location{0};
  LS_OBJ_REF view;                           // the table's RawView row
  LS_OBJ_REF column;                         // the property's row among the table's members
  metalayer::DatabaseState const* database;  // null: not of a cache
};

struct CreateInfo {
  // The set specifier of the table whose RawView row is `view`.
  static std::u16string setspec_by_view(unsigned long context, LS_OBJ_REF const& view);

  // The set specifier that new objects get. A table under another base has another one; whoever
  // read the old one still uses it, so all of them stay.
  void SetSetspec(std::u16string text) {
    set.store(setspecs.emplace_front(std::move(text)).c_str(), std::memory_order_release);
  }

  LS_OBJ_REF view = db_util::null_obj_ref;
  std::forward_list<std::u16string> setspecs;  // the newest first
  bool is_system = false;
  metalayer::DatabaseState const* database = nullptr;
  std::atomic<uint16_t> layout{0};
  // Stored after the layout and loaded before it: the newest set never goes with an older layout.
  std::atomic<char16_t const*> set{nullptr};
};

namespace metalayer::crud {

// What the kernel needs to reach a property of an object.
struct ColumnLocation {
  uint64_t addr;
  uint32_t column;
};

static_assert(std::endian::native == std::endian::little);

// The layout in the caller's address word is replaced by the one that the handle knows. Copied over
// its lowest bytes, which is one instruction where masks are four.
inline ColumnLocation Locate(PropertyAccessInfo const* handle, uint64_t addr) {
  uint32_t const location = handle->location.load(std::memory_order_relaxed);
  auto const layout = static_cast<uint16_t>(location);
  std::memcpy(&addr, &layout, sizeof layout);
  return {addr, location >> 16};
}

}  // namespace metalayer::crud

static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);
static_assert(std::atomic<uint16_t>::is_always_lock_free);

#endif
