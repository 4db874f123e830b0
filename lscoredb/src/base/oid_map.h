#ifndef LSCOREDB_SRC_OID_MAP_H
#define LSCOREDB_SRC_OID_MAP_H

// A hash table from numbers that are never 0 to small values. It keeps its memory when cleared,
// unless it grew large or was little used: who scans it pays for all of its room. One thread at a
// time; pointers to values last until the next insertion.

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace lscore {

template <typename Value>
class OidMap {
 public:
  Value* Find(std::uint64_t key) {
    if (size_ == 0) return nullptr;
    for (std::size_t i = Home(key);; i = Follow(i)) {
      if (slots_[i].key == key) return &slots_[i].value;
      if (slots_[i].key == 0) return nullptr;
    }
  }
  Value const* Find(std::uint64_t key) const { return const_cast<OidMap*>(this)->Find(key); }

  // REQUIRES: the key is not in the map.
  void Insert(std::uint64_t key, Value value) {
    if ((size_ + 1) * 4 > slots_.size() * 3) Grow();
    Fill(key, std::move(value));
    ++size_;
  }

  // REQUIRES: the key is in the map. Moves later entries up, so that no tombstone remains.
  void Erase(std::uint64_t key) {
    std::size_t hole = Home(key);
    while (slots_[hole].key != key) hole = Follow(hole);
    for (std::size_t i = Follow(hole); slots_[i].key != 0; i = Follow(i)) {
      std::size_t const distance = (i - Home(slots_[i].key)) & (slots_.size() - 1);
      if (distance < ((i - hole) & (slots_.size() - 1))) continue;
      slots_[hole] = slots_[i];
      hole = i;
    }
    slots_[hole] = Slot{};
    --size_;
  }

  void Clear() {
    if (size_ == 0 && slots_.size() <= kKept) return;
    bool const keep = slots_.size() <= kKept && slots_.size() <= kFirst + size_ * kRoomKept;
    size_ = 0;
    if (keep) {
      for (Slot& slot : slots_) slot = Slot{};
    } else {
      slots_ = std::vector<Slot>();
    }
  }

  std::size_t size() const { return size_; }

  template <typename Visit>
  void ForEach(Visit&& visit) const {
    for (Slot const& slot : slots_) {
      if (slot.key != 0) visit(slot.key, slot.value);
    }
  }

 private:
  static constexpr std::size_t kFirst = 16;
  static constexpr std::size_t kKept = 4096;
  static constexpr std::size_t kRoomKept = 8;  // for each value that there was

  struct Slot {
    std::uint64_t key = 0;
    Value value{};
  };

  std::size_t Home(std::uint64_t key) const {
    std::uint64_t const mixed = key * 0x9E3779B97F4A7C15;
    return static_cast<std::size_t>((mixed ^ (mixed >> 32)) & (slots_.size() - 1));
  }
  std::size_t Follow(std::size_t i) const { return (i + 1) & (slots_.size() - 1); }

  void Fill(std::uint64_t key, Value value) {
    std::size_t i = Home(key);
    while (slots_[i].key != 0) i = Follow(i);
    slots_[i] = {key, std::move(value)};
  }

  void Grow() {
    std::vector<Slot> old(slots_.empty() ? kFirst : slots_.size() * 2);
    old.swap(slots_);
    for (Slot& slot : old) {
      if (slot.key != 0) Fill(slot.key, std::move(slot.value));
    }
  }

  std::vector<Slot> slots_;
  std::size_t size_ = 0;
};

}  // namespace lscore

#endif
