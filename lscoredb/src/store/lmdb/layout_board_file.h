#ifndef LSCOREDB_SRC_LAYOUT_BOARD_FILE_H
#define LSCOREDB_SRC_LAYOUT_BOARD_FILE_H

// Reserved layout numbers in a file beside the data, mapped by all processes that have the
// directory open.
//
// Each process holds a shared lock on the file while it has the directory open; one that gets it
// exclusively for a moment is alone. The content means nothing while no process holds the lock: one
// that is alone resets it.

#include <string>

#include "layout_board.h"

namespace lscore {

class FileReservations final : public BoardReservations {
 public:
  // `directory` exists. Waits while another process is alone with it. Throws LSCOREDB_CANNOT_OPEN,
  // LSCOREDB_DISK_FULL or LSCOREDB_NO_MEMORY.
  explicit FileReservations(std::string const& directory);
  ~FileReservations() override;

  bool alone() const override { return alone_; }
  void Share() override;
  bool orphaned() const override;

 private:
  using Words = std::array<std::uint64_t, 1 + LayoutBoard::kWords>;  // of a board in the file

  void Lock();
  bool TryLockAlone() const;
  bool IsWhole() const;
  void BeginAnew() const;
  static constexpr Words FreshWords();
  Words ReadWords() const;
  void Map();

  std::string const path_;
  int file_ = -1;
  bool alone_ = false;
};

}  // namespace lscore

#endif
