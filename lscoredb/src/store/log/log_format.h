#ifndef LSCOREDB_SRC_LOG_FORMAT_H
#define LSCOREDB_SRC_LOG_FORMAT_H

// The bytes of a log, and of the image's record of it. Numbers are little endian. All of it is
// frozen: any change is a new format version.
//
// The log has two files, "log-0" and "log-1", which take turns: generation g is in file g % 2,
// after its title. The records of generation g + 2 overwrite those of g, once the image holds all
// of them.
//
// The title is kTitleSize bytes long and never changes: kTitleMark, the log's identity (16), the
// CRC-32C of the two (4), zeros. It may be all zeros until a sync has written it to disk.
//
// A record is a commit:
//
//   offset  size  content
//        0     4  CRC-32C of the log's identity (16) and of the rest of the record
//        4     4  checksum of the previous record; the first of a log takes it from the image
//        8     8  size of the record; the next one begins at the next multiple of 8
//       16     8  generation
//       24     8  number of the commit
//       32     8  number of the last commit known to be synced when this one was written
//       40     8  time, microseconds since 1970
//       48        changes, in the order in which they were made, without gaps:
//
//   change  0     4  size of the value
//           4     2  size of the key
//           6     1  tree; 128 more when the key is deleted; kNote: the value is a note, without a
//                    key, of what a transaction of the commit changed (notes.h)
//           7     1  0
//           8        the key, the value
//
// A record is valid only right after the one that it names, so that leftovers of an earlier use of
// the file, of an interrupted commit, or of another database are not taken for one.
//
// The image has a record "log" (ImagePosition) in its tree "meta", with a checksum like all others
// there. Its format version is kLogVersion, followed by the version that the content itself needs.
//
// If changes are kept, the version is kChangesVersion instead, the image has a record "changes"
// (the bytes of the retention, its seconds, 8 + 8), and commits that the image holds are in
// segments (change_segments.h). Only then are there notes.

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "bytes.h"
#include "format.h"
#include "ids.h"
#include "store.h"

namespace lscore::logformat {

inline constexpr std::string_view kImageKey = "log";
inline constexpr std::string_view kChangesKey = "changes";
inline constexpr std::array<char const*, 2> kFileNames = {"/log-0", "/log-1"};
inline constexpr char const* kBoardName = "/log.lock";
inline constexpr char const* kImageName = "/data.mdb";  // whose permissions the other files get

inline constexpr std::size_t kIdentitySize = 16;
using Identity = std::array<char, kIdentitySize>;
inline std::string_view BytesOf(Identity const& identity) {
  return {identity.data(), identity.size()};
}

enum class Generation : std::uint64_t {};

inline std::size_t FileOf(Generation generation) {
  return static_cast<std::size_t>(Raw(generation) % 2);
}
inline Generation After(Generation generation) { return Generation{Raw(generation) + 1}; }

inline constexpr std::string_view kTitleMark = "lscorlog";
inline constexpr std::size_t kTitleSize = 512;

inline constexpr std::size_t kHeadSize = 48;
inline constexpr std::size_t kCheckedFrom = 4;
inline constexpr std::size_t kChangeHead = 8;
inline constexpr std::size_t kAlignment = 8;
inline constexpr std::uint8_t kDeleted = 128;
inline constexpr auto kNote = static_cast<Tree>(kTreeCount);

inline std::uint64_t Aligned(std::uint64_t offset) {
  return (offset + kAlignment - 1) / kAlignment * kAlignment;
}

struct Head {
  std::uint32_t checksum = 0;
  std::uint32_t before = 0;
  std::uint64_t size = 0;
  Generation generation{0};
  CommitId commit{0};
  CommitId synced{0};
  std::uint64_t time = 0;
};
static_assert(sizeof(Head) == kHeadSize, "a head is stored as it lies in memory");

// How far the image holds the log, and where the rest begins.
struct ImagePosition {
  Identity identity{};
  Generation generation{0};  // begins after the commit
  CommitId commit{0};        // the last one that the image holds
  std::uint32_t before = 0;  // the checksum of its record
  bool clean = false;        // the log was empty when the last process closed the database
};

std::string TitleOf(Identity const& identity);

// The position in the image; none: it has no log. Throws LSCOREDB_DAMAGED for a bad record, and
// when it contradicts the image's format: an image without its log would be an old state.
std::optional<ImagePosition> FindPosition(View const& image);
// The same, where a missing record is damage too.
ImagePosition ReadPosition(View const& image);
void WritePosition(Batch& image, ImagePosition const& position);

// Whether an image without a log is to have none (LogWish::kNone).
bool RefusesLog(View const& image);
void WriteRefusal(Batch& image);

// Both zero: no changes are kept.
Retention ReadRetention(View const& image);
// Sets the format version too.
void WriteRetention(Batch& image, Retention const& retention);

// The format record of an image with a log, from and to that of its content. The image keeps its
// own version.
std::string ImageFormat(View const& image, std::string_view content_format);
std::string ContentFormat(View const& image);

// Whether the checksum of a record of the log is right. REQUIRES: it has a head.
bool IsWhole(Identity const& identity, std::string_view record);

// Takes the next change, or note, off `rest`. Returns false at its end; throws LSCOREDB_DAMAGED if
// the bytes are not a change.
struct Change {
  Tree tree;
  std::string_view key;
  std::string_view value;
  bool deleted;
};
bool NextChange(std::string_view& rest, Change* change);

}  // namespace lscore::logformat

#endif
