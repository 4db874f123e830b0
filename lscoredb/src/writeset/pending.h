#ifndef LSCOREDB_SRC_PENDING_H
#define LSCOREDB_SRC_PENDING_H

// What a transaction has written and not committed: rows, index entries, layouts, indexes.
//
// It belongs to one transaction and goes with it. Rows and entries live in its arena; bytes of rows
// may also lie in the snapshot that the transaction reads. Other threads read it only while the
// transaction waits in commit.

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
  bool given_id = false;  // inserted with an identity of the caller's choice
  bool changed = false;
  bool deleted = false;
  bool in_overflow = false;  // the committed image

  bool inserted() const { return original.data() == nullptr; }
  std::span<Cell const> all_cells() const { return {cells, layout->bit_count()}; }
  Cell& cell(std::uint32_t column) const { return cells[column - kFirstStoredColumn]; }
};

// A row to read, whichever form it has. A few words, passed by value; valid until the row is
// written.
struct RowRef {
  ObjectId id{};
  Layout const* layout = nullptr;
  char const* image = nullptr;  // of a row as committed
  union {
    PendingRow const* written = nullptr;  // without an image: of a row that the transaction touched
    std::size_t size;                     // of the image
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

// What the transaction has written lies over entries that it has not touched: those of the
// snapshot, or for an index that it creates those of the objects that were there. Entries of new
// objects stay apart until somebody scans the index, changes one of them or sets a savepoint.
class PendingIndex {
 public:
  using Map = PendingEntryMap;

  // `committed`: the snapshot holds entries of the index too.
  PendingIndex(IndexDefinition const& index, bool committed, Arena& arena)
      : index_(&index),
        committed_(committed),
        arena_(&arena),
        map_(&arena),
        sought_(map_.end()),
        fresh_(index.unique()) {}

  IndexDefinition const& index() const { return *index_; }
  bool committed() const { return committed_; }
  // What the written entries lie over; null: nothing. `committed` is the state that is read.
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
  // From here on changes are recorded. `undo` must outlive the entries.
  void RecordIn(UndoLog& undo) { undo_ = &undo; }

  // The newest state of an entry that may be committed, or null if the transaction has not touched
  // it.
  PendingEntry const* Find(std::string_view encoded, ObjectId object) const;

  // `keep_history`: an open iterator may have to see the state that is replaced.
  void Add(NewEntry const& added, Sequence now, bool keep_history);
  // The first entry of an object that the transaction inserted. REQUIRES: no scan is open.
  void AddFresh(NewEntry const& added);
  void Remove(PendingKey key, Sequence now, bool keep_history);
  void SetFacts(PendingKey key, KeyFacts facts);

  // Brings all entries into the map, which is to be looked at or changed; or only into their order.
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

  // Another object with an entry of this encoding, or none. Entries with unwritten columns count
  // only with `count_unwritten`.
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
  Map map_;
  // Where the key that was looked for last would stand: it mostly is the next to be added.
  mutable Map::const_iterator sought_;
  FreshEntries fresh_;
  std::unique_ptr<SortedEntries const> untouched_;
};

// Another object with an entry of this encoding below those that were written, over `committed`,
// that the transaction leaves, or none.
ObjectId FindOtherBelow(View const& committed, EntryCursor& cursor, PendingIndex const& pending,
                        PendingKey key);

// ---- all of it ---------------------------------------------------------------------------------

class PendingChanges {
 public:
  Arena& arena() { return arena_; }

  PendingRow* FindRow(ObjectId id) const {
    auto const* const found = rows_.Find(Raw(id));
    return found == nullptr ? nullptr : *found;
  }
  PendingRow& AddRow(ObjectId id);
  // To be called before anything of the row changes, or before a cell of it does.
  void WillChange(PendingRow& row);
  void WillChange(PendingRow& row, Cell& cell);
  Cell* NewCells(Layout const& layout);
  template <typename Visit>
  void ForEachRow(Visit&& visit) const {
    rows_.ForEach([&](std::uint64_t, PendingRow* row) { visit(*row); });
  }

  // A row that came under a layout, remembered by the layout's number; null: none was.
  PendingRow const* FindExample(LayoutNumber layout) const;
  void NoteExample(PendingRow const& row);

  PendingIndex* FindIndex(IndexId id) const;
  PendingIndex& AddIndex(IndexDefinition const& index, bool committed);
  std::vector<std::unique_ptr<PendingIndex>> const& indexes() const { return indexes_; }

  std::vector<std::unique_ptr<Layout const>> const& layouts() const { return layouts_; }
  void AddLayout(std::unique_ptr<Layout const> layout);
  std::set<LayoutNumber> const& released_layouts() const { return released_; }
  void ReleaseLayout(LayoutNumber number);
  // Sets that the transaction closes, and whether no object may have been changed in them since the
  // snapshot.
  using ClosedSets = std::map<std::u16string, bool, std::less<>>;
  ClosedSets const& closed_sets() const { return closed_; }
  void CloseSet(std::u16string_view setspec, bool unchanged);
  bool IsClosed(std::u16string_view setspec) const { return closed_.contains(setspec); }
  std::vector<std::unique_ptr<IndexDefinition const>> const& created_indexes() const {
    return created_;
  }
  std::vector<IndexDefinition const*> const& dropped_indexes() const { return dropped_; }
  // With the entries of the objects that are there.
  void CreateIndex(std::unique_ptr<IndexDefinition const> index,
                   std::unique_ptr<PendingIndex> entries);
  // Of an index that the transaction created nothing is left to be committed.
  void DropIndex(IndexDefinition const& index);
  IndexDefinition const* FindCreated(IndexId id) const;
  bool IsDropped(IndexId id) const;

  // Objects that no other transaction may have changed when this one commits.
  bool requires_any() const { return required_.size() != 0; }
  void Require(ObjectId id);
  template <typename Visit>
  void ForEachRequired(Visit&& visit) const {
    required_.ForEach([&](std::uint64_t id, bool) { visit(ObjectId{id}); });
  }

  // ---- savepoints
  struct Mark {
    std::size_t steps = 0;
    Arena::Mark arena;
  };
  // From here on changes are recorded, until EndRecording.
  Mark SetMark();
  // Takes back what was written since. Calls `forget` with the identities of rows that are not to
  // be known any more by where they were. REQUIRES: no scan stands on an entry that was added
  // since.
  template <typename Forget>
  void RollbackTo(Mark const& mark, Forget&& forget) {
    undo_.TakeBackTo(mark.steps, [&](undo::Step& step) {
      ObjectId const row = std::visit([this](auto& one) { return TakeBack(one); }, step);
      if (row != kNoObject) forget(row);
    });
    arena_.ReleaseTo(mark.arena);
  }
  // Nothing can be taken back any more.
  void EndRecording() { undo_.Stop(); }

  // Brings the entries of all indexes into the order in which commit takes them.
  void SortEntries();

  // Nothing is to be written.
  bool empty() const;
  void Clear();

 private:
  // Each returns the row whose position or layout changed, or none.
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
  ObjectId TakeBack(undo::IndexDropped const& dropped);
  ObjectId TakeBack(undo::ObjectRequired const& required);

  Arena arena_;
  UndoLog undo_;  // behind the arena, in which what it keeps lies
  OidMap<PendingRow*> rows_;
  OidMap<PendingRow const*> examples_;  // by layout number
  OidMap<bool> required_;
  OidMap<PendingIndex*> index_by_id_;
  std::vector<std::unique_ptr<PendingIndex>> indexes_;
  std::vector<std::unique_ptr<PendingIndex>> forgotten_;  // iterators may still stand in them
  std::vector<std::unique_ptr<Layout const>> layouts_;
  std::set<LayoutNumber> released_;
  ClosedSets closed_;
  std::vector<std::unique_ptr<IndexDefinition const>> created_;
  std::vector<std::unique_ptr<IndexDefinition const>> created_and_dropped_;
  std::vector<IndexDefinition const*> dropped_;
};

}  // namespace lscore

#endif
