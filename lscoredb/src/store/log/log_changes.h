#ifndef LSCOREDB_SRC_LOG_CHANGES_H
#define LSCOREDB_SRC_LOG_CHANGES_H

// Reads the commits of a store with a log, in order, from the log and from its segments. It has
// files of its own and takes no lock, so that it delays no writer.
//
// Where commit c is: if the image does not hold it, in the log; otherwise in a segment, since it
// was put there before. So the image's position is read first. The log may be reused meanwhile:
// then the image has moved on, and the search begins again. Neighbours of the last record that was
// read are found without that.

#include <memory>
#include <optional>

#include "change_segments.h"
#include "change_source.h"
#include "log_files.h"

namespace lscore {

class LogStore;

class LogChanges final : public ChangeSource {
 public:
  LogChanges(LogStore& store, CommitId after);
  ~LogChanges() override;

  bool Next(NotedCommit* out) override;
  bool NextRecorded(RecordedCommit* out) override;
  bool Wait(int milliseconds) override;
  int File() override;

 private:
  // The next commit, even one without notes; none yet: null. Valid until the next call.
  LogRecord const* NextRecord();
  bool IsNextPublished();
  std::optional<LogRecord> FindNext();
  std::optional<LogRecord> ReadOn();
  std::optional<LogRecord> FindInLog(LogPosition at);
  bool EnterSegment();

  LogStore& store_;
  LogFiles files_;
  ChangeSegments segments_;
  CommitId last_;                           // the last one that was read
  std::optional<LogPosition> position_;     // behind it, if it is in the log
  std::unique_ptr<SegmentReader> segment_;  // behind it, if it is in a segment
  std::optional<LogRecord> record_;
  int watch_ = -1;
};

}  // namespace lscore

#endif
