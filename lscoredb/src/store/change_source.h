#ifndef LSCOREDB_SRC_CHANGE_SOURCE_H
#define LSCOREDB_SRC_CHANGE_SOURCE_H

// The feed of a store: what its commits changed, in order, for readers of any process. The store
// keeps the notes that batches write beside their changes (Batch::Note) and knows nothing of what
// they say.

#include <cstdint>
#include <string_view>
#include <vector>

#include "ids.h"
#include "status.h"

namespace lscore {

// How long commits are kept after the data file holds them. 0: without that bound. With both 0
// nothing is kept.
struct Retention {
  std::uint64_t bytes = 0;
  std::uint64_t seconds = 0;

  bool keeps() const { return bytes != 0 || seconds != 0; }
};

struct KeptChanges {
  Retention retention;
  CommitId first{0};  // the oldest commit that can be read, one behind the last if there is none
  CommitId last{0};   // the newest one
};

// The notes of one commit, in the order of its transactions.
struct NotedCommit {
  CommitId commit{0};
  std::uint64_t time = 0;  // microseconds since 1970
  std::vector<std::string_view> notes;
};

// A commit as the store's log has it.
struct RecordedCommit {
  CommitId commit{0};
  std::uint64_t time = 0;   // microseconds since 1970
  std::string_view log;     // what identifies the log
  std::string_view record;  // all of it, as log_format.h describes
};

// Reads the commits after a given one. One thread at a time. Never waits for a writer. The store
// outlives it.
class ChangeSource {
 public:
  ChangeSource(ChangeSource const&) = delete;
  ChangeSource& operator=(ChangeSource const&) = delete;
  virtual ~ChangeSource() = default;

  // The next commit that has notes. Returns false if there is none yet. The bytes are valid until
  // the next call. Throws LSCOREDB_CHANGES_GONE if the next commit is not kept any more, and
  // LSCOREDB_NO_CHANGES if the store has ceased to keep any.
  virtual bool Next(NotedCommit* out) = 0;
  // The same for the next commit of any kind. Throws LSCOREDB_CHANGES_UNSUPPORTED if the store has
  // no log.
  virtual bool NextRecorded(RecordedCommit* /* out */) { Throw(LSCOREDB_CHANGES_UNSUPPORTED); }
  // Waits for a commit after the last one that Next looked at. Returns whether there is one; also
  // returns early when a signal arrives. Negative: without a limit.
  virtual bool Wait(int milliseconds) = 0;
  // A file that poll() reports as readable when there may be something for Next; after a Next that
  // returned false it is readable again only for a later commit, or when it is time to ask a server
  // once more. Belongs to the source.
  virtual int File() = 0;

 protected:
  ChangeSource() = default;
};

}  // namespace lscore

#endif
