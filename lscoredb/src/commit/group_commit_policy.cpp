#include "group_commit_policy.h"

#include <algorithm>

namespace lscore {

void GroupCommitPolicy::Ended(Batch const& batch) {
  patience_ = std::min(batch.took / kPart, longest_);
  bool const alone = Pauses(batch) || patience_ < kShortest;
  wanted_ = alone ? 1 : batch.size + batch.behind;
}

// Whether the next batch starts without waiting, after waits in vain: 1, 2, 4, ... 64 batches after
// each in a row. A wait that completed its batch resets the number.
bool GroupCommitPolicy::Pauses(Batch const& batch) {
  bool const complete = batch.size >= wanted_;
  if (batch.waited && complete) next_pauses_ = 1;
  if (batch.waited && !complete) {
    pauses_ = next_pauses_;
    next_pauses_ = std::min(next_pauses_ * 2, kMostPauses);
  }
  if (pauses_ == 0) return false;
  --pauses_;
  return true;
}

}  // namespace lscore
