#ifndef LSCOREDB_SRC_SERVER_PAGE_H
#define LSCOREDB_SRC_SERVER_PAGE_H

// Neighbouring entries of a tree from one reply of the server.

#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "entry_page.h"
#include "numbered_values.h"
#include "store.h"

namespace lscore {

// The order of keys in the tree.
bool KeyLess(Tree tree, std::string_view a, std::string_view b);

class ServerPage {
 public:
  // `falling`: the reply has the rows in descending order. `asked`: so many were asked for.
  // `numbers`: outlives the page.
  ServerPage(Tree tree, Result rows, NumberedValues& numbers, std::size_t asked, bool falling);
  // Of `count` rows of a reply that outlives the page, from row `first` on, which ascend.
  ServerPage(Tree tree, Result const& rows, NumberedValues& numbers, std::size_t first,
             std::size_t count, std::size_t asked);

  // Whether the page reaches the end of the tree.
  bool ends() const { return size() < asked_; }
  std::size_t size() const { return entries_.size(); }
  KeyValue const& entry(std::size_t i) const { return entries_[i]; }
  // The position of the first entry that is not below the key; size() when there is none.
  std::size_t LowerBound(std::string_view key) const;
  // Enters the slotted page (entry_page.h) that holds the entry, with small values inside it.
  bool Enter(std::size_t i, EntryPage* page) const;

 private:
  // Offsets have two bytes, so a large reply is several of these.
  struct Slotted {
    std::size_t first;
    std::string bytes;
    std::vector<std::uint16_t> offsets;
  };

  void AddEntry(Result const& rows, NumberedValues& numbers, std::size_t i);
  void BuildSlotted() const;

  Tree const tree_;
  std::size_t const asked_;
  Result const rows_;    // empty if the reply belongs to others
  std::string numbers_;  // the keys of kRows in our form; has its final capacity at once
  std::vector<KeyValue> entries_;
  std::vector<Slotted> mutable slotted_;  // built on the first Enter
};

}  // namespace lscore

#endif
