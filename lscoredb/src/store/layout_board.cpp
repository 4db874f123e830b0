#include "layout_board.h"

#include <bit>

namespace lscore {

void BoardReservations::Use(LayoutBoard& board) {
  board_ = &board;
  Reserve(kNoLayout);
}

bool BoardReservations::Reserve(LayoutNumber number) {
  std::uint64_t const bit = std::uint64_t{1} << (Raw(number) % 64);
  return (board_->taken[Raw(number) / 64].fetch_or(bit) & bit) == 0;
}

LayoutNumber BoardReservations::ReserveFrom(std::size_t first) {
  std::uint64_t below = (std::uint64_t{1} << (first % 64)) - 1;  // bits to be left as they are
  for (std::size_t i = first / 64; i < LayoutBoard::kWords; ++i, below = 0) {
    std::uint64_t taken = board_->taken[i];
    while (~(taken | below) != 0) {
      int const free = std::countr_one(taken | below);
      if (board_->taken[i].compare_exchange_weak(taken, taken | std::uint64_t{1} << free)) {
        return LayoutNumber{static_cast<std::uint16_t>(i * 64 + static_cast<std::size_t>(free))};
      }
    }
  }
  return kNoLayout;
}

}  // namespace lscore
