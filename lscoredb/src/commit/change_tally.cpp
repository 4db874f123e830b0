#include "change_tally.h"

#include <algorithm>

namespace lscore {
namespace {

bool StaysAsItWas(PendingRow const& row, Cell const& before) {
  return row.layout->number() == row.original_layout->number() && before.present &&
         row.setspec.present && before.wide == row.setspec.wide &&
         before.bytes() == row.setspec.bytes();
}

}  // namespace

void ChangeTally::Add(PendingRow const& row) {
  if (!row.inserted()) {
    Cell const before = OriginalOf(row).Setspec();
    Count& count = counts_[row.original_layout->number()];
    --count.objects;
    count.has_steady |= !row.deleted && StaysAsItWas(row, before);
    NoteSet(before);
  }
  if (row.deleted) return;
  Count& count = counts_[row.layout->number()];
  ++count.objects;
  count.example = &row;
  NoteSet(row.setspec);
}

// Remembers that the row's set changed. A transaction writes to few sets, so the packed form of the
// last eight is compared first, and unpacking and the lookup in the ordered set are mostly skipped.
void ChangeTally::NoteSet(Cell const& setspec) {
  if (!setspec.present) return;
  NotedSet& noted = noted_sets_[next_noted_];
  auto const same = [&](NotedSet const& one) {
    return one.present && one.wide == setspec.wide && one.bytes == setspec.bytes();
  };
  if (std::any_of(noted_sets_.begin(), noted_sets_.end(), same)) return;
  Unpack(setspec.text(), text_);
  changed_sets_.insert(text_);
  noted = {std::string(setspec.bytes()), setspec.wide, true};
  next_noted_ = (next_noted_ + 1) % noted_sets_.size();
}

}  // namespace lscore
