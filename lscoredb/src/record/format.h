#ifndef LSCOREDB_SRC_FORMAT_H
#define LSCOREDB_SRC_FORMAT_H

// The data file, byte by byte. These numbers are frozen: a change of any is a new format version.
// Numbers are little endian inside values and big endian inside keys, unless it says otherwise.
//
// The file holds five trees.
//
// "rows": object id (8 bytes, ordered as an integer) -> row image.
//
//   offset  size  content
//        0     4  CRC-32C of the object id (8), of the number of columns in the presence bits (4:
//                 all of the layout but columns 0 and 1), and of everything after it
//        4     2  layout number
//        6     2  flags: 1 set specifier present, 2 big ends, 4 in overflow
//        8     8  commit that wrote the row
//       16        presence bits, in words of 8 bytes: fixed columns first, then variable ones,
//                 each in column order
//                 8 bytes for each present fixed column
//                 4 bytes (8 with flag 2) for the set specifier, when there is one, and for each
//                 present variable column: the end of its bytes, counted from the end of these
//                 numbers; the highest bit says that a text is wide
//                 the bytes of the set specifier and of the variable columns
//
//   A text has one byte for each unit if all units are below 256, otherwise it is wide, with two.
//   An image with flag 4 has only 8 bytes from offset 16 on, the size of the whole image, which is
//   in "parts"; its checksum covers only what follows it here.
//
// "parts": object id (8, big endian), number of the chunk (4, big endian) -> the next kChunkSize
//   bytes.
//
// The values of the following three trees end with 4 bytes that are not listed below: the CRC-32C
// of key and value.
//
// "index": ordered index id, encoded columns, ordered object id -> layout number (2), size of the
//   ordered object id (1). Encoded columns of more than kKeyPrefix bytes are cut there in the key,
//   and the rest is at the end of the value.
//
// "definitions": a letter, then
//   'L' layout number (2)                 -> a layout, see definitions.cpp
//   'T' token (8), layout number (2)      -> commit and position in it, 8 + 4: their order
//   'I' index id (8)                      -> an index
//   'J' token (8), index id (8)           -> nothing
//   'S' hash of set specifier (8), index id (8) -> nothing: the indexes over a set specifier
//   'R' layout number (2)                 -> nothing: a layout that may be taken away once no
//                                            object and no other layout needs it
//   'P' index id (8)                      -> the state of a prepared index, see index_builds.cpp;
//                                            it has no record 'J'
//   'Q' index id (8)                      -> an abandoned index, whose entries are being removed,
//                                            as 'I' had it; besides it has only its state in 'P'
//   'Z' set specifier cut at kSetPrefix, its hash (8) -> the whole set specifier: a set that takes
//                                            no more objects
//
// "meta": "format" -> kMagic, version (4), without checksum; "next-id" -> first id not reserved yet
//   (8); "indexes" -> commit (8) that last created or dropped an index; "closings" -> commit
//   (8) that last closed a set; "states-before" -> what the
//   store's own count of commits falls short of ours (8), in a packed copy; absent: nothing;
//   "identity" -> the database's number among all databases (8), absent until the first commit by a
//   kernel that knows of it, which earlier ones keep; "no-log" -> nothing: a host wants no log,
//   which earlier kernels keep too. And what most commits change, so that they touch few pages for
//   it: a letter and
//   'F' first id (8)                      -> the end (8) of a range of ids below "next-id" that
//                                            were never reserved, nor used by deleted objects
//   'X' id (8)                            -> nothing: of a deleted object, not below "next-id"
//   'C' layout number (2)                 -> count of objects (8), 1 and their set specifier, or 0
//   'W' set specifier cut at kSetPrefix, its hash (8) -> commit (8) that last changed an object
//                                            of that set, and the whole set specifier

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "bytes.h"

namespace lscore::format {

inline constexpr std::string_view kMagic = "lscoredb";
// Versions of the format. A file is written in the first one, and moves to a later one with the
// first thing that needs it, so that older kernels read what they can.
inline constexpr std::uint32_t kFirstVersion = 1;
inline constexpr std::uint32_t kWideIndexVersion = 2;  // indexes of more than kSortMaskBits columns
inline constexpr std::uint32_t kClosedSetVersion = 3;  // sets that take no more objects
inline constexpr std::uint32_t kLogVersion = 4;        // a log beside the file, log_format.h
inline constexpr std::uint32_t kPreparedIndexVersion = 5;  // indexes that are not complete yet
inline constexpr std::uint32_t kChangesVersion = 6;        // a log that keeps changes, log_format.h
inline constexpr std::uint32_t kAbandonedIndexVersion = 7;  // entries of indexes that are gone
inline constexpr std::uint32_t kNewestVersion = kAbandonedIndexVersion;

// The value of the format record.
inline std::string FormatRecord(std::uint32_t version) {
  std::string record(kMagic);
  Append(record, version);
  return record;
}

inline constexpr std::size_t kSortMaskBits = 16;

inline constexpr std::string_view kFormatKey = "format";
inline constexpr std::string_view kNextIdKey = "next-id";
inline constexpr std::string_view kIndexesKey = "indexes";
inline constexpr std::string_view kClosingsKey = "closings";
inline constexpr std::string_view kStatesBeforeKey = "states-before";
inline constexpr std::string_view kIdentityKey = "identity";
inline constexpr std::string_view kNoLogKey = "no-log";

inline constexpr std::uint16_t kHasSetspec = 1;
inline constexpr std::uint16_t kBigEnds = 2;
inline constexpr std::uint16_t kInChunks = 4;

inline constexpr std::size_t kCrcOffset = 0;
inline constexpr std::size_t kLayoutOffset = 4;
inline constexpr std::size_t kFlagsOffset = 6;
inline constexpr std::size_t kCommitOffset = 8;
inline constexpr std::size_t kHeaderSize = 16;
inline constexpr std::size_t kStubSize = kHeaderSize + 8;

// Images above this size go to "parts": one value of the store cannot hold the largest binaries,
// and wants contiguous pages.
inline constexpr std::size_t kChunkSize = std::size_t{16} << 20;

// The store takes keys of 511 bytes; an ordered id takes 9 at most.
inline constexpr std::size_t kKeyPrefix = 480;
inline constexpr std::size_t kSetPrefix = 400;

inline constexpr char kLayoutLetter = 'L';
inline constexpr char kLayoutTokenLetter = 'T';
inline constexpr char kReleaseLetter = 'R';
inline constexpr char kClosedSetLetter = 'Z';
inline constexpr char kIndexLetter = 'I';
inline constexpr char kIndexTokenLetter = 'J';
inline constexpr char kIndexSetLetter = 'S';
inline constexpr char kBuildLetter = 'P';
inline constexpr char kAbandonedLetter = 'Q';
inline constexpr char kCountLetter = 'C';
inline constexpr char kFreeIdsLetter = 'F';
inline constexpr char kDeletedIdLetter = 'X';
inline constexpr char kSetChangeLetter = 'W';

}  // namespace lscore::format

#endif
