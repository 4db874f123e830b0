#ifndef LSCOREDB_SRC_ITERATOR_H
#define LSCOREDB_SRC_ITERATOR_H

// A scan of a range of an index as it stood when the scan began: the snapshot's entries, merged
// with those that the transaction had written by then. Belongs to the thread of its transaction. It
// may be opened again once closed, which takes no memory in the common case.

#include <optional>
#include <string>

#include "entries.h"
#include "ids.h"
#include "pending.h"
#include "shared_row_cache.h"
#include "status.h"
#include "transaction_row_cache.h"

namespace lscore {

using RowsInUse = TransactionRowCache<RowRef>;

// What a scan reads of its transaction. Pointers, since an iterator is opened over and over.
struct ScanSource {
  Snapshot const* snapshot = nullptr;
  PendingChanges const* changes = nullptr;
  RowsInUse const* rows = nullptr;
  SharedRowCache::Reader* shared_rows = nullptr;
  Sequence seen = 0;  // later writes are not seen
  bool far = false;   // reading a row takes a round trip
};

// The bounds as the contract has them, both inclusive.
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

  // LSCOREDB_MALFORMED_KEY: a bound is no key of the index.
  Status SetRange(IndexDefinition const& index, ScanRange const& range);
  // All entries whose encoded key begins with `prefix`.
  void SetPrefix(std::string_view prefix);
  // REQUIRES: the range is set.
  void Start(ScanSource const& source, IndexDefinition const& index);
  // `ended`: what Next gives from here on.
  void Finish(Status ended);
  // Leaves the scan on an entry that was there when it began.
  void SkipUntouched();

  // The next object that is still there; kNoObject at the end. LSCOREDB_NO_TRANSACTION: the
  // transaction that the scan belongs to has ended. LSCOREDB_ROLLED_BACK: it began behind a
  // savepoint that was rolled back to. Errors are sticky: what a failed scan did not get to must
  // not be passed over.
  Status Next(ObjectId* object, LayoutNumber* layout);

 private:
  Status Step(ObjectId* object, LayoutNumber* layout);
  // Null at the end. Valid until the next call.
  Entry const* NextEntry();
  bool CommittedInRange() const;
  bool PendingInRange() const;
  void StepCommitted();
  void TakeDueStep();
  void StepPending();
  void FetchAhead();
  void AskTogether();

  static constexpr std::size_t kSlotsAhead = 8;
  static constexpr std::size_t kRowsAhead = 4;
  static constexpr std::uint32_t kStepsPerLook = 32;
  static constexpr std::size_t kFirstTogether = 16;
  static constexpr std::size_t kMostTogether = 256;

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
  ObjectId given_{};
  std::uint32_t steps_ = 0;
  bool reading_ = false;  // the objects that were given were read, when it was looked at last
  std::size_t together_ = kFirstTogether;  // rows that are asked for together next
  std::size_t asked_ = 0;                  // steps that no row has to be asked for
  Entry written_;                          // the pending entry that is next
};

}  // namespace lscore

#endif
