#include "deleted_runs.h"

namespace lscore {

std::optional<DeletedRuns::Runs::Run> DeletedRuns::Find(std::string_view key,
                                                        CommitId state) const {
  if (!any_.load(std::memory_order_acquire)) return std::nullopt;
  std::lock_guard const lock(mutex_);
  Runs::Run const* const found = runs_.Find(std::string(key), state);
  return found == nullptr ? std::nullopt : std::optional(*found);
}

// A commit after the state may have written between the keys where the scan did not see it. The
// writer sets last_written_ before it looks at any_, and this sets any_ before it looks at
// last_written_, so at least one of them sees the other.
void DeletedRuns::Note(std::string_view first, std::string_view last, CommitId state) {
  auto const written_since = [&] { return last_written_.load() > Raw(state); };
  if (written_since()) return;
  std::lock_guard const lock(mutex_);
  runs_.Note(std::string(first), std::string(last), state);
  any_ = true;
  if (written_since()) runs_.Clear();
}

void DeletedRuns::Break(std::string_view key, CommitId commit) {
  last_written_ = Raw(commit);
  if (!any_) return;
  std::lock_guard const lock(mutex_);
  runs_.Break(std::string(key));
  any_ = !runs_.empty();
}

}  // namespace lscore
