#ifndef LSCOREDB_SRC_COMMIT_APPLIER_H
#define LSCOREDB_SRC_COMMIT_APPLIER_H

// One transaction's part of a batch: all checks first, which write nothing, then all writes. Used
// by the leader of a commit, on its thread; the transaction itself stands still meanwhile.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "chosen_ids.h"
#include "closed_sets.h"
#include "group_commit.h"
#include "shared_row_cache.h"

namespace lscore {

// What a batch does to rows that are kept in memory.
class CachedRowChanges {
 public:
  explicit CachedRowChanges(SharedRowCache& rows) : rows_(rows) {}

  // The row is replaced, or deleted where there is no image.
  void Add(PendingRow const& row, std::string_view image, CommitId state);
  // Right before and after the batch is committed.
  void TakeOut(CommitId state) noexcept;
  void PutBack() noexcept;

 private:
  SharedRowCache& rows_;
  std::vector<ObjectId> replaced_;
  std::vector<CachedRowPtr> newer_;
};

// What a batch that applies the request is going to get from the store, most of it.
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
        deleted_(batch) {}

  // Throws LSCOREDB_CONFLICT or LSCOREDB_DUPLICATE_KEY when the transaction cannot be committed,
  // the latter with the key in the request.
  // Has written nothing then. `nothing_between`: no commit came after the snapshot, and the batch
  // is empty.
  void Validate(bool nothing_between);
  // Writes everything. When it throws, the batch is of no use any more.
  void Apply();

 private:
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
  void CheckUnique(PendingIndex const& entries, bool nothing_between);
  [[noreturn]] void Refuse(IndexDefinition const& index, PendingKey key, ObjectId holder);
  bool IsLive(PendingIndex const& entries) const;

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
  void CountChange(PendingRow const& row);
  void NoteSet(Cell const& setspec);
  void ApplyCounts();
  void ApplySetChanges();

  struct NotedSet {
    std::string bytes;  // packed
    bool wide = false;
    bool present = false;
  };
  struct CountDelta {
    std::int64_t objects = 0;
    PendingRow const* example = nullptr;  // a row that is under the layout now
  };

  Batch& batch_;
  CommitRequest& request_;
  std::uint32_t& position_;
  CachedRowChanges& kept_;
  EntryWriter entries_;
  DeletedIds deleted_;
  std::vector<PendingRow const*> rows_;  // with something to do for them, by id
  bool late_ = false;                    // indexes were created or dropped since the snapshot
  std::unique_ptr<IndexCatalogue> now_;
  Arena arena_;
  std::map<IndexId, std::unique_ptr<PendingIndex>> late_entries_;
  KeyEncoder encoder_;
  KeyBytes key_;
  ImageBuilder builder_;
  std::u16string text_;
  std::map<LayoutNumber, CountDelta> counts_;
  std::set<std::u16string> changed_sets_;
  std::array<NotedSet, 8> noted_sets_;  // some of those, so that most rows need not ask
  std::size_t next_noted_ = 0;
};

}  // namespace lscore

#endif
