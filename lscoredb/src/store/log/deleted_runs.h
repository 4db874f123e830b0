#ifndef LSCOREDB_SRC_DELETED_RUNS_H
#define LSCOREDB_SRC_DELETED_RUNS_H

// Ranges of index entries that are all deleted in the overlays, which a scan steps over at once
// (hidden_runs.h). Until a checkpoint the image has such entries and an overlay their deletion, so
// taking the first entry of a queue would otherwise take longer with each one that was taken.
//
// Any thread may use it; one at a time writes.

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "hidden_runs.h"
#include "ids.h"

namespace lscore {

class DeletedRuns {
 public:
  using Runs = HiddenRuns<std::string, CommitId, std::less<>>;

  // The run around the key in a state; nothing if none is known.
  std::optional<Runs::Run> Find(std::string_view key, CommitId state) const;
  // A scan of the state found nothing else from one key to the other.
  void Note(std::string_view first, std::string_view last, CommitId state);
  // Called before an entry is written that is not deleted, and thus before its commit is visible.
  void Break(std::string_view key, CommitId commit);

 private:
  std::atomic<std::uint64_t> last_written_{0};  // the last commit that wrote an entry
  std::atomic<bool> any_{false};
  std::mutex mutable mutex_;
  Runs runs_;
};

}  // namespace lscore

#endif
