#ifndef LSCOREDB_SRC_SCANS_H
#define LSCOREDB_SRC_SCANS_H

// The scans that a transaction has open: its end finishes all of them, a rollback to a savepoint
// those that began since. One thread at a time; iterators are not owned.

#include <cstdint>
#include <vector>

#include "iterator.h"

namespace lscore {

class Scans {
 public:
  // REQUIRES: the iterator is not open, and it is closed before it is destroyed.
  Status Open(Iterator& iterator, ScanSource const& source, IndexDefinition const& index,
              ScanRange const& range);
  void Close(Iterator& iterator);

  bool any() const { return !open_.empty(); }
  // The number of scans ever opened; see EndSince.
  std::uint64_t opened() const { return opened_; }
  void EndAll() noexcept;
  // After a rollback to a savepoint at which opened() was `opened`: later scans end, the others
  // continue with what is left of the write set.
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
