#include <algorithm>
#include <atomic>

#include "transaction.h"

namespace lscore {

std::uint64_t Transaction::SetSavepoint() {
  static constinit std::atomic<std::uint64_t> last{0};
  savepoints_.emplace_back();  // before anything is recorded: this may fail
  savepoints_.back() = {++last, changes_.SetMark(), result_buffers_.made(), scans_.opened(),
                        doomed_};
  return savepoints_.back().number;
}

std::vector<Transaction::Savepoint>::iterator Transaction::FindSavepoint(std::uint64_t number) {
  return std::find_if(savepoints_.begin(), savepoints_.end(),
                      [number](Savepoint const& one) { return one.number == number; });
}

Status Transaction::RollbackTo(std::uint64_t savepoint) {
  auto const found = FindSavepoint(savepoint);
  if (found == savepoints_.end()) return LSCOREDB_UNKNOWN_SAVEPOINT;
  scans_.EndSince(found->scans);
  changes_.RollbackTo(found->written, [this](ObjectId id) { cache_.Forget(id); });
  // Memory of what is gone is used again, and values are known by where they lie.
  result_buffers_.ForgetSince(found->handed_out);
  doomed_ = found->doomed;
  savepoints_.erase(found + 1, savepoints_.end());
  return LORV_STATUS_OK;
}

Status Transaction::Release(std::uint64_t savepoint) {
  auto const found = FindSavepoint(savepoint);
  if (found == savepoints_.end()) return LSCOREDB_UNKNOWN_SAVEPOINT;
  savepoints_.erase(found, savepoints_.end());
  if (savepoints_.empty()) changes_.EndRecording();
  return LORV_STATUS_OK;
}

Status Transaction::Require(ObjectId id) {
  RowRef const* row = nullptr;
  Status const status = FindLive(id, &row);
  if (status != LORV_STATUS_OK) return status;
  if (!row->inserted()) changes_.Require(id);
  return LORV_STATUS_OK;
}

}  // namespace lscore
