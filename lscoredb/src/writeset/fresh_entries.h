#ifndef LSCOREDB_SRC_FRESH_ENTRIES_H
#define LSCOREDB_SRC_FRESH_ENTRIES_H

// Entries of new objects for an index that is not being scanned: a list that is sorted once, at
// commit. A tree would be searched for every entry, and a large one fits into no processor cache.
//
//   items_  in order of insertion                   slots_  a hash table of keys, by linear probing
//   order_  the same in order of keys, once sorted          (only for unique indexes)
//
// Keys of one index mostly begin alike ("Book number 7", "Book number 8"), so the list is sorted by
// the bytes behind what all of them share.
//
// Belongs to one PendingIndex, whose arena holds the bytes of the keys.

#include <cstdint>
#include <vector>

#include "pending_entry.h"

namespace lscore {

class FreshEntries {
 public:
  struct Item {
    PendingKey key;
    PendingEntry entry;
  };

  // `searchable`: FindOther is used.
  explicit FreshEntries(bool searchable) : searchable_(searchable) {}

  bool empty() const { return items_.empty(); }
  void Add(PendingKey const& key, PendingEntry const& entry);
  void Clear();

  // An object other than the key's with an equal encoding, or kNoObject. Entries with unwritten
  // columns count only with `count_unwritten`. REQUIRES: searchable.
  ObjectId FindOther(PendingKey const& key, bool count_unwritten) const;

  void Sort();
  // Calls `visit` with each item, in order. REQUIRES: Sort was called after the last Add.
  template <typename Visit>
  void ForEach(Visit&& visit) const {
    for (std::size_t i = 0; i < order_.size(); ++i) {
      FetchAhead(i);
      visit(items_[order_[i].item]);
    }
  }

 private:
  // What decides nearly all comparisons, beside the item's position: the bytes of the key behind
  // the shared ones, as two numbers, how many there are, and the object.
  struct SortKey {
    std::uint64_t first;
    std::uint64_t second;
    ObjectId object;
    std::uint32_t item;
    std::uint32_t size;  // at most kLong, which stands for all sizes from it on
  };
  static constexpr std::uint32_t kLong = 2 * sizeof(std::uint64_t) + 1;
  static constexpr std::size_t kAhead = 8;
  // Part of the hash, and the item's position plus one; 0: free.
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t item = 0;
  };

  std::size_t Home(std::uint64_t hash) const { return hash & (slots_.size() - 1); }
  void NoteKey(std::size_t item);
  void Fill(std::size_t item);
  bool IsSorted() const;
  std::size_t SharedSize() const;
  static SortKey SortKeyOf(PendingKey const& key, std::size_t shared, std::size_t item);
  // Items in order of keys lie anywhere in memory, and so do the bytes of their keys.
  void FetchAhead(std::size_t at) const {
    if (at + 2 * kAhead < order_.size()) __builtin_prefetch(&items_[order_[at + 2 * kAhead].item]);
    if (at + kAhead < order_.size()) {
      __builtin_prefetch(items_[order_[at + kAhead].item].key.encoded.data());
    }
  }

  bool const searchable_;
  std::vector<Item> items_;
  std::vector<SortKey> order_;
  std::vector<Slot> slots_;
};

}  // namespace lscore

#endif
