#ifndef LSCOREDB_SRC_ALLOCATORS_H
#define LSCOREDB_SRC_ALLOCATORS_H

// Allocates identities of objects and indexes. An identity is never allocated twice, whether or not
// its transaction was committed. Any thread.

#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <vector>

#include "chosen_ids.h"
#include "ids.h"
#include "store.h"

namespace lscore {

// Allocates identities from blocks that it reserves in the store for this process.
class IdAllocator {
 public:
  explicit IdAllocator(Store& store) : store_(store) {}

  // At least one identity. Throws LSCOREDB_TOO_LARGE if none are left.
  IdRange Take();

  // Keeps an identity that a caller chose, and that is not committed yet, out of the blocks that
  // this process reserves, until Forget. False: it is already in such a block.
  bool Choose(ObjectId id);
  void Forget(std::vector<ObjectId> const& ids) noexcept;

  // Reserves a block as part of a commit when the current one runs low. Install makes it usable
  // once the commit is done.
  IdRange TopUp(Batch& batch);
  void Install(IdRange block);
  // Whether TopUp would reserve one.
  bool RunsLow();

  // The number of commits between the two states that only reserved a block for this process. May
  // count too few.
  std::uint64_t ReservationsBetween(CommitId first, CommitId last);

  // Allocates none below `first` from now on, except those that contexts hold. Unreserved ones
  // below it may be chosen.
  void RaiseTo(std::uint64_t first);

 private:
  bool IsLow() const;
  static bool TakeFrom(IdRange& range, IdRange* out);
  void Refill();
  // Empty: none are left. Writes the mark.
  IdRange Reserve(Batch& batch);
  // The first identity from `from` on that must not be allocated.
  std::uint64_t NextObstacle(Batch const& batch, std::uint64_t from) const;

  Store& store_;
  std::mutex refill_mutex_;  // held over a reservation; taken before mutex_
  std::mutex mutex_;
  IdRange present_;
  IdRange spare_;
  bool taken_ = false;                    // any, by this process
  std::uint64_t reserved_below_ = 1;      // the mark, as last seen by this process
  std::multiset<std::uint64_t> pending_;  // chosen and not committed
  std::deque<CommitId> reservations_;     // the newest commits that only reserved a block
};

}  // namespace lscore

#endif
