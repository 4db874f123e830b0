#ifndef LSCOREDB_SRC_INDEX_BUILDS_H
#define LSCOREDB_SRC_INDEX_BUILDS_H

// The records of prepared indexes: indexes that are being built beside writers. A prepared index is
// found by its set specifier, so that every commit keeps it up, but not by its token or its id, so
// that nobody scans it. A created index of the same definition adopts it once it is ready.
//
// Entries of objects that exist already are added in the order of the store's keys. `position` is
// the last key that was dealt with. At any time this holds:
//
//   every entry of the index is the one that its object's row gives;
//   every object of the set whose entry's key is not above `position` has its entry.
//
// A commit that changes an object removes its old entry, if there is one, and puts the new one if
// it differs, which keeps both true; so the build may stop anywhere and be continued by anybody.
//
// When all objects of the set move to another one, the build may follow in the same commit: the
// definition then is over that set, and nothing has been dealt with.
//
// A build that is abandoned is no index any more from the first commit on: it keeps only its state
// and its definition, under another letter, by which anybody removes the entries that are left. If
// they fit into one commit, it never comes to that.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "definitions.h"

namespace lscore {

struct IndexBuild {
  IndexId id{};
  BuildPhase phase = BuildPhase::kFilling;
  std::uint32_t round = 0;  // how often duplicates have been looked for or the build began again
  std::uint64_t done = 0;   // objects whose entries were dealt with; of an abandoned one, removed
  std::uint64_t total = 0;  // 0: not counted yet
  std::u16string name;      // for those who list it
  std::string position;     // a key of kIndex, while filling; empty: none yet

  friend bool operator==(IndexBuild const&, IndexBuild const&) = default;
};

// Throws when the bytes are not such a record.
IndexBuild ParseBuild(IndexId id, std::string_view record);
std::string BuildKey(IndexId id);
std::optional<IndexBuild> FindBuild(View const& view, IndexId id);
std::vector<IndexBuild> AllBuilds(View const& view);
void WriteBuild(Batch& batch, IndexBuild const& build);
void DeleteBuild(Batch& batch, IndexId id);

}  // namespace lscore

#endif
