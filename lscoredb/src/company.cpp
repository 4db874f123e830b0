#include "company.h"

#include <algorithm>

namespace lscore {

void Company::Ended(Batch const& batch) {
  patience_ = std::min(batch.took / kPart, longest_);
  bool const alone = Pauses(batch) || patience_ < kShortest;
  wanted_ = alone ? 1 : batch.size + batch.behind;
}

// Whether the next batch goes without waiting because waits were in vain.
bool Company::Pauses(Batch const& batch) {
  if (batch.waited && batch.came) next_pauses_ = 1;
  if (batch.waited && !batch.came) {
    pauses_ = next_pauses_;
    next_pauses_ = std::min(next_pauses_ * 2, kMostPauses);
  }
  if (pauses_ == 0) return false;
  --pauses_;
  return true;
}

}  // namespace lscore
