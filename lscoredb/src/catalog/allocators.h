#ifndef LSCOREDB_SRC_ALLOCATORS_H
#define LSCOREDB_SRC_ALLOCATORS_H

// Identities of objects and indexes. What was handed out once is not handed out again, whether or
// not the transaction that asked for it was committed. Any thread.

#include <cstdint>
#include <mutex>
#include <set>
#include <vector>

#include "chosen_ids.h"
#include "ids.h"
#include "store.h"

namespace lscore {

// Hands out identities from blocks that it reserves in the store, for this process alone.
class IdAllocator {
 public:
  explicit IdAllocator(Store& store) : store_(store) {}

  // At least one identity. Throws LSCOREDB_TOO_LARGE when there are none left.
  IdRange Take();

  // Keeps blocks that this process reserves clear of an identity that a caller chose and that is
  // not committed yet, until Forget. False: it is in such a block already.
  bool Choose(ObjectId id);
  void Forget(std::vector<ObjectId> const& ids) noexcept;

  // Reserves a block in a commit that takes place anyway, when the present one runs low. Install
  // makes it usable once the commit is done.
  IdRange TopUp(Batch& batch);
  void Install(IdRange block);

  // Hands out none below `first` from here on, but for those that contexts hold. What was not
  // reserved there is free to be chosen.
  void RaiseTo(std::uint64_t first);

 private:
  static bool TakeFrom(IdRange& range, IdRange* out);
  void Refill();
  // Empty: none are left. Writes the mark.
  IdRange Reserve(Batch& batch);
  // The first identity from `from` on that is not to be handed out.
  std::uint64_t NextObstacle(Batch const& batch, std::uint64_t from) const;

  Store& store_;
  std::mutex refill_mutex_;  // held over a reservation; taken before mutex_
  std::mutex mutex_;
  IdRange present_;
  IdRange spare_;
  std::uint64_t reserved_below_ = 1;      // as far as this process knows
  std::multiset<std::uint64_t> pending_;  // chosen and not committed
};

}  // namespace lscore

#endif
