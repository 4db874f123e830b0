#ifndef LSCOREDB_SRC_BACKUP_FORMAT_H
#define LSCOREDB_SRC_BACKUP_FORMAT_H

// The files of a backup. Numbers are little endian. All of it is frozen: any change is a new
// version, which earlier kernels refuse.
//
//   manifest                    which parts there are; what it does not list does not count
//   part-<number>.full          a data file, as a copy makes it
//   part-<number>.increment     records of the log, of consecutive commits
//   lock                        locked while somebody writes to the backup
//   manifest.new, part.new, copy.new    in the making
//
// Parts are counted from 1, with eight digits or more in their names.
//
// The manifest:
//
//   offset  size  content
//        0     8  kManifestMark
//        8     4  kVersion
//       12     4  1: the database has a log
//       16     8  identity of the database
//       24    16  what it keeps of its changes: bytes, seconds; 0 and 0: nothing
//       40     8  number of parts
//       48        the parts in their order, kPartSize bytes each
//              4  CRC-32C of everything before
//
//   part    0     4  1 full, 2 increment
//           4     4  CRC-32C of the file
//           8     8  first commit; of a full part, the last one
//          16     8  last commit
//          24     8  the part is of the state at this time, microseconds since 1970
//          32     8  size of the file
//          40    16  identity of the log, zeros if there is none
//          56     4  1: the following two are known
//          60     4  checksum of the record of the last commit
//          64     4  checksum of the record before it, which that one names
//          68     4  number of the part
//
// An increment:
//
//   offset  size  content
//        0     8  kIncrementMark
//        8    16  identity of the log
//       24     8  first commit
//       32        records, each at a multiple of 8 (log_format.h)
//
// An increment continues the part before it in the manifest: its first commit is the one after the
// last one of that part. A full part continues nothing.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "change_source.h"
#include "ids.h"
#include "log_format.h"

namespace lscore {

// How an increment recognises that a database went on from the commit that the backup ends with:
// the next record names that commit's record, or, if that went past the log, the one before it.
struct LastRecord {
  logformat::Identity log{};
  bool known = false;
  std::uint32_t checksum = 0;
  std::uint32_t before = 0;

  friend bool operator==(LastRecord const&, LastRecord const&) = default;
};

struct BackupPart {
  std::uint32_t number = 0;
  bool full = false;
  CommitId first{0};
  CommitId last{0};
  std::uint64_t time = 0;
  std::uint64_t size = 0;
  std::uint32_t checksum = 0;
  LastRecord record;

  friend bool operator==(BackupPart const&, BackupPart const&) = default;
};

struct BackupManifest {
  std::uint64_t identity = 0;
  bool has_log = false;
  Retention retention;
  std::vector<BackupPart> parts;
};

namespace backupformat {

inline constexpr char const* kManifestName = "manifest";
inline constexpr char const* kNewManifestName = "manifest.new";
inline constexpr char const* kNewPartName = "part.new";
inline constexpr char const* kNewCopyName = "copy.new";
inline constexpr char const* kLockName = "lock";

std::string NameOf(BackupPart const& part);
// Whether it could be the name of a part.
bool IsPartName(std::string_view name);

std::string BytesOf(BackupManifest const& manifest);
// Throws LSCOREDB_NEWER_FORMAT, and LSCOREDB_BACKUP_DAMAGED.
BackupManifest ParseManifest(std::string_view bytes);

inline constexpr std::size_t kIncrementTitleSize = 32;
std::string IncrementTitle(logformat::Identity const& log, CommitId first);

}  // namespace backupformat
}  // namespace lscore

#endif
