#ifndef LSCOREDB_SRC_HANDLES_H
#define LSCOREDB_SRC_HANDLES_H

// Handles that callers may keep for ever: numbers that are looked up without locks and name nothing
// once their object is retired. A handle is a slot and its use count. Objects are not owned. Find
// may be called from any thread with any number; the object that it returns may be used by the
// thread that may use the handle. In a forked process, handles of the parent name nothing.

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <vector>

#include "status.h"

namespace lscore {

template <typename T>
class HandleTable {
 public:
  constexpr HandleTable() = default;

  [[gnu::always_inline]] T* Find(std::uint64_t handle) const {
    std::uint64_t const slot = handle & 0xFFFFFFFF;
    // A slot out of use holds 0, which must not pass for the handle of slot 0.
    if (handle == 0 || slot / kChunk >= kChunks) return nullptr;
    Chunk const* const chunk = chunks_[slot / kChunk].load(std::memory_order_acquire);
    if (chunk == nullptr) return nullptr;
    Slot const& at = (*chunk)[slot % kChunk];
    if (at.handle.load(std::memory_order_acquire) != handle) return nullptr;
    return at.object.load(std::memory_order_relaxed);
  }

  // A new handle, never 0, for `object`.
  std::uint64_t Register(T& object) {
    std::lock_guard const lock(mutex_);
    std::uint64_t const slot = TakeSlot();
    Slot& at = SlotOf(slot);
    at.object.store(&object, std::memory_order_relaxed);
    return Revive(at, slot);
  }

  // Makes the handle name nothing; its object keeps the slot and may be revived with another
  // handle.
  void Suspend(std::uint64_t handle) {
    SlotOf(handle & 0xFFFFFFFF).handle.store(0, std::memory_order_release);
  }
  // REQUIRES: `handle` was suspended, and its object is the same.
  std::uint64_t Revive(std::uint64_t handle) {
    std::uint64_t const slot = handle & 0xFFFFFFFF;
    return Revive(SlotOf(slot), slot);
  }
  // Frees the slot. The handle may be suspended.
  void Retire(std::uint64_t handle) {
    std::lock_guard const lock(mutex_);
    Suspend(handle);
    free_.push_back(handle & 0xFFFFFFFF);  // never grows: TakeSlot reserved for it
  }

  // In a forked child, where nothing else runs yet: forgets all objects of the parent, without
  // freeing them. New handles use other slots, so none equals one of the parent's.
  void ForgetParent() {
    for (std::size_t i = 0; i < chunk_count_; ++i) chunks_[i].store(nullptr);
    new (&mutex_) std::mutex;
    new (&free_) std::vector<std::uint64_t>;
  }

 private:
  static constexpr std::size_t kChunk = 256;
  static constexpr std::size_t kChunks = 16384;

  struct Slot {
    std::atomic<std::uint64_t> handle{0};
    std::atomic<T*> object{nullptr};
    std::uint64_t uses = 0;  // of the slot's owner
  };
  using Chunk = std::array<Slot, kChunk>;

  Slot& SlotOf(std::uint64_t slot) {
    return (*chunks_[slot / kChunk].load(std::memory_order_acquire))[slot % kChunk];
  }

  static std::uint64_t Revive(Slot& at, std::uint64_t slot) {
    if (++at.uses >> 32 != 0) at.uses = 1;
    std::uint64_t const handle = at.uses << 32 | slot;
    at.handle.store(handle, std::memory_order_release);
    return handle;
  }

  std::uint64_t TakeSlot() {
    if (free_.empty()) AddChunk();
    std::uint64_t const slot = free_.back();
    free_.pop_back();
    return slot;
  }

  void AddChunk() {
    if (chunk_count_ == kChunks) Throw(LSCOREDB_NO_MEMORY);
    std::size_t const number = chunk_count_;
    free_.reserve((number + 1) * kChunk);
    chunks_[number].store(new Chunk, std::memory_order_release);
    ++chunk_count_;
    for (std::size_t i = kChunk; i > 0; --i) free_.push_back(number * kChunk + i - 1);
  }

  std::array<std::atomic<Chunk*>, kChunks> chunks_{};
  std::mutex mutex_;
  std::size_t chunk_count_ = 0;  // chunks are never freed, as little as the table
  std::vector<std::uint64_t> free_;
};

// A table that exists before any code of the process runs and is used until its very end.
template <typename T>
union NeverDestroyedHandleTable {
  constexpr NeverDestroyedHandleTable() : table() {}
  constexpr ~NeverDestroyedHandleTable() {}
  HandleTable<T> table;
};

}  // namespace lscore

#endif
