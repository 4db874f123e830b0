#include "allocators.h"

#include <algorithm>
#include <memory>

#include "status.h"

// Three levels keep the store out of an insert:
//
//   mark in the store   first id that no process has reserved; moved by a commit
//   blocks              a process reserves 65,536 ids: the present block, and a spare one
//   ranges              a context takes 64 ids of the present block
//
// The spare block is reserved as part of an ordinary commit when the present one runs low, so that
// a reservation of its own is rare.

namespace lscore {
namespace {

constexpr std::uint64_t kBlock = 65536;
constexpr std::uint64_t kLow = kBlock / 4;
constexpr std::uint64_t kPiece = 64;
constexpr std::uint64_t kEnd = kFirstNotGivenId;
constexpr std::size_t kKnownReservations = 256;
constexpr std::uint64_t kHighestRaise = kEnd / 2;

}  // namespace

IdRange IdAllocator::Take() {
  for (;;) {
    {
      std::lock_guard const lock(mutex_);
      taken_ = true;
      IdRange taken;
      if (TakeFrom(present_, &taken) || TakeFrom(spare_, &taken)) return taken;
    }
    Refill();
  }
}

bool IdAllocator::TakeFrom(IdRange& range, IdRange* out) {
  if (range.empty()) return false;
  *out = {range.next, std::min(range.next + kPiece, range.end)};
  range.next = out->end;
  return true;
}

// Reserves a block by a commit of its own. Threads that need one at the same time wait for the
// first of them and then use its block.
void IdAllocator::Refill() {
  std::lock_guard const refill(refill_mutex_);
  {
    std::lock_guard const lock(mutex_);
    if (!present_.empty() || !spare_.empty()) return;
  }
  std::unique_ptr<Batch> const batch = store_.BeginBatch();
  IdRange block;
  {
    std::lock_guard const lock(mutex_);
    block = Reserve(*batch);
  }
  if (block.empty()) Throw(LSCOREDB_TOO_LARGE);
  CommitId const made = batch->id();
  batch->Commit();
  Install(block);
  std::lock_guard const lock(mutex_);
  reservations_.push_back(made);
  if (reservations_.size() > kKnownReservations) reservations_.pop_front();
}

std::uint64_t IdAllocator::ReservationsBetween(CommitId first, CommitId last) {
  std::lock_guard const lock(mutex_);
  auto const between = [&](CommitId made) { return made > first && made < last; };
  return static_cast<std::uint64_t>(
      std::count_if(reservations_.begin(), reservations_.end(), between));
}

std::uint64_t IdAllocator::NextObstacle(Batch const& batch, std::uint64_t from) const {
  auto const pending = pending_.lower_bound(from);
  std::uint64_t const own = pending == pending_.end() ? UINT64_MAX : *pending;
  return std::min({own, NextChosen(batch, from), kEnd});
}

// Callers may have chosen ids right after the mark. The search for a free block skips over them in
// growing steps; the unused ids that it skips become free ranges for callers.
IdRange IdAllocator::Reserve(Batch& batch) {
  std::uint64_t const mark = ReadIdMark(batch);
  std::uint64_t start = mark;
  std::uint64_t end = mark;
  for (std::uint64_t step = kPiece; start < kEnd; step *= 2) {
    end = std::min(NextObstacle(batch, start), start + kBlock);
    if (end - start >= kPiece) break;
    start += std::min(step, kEnd - start);
  }
  if (start >= kEnd) return {};
  if (start != mark) AddFreeRange(batch, {mark, start});
  WriteIdMark(batch, end);
  reserved_below_ = std::max(reserved_below_, end);
  return {start, end};
}

// A process that only inserts with chosen ids gets no block: the block would follow its ids, and
// take the ones that it chooses next.
IdRange IdAllocator::TopUp(Batch& batch) {
  std::lock_guard const lock(mutex_);
  return IsLow() ? Reserve(batch) : IdRange{};
}

bool IdAllocator::IsLow() const {
  bool const low = (present_.end - present_.next) + (spare_.end - spare_.next) < kLow;
  return taken_ && low && spare_.empty();
}

bool IdAllocator::RunsLow() {
  std::lock_guard const lock(mutex_);
  return IsLow();
}

void IdAllocator::Install(IdRange block) {
  if (block.empty()) return;
  std::lock_guard const lock(mutex_);
  if (present_.empty()) std::swap(present_, spare_);
  (present_.empty() ? present_ : spare_) = block;
}

bool IdAllocator::Choose(ObjectId id) {
  std::lock_guard const lock(mutex_);
  if (Raw(id) < reserved_below_) return false;
  pending_.insert(Raw(id));
  return true;
}

void IdAllocator::Forget(std::vector<ObjectId> const& ids) noexcept {
  if (ids.empty()) return;
  std::lock_guard const lock(mutex_);
  for (ObjectId const id : ids) pending_.erase(pending_.find(Raw(id)));
}

// The ids that are skipped become a free range for callers. Blocks below `first` are given up.
void IdAllocator::RaiseTo(std::uint64_t first) {
  if (first > kHighestRaise) Throw(LSCOREDB_INVALID_ARGUMENT);
  std::lock_guard const refill(refill_mutex_);
  std::unique_ptr<Batch> const batch = store_.BeginBatch();
  std::uint64_t const mark = ReadIdMark(*batch);
  if (mark < first) {
    AddFreeRange(*batch, {mark, first});
    WriteIdMark(*batch, first);
    batch->Commit();
  }
  std::lock_guard const lock(mutex_);
  for (IdRange* const block : {&present_, &spare_}) {
    if (block->next < first) *block = {};
  }
}

}  // namespace lscore
