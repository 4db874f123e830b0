#ifndef LSCOREDB_SRC_INDEX_FILLER_H
#define LSCOREDB_SRC_INDEX_FILLER_H

// Fills a new index with the objects of its set. One thread at a time.

#include <string>

#include "row_reader.h"
#include "schema_view.h"
#include "transaction_state.h"
#include "watched_work.h"

namespace lscore {

class IndexFiller {
 public:
  IndexFiller(TransactionState& state, SchemaView& schema, RowReader& reader)
      : state_(state), schema_(schema), reader_(reader) {}

  // Adds an entry for each object of the index's set. Throws LSCOREDB_DUPLICATE_KEY when two
  // collide in a unique index; TransactionState::refused then names them.
  void Fill(PendingIndex& entries);
  // The same entries, sorted, of those keys of the store that are above `position`, and their
  // number. Null: there are none. REQUIRES: the transaction has written nothing.
  std::unique_ptr<SortedEntries const> Sort(IndexDefinition const& index, std::string_view position,
                                            std::uint64_t* count);

 private:
  template <typename Visit>
  void ForEachObjectOfSet(std::u16string const& setspec, Visit&& visit);
  template <typename Visit>
  void ScanSetIndex(IndexDefinition const& index, std::u16string const& setspec, Visit&& visit);
  template <typename Visit>
  void ScanRows(std::u16string const& setspec, Visit&& visit);
  IndexDefinition const* FindSetIndex(std::u16string const& setspec);
  void CheckUnique(PendingIndex const& entries);
  void CheckUntouchedUnique(PendingIndex const& entries);
  [[noreturn]] void Refuse(IndexDefinition const& index, PendingKey const& key, ObjectId holder);

  WatchedWork work_;  // reports progress, in objects read
  TransactionState& state_;
  SchemaView& schema_;
  RowReader& reader_;
  KeyEncoder encoder_;
  std::u16string text_;
};

}  // namespace lscore

#endif
