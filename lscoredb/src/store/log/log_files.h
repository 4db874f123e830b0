#ifndef LSCOREDB_SRC_LOG_FILES_H
#define LSCOREDB_SRC_LOG_FILES_H

// The two files of a log, and how records are found in them. Whoever writes holds the commit lock.

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "log_file.h"
#include "log_format.h"

namespace lscore {

// A position after a record: where the next one goes, and what it has to be.
struct LogPosition {
  logformat::Generation generation{0};
  std::uint64_t offset = logformat::kTitleSize;
  std::uint32_t before = 0;  // checksum of the record
  CommitId commit{0};        // of the record

  // Where the part of the log begins that the image does not hold.
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
  LogPosition Behind(LogPosition const& at) const;
};

class LogFiles {
 public:
  LogFiles(std::string directory, logformat::Identity const& identity)
      : directory_(std::move(directory)), identity_(identity) {}

  logformat::Identity const& identity() const { return identity_; }
  LogFile& Of(logformat::Generation generation) { return files_[logformat::FileOf(generation)]; }

  // Opens what is there. Returns whether both are.
  bool Open();
  // Throws LSCOREDB_DAMAGED when one of the files is of another log. REQUIRES: both are open.
  void CheckTitles() const;
  // Makes what is missing, for good.
  void Create();
  // Takes both away.
  void Remove() noexcept;

  // The record at the position, in its generation or at the beginning of the next. None: there is
  // none that is whole.
  std::optional<LogRecord> ReadNext(LogPosition const& at);
  // Whether a record behind a position where the log ends says that more of the log was synced, so
  // that it ends there by damage.
  bool GoesOnBehind(LogPosition const& at);

 private:
  void Entitle(LogFile& file) const;
  std::optional<LogRecord> ReadAt(logformat::Generation generation, std::uint64_t offset);
  bool IsWhole(LogRecord const& record) const;
  bool HoldsSynced(logformat::Generation generation, std::uint64_t offset, CommitId after);

  std::string directory_;
  logformat::Identity identity_;
  std::array<LogFile, 2> files_;
};

}  // namespace lscore

#endif
