#ifndef LSCOREDB_SRC_BLIND_BATCH_H
#define LSCOREDB_SRC_BLIND_BATCH_H

// A batch for stores to which a wait for the turn is a round trip: everything is decided before the
// turn comes, and what was taken for granted is checked by the server. It reads nothing. One
// thread.
//
//   Batch        lock, read | decide | write, commit        the lock is held for a round trip
//   BlindBatch   decide | lock, check, write, commit        the lock is held while the server works
//
// Its number is not known before it is committed: what is written holds a guess in its place
// (guess()), which the store corrects.

#include <cstdint>
#include <functional>
#include <string_view>

#include "ids.h"

namespace lscore {

struct CommitInDoubt;

class BlindBatch {
 public:
  BlindBatch(BlindBatch const&) = delete;
  BlindBatch& operator=(BlindBatch const&) = delete;
  virtual ~BlindBatch() = default;

  // What the commit's number will be unless others commit before it.
  virtual CommitId guess() const = 0;

  // ---- rows; each once. `since`: the commit does not take place if a later one wrote the row, or
  // the row is gone.
  virtual void InsertRow(ObjectId id, std::string_view image) = 0;
  virtual void UpdateRow(ObjectId id, CommitId since, std::string_view image) = 0;
  virtual void DeleteRow(ObjectId id, CommitId since) = 0;
  virtual void RequireRow(ObjectId id, CommitId since) = 0;

  // ---- records of kMeta that begin with a number
  // The commit does not take place if the record has a higher one.
  virtual void RequireNoLater(std::string_view key, CommitId since) = 0;
  // Puts a record that begins with the number of the commit.
  virtual void PutStamped(std::string_view key, std::string_view value) = 0;
  // Adds to the count. The commit does not take place if that is zero before or after it or, with
  // `named`, if no set specifier follows it.
  virtual void AddToCount(std::string_view key, std::int64_t objects, bool named) = 0;
  // The commit does not take place if the record's number is not above the id, or there is a key
  // from `low` on and below `high`.
  virtual void RequireGivenIds(std::string_view mark, ObjectId highest, std::string_view low,
                               std::string_view high) = 0;

  // ---- entries of indexes
  virtual void PutEntry(std::string_view key, std::string_view value) = 0;
  virtual void RemoveEntry(std::string_view key) = 0;
  // The commit does not take place if, apart from `own`, and from what it removes, there is a key
  // from `low` on and below `high`.
  virtual void RequireFree(std::string_view low, std::string_view high, std::string_view own) = 0;

  // As those of Batch.
  virtual bool takes_notes() const = 0;
  virtual void Note(std::string_view note) = 0;
  virtual void AskForSync() = 0;
  virtual CommitInDoubt in_doubt() const = 0;

  // Returns false, with nothing committed, if something was not as it was taken for granted, or
  // could not be sent: a Batch will tell. Throws LSCOREDB_COMMIT_UNKNOWN. `made` gets the number of
  // the commit, before a snapshot of this process relies on what is cached for it; it is not called
  // if the reply was lost and the commit is known to have taken place.
  using Made = std::function<void(CommitId)>;
  virtual bool Commit(Made const& made) = 0;

 protected:
  BlindBatch() = default;
};

}  // namespace lscore

#endif
