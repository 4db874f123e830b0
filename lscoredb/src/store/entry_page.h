#ifndef LSCOREDB_SRC_ENTRY_PAGE_H
#define LSCOREDB_SRC_ENTRY_PAGE_H

// Steps from entry to entry inside one page of a snapshot, without a call into the store.
//
// A store returns entries in slotted pages, little endian:
//
//   slots   offset of each entry from the beginning of the page (2 bytes each), in key order
//   entry   0  size of the value (4)
//           4  form (2): 0 is plain; for any other the store finds the value
//           6  size of the key (2)
//           8  the key, then the value when the form is plain
//
//   page +0          +slots                      +slots[0]
//        [ ........ | 0x0fd0 0x0fa8 0x0f80 .... | ... | 4:size 2:form 2:size key value | ... ]
//
// A page of a state that is being read does not change. What it says of itself is checked before it
// is used: a step that is not plain (the page's end, a value elsewhere, a page that contradicts
// itself) is left to the store. One thread at a time; owns nothing.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "bytes.h"

namespace lscore {

struct KeyValue {
  std::string_view key;
  std::string_view value;
};

class EntryPage {
 public:
  static constexpr std::size_t kEntryHead = 8;
  static constexpr std::uint16_t kPlain = 0;

  bool inside() const { return page_ != nullptr; }
  void Leave() { page_ = nullptr; }

  // Enters the page at the entry at `offset`, which is probably the one of slot `likely`. Returns
  // whether the page has it. REQUIRES: `count` slots from `slots` on lie in the page.
  bool Enter(char const* page, std::size_t page_size, std::size_t slots, std::size_t count,
             std::size_t offset, std::size_t likely = 0) {
    page_ = page;
    page_size_ = page_size;
    slots_ = page + slots;
    count_ = count;
    at_ = likely < count_ && OffsetOf(likely) == offset ? likely : 0;
    while (at_ < count_ && OffsetOf(at_) != offset) ++at_;
    if (at_ == count_) {
      Leave();
      return false;
    }
    FetchAround();
    return true;
  }

  // Leaves out the entries behind the current one, seen in that direction, and those ahead whose
  // key is not `within`, which holds for those that are near. Returns how many are left, with the
  // current one. REQUIRES: inside().
  template <typename Within>
  std::size_t Limit(bool forward, Within const& within) {
    std::size_t low = 0;  // steps to the last entry that is known to be within
    std::size_t high = forward ? count_ - at_ : at_ + 1;  // to the first that is not
    for (std::size_t step = high - 1; high - low > 1; step = low + (high - low) / 2) {
      KeyValue entry;
      (Peek(step, forward, &entry) && within(entry.key) ? low : high) = step;
    }
    std::size_t const first = forward ? at_ : at_ - low;
    slots_ += 2 * first;
    at_ -= first;
    count_ = low + 1;
    return count_;
  }

  // REQUIRES: inside(). Changes nothing when it returns false.
  bool Next(KeyValue* entry) { return at_ + 1 < count_ && Take(at_ + 1, entry); }
  bool Previous(KeyValue* entry) { return at_ > 0 && Take(at_ - 1, entry); }

  // The entries ahead in that direction.
  std::size_t Left(bool forward) const { return forward ? count_ - 1 - at_ : at_; }
  // To the last of them. Changes nothing when it returns false: that one is not plain.
  bool SkipLeft(bool forward, KeyValue* entry) { return Take(forward ? count_ - 1 : 0, entry); }

  // Moves so many steps at once. Changes nothing when it returns false: there is no plain entry.
  bool Step(std::size_t steps, bool forward, KeyValue* entry) {
    if (forward ? steps >= count_ - at_ : steps > at_) return false;
    return Take(forward ? at_ + steps : at_ - steps, entry);
  }

  // Peek for a caller that looks at one entry after the other.
  bool Look(std::size_t ahead, bool forward, KeyValue* entry) const {
    FetchAhead(forward ? at_ + ahead + kAhead : at_ - ahead - kAhead);
    return Peek(ahead, forward, entry);
  }

  // The entry `ahead` steps further, without moving.
  bool Peek(std::size_t ahead, bool forward, KeyValue* entry) const {
    if (forward ? ahead >= count_ - at_ : ahead > at_) return false;
    return Read(forward ? at_ + ahead : at_ - ahead, entry);
  }

  // The key of that entry, which need not be plain; empty: there is none.
  std::string_view PeekKey(std::size_t ahead, bool forward) const {
    if (forward ? ahead >= count_ - at_ : ahead > at_) return {};
    std::size_t const offset = OffsetOf(forward ? at_ + ahead : at_ - ahead);
    if (offset + kEntryHead > page_size_) return {};
    std::size_t const size = Short(page_ + offset + 6);
    if (kEntryHead + size > page_size_ - offset) return {};
    return {page_ + offset + kEntryHead, size};
  }

  // The first and the last entry of the page. Returns false when one of them is not plain.
  bool Ends(KeyValue* first, KeyValue* last) const {
    return inside() && Read(0, first) && Read(count_ - 1, last);
  }

 private:
  static constexpr std::size_t kAhead = 6;

  static std::size_t Short(char const* at) { return Load<std::uint16_t>(at); }
  std::size_t OffsetOf(std::size_t at) const { return Short(slots_ + 2 * at); }

  bool Take(std::size_t at, KeyValue* entry) {
    if (!Read(at, entry)) return false;
    FetchAhead(at > at_ ? at + kAhead : at - kAhead);
    at_ = at;
    return true;
  }

  // Prefetches what the first steps in either direction need.
  void FetchAround() const {
    for (std::size_t i = 1; i < kAhead; ++i) {
      FetchAhead(at_ + i);
      FetchAhead(at_ - i);
    }
  }

  // Entries may lie in a page in any order. Wraps below zero, which is no entry either.
  void FetchAhead(std::size_t at) const {
    if (at >= count_) return;
    __builtin_prefetch(page_ + OffsetOf(at));
  }

  bool Read(std::size_t at, KeyValue* entry) const {
    std::size_t const offset = OffsetOf(at);
    if (offset + kEntryHead > page_size_) return false;
    char const* const head = page_ + offset;
    std::size_t const key_size = Short(head + 6);
    std::size_t const value_size = Load<std::uint32_t>(head);
    bool const plain = Short(head + 4) == kPlain;
    if (!plain || kEntryHead + key_size + value_size > page_size_ - offset) return false;
    entry->key = {head + kEntryHead, key_size};
    entry->value = {head + kEntryHead + key_size, value_size};
    return true;
  }

  char const* page_ = nullptr;
  char const* slots_ = nullptr;
  std::size_t page_size_ = 0;
  std::size_t count_ = 0;
  std::size_t at_ = 0;
};

}  // namespace lscore

#endif
