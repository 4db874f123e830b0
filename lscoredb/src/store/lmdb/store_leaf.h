#ifndef LSCOREDB_SRC_STORE_LEAF_H
#define LSCOREDB_SRC_STORE_LEAF_H

// Steps from entry to entry inside one leaf page of a frozen state, without a call into the store.
//
// A page of a state that is being read does not change. What it says of itself is looked at before
// it is used: a step that is not plain (the page's end, a value elsewhere, a page that contradicts
// itself) is left to the store. One thread at a time; owns nothing.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "bytes.h"
#include "store_header.h"

namespace lscore {

class LeafScan {
 public:
  bool inside() const { return page_ != nullptr; }
  void Leave() { page_ = nullptr; }

  // To the entry whose key lies at `key`. Returns whether the page has it.
  bool Enter(char const* page, std::size_t page_size, char const* key) {
    std::size_t const lower = Short(page + kLowerOffset);
    if (Short(page + kKindOffset) != pages::kLeaf || lower < pages::kPageHead ||
        lower > page_size) {
      return false;
    }
    page_ = page;
    page_size_ = page_size;
    count_ = (lower - pages::kPageHead) / 2;
    std::size_t const place = static_cast<std::size_t>(key - page) - pages::kNodeHead;
    for (at_ = 0; at_ < count_; ++at_) {
      if (PlaceOf(at_) != place) continue;
      FetchAround();
      return true;
    }
    Leave();
    return false;
  }

  // REQUIRES: inside(). Changes nothing when it returns false.
  bool Next(std::string_view* key, std::string_view* value) {
    return at_ + 1 < count_ && Take(at_ + 1, key, value);
  }
  bool Previous(std::string_view* key, std::string_view* value) {
    return at_ > 0 && Take(at_ - 1, key, value);
  }

  // The entry that many further on, without going there.
  bool Peek(std::size_t ahead, bool forward, std::string_view* key, std::string_view* value) const {
    if (forward ? ahead >= count_ - at_ : ahead > at_) return false;
    return Read(forward ? at_ + ahead : at_ - ahead, key, value);
  }

 private:
  static constexpr std::size_t kKindOffset = 10;
  static constexpr std::size_t kLowerOffset = 12;
  static constexpr std::size_t kAhead = 6;

  static std::size_t Short(char const* at) { return Load<std::uint16_t>(at); }
  std::size_t PlaceOf(std::size_t at) const { return Short(page_ + pages::kPageHead + 2 * at); }

  bool Take(std::size_t at, std::string_view* key, std::string_view* value) {
    if (!Read(at, key, value)) return false;
    FetchAhead(at > at_ ? at + kAhead : at - kAhead);
    at_ = at;
    return true;
  }

  // Of a page that was entered, what the first steps need in either direction.
  void FetchAround() const {
    for (std::size_t i = 1; i < kAhead; ++i) {
      FetchAhead(at_ + i);
      FetchAhead(at_ - i);
    }
  }

  // Entries lie in a page in the order in which they were made. Wraps below zero, which is no entry
  // either.
  void FetchAhead(std::size_t at) const {
    if (at >= count_) return;
    __builtin_prefetch(page_ + PlaceOf(at));
  }

  bool Read(std::size_t at, std::string_view* key, std::string_view* value) const {
    std::size_t const place = PlaceOf(at);
    if (place + pages::kNodeHead > page_size_) return false;
    char const* const node = page_ + place;
    std::size_t const key_size = Short(node + 6);
    std::size_t const value_size = Load<std::uint32_t>(node);
    bool const plain = Short(node + 4) == 0;
    if (!plain || pages::kNodeHead + key_size + value_size > page_size_ - place) return false;
    *key = {node + pages::kNodeHead, key_size};
    *value = {node + pages::kNodeHead + key_size, value_size};
    return true;
  }

  char const* page_ = nullptr;
  std::size_t page_size_ = 0;
  std::size_t count_ = 0;
  std::size_t at_ = 0;
};

}  // namespace lscore

#endif
