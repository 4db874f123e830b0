#ifndef LSCOREDB_SRC_CLOSED_SETS_H
#define LSCOREDB_SRC_CLOSED_SETS_H

// Sets that take no more objects. A set is closed for good: hosts do not use a set specifier again.
//
// Objects in a closed set stay, and may be changed, moved and deleted. Each closed set has a
// record. One more record says when the last set was closed, so that databases without closed sets,
// and commits since whose snapshot none was closed, read only that.

#include <optional>
#include <string>
#include <string_view>

#include "ids.h"
#include "store.h"

namespace lscore {

void WriteClosedSet(Batch& batch, std::u16string_view setspec);
bool IsClosedSet(View const& view, std::u16string_view setspec);
// The commit that last closed a set; 0: none is closed.
CommitId LastClosing(View const& view);

// The key of a closed set's record, and the set that a record names. ParseClosedSet throws when the
// bytes are not such a record.
std::string ClosedSetKey(std::u16string_view setspec);
std::u16string ParseClosedSet(std::string_view record);

// Remembers the last open set of a snapshot, so that most checks read nothing. One thread at a
// time.
class KnownOpenSet {
 public:
  // Whether the set is closed in the snapshot. REQUIRES: the same one as before, or Forget.
  bool IsClosed(View const& snapshot, std::u16string_view setspec);
  void Forget() noexcept { any_.reset(); }

 private:
  std::optional<bool> any_;  // closed sets in the snapshot
  std::u16string open_;      // the last set that was found open
};

}  // namespace lscore

#endif
