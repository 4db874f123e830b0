#ifndef LSCOREDB_SRC_LAYOUT_NUMBERS_H
#define LSCOREDB_SRC_LAYOUT_NUMBERS_H

// Allocates layout numbers: those that are neither reserved in the store (layout_reservations.h)
// nor of a stored layout. Any thread.

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ids.h"
#include "layout_reservations.h"
#include "store.h"

namespace lscore {

class LayoutNumbers {
 public:
  explicit LayoutNumbers(std::shared_ptr<LayoutReservations> reservations)
      : reservations_(std::move(reservations)) {}

  // Removes released layouts if this process is alone with the database, and then lets others open
  // it. After a failure, of a full disk for example, the next opening tries again.
  void CollectReleased(Store& store);

  // Reserves a free number. Among few layouts it is the lowest. Among many, which would take long
  // to search, numbers of collected layouts come first, then those above all ever committed, and
  // the rest when these run out. Throws LSCOREDB_LAYOUTS_EXHAUSTED.
  LayoutNumber Take(View const& view);

  // Numbers stay reserved while this is held.
  std::shared_ptr<LayoutReservations> const& reservations() const { return reservations_; }

 private:
  // Where the search for free numbers begins.
  std::size_t FindFirst(View const& view);
  void ReserveStored(View const& view);
  LayoutNumber TakeCollected();

  std::shared_ptr<LayoutReservations> const reservations_;
  std::mutex mutex_;
  std::vector<LayoutNumber> collected_;  // in descending order
};

}  // namespace lscore

#endif
