#ifndef LSCOREDB_SRC_TRANSACTION_H
#define LSCOREDB_SRC_TRANSACTION_H

// A context's transaction: a snapshot of the store, and what was written on top of it.
//
// One object serves a context's transactions one after another. It is used by one thread at a time;
// what it hands out stays valid until the transaction, or the innermost read scope, ends. Expected
// outcomes are returned as statuses, everything else is thrown; either way nothing was changed.

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "closed_sets.h"
#include "database.h"
#include "pending.h"
#include "result_buffers.h"
#include "scans.h"
#include "status.h"
#include "transaction_row_cache.h"

namespace lscore {

// A set of column types, one bit each.
using TypeSet = std::uint32_t;
constexpr TypeSet TypeBit(std::uint32_t type) { return TypeSet{1} << type; }

// What a write puts into a column.
struct NewValue {
  enum class Kind : std::uint8_t { kFixed, kText, kBinary, kNull };
  Kind kind = Kind::kNull;  // null, or zero where the column is not nullable
  std::uint64_t bits = 0;
  std::u16string_view text;
  std::string_view bytes;
};

class Transaction {
 public:
  explicit Transaction(std::shared_ptr<Database> database);
  ~Transaction();
  Transaction(Transaction const&) = delete;
  Transaction& operator=(Transaction const&) = delete;

  // ---- begin and end
  bool open() const { return snapshot_ != nullptr; }
  bool read_only() const { return read_only_; }
  void Begin(bool read_only);
  Status Commit();
  void Rollback() noexcept;
  // ---- savepoints (transaction_savepoints.cpp)
  // Never 0, and never given twice in a process.
  std::uint64_t SetSavepoint();
  // Takes back what was written since, and ends later savepoints and walks that began since.
  // LSCOREDB_UNKNOWN_SAVEPOINT: it is none, or none any more.
  Status RollbackTo(std::uint64_t savepoint);
  // Ends the savepoint and later ones; what was written stays.
  Status Release(std::uint64_t savepoint);
  // Commit fails when another transaction has changed the object since the snapshot.
  Status Require(ObjectId id);

  ResultBuffers& result_buffers() { return result_buffers_; }
  void BeginScope();
  // Returns whether a scope was open.
  bool EndScope();

  // ---- reading rows (transaction_read.cpp)
  // The value of `column` as layout `as` has it; kNoLayout: the object's own.
  Status Read(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types, Cell* out);
  // The same for the value of a fixed column.
  [[gnu::always_inline]] Status ReadFixed(ObjectId id, LayoutNumber as, std::uint32_t column,
                                          TypeSet types, std::uint64_t* out) {
    RowRef const* const row = FindRow(id);
    ColumnAccessPlan const* const plan =
        row == nullptr ? nullptr : FindAccessPlan(*row, as, column, types);
    if (plan == nullptr) return ReadOtherFixed(id, as, column, types, out);
    RowImage const image(row->image);
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
  Status Setspec(ObjectId id, Cell* out);
  // The object's layout. LORV_STATUS_NO_OBJECT: there is none.
  Status Lookup(ObjectId id, LayoutNumber* out);

  // ---- writing rows (transaction_write.cpp)
  ObjectId Insert(LayoutNumber number);
  Status InsertWithId(LayoutNumber number, ObjectId id);
  Status Write(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
               NewValue const& value);
  Status WriteSetspec(ObjectId id, std::u16string_view setspec);
  Status Delete(ObjectId id);
  Status Move(ObjectId id, LayoutNumber to);

  // ---- layouts and indexes (transaction_schema.cpp)
  LayoutNumber CreateLayout(Token token, LayoutNumber base, std::vector<Column> const& columns);
  // Null: there is none.
  Layout const* FindLayout(LayoutNumber number);
  // Newest first.
  std::vector<Layout const*> LayoutsOf(Token token);
  // All but those that are released and have no objects.
  std::vector<LayoutNumber> UsedLayouts();
  Status ReleaseLayout(LayoutNumber number);
  std::uint64_t CountObjects(LayoutNumber number);
  // No more objects come into the set. `empty`: commit fails when one was changed in it since.
  void CloseSet(std::u16string_view setspec, bool empty);
  IndexId CreateIndex(std::unique_ptr<IndexDefinition> index);
  Status DropIndex(IndexId id);
  IndexDefinition const* FindIndex(IndexId id);
  std::vector<IndexDefinition const*> IndexesOf(Token token);

  // ---- scans
  // REQUIRES: the iterator is not open; it is closed before the transaction object goes.
  Status OpenIterator(Iterator& iterator, IndexId id, ScanRange const& range);
  void CloseIterator(Iterator& iterator);

 private:
  struct Savepoint {
    std::uint64_t number = 0;
    PendingChanges::Mark written;
    std::size_t handed_out = 0;  // texts and binaries
    std::uint64_t scans = 0;     // that were opened
    Status doomed = LORV_STATUS_OK;
  };

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

  // Where a column of one layout lies in images under another one, which may be the same.
  //
  // A fixed column stands behind those before it that are present, so its offset depends on the
  // presence bits below its own. The plan keeps them and the offset as the last row had them. For
  // the column of bit 4, planned from a row that lacks column 2:
  //
  //   bit       5 4 3 2 1 0
  //   mask      0 1 1 1 1 1   its own bit and all below
  //   pattern   0 1 1 0 1 1   of the row
  //   image     | header 16 | bits 8 | c0 | c1 | c3 | c4 | ...   offset = 16 + 8 + 3 * 8 = 48
  //
  // The next row has        and so
  //   x 1 1 0 1 1           the pattern: the value is at 48, without counting
  //   x 1 1 1 1 1           4 bits below, 3 in the pattern: the value is at 48 + 8 * (4 - 3)
  //   x 0 1 1 1 1           not more than mask >> 1: its own bit is clear, there is no value
  struct ColumnAccessPlan {
    Layout const* layout = nullptr;  // of the images
    std::uint64_t mask = 0;          // the presence bits up to its own, in the first word
    std::uint64_t pattern = 0;       // as the last row that was looked at had them
    std::uint32_t key = 0;           // the layout that the column is named by, its number there
    std::uint16_t offset = 0;        // of a fixed column in such images; of others their number
    std::uint16_t type = 0;          // a TypeSet of one
  };
  static constexpr std::size_t kAccessPlans = 128;

  void End() noexcept;
  ScanSource SourceOfScans();

  // Null: there is no such object. A deleted one is found as such.
  RowRef const* FindRow(ObjectId id) {
    RowRef const* const cached = cache_.Find(id);
    return cached != nullptr ? cached : LoadRow(id);
  }
  static constexpr std::uint64_t KeyOf(LayoutNumber as, std::uint32_t column) {
    return std::uint64_t{column} << 16 | Raw(as);
  }
  ColumnAccessPlan& AccessPlanOf(Layout const& layout, LayoutNumber as, std::uint32_t column) {
    // Layouts of one tree have numbers that follow one another, and so have their columns.
    return access_plans_[(Raw(layout.number()) * 13u + Raw(as) * 5u + column) % kAccessPlans];
  }
  // Null: not noted, or there is no image, or the type is not among those.
  ColumnAccessPlan const* FindAccessPlan(RowRef const& row, LayoutNumber as, std::uint32_t column,
                                         TypeSet types) {
    if (row.image == nullptr) return nullptr;
    ColumnAccessPlan const& plan = AccessPlanOf(*row.layout, as, column);
    bool const same = plan.layout == row.layout && plan.key == KeyOf(as, column);
    return same && (types & plan.type) != 0 ? &plan : nullptr;
  }
  Status ReadUnnoted(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types,
                     Cell* out);
  void NoteAccessPlan(RowRef const& row, LayoutNumber as, std::uint32_t column);
  // Kept out of the way of what is read most.
  [[gnu::noinline]] Status ReadOtherFixed(ObjectId id, LayoutNumber as, std::uint32_t column,
                                          TypeSet types, std::uint64_t* out);
  [[gnu::noinline]] RowRef const* LoadRow(ObjectId id);
  // From the store.
  RowRef const* ReadRow(ObjectId id);
  // A deleted object is UNREACHABLE, a missing one NO_OBJECT.
  Status FindLive(ObjectId id, RowRef const** out);
  char const* AssembleImage(ObjectId id, std::string_view stub);
  Status ReadAs(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types, Cell* out);
  Status ReadOwn(RowRef const& row, std::uint32_t column, Cell* out) const;

  Layout const& LayoutToInsert(LayoutNumber number);
  bool ChooseId(ObjectId id);
  PendingRow& AddInserted(Layout const& layout, ObjectId id);
  PendingRow& Promote(RowRef const& row);
  void Refresh(PendingRow const& row);
  struct Target {
    Layout const* layout;
    std::uint32_t column;
  };
  Status FindTarget(RowRef const& row, LayoutNumber as, std::uint32_t column, TypeSet types,
                    Target* out);
  Status FindTargetByToken(RowRef const& row, Column const& wanted, Target* out);
  std::vector<Savepoint>::iterator FindSavepoint(std::uint64_t number);
  bool SameSet(RowRef const& row, Layout const& layout);
  void NoteExample(PendingRow const& row) {
    if (row.setspec.present) changes_.NoteExample(row);
  }
  // Whether the set is closed to a row that is not in it.
  bool IsClosedTo(RowRef const& row, std::u16string_view setspec);
  Status RefuseClosedSet(RowRef const& row);
  Status PlaceUnder(PendingRow& row, Layout const& layout, Cell* cells);
  Cell NewCell(Column const& column, NewValue const& value);
  Cell* CellsUnder(PendingRow const& row, Layout const& to);
  IndexCatalogue& catalogue();

  // One change of a row with the upkeep of the indexes over it; `change` must not throw. `token`:
  // only indexes with that column are concerned.
  template <typename Change>
  Status ChangeRow(PendingRow& row, std::optional<Token> token, Change&& change);
  template <typename Visit>
  void ForEachCovering(PendingRow& row, Visit&& visit);
  void CollectKeys(PendingRow& row, std::optional<Token> token, bool before);
  Affected& AffectedBy(IndexDefinition const& index);
  Status CheckUnique(PendingRow const& row);
  void ApplyKeys(PendingRow const& row, bool moved);
  PendingIndex& Pending(IndexDefinition const& index);

  void FillIndex(PendingIndex& entries);
  template <typename Visit>
  void ForEachObjectOfSet(std::u16string const& setspec, Visit&& visit);
  template <typename Visit>
  void WalkSetIndex(IndexDefinition const& index, std::u16string const& setspec, Visit&& visit);
  template <typename Visit>
  void ScanRows(std::u16string const& setspec, Visit&& visit);
  IndexDefinition const* FindSetIndex(std::u16string const& setspec);
  void CheckFilled(PendingIndex const& entries) const;

  std::shared_ptr<Database> database_;
  SharedRowCache::Reader kept_rows_;
  std::unique_ptr<Snapshot> snapshot_;
  bool read_only_ = false;
  Status doomed_ = LORV_STATUS_OK;  // set when a write stopped half-way
  Sequence now_ = 0;
  PendingChanges changes_;
  ResultBuffers result_buffers_;
  std::vector<std::unique_ptr<char[]>> assembled_;  // images that the store keeps in parts
  std::vector<ObjectId> assembled_ids_;
  std::vector<std::size_t> scopes_;  // how many images there were at the begin of each
  std::shared_ptr<IndexCatalogue> catalogue_;
  KnownOpenSet known_open_;
  IdRange ids_;
  std::vector<ObjectId> chosen_;  // that the allocator was told of
  Scans scans_;
  std::vector<Savepoint> savepoints_;

  KeyEncoder encoder_;
  EntryCursor unique_cursor_;
  std::vector<Affected> affected_;
  std::size_t affected_count_ = 0;
  std::u16string text_;
  RowsInUse cache_;
  std::array<ColumnAccessPlan, kAccessPlans>
      access_plans_{};  // of committed layouts, and so for good
};

}  // namespace lscore

#endif
