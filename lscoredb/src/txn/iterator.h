#ifndef LSCOREDB_SRC_ITERATOR_H
#define LSCOREDB_SRC_ITERATOR_H

// A walk over a range of an index as it stood when the walk began: the snapshot's entries, merged
// with those that the transaction had written by then. Belongs to the thread of its transaction. It
// may be opened again once closed, which takes no memory in the common case.

#include <optional>
#include <string>

#include "entries.h"
#include "ids.h"
#include "pending.h"
#include "status.h"

namespace lscore {

class Transaction;

class Iterator {
 public:
  Iterator() = default;
  Iterator(Iterator const&) = delete;
  Iterator& operator=(Iterator const&) = delete;

  // The next object that is still there; kNoObject at the end. LSCOREDB_NO_TRANSACTION: the
  // transaction that the walk belongs to has ended. LSCOREDB_ROLLED_BACK: it began behind a
  // savepoint that was rolled back to. A walk that failed goes on failing: what it did
  // not get to is not to be passed over.
  Status Next(ObjectId* object, LayoutNumber* layout);

 private:
  friend class Transaction;

  Status Step(ObjectId* object, LayoutNumber* layout);

  // REQUIRES: low_ and high_ are set.
  void Start(Transaction& transaction, IndexDefinition const& index, bool reverse);
  // `ended`: what Next gives from here on.
  void Finish(Status ended);
  // Null at the end. Valid until the next call.
  Entry const* NextEntry();
  bool CommittedInRange() const;
  bool PendingInRange() const;
  void StepCommitted();
  void TakeDueStep();
  void StepPending();
  // Leaves the walk on an entry that was there when it began.
  void SkipUntouched();
  void FetchAhead();

  static constexpr std::size_t kPlacesAhead = 8;
  static constexpr std::size_t kRowsAhead = 4;
  static constexpr std::uint32_t kStepsPerLook = 32;

  Transaction* transaction_ = nullptr;  // null: not open, or ended
  Status ended_ = LSCOREDB_NO_TRANSACTION;
  Status failed_ = LORV_STATUS_OK;
  std::uint64_t opening_ = 0;  // among the walks of the transaction
  bool reverse_ = false;
  Sequence seen_ = 0;  // later writes are not seen
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
  Entry written_;         // the pending entry that is next
};

}  // namespace lscore

#endif
