#ifndef LSCOREDB_SRC_FRESH_ENTRIES_H
#define LSCOREDB_SRC_FRESH_ENTRIES_H

// Entries of new objects for an index that is not being scanned: a list that is sorted once, at
// commit. A tree would be searched for every entry, and a large one fits into no processor cache.
//
//   items_  in order of insertion                   slots_  a hash table of keys, by linear probing
//   order_  the same in order of keys, once sorted          (only for unique indexes)
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
    for (SortKey const& key : order_) visit(items_[key.item]);
  }

 private:
  // The first bytes of the key beside the item's position: they mostly decide a comparison.
  struct SortKey {
    std::uint64_t head;
    std::size_t item;
  };
  // Part of the hash, and the item's position plus one; 0: free.
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t item = 0;
  };

  std::size_t Home(std::uint64_t hash) const { return hash & (slots_.size() - 1); }
  void NoteKey(std::size_t item);
  void Fill(std::size_t item);

  bool const searchable_;
  std::vector<Item> items_;
  std::vector<SortKey> order_;
  std::vector<Slot> slots_;
};

}  // namespace lscore

#endif
