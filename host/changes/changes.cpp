#include <algorithm>
#include <sagleme/changes.hpp>
#include <utility>

#include "changes/table_names.h"

namespace sagleme {
namespace {

static_assert(static_cast<std::uint32_t>(ChangeKind::kCreated) == LSCOREDB_CHANGE_CREATED &&
              static_cast<std::uint32_t>(ChangeKind::kMoved) == LSCOREDB_CHANGE_MOVED &&
              static_cast<std::uint32_t>(ChangeKind::kSchema) == LSCOREDB_CHANGE_SCHEMA);

struct Close {
  void operator()(lscoredb_changes* changes) const { lscoredb_changes_close(changes); }
};
using Handle = std::unique_ptr<lscoredb_changes, Close>;

Handle Opened(Database const& database, ChangePosition const& after) {
  lscoredb_changes* changes = nullptr;
  detail::CheckKernel(
      lscoredb_changes_open(database.handle(), after.commit, after.place, &changes));
  return Handle(changes);
}

int Milliseconds(std::chrono::milliseconds limit) {
  constexpr std::chrono::milliseconds::rep kMost = std::numeric_limits<std::int32_t>::max();
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(limit.count(), 0, kMost));
}

}  // namespace

void KeepChanges(Database const& database, ChangeRetention const& retention) {
  detail::CheckKernel(lscoredb_keep_changes(database.handle(), retention.bytes, retention.seconds));
}

KeptChanges Kept(Database const& database) {
  lscoredb_kept_changes kept{};
  kept.size = sizeof kept;
  detail::CheckKernel(lscoredb_kept(database.handle(), &kept));
  return {{kept.bytes, kept.seconds}, kept.first, kept.last};
}

// Whether a change is the last of its transaction is known only when what follows it is known not
// to be shown. So one change is held back; the kernel has read the whole transaction anyway.
class Changes::Reader {
 public:
  Reader(Database const& database, ChangePosition const& after)
      : changes_(Opened(database, after)), names_(database) {}

  std::optional<DataChange> Next() {
    for (;;) {
      if (held_.has_value() && held_->last) return std::exchange(held_, std::nullopt);
      if (told_ == nullptr) detail::CheckKernel(lscoredb_changes_next(changes_.get(), &told_));
      if (told_ == nullptr) return std::nullopt;
      std::optional<DataChange> shown = Shown(*told_);
      lscoredb_change const& change = *std::exchange(told_, nullptr);
      std::optional<DataChange> before;
      if (shown.has_value()) before = std::exchange(held_, std::move(shown));
      if (change.last != 0) EndTransaction(change.place);
      if (before.has_value()) return before;
    }
  }

  bool Wait(std::chrono::milliseconds limit) {
    if (told_ != nullptr || (held_.has_value() && held_->last)) return true;
    std::uint32_t some = 0;
    detail::CheckKernel(lscoredb_changes_wait(changes_.get(), Milliseconds(limit), &some));
    return some != 0;
  }

  int file() const {
    int file = -1;
    detail::CheckKernel(lscoredb_changes_file(changes_.get(), &file));
    return file;
  }

 private:
  // Who goes on after the last change that is shown is not given the hidden ones behind it.
  void EndTransaction(std::uint32_t place) {
    schema_told_ = false;
    if (!held_.has_value()) return;
    held_->last = true;
    held_->position.place = place;
  }

  // Nothing for what is not shown: changes of the catalogue but the first of a transaction.
  std::optional<DataChange> Shown(lscoredb_change const& from) {
    DataChange change;
    change.position = {from.commit, from.place};
    change.transaction = from.transaction;
    change.time = from.time;
    bool const schema = from.kind == LSCOREDB_CHANGE_SCHEMA;
    TableNames const* const table = schema ? nullptr : names_.Find(from.setspec);
    if (schema || (table != nullptr && table->system)) {
      names_.Forget();
      if (std::exchange(schema_told_, true)) return std::nullopt;
      return change;
    }
    change.kind = static_cast<ChangeKind>(from.kind);
    change.object = ObjectId{from.object};
    if (table != nullptr) Name(*table, from, &change);
    if (from.former_setspec != nullptr) {
      TableNames const* const former = names_.Find(from.former_setspec);
      if (former != nullptr) change.former_table = former->name;
    }
    return change;
  }

  static void Name(TableNames const& table, lscoredb_change const& from, DataChange* change) {
    change->table = table.name;
    for (std::uint32_t i = 0; i < from.column_count; ++i) {
      auto const column = table.columns.find(from.columns[i]);
      if (column != table.columns.end()) change->columns.push_back(column->second);
    }
  }

  Handle changes_;
  NamesOfTables names_;
  lscoredb_change const* told_ = nullptr;  // whose names could not be read yet
  std::optional<DataChange> held_;
  bool schema_told_ = false;
};

Changes::Changes(Database const& database, ChangePosition const& after)
    : reader_(std::make_unique<Reader>(database, after)) {}
Changes::~Changes() = default;
Changes::Changes(Changes&&) noexcept = default;
Changes& Changes::operator=(Changes&&) noexcept = default;

std::optional<DataChange> Changes::Next() { return reader_->Next(); }
bool Changes::Wait(std::chrono::milliseconds limit) { return reader_->Wait(limit); }
int Changes::file() const { return reader_->file(); }

}  // namespace sagleme
