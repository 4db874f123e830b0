#ifndef LSCOREDB_SRC_LOG_FILES_H
#define LSCOREDB_SRC_LOG_FILES_H

// The two files of a log, and how records are found in them. A writer holds the commit lock.

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "log_file.h"
#include "log_format.h"

namespace lscore {

// A position after a record: where the next record goes, and which predecessor it must name.
struct LogPosition {
  logformat::Generation generation{0};
  std::uint64_t offset = logformat::kTitleSize;
  std::uint32_t before = 0;  // the checksum of the last record
  CommitId commit{0};        // the commit of the last record

  // The position from which on the image does not hold the log.
  static LogPosition At(logformat::ImagePosition const& position) {
    return {position.generation, logformat::kTitleSize, position.before, position.commit};
  }
};

struct LogRecord {
  logformat::Head head;
  std::unique_ptr<char[]> bytes;

  std::string_view changes() const {
    return {bytes.get() + logformat::kHeadSize, head.size - logformat::kHeadSize};
  }
  LogPosition PositionAfter(LogPosition const& at) const;
};

class LogFiles {
 public:
  LogFiles(std::string directory, logformat::Identity const& identity, bool read_only)
      : directory_(std::move(directory)), identity_(identity), read_only_(read_only) {}

  logformat::Identity const& identity() const { return identity_; }
  LogFile& Of(logformat::Generation generation) { return files_[logformat::FileOf(generation)]; }

  // Whether one of the files exists.
  bool AreThere() const;
  // Opens the files that exist. Returns whether both do.
  bool Open();
  // Throws LSCOREDB_DAMAGED when one of the files belongs to another log. REQUIRES: both are open.
  void CheckTitles() const;
  // Creates the files that are missing. A power failure can lose them, with synced records in them,
  // until SyncNames.
  void Create();
  void SyncNames() const;
  // Deletes both.
  void Remove() noexcept;

  // The whole record at an offset of a file, of any generation. None: there is none.
  std::optional<LogRecord> ReadFrom(LogFile const& file, std::uint64_t offset) const;
  // The record at the position, in its generation or at the beginning of the next. None: there is
  // no whole record.
  std::optional<LogRecord> ReadNext(LogPosition const& at);
  // Whether some record after the end of the log says that more of the log was synced: the log ends
  // there because of damage then.
  bool HasSyncedAfter(LogPosition const& at);

 private:
  void Entitle(LogFile& file) const;
  std::optional<LogRecord> ReadAt(logformat::Generation generation, std::uint64_t offset);
  std::optional<LogRecord> ReadBehind(LogFile const& file, std::uint64_t offset,
                                      logformat::Head const& head) const;
  bool HoldsSynced(logformat::Generation generation, std::uint64_t offset, CommitId after);

  std::string directory_;
  logformat::Identity identity_;
  bool read_only_;
  std::array<LogFile, 2> files_;
};

}  // namespace lscore

#endif
