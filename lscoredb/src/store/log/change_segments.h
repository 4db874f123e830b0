#ifndef LSCOREDB_SRC_CHANGE_SEGMENTS_H
#define LSCOREDB_SRC_CHANGE_SEGMENTS_H

// The commits that a database keeps for readers of its changes after the image holds them: files
// "changes-<first commit, 16 hexadecimal digits>" beside the log. A segment is a title and whole
// records of the log, byte for byte, of consecutive commits:
//
//   offset  size  content
//        0     8  kSegmentMark
//        8    16  the log's identity
//       24     8  number of the first commit
//       32     8  number of the last one
//       40     8  size of the file
//       48     4  CRC-32C of the title up to here
//       52        zeros
//      512        records, each at a multiple of 8 (log_format.h)
//
// The bytes are frozen: any change is a new format version.
//
// A segment is written to a file with another name, synced, and renamed, all before the image holds
// its last commit; so a commit is in the log, in a segment, or, after a crash between the two, in
// both. Only segments of commits that the image holds count: others are leftovers, which the next
// writer removes. A small segment is replaced by one that goes on with later commits, so that a
// database that is opened and closed often does not collect small files.
//
// Writers hold the lock of the image's batch. Readers take no lock: a segment that is open for
// reading stays whole when its name goes away.

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "change_source.h"
#include "log_file.h"
#include "log_files.h"

namespace lscore {

struct ChangeSegment {
  CommitId first{0};
  std::uint64_t size = 0;
  std::uint64_t written = 0;  // seconds since 1970
};

// Reads a segment's records in order.
class SegmentReader {
 public:
  SegmentReader(LogFiles& files, std::string const& path);

  // Returns false if it does not exist. Throws LSCOREDB_DAMAGED if its title is bad.
  bool Open();
  CommitId first() const { return first_; }
  CommitId last() const { return last_; }
  // The next record; none at the end. Throws LSCOREDB_DAMAGED if it is bad.
  std::optional<LogRecord> Next();

 private:
  LogFiles& files_;
  std::string path_;
  LogFile file_;
  CommitId first_{0};
  CommitId last_{0};
  CommitId before_{0};
  std::uint64_t at_ = logformat::kTitleSize;
  std::uint64_t end_ = 0;
};

class ChangeSegments {
 public:
  ChangeSegments(std::string directory, LogFiles& files)
      : directory_(std::move(directory)), files_(files) {}

  // In the order of their commits.
  std::vector<ChangeSegment> List() const;
  // The segment with the commit, positioned at it; null: there is none.
  std::unique_ptr<SegmentReader> Find(CommitId commit) const;
  // The first commit from which on segments hold everything up to `last`; the one behind `last` if
  // there is none.
  CommitId FirstUpTo(CommitId last) const;

  // ---- writing

  // Removes leftovers: the image does not hold the commits after this one.
  void RemoveAfter(CommitId held);
  // Keeps the log's commits after `from` up to `last`. REQUIRES: there are no leftovers.
  void Keep(LogPosition const& from, CommitId last);
  // Keeps one commit, of a record that is not in the log.
  void Keep(CommitId commit, std::span<iovec> record);
  // Removes the oldest segments until the retention is met; the newest one stays.
  void Prune(Retention const& retention);
  void RemoveOldest();
  void RemoveAll();

 private:
  std::string PathOf(CommitId first) const;
  std::unique_ptr<SegmentReader> Open(CommitId first) const;
  std::vector<LogRecord> Continued(CommitId after) const;
  std::unique_ptr<SegmentReader> LastBefore(CommitId after) const;
  void Remove(CommitId first) const;

  std::string directory_;
  LogFiles& files_;
};

}  // namespace lscore

#endif
