// The part of the store with a log that keeps changes.

#include "log_batch.h"
#include "log_changes.h"
#include "log_store.h"

namespace lscore {

using logformat::ImagePosition;

// The log is synced first: after a power failure it must not end before a commit that a segment
// holds, or another commit would get its number.
void LogStore::TryKeepCommits(LogPosition const& from, CommitId last, DirectCommit const* direct) {
  segments_.RemoveAfter(from.commit);
  if (from.commit < last) {
    if (!kept_files_.Open()) Throw(LSCOREDB_DAMAGED);
    if (board_.Synced() < last) {
      kept_files_.Of(from.generation).Sync();
      kept_files_.Of(logformat::After(from.generation)).Sync();
    }
    segments_.Keep(from, last);
  }
  if (direct != nullptr) segments_.Keep(CommitId{Raw(last) + 1}, direct->record);
}

void LogStore::KeepCommits(Batch const& image, CommitId last, DirectCommit const* direct,
                           IfNotKept if_not) {
  Retention const retention = logformat::ReadRetention(image);
  if (!retention.keeps()) return;
  LogPosition const from = LogPosition::At(logformat::ReadPosition(image));
  auto const attempt = [&] {
    return Guarded([&]() -> Status {
      TryKeepCommits(from, last, direct);
      return LORV_STATUS_OK;
    });
  };
  Status status = attempt();
  bool const may_leave_gap = if_not == IfNotKept::kLeaveGap && status != LSCOREDB_NO_MEMORY;
  if (status == LSCOREDB_DISK_FULL && may_leave_gap) {
    for (std::size_t left = segments_.List().size(); left > 0 && status != LORV_STATUS_OK; --left) {
      segments_.RemoveOldest();
      status = attempt();
    }
  }
  if (!may_leave_gap) Check(status);
  static_cast<void>(Guarded([&]() -> Status {
    segments_.Prune(retention);
    return LORV_STATUS_OK;
  }));
}

// A commit of its own, straight into the image: every process whose log breaks off there starts
// again at the image and reads the retention, and older kernels refuse the directory from then on.
void LogStore::KeepChanges(Retention const& retention) {
  if (read_only()) Throw(LSCOREDB_READ_ONLY_DATABASE);
  {
    LogBatch batch(*this);
    if (!retention.keeps() && !tail_.keeps_changes()) return;
    batch.SetRetention(retention);
    batch.Commit();
  }
  std::unique_ptr<Batch> const image = image_->BeginBatch();
  Retention const now = logformat::ReadRetention(*image);
  if (now.keeps()) {
    segments_.Prune(now);
  } else {
    segments_.RemoveAll();
  }
}

// Read in this order, nothing is missed: what the image holds at first is in segments, and what it
// does not hold is in the log or has moved to segments since.
KeptChanges LogStore::Kept() {
  LogFiles files(directory_, files_.identity(), true);
  ChangeSegments const segments(directory_, files);
  std::unique_ptr<Snapshot> image = image_->Begin();
  KeptChanges kept;
  CommitId const held = logformat::ReadPosition(*image).commit;
  kept.retention = logformat::ReadRetention(*image);
  image_->End(std::move(image));
  if (!kept.retention.keeps()) Throw(LSCOREDB_NO_CHANGES);
  kept.first = segments.FirstUpTo(held);
  kept.last = board_.Published();
  return kept;
}

std::unique_ptr<ChangeSource> LogStore::OpenChanges(CommitId after) {
  std::unique_ptr<Snapshot> image = image_->Begin();
  bool const keeps = logformat::ReadRetention(*image).keeps();
  image_->End(std::move(image));
  if (!keeps) Throw(LSCOREDB_NO_CHANGES);
  if (after > board_.Published()) Throw(LSCOREDB_INVALID_ARGUMENT);
  return std::make_unique<LogChanges>(*this, after);
}

}  // namespace lscore
