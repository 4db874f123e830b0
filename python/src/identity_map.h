#ifndef SAGLEME_PYTHON_IDENTITY_MAP_H
#define SAGLEME_PYTHON_IDENTITY_MAP_H

// The live Python objects of a transaction, by identity. Owns nothing.
//
// Open addressing with linear probing; a removal moves later entries of the run back, so that there
// are no graves. T has a member `oid`, never 0. Several objects of one identity are all visited,
// but Find returns any of them.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace binding {

template <typename T>
class IdentityMap {
 public:
  IdentityMap() : slots_(kLeast) {}

  T* Find(std::uint64_t oid) const {
    for (std::size_t at = Home(oid);; at = Next(at)) {
      T* const found = slots_[at];
      if (found == nullptr || found->oid == oid) return found;
    }
  }

  // One of that identity that the condition holds for.
  template <typename Condition>
  T* FindIf(std::uint64_t oid, Condition&& condition) const {
    for (std::size_t at = Home(oid);; at = Next(at)) {
      T* const found = slots_[at];
      if (found == nullptr || (found->oid == oid && condition(*found))) return found;
    }
  }

  // REQUIRES: the object is not in the map.
  void Add(T* object) {
    if (2 * (count_ + 1) > slots_.size()) Grow();
    Insert(object);
    ++count_;
  }

  // Does nothing for an object that is not in the map.
  void Remove(T const* object) {
    std::size_t hole = Home(object->oid);
    while (slots_[hole] != object) {
      if (slots_[hole] == nullptr) return;
      hole = Next(hole);
    }
    for (std::size_t at = Next(hole); slots_[at] != nullptr; at = Next(at)) {
      std::size_t const home = Home(slots_[at]->oid);
      // An entry may move back as far as its home.
      if (((at - home) & Mask()) < ((at - hole) & Mask())) continue;
      slots_[hole] = slots_[at];
      hole = at;
    }
    slots_[hole] = nullptr;
    --count_;
  }

  template <typename Visit>
  void ForEach(Visit&& visit) const {
    for (T* const object : slots_) {
      if (object != nullptr) visit(object);
    }
  }

  std::size_t size() const { return count_; }

 private:
  static constexpr std::size_t kLeast = 64;

  std::size_t Mask() const { return slots_.size() - 1; }
  std::size_t Next(std::size_t at) const { return (at + 1) & Mask(); }
  std::size_t Home(std::uint64_t oid) const {
    return static_cast<std::size_t>(oid * 0x9E3779B97F4A7C15u >> 20) & Mask();
  }

  void Insert(T* object) {
    std::size_t at = Home(object->oid);
    while (slots_[at] != nullptr) at = Next(at);
    slots_[at] = object;
  }

  void Grow() {
    std::vector<T*> before(2 * slots_.size());
    before.swap(slots_);
    for (T* const object : before) {
      if (object != nullptr) Insert(object);
    }
  }

  std::vector<T*> slots_;
  std::size_t count_ = 0;
};

}  // namespace binding

#endif
