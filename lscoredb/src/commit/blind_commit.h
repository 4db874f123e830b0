#ifndef LSCOREDB_SRC_BLIND_COMMIT_H
#define LSCOREDB_SRC_BLIND_COMMIT_H

// Transactions in a BlindBatch. What CommitApplier reads and decides, this takes for granted and
// leaves to the store to check. Only for the usual: rows written, rows required, index entries. All
// else, and what a check refuses, goes through CommitApplier, which finds the exact status.

#include <set>
#include <string>

#include "cached_row_changes.h"
#include "change_tally.h"
#include "group_commit.h"

namespace lscore {

class BlindCommit {
 public:
  BlindCommit(BlindBatch& batch, SharedRowCache& rows) : batch_(batch), kept_(rows) {}

  // Returns false if the transaction is not of the usual kind, or collides with one that was added
  // before: the batch is of no use then.
  bool Add(CommitRequest const& request);
  // Returns false if nothing was committed. Throws LSCOREDB_COMMIT_UNKNOWN.
  bool Commit();

 private:
  bool AddRows(CommitRequest const& request);
  bool AddRequired(CommitRequest const& request);
  bool AddRow(PendingRow const& row, CommitId since);
  bool AddEntries(PendingIndex const& entries);
  bool RequireFree(PendingIndex const& entries, PendingKey const& key, std::string const& own);
  void AddCounts();
  void AddSets();

  BlindBatch& batch_;
  CachedRowChanges kept_;
  ChangeTally tally_;
  ImageBuilder builder_;
  EntryRecord record_;
  std::set<ObjectId> written_;
  std::set<std::string> taken_;  // keys of unique indexes
  ObjectId highest_deleted_{};
  bool anything_ = false;
};

}  // namespace lscore

#endif
