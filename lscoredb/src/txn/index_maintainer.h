#ifndef LSCOREDB_SRC_INDEX_MAINTAINER_H
#define LSCOREDB_SRC_INDEX_MAINTAINER_H

// Keeps pending index entries consistent with pending rows: every change of a row goes through
// ChangeRow, which changes the entries of all indexes over the row with it. One thread at a time.

#include <optional>
#include <string>
#include <vector>

#include "row_reader.h"
#include "scans.h"
#include "schema_view.h"
#include "transaction_state.h"

namespace lscore {

class IndexMaintainer {
 public:
  IndexMaintainer(TransactionState& state, SchemaView& schema, RowReader& reader,
                  Scans const& scans)
      : state_(state), schema_(schema), reader_(reader), scans_(scans) {}

  // Changes a row and its index entries. `change` must not throw. `token`: the column that changes;
  // only indexes with it are maintained. On failure the row is restored, except for cells that
  // `change` wrote, which the caller restores.
  template <typename Change>
  Status ChangeRow(PendingRow& row, std::optional<Token> token, Change&& change) {
    affected_count_ = 0;
    CollectKeys(row, token, true);
    PendingRow const before = row;
    change();
    return FinishChange(row, token, before);
  }

 private:
  // An index over a row that is being changed, and the row's keys in it.
  struct Affected {
    IndexDefinition const* index = nullptr;
    bool had_old = false;
    bool has_new = false;
    KeyFacts old_facts;
    KeyFacts new_facts;
    KeyBytes old_key;
    KeyBytes new_key;

    bool SameKey() const { return had_old && has_new && old_key == new_key; }
  };

  template <typename Visit>
  void ForEachCovering(PendingRow& row, Visit&& visit);
  void CollectKeys(PendingRow& row, std::optional<Token> token, bool before);
  Affected& AffectedBy(IndexDefinition const& index);
  Status FinishChange(PendingRow& row, std::optional<Token> token, PendingRow const& before);
  Status CheckUnique(PendingRow const& row);
  void ApplyKeys(PendingRow const& row, PendingRow const& before);
  PendingIndex& Pending(IndexDefinition const& index);

  TransactionState& state_;
  SchemaView& schema_;
  RowReader& reader_;
  Scans const& scans_;
  KeyEncoder encoder_;
  EntryCursor unique_cursor_;
  std::vector<Affected> affected_;  // reused: their keys keep their capacity
  std::size_t affected_count_ = 0;
  std::u16string text_;
};

}  // namespace lscore

#endif
