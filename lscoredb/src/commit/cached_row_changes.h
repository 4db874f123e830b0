#ifndef LSCOREDB_SRC_CACHED_ROW_CHANGES_H
#define LSCOREDB_SRC_CACHED_ROW_CHANGES_H

// What a batch does to the shared row cache.

#include <string_view>
#include <vector>

#include "pending.h"
#include "shared_row_cache.h"

namespace lscore {

class CachedRowChanges {
 public:
  explicit CachedRowChanges(SharedRowCache& rows) : rows_(rows) {}

  // The row is replaced by `image`, or deleted where that is empty.
  void Add(PendingRow const& row, std::string_view image, CommitId state);
  // The batch got another number than Add was told.
  void Renumber(CommitId state) noexcept;
  // TakeOut right before the batch is committed, PutBack right after it.
  void TakeOut(CommitId state) noexcept;
  void PutBack() noexcept;

 private:
  SharedRowCache& rows_;
  std::vector<ObjectId> replaced_;
  std::vector<CachedRowPtr> newer_;
};

}  // namespace lscore

#endif
