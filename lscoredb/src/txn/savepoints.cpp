#include "savepoints.h"

#include <algorithm>
#include <atomic>

namespace lscore {

std::uint64_t Savepoints::Set() {
  static constinit std::atomic<std::uint64_t> last{0};
  savepoints_.emplace_back();  // may fail, so before SetMark starts recording
  savepoints_.back() = {++last, state_.changes.SetMark(), results_.made(), scans_.opened(),
                        state_.doomed};
  return savepoints_.back().number;
}

std::vector<Savepoints::Savepoint>::iterator Savepoints::Find(std::uint64_t number) {
  return std::find_if(savepoints_.begin(), savepoints_.end(),
                      [number](Savepoint const& one) { return one.number == number; });
}

// Scans that began since end first, since the entries they point at may go. The savepoint itself
// stays and can be rolled back to again.
Status Savepoints::RollbackTo(std::uint64_t savepoint) {
  auto const found = Find(savepoint);
  if (found == savepoints_.end()) return LSCOREDB_UNKNOWN_SAVEPOINT;
  scans_.EndSince(found->scans);
  state_.changes.RollbackTo(found->written, [this](ObjectId id) { reader_.Forget(id); });
  // Values are identified by address, and the arena reuses the addresses of undone values.
  results_.ForgetSince(found->handed_out);
  state_.doomed = found->doomed;
  savepoints_.erase(found + 1, savepoints_.end());
  return LORV_STATUS_OK;
}

Status Savepoints::Release(std::uint64_t savepoint) {
  auto const found = Find(savepoint);
  if (found == savepoints_.end()) return LSCOREDB_UNKNOWN_SAVEPOINT;
  savepoints_.erase(found, savepoints_.end());
  if (savepoints_.empty()) state_.changes.EndRecording();
  return LORV_STATUS_OK;
}

void Savepoints::ForgetResults() {
  for (Savepoint& savepoint : savepoints_) {
    savepoint.handed_out = std::min(savepoint.handed_out, results_.made());
  }
}

}  // namespace lscore
