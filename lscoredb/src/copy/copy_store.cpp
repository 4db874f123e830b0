#include "copy_store.h"

#include <string>
#include <utility>

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "open_error.h"
#include "open_store.h"
#include "server_place.h"
#include "status.h"
#include "watched_work.h"

namespace lscore {
namespace {

// A batch keeps what it writes in memory until it is committed, so large trees take several.
constexpr std::size_t kBatchBytes = std::size_t{32} << 20;

class Copier {
 public:
  // `size`: about how many bytes there are to copy; 0: not known.
  Copier(View const& from, Store& to, std::uint64_t size)
      : from_(from), to_(to), work_(WorkShare{}, size) {}

  // The format record is removed first and written last, with a sync: a copy that was interrupted
  // has none and is no database. The trees before are appended in key order without syncs.
  void Run() {
    TakeFormat();
    for (Tree const tree : {Tree::kRows, Tree::kOverflow, Tree::kIndex, Tree::kDefinitions}) {
      CopyTree(tree);
    }
    to_.RequireSync();  // the next commit syncs the earlier ones too
    FinishMeta();
  }

 private:
  void TakeFormat() {
    std::unique_ptr<Batch> const batch = to_.BeginBatch();
    std::string_view format;
    from_.Get(Tree::kMeta, format::kFormatKey, &format);
    format_ = format;
    batch->Delete(Tree::kMeta, format::kFormatKey);
    batch->Commit();
  }

  void CopyTree(Tree tree) {
    Cursor cursor;
    cursor.Open(from_, tree);
    for (bool more = cursor.First(); more;) {
      std::unique_ptr<Batch> const batch = to_.BeginBatch();
      for (std::size_t bytes = 0; more && bytes < kBatchBytes; more = cursor.Next()) {
        batch->Append(tree, cursor.key(), cursor.value());
        std::size_t const record = cursor.key().size() + cursor.value().size();
        bytes += record;
        work_.Advance(record);
      }
      batch->Commit();
    }
  }

  // Images of rows name the commit that wrote them, but the new store counts its own from the
  // start. The record kStatesBeforeKey is the number to add, so that no row is from the future.
  void FinishMeta() {
    std::unique_ptr<Batch> const batch = to_.BeginBatch();
    Cursor cursor;
    cursor.Open(from_, Tree::kMeta);
    for (bool more = cursor.First(); more; more = cursor.Next()) {
      batch->Put(Tree::kMeta, cursor.key(), cursor.value());
    }
    std::string before;
    Append(before, Raw(from_.id()));
    PutChecked(*batch, Tree::kMeta, format::kStatesBeforeKey, before);
    batch->Put(Tree::kMeta, format::kFormatKey, format_);
    batch->Commit();
  }

  View const& from_;
  Store& to_;
  std::string format_;
  WatchedWork work_;
};

constexpr std::uint64_t kFirstState = 1;  // of a new store on a server

[[noreturn]] void RefuseTarget(char const* url) {
  NoteOpenError("the database at " + ShownPlace(url), "it exists already");
  Throw(LSCOREDB_CANNOT_OPEN);
}

}  // namespace

CommitId CopyStore(Store& store, char const* directory) {
  StoreOptions options;
  options.sync = false;
  std::uint64_t const max_file_size = store.Statistics().max_file_size;
  if (max_file_size != 0) options.max_file_size = max_file_size;  // a server has none
  // The caller has checked that a directory is empty.
  bool const on_server = IsServerUrl(directory);
  if (on_server && StoreExists(directory)) RefuseTarget(directory);
  std::unique_ptr<Store> const target = OpenStore(directory, options);
  std::shared_ptr<void> alone = target->LockCreation();
  if (on_server && Raw(target->Statistics().last_commit) != kFirstState) RefuseTarget(directory);
  std::unique_ptr<Snapshot> snapshot = store.Begin();
  CommitId const state = snapshot->id();
  try {
    Copier(*snapshot, *target, store.Statistics().file_size).Run();
  } catch (...) {
    store.End(std::move(snapshot));
    WatchHold const hold;
    static_cast<void>(Guarded([&]() -> Status {
      target->Discard(std::move(alone));
      return LORV_STATUS_OK;
    }));
    throw;
  }
  store.End(std::move(snapshot));
  return state;
}

}  // namespace lscore
