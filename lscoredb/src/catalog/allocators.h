#ifndef LSCOREDB_SRC_ALLOCATORS_H
#define LSCOREDB_SRC_ALLOCATORS_H

// Identities of objects and indexes. What was handed out once is not handed out again, whether or
// not the transaction that asked for it was committed. Any thread.

#include <cstdint>
#include <mutex>
#include <set>
#include <vector>

#include "ids.h"
#include "store.h"

namespace lscore {

// Numbers from `next` up to but not including `end`.
struct IdRange {
  std::uint64_t next = 0;
  std::uint64_t end = 0;
  bool empty() const { return next == end; }
};

// Identities from here on are never handed out, only chosen by callers.
inline constexpr std::uint64_t kFirstChosenId = std::uint64_t{1} << 62;

// The first identity that no process has reserved. Throws LSCOREDB_DAMAGED.
std::uint64_t ReadIdMark(View const& view);

// Hands out identities from blocks that it reserves in the store, for this process alone.
class IdAllocator {
 public:
  explicit IdAllocator(Store& store) : store_(store) {}

  // At least one identity.
  IdRange Take();
  // An identity that a caller chose. Throws LSCOREDB_ID_IN_USE when this process handed it out;
  // afterwards it does not.
  void Give(ObjectId id);

  // Reserves a block in a commit that takes place anyway, when the present one runs low, and keeps
  // the mark above identities that callers chose. Install makes it usable once the commit is done.
  IdRange TopUp(Batch& batch);
  void Install(IdRange block);

 private:
  bool TakeFrom(IdRange& range, IdRange* out);
  void Refill();
  IdRange Reserve(Batch& batch) const;

  Store& store_;
  std::mutex refill_mutex_;  // held over a reservation; taken before mutex_
  std::mutex mutex_;
  IdRange present_;
  IdRange spare_;
  std::vector<IdRange> issued_;    // what was handed out, in adjoining pieces
  std::set<std::uint64_t> given_;  // chosen by callers inside present_ and spare_
  std::uint64_t floor_ = 1;        // above all identities that callers chose
};

}  // namespace lscore

#endif
