#include "allocators.h"

#include <algorithm>

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "status.h"

namespace lscore {
namespace {

constexpr std::uint64_t kBlock = 65536;
constexpr std::uint64_t kLow = kBlock / 4;
constexpr std::uint64_t kPiece = 64;  // what a context takes at a time
constexpr std::uint64_t kEnd = kFirstChosenId;

void WriteMark(Batch& batch, std::uint64_t mark) {
  std::string value;
  Append(value, mark);
  PutChecked(batch, Tree::kMeta, format::kNextIdKey, value);
}

}  // namespace

std::uint64_t ReadIdMark(View const& view) {
  std::string_view value;
  if (!GetChecked(view, Tree::kMeta, format::kNextIdKey, &value)) return 1;
  if (value.size() != 8) Throw(LSCOREDB_DAMAGED);
  return Load<std::uint64_t>(value.data());
}

IdRange IdAllocator::Take() {
  for (;;) {
    {
      std::lock_guard const lock(mutex_);
      IdRange taken;
      if (TakeFrom(present_, &taken) || TakeFrom(spare_, &taken)) return taken;
    }
    Refill();
  }
}

bool IdAllocator::TakeFrom(IdRange& range, IdRange* out) {
  while (!range.empty()) {
    auto const chosen = given_.lower_bound(range.next);
    std::uint64_t end = std::min(range.next + kPiece, range.end);
    if (chosen != given_.end()) end = std::min(end, *chosen);
    if (end == range.next) {
      ++range.next;
      continue;
    }
    *out = {range.next, end};
    if (issued_.empty() || issued_.back().end != out->next) {
      issued_.push_back(*out);
    } else {
      issued_.back().end = end;
    }
    range.next = end;
    return true;
  }
  return false;
}

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
  WriteMark(*batch, block.end);
  batch->Commit();
  Install(block);
}

IdRange IdAllocator::Reserve(Batch& batch) const {
  std::uint64_t const mark = std::max(ReadIdMark(batch), floor_);
  if (mark > kEnd - kBlock) Throw(LSCOREDB_TOO_LARGE);
  return {mark, mark + kBlock};
}

IdRange IdAllocator::TopUp(Batch& batch) {
  std::lock_guard const lock(mutex_);
  bool const low = (present_.end - present_.next) + (spare_.end - spare_.next) < kLow;
  if (low && spare_.empty() && std::max(ReadIdMark(batch), floor_) <= kEnd - kBlock) {
    IdRange const block = Reserve(batch);
    WriteMark(batch, block.end);
    return block;
  }
  if (ReadIdMark(batch) < floor_) WriteMark(batch, floor_);
  return {};
}

void IdAllocator::Install(IdRange block) {
  if (block.empty()) return;
  std::lock_guard const lock(mutex_);
  if (present_.empty()) std::swap(present_, spare_);
  (present_.empty() ? present_ : spare_) = block;
  given_.erase(given_.begin(), given_.lower_bound(std::min(present_.next, block.next)));
}

void IdAllocator::Give(ObjectId id) {
  std::uint64_t const raw = Raw(id);
  auto const holds = [raw](IdRange const& range) { return raw >= range.next && raw < range.end; };
  std::lock_guard const lock(mutex_);
  if (std::any_of(issued_.begin(), issued_.end(), holds)) Throw(LSCOREDB_ID_IN_USE);
  if (holds(present_) || holds(spare_)) {
    given_.insert(raw);
  } else if (raw < kEnd) {
    floor_ = std::max(floor_, raw + 1);
  }
}

}  // namespace lscore
