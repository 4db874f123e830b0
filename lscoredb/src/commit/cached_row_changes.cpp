#include "cached_row_changes.h"

#include "bytes.h"
#include "format.h"

namespace lscore {

// A replaced row is cached only if it was cached before: nobody read the others. A row under a
// layout of this transaction is left out too, since a cached row needs the committed Layout object.
void CachedRowChanges::Add(PendingRow const& row, std::string_view image, CommitId state) {
  if (row.inserted()) return;
  replaced_.push_back(row.id);
  bool const new_layout = row.layout->order().commit == kNotCommitted;
  if (image.empty() || new_layout || !rows_.Holds(row.id)) return;
  if (CachedRowPtr kept = rows_.Prepare(row.id, *row.layout, image, state)) {
    newer_.push_back(std::move(kept));
  }
}

void CachedRowChanges::Renumber(CommitId state) noexcept {
  for (CachedRowPtr const& row : newer_) {
    row->known = state;
    StoreAt(reinterpret_cast<char*>(row.get() + 1) + format::kCommitOffset, Raw(state));
  }
}

void CachedRowChanges::TakeOut(CommitId state) noexcept {
  for (ObjectId const id : replaced_) rows_.TakeOut(id, state);
}

void CachedRowChanges::PutBack() noexcept {
  for (CachedRowPtr& row : newer_) rows_.PutBack(std::move(row));
}

}  // namespace lscore
