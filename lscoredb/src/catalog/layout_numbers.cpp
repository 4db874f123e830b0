#include "layout_numbers.h"

#include "definitions.h"
#include "layout_release.h"
#include "status.h"

namespace lscore {
namespace {

// With fewer layouts, all are read to find free numbers between them, which is cheap.
constexpr std::uint64_t kManyLayouts = 256;

// The catalogue's word on the board of reservations says below which number stored layouts may be
// missing on the board; 0: no process has looked yet. kAllReserved: none is missing.
constexpr std::uint64_t kAllReserved = 1;

}  // namespace

void LayoutNumbers::CollectReleased(Store& store) {
  if (!reservations_->alone()) return;
  static_cast<void>(Guarded([&] {
    std::vector<LayoutNumber> const numbers = CollectLayouts(store);
    std::lock_guard const lock(mutex_);
    collected_.assign(numbers.rbegin(), numbers.rend());
    return LORV_STATUS_OK;
  }));
  reservations_->Share();
}

// Where the search for free numbers begins. The first process to ask reserves the numbers of all
// stored layouts if they are few; otherwise the search begins above the highest. The snapshot is
// enough for that: layouts that are committed later have reserved their numbers on the board.
std::size_t LayoutNumbers::FindFirst(View const& view) {
  std::uint64_t const below = reservations_->word();
  if (below != 0) return below;
  std::uint64_t const found = std::uint64_t{Raw(HighestLayout(view))} + 1;
  if (found < kManyLayouts) {
    ReserveStored(view);
    return kAllReserved;
  }
  return reservations_->ReplaceWord(0, found) ? found : reservations_->word();
}

void LayoutNumbers::ReserveStored(View const& view) {
  for (LayoutNumber const number : AllLayouts(view)) reservations_->Reserve(number);
  while (!reservations_->ReplaceWord(reservations_->word(), kAllReserved)) {
  }
}

LayoutNumber LayoutNumbers::TakeCollected() {
  std::lock_guard const lock(mutex_);
  while (!collected_.empty()) {
    LayoutNumber const number = collected_.back();
    collected_.pop_back();
    if (reservations_->Reserve(number)) return number;
  }
  return kNoLayout;
}

// Collected numbers first, then those from FindFirst on. When these run out, the numbers of all
// stored layouts are reserved, so that the gaps between them can be used.
LayoutNumber LayoutNumbers::Take(View const& view) {
  LayoutNumber number = TakeCollected();
  if (number == kNoLayout) number = reservations_->ReserveFrom(FindFirst(view));
  if (number != kNoLayout) return number;
  if (reservations_->word() != kAllReserved) ReserveStored(view);
  number = reservations_->ReserveFrom(0);
  if (number == kNoLayout) Throw(LSCOREDB_LAYOUTS_EXHAUSTED);
  return number;
}

}  // namespace lscore
