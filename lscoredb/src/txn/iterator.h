#ifndef LSCOREDB_SRC_ITERATOR_H
#define LSCOREDB_SRC_ITERATOR_H

// A scan of a range of an index as it was when the scan began: the snapshot's entries, merged with
// those that the transaction had written by then. Used by the thread of its transaction. A closed
// iterator may be opened again, which allocates nothing in the common case.

#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "entries.h"
#include "fetch_rows.h"
#include "ids.h"
#include "pending.h"
#include "status.h"

namespace lscore {

// The bounds in the contract's key format, both inclusive.
struct ScanRange {
  bool reverse = false;
  void const* first_key = nullptr;
  void const* last_key = nullptr;
};

class Iterator {
 public:
  Iterator() = default;
  Iterator(Iterator const&) = delete;
  Iterator& operator=(Iterator const&) = delete;

  // LSCOREDB_MALFORMED_KEY: a bound is not a key of the index.
  Status SetRange(IndexDefinition const& index, ScanRange const& range);
  // All entries whose encoded key begins with `prefix`.
  void SetPrefix(std::string_view prefix);
  // REQUIRES: the range is set.
  void Start(ScanSource const& source, IndexDefinition const& index);
  // `ended`: what Next returns from now on.
  void Finish(Status ended);
  // Skips pending entries that were written after the scan began.
  void SkipUntouched();

  // The next object that is not deleted; kNoObject at the end. LSCOREDB_NO_TRANSACTION: the scan's
  // transaction has ended. LSCOREDB_ROLLED_BACK: the scan began after a savepoint that was rolled
  // back to. Errors are sticky, so that a caller cannot skip what a failed scan did not deliver.
  Status Next(ObjectId* object, LayoutNumber* layout);
  // Next where that takes nothing but a look at what was read ahead. False: call Next.
  bool NextReady(EntryObject* found) {
    if (ahead_at_ == ahead_end_ || reading_ || source_.changes->has_rows()) return false;
    *found = ahead_[ahead_at_++];
    given_ = found->object;
    return true;
  }
  // As many calls of Next as `out` has room for; fewer at the end. `fetch`: the caller will read
  // the objects, so their rows are fetched.
  Status NextMany(std::span<EntryObject> out, bool fetch, std::size_t* count);
  // Steps over as many objects as NextMany with room for `most` delivers.
  Status Skip(std::size_t most, std::size_t* count);

 private:
  bool Step(EntryObject* found);
  bool Amend(EntryObject* found) const;
  void ReadAhead();
  bool TakeAhead(EntryObject* found);
  ObjectId Guess(std::size_t ahead) const;
  bool IsPlain() const;
  bool InPlainPage() const;
  bool SkipAhead(std::size_t most, std::size_t* skipped);
  std::size_t TakeRun(std::span<EntryObject> out);
  std::size_t TakePage(std::span<EntryObject> out);
  std::size_t TakePageFromServer(std::span<EntryObject> out);
  // Null at the end. Valid until the next call.
  Entry const* NextEntry();
  bool InRange(EncodedKey const& key) const;
  bool CommittedInRange() const;
  bool PendingInRange() const;
  void StepCommitted();
  void TakeDueStep();
  void StepPending();
  void StepRemoved();
  void SkipRun(PendingIndex::RemovedRuns::Run const& run);
  void EndRemoved();
  void FetchAhead();
  void AskTogether(bool reads);
  void AskForUpcoming();
  void NoteFirstRows();
  bool IsReading() const;

  static constexpr std::size_t kLongRun = 16;
  static constexpr std::size_t kReadAhead = 16;
  static constexpr std::uint32_t kStepsAlone = 4;
  static constexpr std::size_t kSlotsAhead = 8;
  static constexpr std::size_t kRowsAhead = 4;
  static constexpr std::uint32_t kStepsPerLook = 32;
  static constexpr std::size_t kFirstTogether = 16;
  static constexpr std::size_t kMostTogether = 8192;
  static constexpr std::size_t kTogetherGrowth = 32;
  static constexpr std::size_t kLastSteps = 2;

  ScanSource source_;
  bool open_ = false;
  Status ended_ = LSCOREDB_NO_TRANSACTION;
  Status failed_ = LORV_STATUS_OK;
  bool reverse_ = false;
  std::string low_;
  std::string high_;
  EntryCursor committed_;
  bool has_committed_ = false;
  bool step_due_ = false;  // of the committed entries
  PendingIndex const* pending_ = nullptr;
  PendingIndex::Map::const_iterator at_;
  bool at_end_ = true;
  std::size_t removed_ = 0;  // entries stepped over in a row that the transaction removed
  PendingKey first_removed_;
  PendingKey last_removed_;
  // Committed entries in front of the scan that were read together. Those from `ahead_at_` on are
  // still to be delivered, and `committed_` is on the last one.
  std::array<EntryObject, kReadAhead> ahead_;
  std::size_t ahead_at_ = 0;
  std::size_t ahead_end_ = 0;
  bool in_last_page_ = false;
  ObjectId given_{};
  ObjectId given_before_{};
  std::uint32_t steps_ = 0;
  bool reading_ = false;  // whether the caller reads the objects, as of the last look
  std::size_t together_ = kFirstTogether;  // the size of the next batch of rows from a server
  std::size_t asked_ = 0;                  // steps left in the last batch
  std::optional<RowRun> run_;              // rows of the next page, if the caller still reads then
  Entry written_;                          // the pending entry that is next
  std::vector<std::uint64_t> wanted_;      // for one call: memory that is used again
};

}  // namespace lscore

#endif
