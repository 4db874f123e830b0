#ifndef LSCOREDB_SRC_LAYOUT_BOARD_H
#define LSCOREDB_SRC_LAYOUT_BOARD_H

// Reserved layout numbers as one bit a number, in memory that several processes may share.

#include <array>
#include <atomic>
#include <memory>
#include <utility>

#include "layout_reservations.h"

namespace lscore {

struct LayoutBoard {
  static constexpr std::size_t kWords = kLayoutNumbers / 64;

  std::atomic<std::uint64_t> word;
  std::array<std::atomic<std::uint64_t>, kWords> taken;
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "processes share the words");
static_assert(sizeof(LayoutBoard) == (1 + LayoutBoard::kWords) * sizeof(std::uint64_t));

// Reservations on a board that a derived class provides.
class BoardReservations : public LayoutReservations {
 public:
  bool Reserve(LayoutNumber number) override;
  LayoutNumber ReserveFrom(std::size_t first) override;
  std::uint64_t word() const override { return board_->word; }
  bool ReplaceWord(std::uint64_t expected, std::uint64_t word) override {
    return board_->word.compare_exchange_strong(expected, word);
  }

 protected:
  void Use(LayoutBoard& board);
  LayoutBoard* board() const { return board_; }

 private:
  LayoutBoard* board_ = nullptr;
};

// The reservations of a database in memory, which no other process can open. Several objects over
// one board behave like processes that share it.
class MemoryReservations final : public BoardReservations {
 public:
  explicit MemoryReservations(std::shared_ptr<LayoutBoard> shared = std::make_shared<LayoutBoard>())
      : shared_(std::move(shared)) {
    Use(*shared_);
  }

  bool alone() const override { return false; }
  void Share() override {}
  bool orphaned() const override { return false; }

 private:
  std::shared_ptr<LayoutBoard> shared_;
};

}  // namespace lscore

#endif
