#ifndef LSCOREDB_SRC_LAYOUT_NUMBERS_H
#define LSCOREDB_SRC_LAYOUT_NUMBERS_H

// Gives out layout numbers: those that are neither reserved in the store (layout_reservations.h)
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

  // Takes released layouts away when this process is alone with the database, and lets others in.
  // What stands in the way of that, a full disk for one, leaves them for another time.
  void CollectReleased(Store& store);

  // A free number, which is reserved now. Among few layouts it is the lowest. Among many, which it
  // would take long to look through, those of collected layouts come first, then those above all
  // that were ever committed, and the rest when these run out. Throws LSCOREDB_LAYOUTS_EXHAUSTED.
  LayoutNumber Take(View const& view);

  // Numbers are reserved as long as somebody holds this.
  std::shared_ptr<LayoutReservations> const& reservations() const { return reservations_; }

 private:
  // Where free numbers are looked for first.
  std::size_t FindFirst(View const& view);
  void ReserveStored(View const& view);
  LayoutNumber TakeCollected();

  std::shared_ptr<LayoutReservations> const reservations_;
  std::mutex mutex_;
  std::vector<LayoutNumber> collected_;  // falling
};

}  // namespace lscore

#endif
