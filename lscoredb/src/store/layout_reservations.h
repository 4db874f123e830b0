#ifndef LSCOREDB_SRC_LAYOUT_RESERVATIONS_H
#define LSCOREDB_SRC_LAYOUT_RESERVATIONS_H

// The layout numbers that are reserved, as far as the store must know.
//
// Processes cache layouts by number until they close the database. So a number that was handed out
// stays reserved, whatever became of its transaction, until no process is left that has had the
// database open meanwhile. The processes that have it open share one board of reservations; whoever
// finds itself alone with the database starts with an empty one. Any thread.
//
// A board knows only what was reserved on it. That the numbers of stored layouts are not free is
// the catalogue's business (layout_numbers.h); it keeps one word on the board for that.

#include <cstdint>

#include "ids.h"

namespace lscore {

class LayoutReservations {
 public:
  LayoutReservations() = default;
  LayoutReservations(LayoutReservations const&) = delete;
  LayoutReservations& operator=(LayoutReservations const&) = delete;
  virtual ~LayoutReservations() = default;

  // Whether no other process knows a number of this database. Processes that open it wait for
  // Share.
  virtual bool alone() const = 0;
  virtual void Share() = 0;
  // Whether the board was removed, and the database with it.
  virtual bool orphaned() const = 0;

  // Returns whether the number was free; either way it is reserved now.
  virtual bool Reserve(LayoutNumber number) = 0;
  // Reserves the lowest free number from `first` on, which may be past the last one; kNoLayout:
  // there is none.
  virtual LayoutNumber ReserveFrom(std::size_t first) = 0;

  // The catalogue's word; 0 on an empty board.
  virtual std::uint64_t word() const = 0;
  // Changes it from `expected`, and returns whether it was that.
  virtual bool ReplaceWord(std::uint64_t expected, std::uint64_t word) = 0;
};

}  // namespace lscore

#endif
