#ifndef LSCOREDB_SRC_SERVER_PAGE_H
#define LSCOREDB_SRC_SERVER_PAGE_H

// Neighbouring entries of a tree, as one reply brought them.

#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "entry_page.h"
#include "store.h"

namespace lscore {

// A key of a tree as the server keeps it, in the order of its bytes: the number of a row with its
// highest byte first. And the other way, which is the same.
std::string ServerKey(Tree tree, std::string_view key);
// Whether one key comes before another one of the tree.
bool KeyLess(Tree tree, std::string_view a, std::string_view b);

class ServerPage {
 public:
  // `falling`: the rows of the reply come from the last entry to the first.
  ServerPage(Tree tree, Result rows, bool falling);

  std::size_t size() const { return entries_.size(); }
  KeyValue const& entry(std::size_t i) const { return entries_[i]; }
  // The number of the first entry that is not below the key; size() when there is none.
  std::size_t LowerBound(std::string_view key) const;
  // Fills in the slotted page that holds the entry. Small entries stand in it as a whole.
  bool Enter(std::size_t i, EntryPage* page) const;

 private:
  // Slots are numbers of two bytes.
  struct Slotted {
    std::size_t first;
    std::string bytes;
    std::vector<std::uint16_t> offsets;
  };

  void BuildSlotted() const;

  Tree const tree_;
  Result const rows_;
  std::string numbers_;  // the keys of kRows, as we have them
  std::vector<KeyValue> entries_;
  std::vector<Slotted> mutable slotted_;  // built when it is first asked for
};

}  // namespace lscore

#endif
