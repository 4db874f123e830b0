#ifndef LSCOREDB_SRC_TRANSACTION_ROW_CACHE_H
#define LSCOREDB_SRC_TRANSACTION_ROW_CACHE_H

// A cache of the rows that a transaction uses, by id. One thread at a time. RowRef is a plain
// struct of half a line of the processor's cache with a member `id`.
//
// Two-way set associative, with a set in one line of the processor's cache: among a thousand random
// rows hardly any evict each other. Memory is allocated by the page when a set in it is first used.

#include <algorithm>
#include <array>
#include <vector>

#include "ids.h"
#include "zero_pages.h"

namespace lscore {

template <typename RowRef>
class TransactionRowCache {
 public:
  TransactionRowCache() : sets_(kSets) { used_.reserve(kManyUsed); }

  // Null: not there. Valid until the next Put or Clear.
  RowRef const* Find(ObjectId id) const {
    Set const& set = SetOf(id);
    if (set[0].id == id && id != kNoObject) return &set[0];
    return set[1].id == id && id != kNoObject ? &set[1] : nullptr;
  }

  // Replaces an older entry of the same row.
  RowRef const* Put(RowRef const& row) {
    Set& set = SetOf(row.id);
    if (set[0].id == kNoObject) NoteUsed(set);
    if (set[0].id != row.id) set[1] = set[0];
    set[0] = row;
    return &set[0];
  }

  void Forget(ObjectId id) {
    Set& set = SetOf(id);
    if (set[0].id == id) {
      set[0] = set[1];
      set[1] = RowRef{};
    } else if (set[1].id == id) {
      set[1] = RowRef{};
    }
  }

  void Clear() {
    if (used_.size() == kManyUsed) return ClearAll();
    for (std::uint32_t const number : used_) sets_[number] = Set{};
    used_.clear();
  }

 private:
  static constexpr std::size_t kSets = 4096;
  static constexpr std::size_t kManyUsed = 512;  // with that many, Clear clears all sets

  static constexpr std::size_t kLine = 64;

  using Set = std::array<RowRef, 2>;  // all zeros: no row
  static_assert(sizeof(Set) == kLine);

  Set& SetOf(ObjectId id) const { return sets_[Raw(id) % kSets]; }
  void NoteUsed(Set const& set) {
    if (used_.size() < kManyUsed) used_.push_back(static_cast<std::uint32_t>(&set - sets_.data()));
  }
  void ClearAll() {
    std::fill_n(sets_.data(), kSets, Set{});
    used_.clear();
  }

  ZeroPages<Set> sets_;
  std::vector<std::uint32_t> used_;  // sets with a row, while they are few
};

}  // namespace lscore

#endif
