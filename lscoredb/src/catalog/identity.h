#ifndef LSCOREDB_SRC_IDENTITY_H
#define LSCOREDB_SRC_IDENTITY_H

// The number that identifies a database. It is random and enters the first batch that finds none:
// the first commit of a new database, or of one that an earlier kernel wrote. It never changes, and
// copies share it; a database that is restored from a backup gets another one. Any thread.

#include <atomic>
#include <cstdint>

#include "store.h"

namespace lscore {

// The identity in the view's state; 0: it has none. Throws LSCOREDB_DAMAGED.
std::uint64_t ReadIdentity(View const& view);

// Writes a new one, for a database that is to be another from now on.
void RenewIdentity(Batch& batch);

class DatabaseIdentity {
 public:
  explicit DatabaseIdentity(Store& store) : store_(store) {}

  // The committed identity; 0 before the first commit. Throws LSCOREDB_DAMAGED.
  std::uint64_t Get();
  // Whether the database is known to have one.
  bool known() const { return committed_ != 0; }
  // Writes one into the batch if the database has none.
  void Assure(Batch& batch);

 private:
  Store& store_;
  std::atomic<std::uint64_t> committed_{0};
};

}  // namespace lscore

#endif
