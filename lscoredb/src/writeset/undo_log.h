#ifndef LSCOREDB_SRC_UNDO_LOG_H
#define LSCOREDB_SRC_UNDO_LOG_H

// An undo log of what a transaction wrote since its oldest open savepoint.
//
// Each change of the write set records a step before it is made. Steps are undone newest first, so
// that each finds the write set as its change left it. A change that failed after its step was
// recorded may be undone too. Nothing is recorded while no savepoint is open. One thread at a time.

#include <cstddef>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ids.h"
#include "pending_entry.h"
#include "row.h"

namespace lscore {

struct PendingRow;
class PendingIndex;

namespace undo {

struct RowAdded {
  ObjectId id{};
};
struct CellChanged {
  PendingRow* row = nullptr;
  Cell* cell = nullptr;
  Cell before;
  bool changed = false;  // the row, before
};
struct RowChanged {
  PendingRow* row = nullptr;
  PendingRow const* before = nullptr;  // a copy that shares its cells
};
struct ExampleNoted {
  LayoutNumber layout{};
  PendingRow const* before = nullptr;
};
struct EntryAdded {
  PendingIndex* index = nullptr;
  PendingKey key;
};
struct EntryChanged {
  PendingEntry* entry = nullptr;
  PendingEntry before;
};
struct EntryErased {
  PendingIndex* index = nullptr;
  PendingEntryMap::node_type entry;
};
// The sizes of the write set's lists before the change: layouts, indexes with entries, created
// ones.
struct LayoutAdded {
  std::size_t layouts = 0;
};
struct LayoutReleased {
  LayoutNumber number{};
};
struct SetClosed {
  std::u16string setspec;
};
struct IndexAdded {
  std::size_t indexes = 0;
  std::size_t created = 0;
};
struct IndexAdopted {
  std::size_t adopted = 0;  // the number of those before
};
struct IndexDropped {
  static constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);
  std::size_t entries_at = kNowhere;
  std::size_t created_at = kNowhere;
};
struct PreparedMoved {
  std::size_t moved = 0;  // the number of those before
};
struct ObjectRequired {
  ObjectId id{};
};
struct SetRequired {
  std::u16string setspec;
};

using Step = std::variant<RowAdded, CellChanged, RowChanged, ExampleNoted, EntryAdded, EntryChanged,
                          EntryErased, LayoutAdded, LayoutReleased, SetClosed, IndexAdded,
                          IndexAdopted, IndexDropped, PreparedMoved, ObjectRequired, SetRequired>;

}  // namespace undo

class UndoLog {
 public:
  bool recording() const { return recording_; }
  std::size_t size() const { return steps_.size(); }
  void Start() { recording_ = true; }
  // Forgets all steps.
  void Stop() {
    recording_ = false;
    if (steps_.capacity() > kKept) steps_ = std::vector<undo::Step>();
    steps_.clear();
  }

  // REQUIRES: recording(). The reference is valid until the next step.
  template <typename Step>
  Step& Record(Step step) {
    return std::get<Step>(steps_.emplace_back(std::move(step)));
  }

  // Visits the steps after the first `size`, newest first, and removes them.
  template <typename Visit>
  void TakeBackTo(std::size_t size, Visit&& visit) {
    for (; steps_.size() > size; steps_.pop_back()) visit(steps_.back());
  }

 private:
  static constexpr std::size_t kKept = 1024;

  bool recording_ = false;
  std::vector<undo::Step> steps_;
};

}  // namespace lscore

#endif
