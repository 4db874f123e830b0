#ifndef LSCOREDB_SRC_SCANS_H
#define LSCOREDB_SRC_SCANS_H

// The scans that a transaction has open, so that its end, or a rollback to a savepoint, ends those
// that began too late. One thread at a time; iterators are not owned.

#include <cstdint>
#include <vector>

#include "iterator.h"

namespace lscore {

class Scans {
 public:
  // REQUIRES: the iterator is not open, and it is closed before it goes.
  Status Open(Iterator& iterator, ScanSource const& source, IndexDefinition const& index,
              ScanRange const& range);
  void Close(Iterator& iterator);

  bool any() const { return !open_.empty(); }
  // How many scans were ever opened; see EndSince.
  std::uint64_t opened() const { return opened_; }
  void EndAll() noexcept;
  // After a rollback to when `opened` scans were: later ones end, the others go on with what the
  // transaction has written still.
  void EndSince(std::uint64_t opened);

 private:
  struct OpenScan {
    Iterator* iterator;
    std::uint64_t opening;
  };
  std::vector<OpenScan> open_;
  std::uint64_t opened_ = 0;
};

}  // namespace lscore

#endif
