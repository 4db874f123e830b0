#include "store.h"

#include "layout_board.h"
#include "open_error.h"

namespace lscore {

void View::GetMany(Tree tree, std::span<std::string_view const> keys,
                   std::span<std::optional<std::string_view>> values) const {
  for (std::size_t i = 0; i < keys.size(); ++i) {
    std::string_view value;
    values[i].reset();
    if (Get(tree, keys[i], &value)) values[i] = value;
  }
}

// Seeks anew for each entry, since a write ends the cursors of a batch.
// Each search begins where the last entry was: one from the beginning would pass all that are
// removed by now, which an overlay keeps.
void Batch::RemoveRange(Tree tree, std::string_view low, std::string_view high) {
  for (std::string key(low);;) {
    {
      Cursor cursor;
      cursor.Open(*this, tree);
      if (!cursor.Seek(key)) return;
      key = cursor.key();
    }
    if (key >= high) return;
    Delete(tree, key);
  }
}

Store::Store() : reservations_(std::make_shared<MemoryReservations>()) {}

void Store::BeginOwnCommit(Batch const& batch) {
  foreign_commits_.BeginCommit(batch.id(), [&](CommitId after, std::vector<ObjectId>* changed) {
    return ListChanges(batch, after, changed);
  });
}

void Store::EndOwnCommit(Batch const& batch, bool succeeded) {
  foreign_commits_.EndCommit(batch.id(), succeeded);
}

void Store::KeepChanges(Retention const&) { Throw(LSCOREDB_CHANGES_UNSUPPORTED); }

KeptChanges Store::Kept() { Throw(LSCOREDB_CHANGES_UNSUPPORTED); }

std::unique_ptr<ChangeSource> Store::OpenChanges(CommitId) { Throw(LSCOREDB_CHANGES_UNSUPPORTED); }

bool Store::ListChanges(View const&, CommitId, std::vector<ObjectId>*) const { return false; }

std::shared_ptr<void> Store::LockCreation() {
  try {
    return WaitForCreationLock();
  } catch (Failure const& failure) {
    if (failure.status() != LSCOREDB_CONFLICT) throw;
    NoteOpenError(ShownName(), "another process has not finished creating it");
    Throw(LSCOREDB_CANNOT_OPEN);
  }
}

}  // namespace lscore
