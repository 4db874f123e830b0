#ifndef LSCOREDB_SRC_LAYOUT_RESERVATIONS_H
#define LSCOREDB_SRC_LAYOUT_RESERVATIONS_H

// The layout numbers that are reserved, as far as the store must know.
//
// Processes cache layouts by number until they close the database. So an allocated number stays
// reserved, even if its transaction is rolled back, until every process that had the database open
// meanwhile has closed it. The processes that have it open share one board of reservations; a
// process that is alone with the database starts with an empty one. Any thread.
//
// A board knows only what was reserved on it. The catalogue adds the numbers of stored layouts
// (layout_numbers.h) and keeps one word on the board for that.

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
  // Whether the board was deleted, and the database with it.
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
