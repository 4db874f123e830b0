#ifndef LSCOREDB_SRC_ROW_READER_H
#define LSCOREDB_SRC_ROW_READER_H

// Reads rows for a transaction in whichever form they have: pending in its write set, cached for
// all contexts, or as an image in its snapshot. It caches the rows in use and where their columns
// lie. docs/rows.md describes the forms. One thread at a time.

#include <cstdint>
#include <span>
#include <string_view>

#include "assembled_images.h"
#include "column_access_plans.h"
#include "fetch_rows.h"
#include "iterator.h"
#include "schema_view.h"
#include "shared_row_cache.h"
#include "status.h"
#include "transaction_row_cache.h"
#include "transaction_state.h"

namespace lscore {

class RowReader {
 public:
  RowReader(TransactionState& state, SchemaView& schema)
      : state_(state), schema_(schema), shared_rows_(state.database->rows()) {}

  // `usable`: what Store::Notice returned for the snapshot.
  void Begin(bool usable) { shared_rows_.Begin(state_.snapshot->id(), usable); }
  void End();

  // Null: there is no such object. A row that the transaction deleted is returned as deleted. Valid
  // until the row is written or another one is looked up.
  RowRef const* FindRow(ObjectId id) {
    RowRef const* const cached = cache_.Find(id);
    return cached != nullptr ? cached : LoadRow(id);
  }
  // LORV_STATUS_UNREACHABLE for a deleted object, LORV_STATUS_NO_OBJECT for a missing one.
  Status FindLive(ObjectId id, RowRef const** out);

  // The value of `column` of layout `as`; kNoLayout: the object's own.
  Status Read(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types, Cell* out);
  // The same for a fixed column; column_access_plans.h explains the arithmetic.
  [[gnu::always_inline]] Status ReadFixed(ObjectId id, LayoutNumber as, std::uint32_t column,
                                          TypeSet types, std::uint64_t* out) {
    return ReadFixedOf(FindRow(id), id, as, column, types, out);
  }
  // The same for a row that FindMany found.
  Status ReadFixedOf(CachedRow const& kept, LayoutNumber as, std::uint32_t column, TypeSet types,
                     std::uint64_t* out) {
    RowRef const row = RefOf(kept.id, *kept.layout, kept.bytes());
    return ReadFixedOf(&row, kept.id, as, column, types, out);
  }
  // Rows that the shared cache has, for reading each once: they do not enter the cache of rows in
  // use. Null for others, and for all while the transaction has written rows. From a server, all
  // rows are fetched.
  void FindMany(std::span<std::uint64_t const> ids, CachedRow const** out);
  bool has_written() const { return state_.changes.has_rows(); }
  Status Setspec(ObjectId id, Cell* out);
  // The object's layout. LORV_STATUS_NO_OBJECT: there is none.
  Status Lookup(ObjectId id, LayoutNumber* out);

  // After the transaction wrote the row; after a rollback undid its write.
  void NoteWritten(PendingRow const& row) { cache_.Put(RefOf(row)); }
  void Forget(ObjectId id) { cache_.Forget(id); }

  // Whether the image of a row that was read came from overflow chunks.
  bool IsAssembled(ObjectId id) const { return assembled_.Find(id) != nullptr; }
  void BeginScope() { assembled_.BeginScope(); }
  // REQUIRES: a scope is open.
  void EndScope();

  // Starts to bring the rows into the processor's cache, or fetches them from a server at once.
  void Fetch(std::span<std::uint64_t const> ids) { FetchRows(scan_source(), ids); }

  ScanSource scan_source() {
    return {state_.snapshot.get(), &state_.changes, &cache_,
            &shared_rows_,         state_.now,      state_.database->store().takes_hints(),
            &first_rows_};
  }

 private:
  [[gnu::always_inline]] Status ReadFixedOf(RowRef const* row, ObjectId id, LayoutNumber as,
                                            std::uint32_t column, TypeSet types,
                                            std::uint64_t* out) {
    ColumnAccessPlan const* const plan =
        row == nullptr ? nullptr : FindAccessPlan(*row, as, column, types);
    if (plan == nullptr) return ReadOtherFixed(id, as, column, types, out);
    RowImage const image = row->stored();
    std::uint64_t const present = image.FirstWord() & plan->mask;
    if (present == plan->pattern) [[likely]] {
      *out = image.FixedAt(plan->offset);
      return LORV_STATUS_OK;
    }
    std::uint64_t const below = plan->mask >> 1;
    if (present <= below) return ReadOtherFixed(id, as, column, types, out);
    std::uint32_t const before = RowImage::CountBits(present & below);
    std::uint32_t const usual = RowImage::CountBits(plan->pattern & below);
    *out = image.FixedAt(plan->offset + std::size_t{8} * before - std::size_t{8} * usual);
    return LORV_STATUS_OK;
  }
  // Null: there is no plan, or the row is pending and has no image.
  ColumnAccessPlan const* FindAccessPlan(RowRef const& row, LayoutNumber as, std::uint32_t column,
                                         TypeSet types) const {
    return row.image == nullptr ? nullptr : plans_.Find(*row.layout, as, column, types);
  }
  void NoteAccessPlan(RowRef const& row, LayoutNumber as, std::uint32_t column);
  // Not inlined: they would push the common path out of registers and the instruction cache.
  [[gnu::noinline]] Status ReadOtherFixed(ObjectId id, LayoutNumber as, std::uint32_t column,
                                          TypeSet types, std::uint64_t* out);
  [[gnu::noinline]] RowRef const* LoadRow(ObjectId id);
  RowRef const* ReadFromStore(ObjectId id);
  void FetchFirstRows();
  char const* AssembleImage(ObjectId id, std::string_view stub);
  Status ReadUnplanned(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types,
                       Cell* out);
  Status ReadAs(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types, Cell* out);
  static Status ReadOwn(RowRef const& row, std::uint32_t column, Cell* out);

  TransactionState& state_;
  SchemaView& schema_;
  SharedRowCache::Reader shared_rows_;
  AssembledImages assembled_;
  RowsInUse cache_;
  ColumnAccessPlans plans_;
  FirstRows first_rows_;
};

}  // namespace lscore

#endif
