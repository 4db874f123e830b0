#ifndef LSCOREDB_TESTS_FORMAT_CORPUS_H
#define LSCOREDB_TESTS_FORMAT_CORPUS_H

// The databases in formats/, one for each version of the format: what is in them. They are written
// once, by lscoredb_write_format_corpus, when a version is new, and never again.

#include "kernel_test.h"

namespace lscoredb_test::corpus {

inline constexpr std::uint32_t kNewestVersion = 7;
inline constexpr std::uint32_t kLogVersion = 4;      // with a log
inline constexpr std::uint32_t kChangesVersion = 6;  // with a log that keeps changes

inline constexpr std::uint64_t kTable = 50;
inline constexpr std::uint64_t kByNumber = 60;
inline constexpr std::uint64_t kByText = 61;
inline constexpr std::uint64_t kWideIndex = 62;       // from version 2 on
inline constexpr char16_t kClosedSet[] = u"closed/";  // from version 3 on
inline constexpr int kPreparedRows = 10;  // from version 5 on: those that are in a prepared index
inline constexpr int kRemovedRows = 15;   // from version 7 on: those that an abandoned index lost
inline constexpr std::uint32_t kNumber = 2;
inline constexpr std::uint32_t kText = 3;
inline constexpr std::uint32_t kFraction = 4;
inline constexpr std::uint32_t kTarget = 5;
inline constexpr std::uint64_t kNumberToken = 100;
inline constexpr std::uint64_t kTextToken = 101;
inline constexpr int kRows = 40;

inline Columns TableColumns() {
  return {{LORV_TYPE_LONG, kNumberToken},
          {LORV_TYPE_STRING, kTextToken},
          {LORV_TYPE_DOUBLE, 102},
          {LORV_TYPE_REFERENCE, 103}};
}

// Narrow and wide texts, longer ones than a key holds, and none.
inline std::optional<Text> TextOf(int row) {
  if (row % 4 == 3) return std::nullopt;
  std::size_t const size = row % 4 == 2 ? 700 : static_cast<std::size_t>(row);
  return Text(size, static_cast<char16_t>(row % 4 == 1 ? 0x3B1 + row % 20 : u'a' + row % 20));
}

inline Columns WideColumns() {
  Columns columns{{LORV_TYPE_LONG, kNumberToken}};
  for (std::uint64_t i = 0; i < 16; ++i) columns.push_back({LORV_TYPE_LONG, 300 + i});
  return columns;
}

void Write(std::string const& directory, std::uint32_t version);

}  // namespace lscoredb_test::corpus

#endif
