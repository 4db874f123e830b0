#ifndef LSCOREDB_SRC_FRESH_ENTRIES_H
#define LSCOREDB_SRC_FRESH_ENTRIES_H

// Entries of new objects as they come, for an index that nobody scans: a list, which is sorted once
// in the end. A tree of them would be searched for each, and a large one fits into no cache.
//
//   items_  in the order in which they came         slots_  which of them have a key, by its hash
//   order_  the same by key, once they are sorted           (of unique indexes alone)
//
// Belongs to one PendingIndex. The bytes of the keys lie in its arena.

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

  // `searchable`: they are searched for keys.
  explicit FreshEntries(bool searchable) : searchable_(searchable) {}

  bool empty() const { return items_.empty(); }
  void Add(PendingKey const& key, PendingEntry const& entry);
  // Forgets all.
  void Clear();

  // Another object with an entry of this encoding, or none. Entries with unwritten columns count
  // only with `count_unwritten`. REQUIRES: searchable.
  ObjectId FindOther(PendingKey const& key, bool count_unwritten) const;

  void Sort();
  // Calls `visit` with each item, in order. REQUIRES: sorted since the last one came.
  template <typename Visit>
  void ForEach(Visit&& visit) const {
    for (Place const& place : order_) visit(items_[place.item]);
  }

 private:
  // The beginning of the key beside its place: mostly that tells which is lower.
  struct Place {
    std::uint64_t head;
    std::size_t item;
  };
  // Part of the hash and one more than the place of the item; 0: free.
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t item = 0;
  };

  std::size_t Home(std::uint64_t hash) const { return hash & (slots_.size() - 1); }
  void NoteKey(std::size_t item);
  void Fill(std::size_t item);

  bool const searchable_;
  std::vector<Item> items_;
  std::vector<Place> order_;
  std::vector<Slot> slots_;
};

}  // namespace lscore

#endif
