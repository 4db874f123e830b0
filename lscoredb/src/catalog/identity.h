#ifndef LSCOREDB_SRC_IDENTITY_H
#define LSCOREDB_SRC_IDENTITY_H

// The number by which a database is told from all others. It is drawn at random and put into the
// first batch that finds none: the first commit of a new database, or of one that an earlier kernel
// wrote. It never changes, and a copy has it too. Any thread.

#include <atomic>
#include <cstdint>

#include "store.h"

namespace lscore {

// Of the state; 0: it has none. Throws LSCOREDB_DAMAGED.
std::uint64_t ReadIdentity(View const& view);

class DatabaseIdentity {
 public:
  explicit DatabaseIdentity(Store& store) : store_(store) {}

  // As committed last; 0 as long as nothing was. Throws LSCOREDB_DAMAGED.
  std::uint64_t Get();
  // Sees to it that the state which the batch makes has one.
  void Assure(Batch& batch);

 private:
  Store& store_;
  std::atomic<std::uint64_t> committed_{0};
};

}  // namespace lscore

#endif
