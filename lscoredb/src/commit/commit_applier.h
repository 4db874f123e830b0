#ifndef LSCOREDB_SRC_COMMIT_APPLIER_H
#define LSCOREDB_SRC_COMMIT_APPLIER_H

// One transaction's part of a batch: all checks first, which write nothing, then all writes. Used
// by the leader of a batch, on its thread; the transaction's own thread waits meanwhile.

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "build_applier.h"
#include "cached_row_changes.h"
#include "change_tally.h"
#include "chosen_ids.h"
#include "closed_sets.h"
#include "group_commit.h"

namespace lscore {

// Appends most of the keys that a batch gets from the store when it applies the request, so that a
// remote store can fetch them in one round trip.
void AddHints(CommitRequest const& request, std::vector<TreeKey>* hints);

class CommitApplier {
 public:
  // `position` numbers the layouts made in this batch.
  CommitApplier(Batch& batch, CommitRequest& request, std::uint32_t& position,
                CachedRowChanges& kept)
      : batch_(batch),
        request_(request),
        position_(position),
        kept_(kept),
        entries_(batch),
        builds_(batch),
        deleted_(batch) {}

  // Throws a refusal when the transaction cannot be committed: LSCOREDB_CONFLICT,
  // LSCOREDB_DUPLICATE_KEY with the key in the request, LSCOREDB_SET_CLOSED or
  // LSCOREDB_ID_GIVEN_OUT. Writes nothing. `nothing_between`: nothing was committed since the
  // snapshot, and the batch is empty.
  void Validate(bool nothing_between);
  // Writes everything. When it throws, the batch must be discarded.
  void Apply();

 private:
  void CollectRows();
  void ValidateRow(PendingRow const& row);
  void ValidateChosen(ObjectId id) const;
  void ValidateRequired(ObjectId id);
  void ValidateLayouts() const;
  void ValidateIndexes() const;
  void ValidateSets();
  bool EntersSet(PendingRow const& row);
  // Entries for indexes that were created after the snapshot was taken.
  void DeriveLateEntries();
  void DeriveLateEntries(PendingRow const& row);
  void DeriveLateEntry(IndexDefinition const& index, PendingRow const& row, bool before);
  PendingIndex& LateEntries(IndexDefinition const& index);
  bool IsUnique(PendingIndex const& entries);
  void CheckUnique(PendingIndex const& entries, bool nothing_between);
  [[noreturn]] void Refuse(IndexDefinition const& index, PendingKey key, ObjectId holder);
  bool IsLive(PendingIndex const& entries);
  bool IsNew(IndexDefinition const& index);

  void ApplyRow(PendingRow const& row);
  void PutImage(PendingRow const& row);
  void PutChunks(ObjectId id, std::string_view image);
  void DeleteChunks(ObjectId id);
  void ApplyUntouched(SortedEntries const& entries);
  void ApplyEntries(PendingIndex const& entries);
  void ApplyRemovals(PendingIndex const& entries);
  void ApplyLayouts();
  void ApplyClosings();
  void ApplyIndexes();
  void ApplyMovedPrepared(MovedPrepared const& moved);
  void ApplyCounts();
  void ApplySetChanges();

  Batch& batch_;
  CommitRequest& request_;
  std::uint32_t& position_;
  CachedRowChanges& kept_;
  EntryWriter entries_;
  BuildApplier builds_;
  DeletedIds deleted_;
  std::vector<PendingRow const*> rows_;  // those to be written, by id
  bool late_ = false;                    // indexes were created or dropped since the snapshot
  std::unique_ptr<IndexCatalogue> now_;
  std::map<IndexId, bool> new_;  // what IsNew found
  Arena arena_;
  std::map<IndexId, std::unique_ptr<PendingIndex>> late_entries_;
  KeyEncoder encoder_;
  KeyBytes key_;
  ImageBuilder builder_;
  std::u16string text_;
  ChangeTally tally_;
};

}  // namespace lscore

#endif
