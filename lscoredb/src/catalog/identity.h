#ifndef LSCOREDB_SRC_IDENTITY_H
#define LSCOREDB_SRC_IDENTITY_H

// The number that identifies a database. It is random and enters the first batch that finds none:
// the first commit of a new database, or of one that an earlier kernel wrote. It never changes, and
// copies share it. Any thread.

#include <atomic>
#include <cstdint>

#include "store.h"

namespace lscore {

// Of the state; 0: it has none. Throws LSCOREDB_DAMAGED.
std::uint64_t ReadIdentity(View const& view);

class DatabaseIdentity {
 public:
  explicit DatabaseIdentity(Store& store) : store_(store) {}

  // As last committed; 0 before the first commit. Throws LSCOREDB_DAMAGED.
  std::uint64_t Get();
  // Ensures that the state the batch makes has one.
  void Assure(Batch& batch);

 private:
  Store& store_;
  std::atomic<std::uint64_t> committed_{0};
};

}  // namespace lscore

#endif
