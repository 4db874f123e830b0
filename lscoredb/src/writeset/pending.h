#ifndef LSCOREDB_SRC_PENDING_H
#define LSCOREDB_SRC_PENDING_H

// The write set of a transaction: rows, index entries, layouts and indexes that are not committed.
//
// It is owned by its transaction. Rows and entries live in its arena; cells of rows may also point
// into the snapshot that the transaction reads. Another thread, the leader of a batch, reads it
// only while the transaction waits in commit.

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "arena.h"
#include "definitions.h"
#include "entries.h"
#include "fresh_entries.h"
#include "hidden_runs.h"
#include "ids.h"
#include "layout.h"
#include "oid_map.h"
#include "pending_entry.h"
#include "row.h"
#include "sorted_entries.h"
#include "undo_log.h"

namespace lscore {

// ---- rows --------------------------------------------------------------------------------------

struct PendingRow {
  ObjectId id{};
  Layout const* layout = nullptr;
  Cell setspec;
  Cell* cells = nullptr;  // one for each stored column of `layout`
  // The row as the snapshot has it; null: inserted by this transaction.
  std::string_view original;
  Layout const* original_layout = nullptr;
  // The committed indexes over its set; null: not looked up, or no set specifier.
  IndexList const* covering = nullptr;
  bool given_id = false;  // inserted with an id that the caller chose
  bool changed = false;
  bool deleted = false;
  bool in_overflow = false;  // the committed image lies in overflow chunks

  bool inserted() const { return original.data() == nullptr; }
  std::span<Cell const> all_cells() const { return {cells, layout->bit_count()}; }
  Cell& cell(std::uint32_t column) const { return cells[column - kFirstStoredColumn]; }
};

// Whether a commit has to write the row. One that was inserted and deleted again was never stored.
inline bool Matters(PendingRow const& row) {
  return row.changed && !(row.inserted() && row.deleted);
}

// A row to read, pending or as an image. Four words, passed by value; valid until the row is
// written.
struct RowRef {
  ObjectId id{};
  Layout const* layout = nullptr;
  char const* image = nullptr;  // of a committed row; null: the row is pending
  union {
    PendingRow const* written = nullptr;  // if image is null
    std::size_t size;                     // of the image, otherwise
  };

  PendingRow const* pending() const { return image == nullptr ? written : nullptr; }
  RowImage stored() const { return RowImage({image, size}); }  // REQUIRES: there is an image

  // REQUIRES: number >= kFirstStoredColumn.
  Cell Read(std::uint32_t number) const {
    if (image == nullptr) return written->cell(number);
    return stored().Read(*layout, layout->column(number));
  }
  Cell Setspec() const { return image == nullptr ? written->setspec : stored().Setspec(*layout); }
  bool deleted() const { return pending() != nullptr && written->deleted; }
  bool inserted() const { return pending() != nullptr && written->inserted(); }
};

inline RowRef RefOf(PendingRow const& row) { return {row.id, row.layout, nullptr, {&row}}; }
inline RowRef RefOf(ObjectId id, Layout const& layout, std::string_view image) {
  return {.id = id, .layout = &layout, .image = image.data(), .size = image.size()};
}
// The row as the snapshot has it. REQUIRES: !row.inserted().
inline RowRef OriginalOf(PendingRow const& row) {
  return RefOf(row.id, *row.original_layout, row.original);
}

// ---- keys of rows ------------------------------------------------------------------------------

// Encodes the index key of a row. Columns are found by token; one that the row's layout lacks is
// null, or zero where the index says that it is not nullable.
class KeyEncoder {
 public:
  KeyFacts Encode(IndexDefinition const& index, RowRef const& row, KeyBytes& out);

 private:
  void AppendValue(IndexColumn const& column, bool descending, Cell const& cell, KeyBytes& out);

  std::u16string text_;
};

// ---- index entries -----------------------------------------------------------------------------

// The entries of one index that the transaction has written. They overlay those that it has not
// touched: the snapshot's or, for an index that it creates, the sorted ones that filled it. Entries
// of new objects stay in an unsorted list until the index is scanned, one of them is changed, or a
// savepoint is set.
class PendingIndex {
 public:
  using Map = PendingEntryMap;
  using RemovedRuns = HiddenRuns<PendingKey, Sequence, PendingKeyLess>;

  // `committed`: the snapshot holds entries of the index too.
  PendingIndex(IndexDefinition const& index, bool committed, Arena& arena)
      : index_(&index),
        committed_(committed),
        arena_(&arena),
        map_(&arena),
        sought_(map_.end()),
        fresh_(index.declared_unique()) {}

  IndexDefinition const& index() const { return *index_; }
  bool committed() const { return committed_; }
  // The entries that the written ones overlay; null: none. `committed`: the state that is read.
  View const* Below(View const& committed) const {
    return committed_ ? &committed : untouched_.get();
  }
  // Null: there are none. REQUIRES: the index is created by the transaction.
  void SetUntouched(std::unique_ptr<SortedEntries const> entries) {
    untouched_ = std::move(entries);
  }
  SortedEntries const* untouched() const { return untouched_.get(); }
  // REQUIRES: settled.
  Map const& map() const { return map_; }
  // Whether there may be an entry that is present and whose key is not known to be unique, or one
  // that is removed and may be committed. Most transactions have neither.
  bool has_unproven() const { return has_unproven_; }
  bool has_removed() const { return has_removed_; }
  // Entries that the transaction removed, with none of another kind between them: what a scan
  // steps over at once. Null: none is known around the key.
  RemovedRuns::Run const* FindRemoved(PendingKey const& key, Sequence seen) const {
    return removed_.Find(key, seen);
  }
  // A scan that sees writes up to `seen` found nothing else between the two keys.
  void NoteRemoved(PendingKey const& first, PendingKey const& last, Sequence seen) const {
    if (last_added_ <= seen) removed_.Note(first, last, seen);
  }
  // Their keys may go with the arena.
  void ForgetRemoved() { removed_.Clear(); }
  // Records changes from now on. `undo` must outlive the entries.
  void RecordIn(UndoLog& undo) { undo_ = &undo; }

  // The newest state of an entry that may be committed, or null if the transaction has not touched
  // it.
  PendingEntry const* Find(std::string_view encoded, ObjectId object) const;

  // `keep_history`: an open scan may need the state that is replaced.
  void Add(NewEntry const& added, Sequence now, bool keep_history);
  // The first entry of an object that the transaction inserted. REQUIRES: no scan is open.
  void AddFresh(NewEntry const& added);
  void Remove(PendingKey key, Sequence now, bool keep_history);
  void SetFacts(PendingKey key, KeyFacts facts);

  // Moves the unsorted entries into the map. Sort only sorts them, which is enough for ForEach.
  void Settle();
  void Sort() { fresh_.Sort(); }
  // Calls `visit` with the key and the entry of each, in order. REQUIRES: sorted or settled.
  template <typename Visit>
  void ForEach(Visit&& visit) const {
    auto at = map_.begin();
    fresh_.ForEach([&](FreshEntries::Item const& item) {
      for (; at != map_.end() && map_.key_comp()(at->first, item.key); ++at) {
        visit(at->first, at->second);
      }
      visit(item.key, item.entry);
    });
    for (; at != map_.end(); ++at) visit(at->first, at->second);
  }

  // An object other than the key's with an equal encoding, or kNoObject. Entries with unwritten
  // columns count only with `count_unwritten`.
  ObjectId FindOther(PendingKey key, bool count_unwritten) const;

  void TakeBack(undo::EntryAdded const& added);
  void TakeBack(undo::EntryErased& erased) { map_.insert(std::move(erased.entry)); }

 private:
  bool recording() const { return undo_ != nullptr && undo_->recording(); }
  PendingKey Kept(PendingKey key);
  Map::iterator LowerBound(PendingKey const& key);
  PendingEntry& Change(Map::iterator at, Sequence now, bool keep_history);
  void RecordChange(PendingEntry& entry);
  void Erase(Map::iterator at);
  void SetFactsOf(PendingEntry& entry, KeyFacts facts);
  void SetRemoved(PendingEntry& entry);

  IndexDefinition const* index_;
  bool committed_;
  Arena* arena_;
  UndoLog* undo_ = nullptr;
  bool has_unproven_ = false;
  bool has_removed_ = false;
  Sequence last_added_ = 0;
  mutable RemovedRuns removed_;
  Map map_;
  // The position of the key that was last looked up: it is mostly the next to be added.
  mutable Map::const_iterator sought_;
  FreshEntries fresh_;
  std::unique_ptr<SortedEntries const> untouched_;
};

// An object other than the key's with an equal encoding among the entries that `pending` overlays
// and does not remove, or kNoObject.
ObjectId FindOtherBelow(View const& committed, EntryCursor& cursor, PendingIndex const& pending,
                        PendingKey key);
// Whether the object has this key there already, so that writing the entry again adds no duplicate.
// An index whose building began lately may hold some.
bool HasEntry(View const& committed, EntryCursor& cursor, IndexDefinition const& index,
              PendingKey key);

// A prepared index that the transaction created, or rather took over, and the definition that it
// has from then on.
struct AdoptedIndex {
  IndexDefinition const* prepared = nullptr;
  std::unique_ptr<IndexDefinition const> as;
};

// Prepared indexes over one set that will be over another from the commit on.
struct MovedPrepared {
  std::u16string from;
  std::u16string to;
  std::map<Token, Token> tokens;  // of columns that have others there
};

// ---- the write set -----------------------------------------------------------------------------

class PendingChanges {
 public:
  Arena& arena() { return arena_; }
  // Whether there is so much that the heap holds many pages for it.
  bool large() const;

  PendingRow* FindRow(ObjectId id) const {
    auto const* const found = rows_.Find(Raw(id));
    return found == nullptr ? nullptr : *found;
  }
  bool has_rows() const { return row_count() != 0; }
  std::size_t row_count() const { return rows_.size(); }
  PendingRow& AddRow(ObjectId id);
  // Records undo steps; called before the row, or only one cell of it, is changed.
  void WillChange(PendingRow& row);
  void WillChange(PendingRow& row, Cell& cell);
  Cell* NewCells(Layout const& layout);
  template <typename Visit>
  void ForEachRow(Visit&& visit) const {
    rows_.ForEach([&](std::uint64_t, PendingRow* row) { visit(*row); });
  }

  // A row that this transaction put under the layout; null: there is none.
  PendingRow const* FindExample(LayoutNumber layout) const;
  void NoteExample(PendingRow const& row);

  PendingIndex* FindIndex(IndexId id) const;
  PendingIndex& AddIndex(IndexDefinition const& index, bool committed);
  std::vector<std::unique_ptr<PendingIndex>> const& indexes() const { return indexes_; }

  std::vector<std::unique_ptr<Layout const>> const& layouts() const { return layouts_; }
  void AddLayout(std::unique_ptr<Layout const> layout);
  std::set<LayoutNumber> const& released_layouts() const { return released_; }
  void ReleaseLayout(LayoutNumber number);
  // The sets that the transaction closes. True: commit fails if another transaction has changed an
  // object of the set since the snapshot.
  using ClosedSets = std::map<std::u16string, bool, std::less<>>;
  ClosedSets const& closed_sets() const { return closed_; }
  void CloseSet(std::u16string_view setspec, bool unchanged);
  bool IsClosed(std::u16string_view setspec) const { return closed_.contains(setspec); }
  std::vector<std::unique_ptr<IndexDefinition const>> const& created_indexes() const {
    return created_;
  }
  std::vector<IndexDefinition const*> const& dropped_indexes() const { return dropped_; }
  // `entries`: filled with the objects of its set.
  void CreateIndex(std::unique_ptr<IndexDefinition const> index,
                   std::unique_ptr<PendingIndex> entries);
  // An index that the transaction itself created is forgotten; no other index of it is committed.
  void DropIndex(IndexDefinition const& index);
  std::vector<AdoptedIndex> const& adopted_indexes() const { return adopted_; }
  // Its entries stay those of a committed index.
  void AdoptIndex(AdoptedIndex index);
  // Null: the transaction did not create, or adopt, such an index.
  IndexDefinition const* FindCreated(IndexId id) const;
  AdoptedIndex const* FindAdopted(IndexId id) const;
  bool changes_indexes() const {
    return !created_.empty() || !adopted_.empty() || !dropped_.empty();
  }
  bool IsDropped(IndexId id) const;

  std::vector<MovedPrepared> const& moved_prepared() const { return moved_prepared_; }
  void MovePrepared(MovedPrepared moved);

  // Objects that commit checks like written ones: no other transaction may have changed them.
  bool requires_any() const { return required_.size() != 0 || !required_sets_.empty(); }
  void Require(ObjectId id);
  // Sets whose objects, present and new ones, no other transaction may have changed.
  using RequiredSets = std::set<std::u16string, std::less<>>;
  RequiredSets const& required_sets() const { return required_sets_; }
  void RequireSet(std::u16string_view setspec);
  template <typename Visit>
  void ForEachRequired(Visit&& visit) const {
    required_.ForEach([&](std::uint64_t id, bool) { visit(ObjectId{id}); });
  }

  // ---- savepoints
  struct Mark {
    std::size_t steps = 0;
    Arena::Mark arena;
  };
  // Starts recording changes, until EndRecording.
  Mark SetMark();
  // Undoes what was written since the mark. Calls `forget` with the ids of rows whose cached
  // location is invalid now. REQUIRES: no scan is positioned on an entry that was added since.
  template <typename Forget>
  void RollbackTo(Mark const& mark, Forget&& forget) {
    for (auto const* indexes : {&indexes_, &forgotten_}) {
      for (auto const& index : *indexes) index->ForgetRemoved();
    }
    undo_.TakeBackTo(mark.steps, [&](undo::Step& step) {
      ObjectId const row = std::visit([this](auto& one) { return TakeBack(one); }, step);
      if (row != kNoObject) forget(row);
    });
    arena_.ReleaseTo(mark.arena);
  }
  // No mark is valid any more.
  void EndRecording() { undo_.Stop(); }

  // Sorts the entries of all indexes, for commit.
  void SortEntries();

  // Whether there is nothing to write.
  bool empty() const;
  void Clear();

 private:
  // Each undoes a step and returns the row whose memory or layout changed, or kNoObject.
  ObjectId TakeBack(undo::RowAdded const& added);
  ObjectId TakeBack(undo::CellChanged const& changed);
  ObjectId TakeBack(undo::RowChanged const& changed);
  ObjectId TakeBack(undo::ExampleNoted const& noted);
  ObjectId TakeBack(undo::EntryAdded const& added);
  ObjectId TakeBack(undo::EntryChanged const& changed);
  ObjectId TakeBack(undo::EntryErased& erased);
  ObjectId TakeBack(undo::LayoutAdded const& added);
  ObjectId TakeBack(undo::LayoutReleased const& released);
  ObjectId TakeBack(undo::SetClosed const& closed);
  ObjectId TakeBack(undo::IndexAdded const& added);
  ObjectId TakeBack(undo::IndexAdopted const& adopted);
  ObjectId TakeBack(undo::IndexDropped const& dropped);
  ObjectId TakeBack(undo::PreparedMoved const& moved);
  ObjectId TakeBack(undo::ObjectRequired const& required);
  ObjectId TakeBack(undo::SetRequired const& required);

  Arena arena_;
  UndoLog undo_;  // its steps refer to the arena, so it is destroyed before that
  OidMap<PendingRow*> rows_;
  OidMap<PendingRow const*> examples_;  // by layout number
  OidMap<bool> required_;
  RequiredSets required_sets_;
  OidMap<PendingIndex*> index_by_id_;
  std::vector<std::unique_ptr<PendingIndex>> indexes_;
  std::vector<std::unique_ptr<PendingIndex>> forgotten_;  // dropped; open scans may still use them
  std::vector<std::unique_ptr<Layout const>> layouts_;
  std::set<LayoutNumber> released_;
  ClosedSets closed_;
  std::vector<std::unique_ptr<IndexDefinition const>> created_;
  std::vector<std::unique_ptr<IndexDefinition const>> created_and_dropped_;
  std::vector<AdoptedIndex> adopted_;
  std::vector<IndexDefinition const*> dropped_;
  std::vector<MovedPrepared> moved_prepared_;
};

}  // namespace lscore

#endif
