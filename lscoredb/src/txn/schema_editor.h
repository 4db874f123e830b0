#ifndef LSCOREDB_SRC_SCHEMA_EDITOR_H
#define LSCOREDB_SRC_SCHEMA_EDITOR_H

// Changes layouts and indexes in the write set of a transaction. One thread at a time.

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "index_filler.h"
#include "schema_view.h"
#include "transaction_state.h"

namespace lscore {

class SchemaEditor {
 public:
  SchemaEditor(TransactionState& state, SchemaView& schema, RowReader& reader)
      : state_(state), schema_(schema), filler_(state, schema, reader) {}

  // The columns of `base`, then `columns`. Throws LSCOREDB_UNKNOWN_LAYOUT for the base,
  // LSCOREDB_LAYOUTS_EXHAUSTED, and the statuses for bad columns (layout.h).
  LayoutNumber CreateLayout(Token token, LayoutNumber base, std::vector<Column> const& columns);
  // All layouts but released ones without objects, in ascending order.
  std::vector<LayoutNumber> UsedLayouts();
  // LSCOREDB_LAYOUT_IN_USE: it has objects.
  Status ReleaseLayout(LayoutNumber number);
  std::uint64_t CountObjects(LayoutNumber number);
  // The set takes no more objects. `empty`: commit also fails when an object of the set was changed
  // by another transaction since the snapshot.
  void CloseSet(std::u16string_view setspec, bool empty);

  // Throws LSCOREDB_DUPLICATE_KEY when objects collide in a unique index.
  IndexId CreateIndex(std::unique_ptr<IndexDefinition> index);
  Status DropIndex(IndexId id);

 private:
  TransactionState& state_;
  SchemaView& schema_;
  IndexFiller filler_;
};

}  // namespace lscore

#endif
