#ifndef LSCOREDB_SRC_CHANGE_TALLY_H
#define LSCOREDB_SRC_CHANGE_TALLY_H

// What a commit changes in the counts of objects by layout, and the sets that it changes objects
// of. Collected over all rows, so that each record is written once.

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "pending.h"

namespace lscore {

class ChangeTally {
 public:
  struct Count {
    std::int64_t objects = 0;             // more or, below zero, fewer
    PendingRow const* example = nullptr;  // a row that uses the layout now
    bool has_steady = false;  // whether a row with a set was under the layout and stays as it was

    bool names_set() const { return example != nullptr && example->setspec.present; }
  };

  void Add(PendingRow const& row);

  std::map<LayoutNumber, Count> const& counts() const { return counts_; }
  std::set<std::u16string> const& changed_sets() const { return changed_sets_; }

 private:
  struct NotedSet {
    std::string bytes;  // packed
    bool wide = false;
    bool present = false;
  };

  void NoteSet(Cell const& setspec);

  std::map<LayoutNumber, Count> counts_;
  std::set<std::u16string> changed_sets_;
  std::array<NotedSet, 8> noted_sets_;  // the last few of those, so that most rows skip the set
  std::size_t next_noted_ = 0;
  std::u16string text_;
};

}  // namespace lscore

#endif
