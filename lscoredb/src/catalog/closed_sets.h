#ifndef LSCOREDB_SRC_CLOSED_SETS_H
#define LSCOREDB_SRC_CLOSED_SETS_H

// Sets that take no more objects. A set is closed for good: hosts do not use a set specifier again.
//
// Objects that are in a closed set stay, and may be changed, moved and deleted. Which sets are
// closed is one record each; another record says when the last one was closed, so that a database
// without any, and a commit that none was closed before, look no further.

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

// The key of a closed set's record, and the set that a record names, which throws when the bytes
// are no such record.
std::string ClosedSetKey(std::u16string_view setspec);
std::u16string ParseClosedSet(std::string_view record);

// What a transaction found out about the sets of its snapshot. One thread at a time.
class KnownOpenSet {
 public:
  // Whether the set is closed in the snapshot. REQUIRES: the same one as before, or Forget.
  bool IsClosed(View const& snapshot, std::u16string_view setspec);
  void Forget() noexcept { any_.reset(); }

 private:
  std::optional<bool> any_;  // closed sets in the snapshot
  std::u16string open_;      // the set that was asked for last and is open
};

}  // namespace lscore

#endif
