#include <filesystem>
#include <random>

#include "format.h"
#include "log_store.h"
#include "open_error.h"
#include "status.h"

namespace lscore {

using logformat::ImagePosition;

namespace {

logformat::Identity NewIdentity() {
  std::random_device random;
  logformat::Identity identity{};
  for (std::size_t i = 0; i < identity.size(); i += sizeof(std::uint32_t)) {
    StoreAt(identity.data() + i, static_cast<std::uint32_t>(random()));
  }
  return identity;
}

void CheckContent(std::string_view format) {
  auto const version = Load<std::uint32_t>(format.data() + format::kMagic.size());
  if (version > format::kNewestVersion) Throw(LSCOREDB_NEWER_FORMAT);
}

// Reads the newest state through a snapshot or, when no reader slot is left, through a batch.
template <typename Read>
void WithNewest(Store& image, Read const& read) {
  std::unique_ptr<Snapshot> snapshot;
  Status const status = Guarded([&] {
    snapshot = image.Begin();
    return LORV_STATUS_OK;
  });
  if (status == LSCOREDB_TOO_MANY_READERS && !image.read_only()) return read(*image.BeginBatch());
  Check(status);
  read(*snapshot);
  image.End(std::move(snapshot));
}

}  // namespace

// Writes the log's record and the new format version into the image in one batch. The words that
// processes share come first: where they cannot be made, the image stays as it is. The log's files
// are created by the first commit.
void LogStore::Convert(Store& image, std::string const& directory) {
  LogBoard words;
  words.Open(directory);
  std::unique_ptr<Batch> const batch = image.BeginBatch();
  std::string_view format;
  if (!batch->Get(Tree::kMeta, format::kFormatKey, &format)) Throw(LSCOREDB_NOT_A_DATABASE);
  batch->Put(Tree::kMeta, format::kFormatKey, logformat::ImageFormat(*batch, std::string(format)));
  ImagePosition position;
  position.identity = NewIdentity();
  position.generation = logformat::Generation{1};
  position.commit = batch->id();
  position.clean = true;
  logformat::WritePosition(*batch, position);
  batch->Delete(Tree::kMeta, format::kNoLogKey);
  batch->AskForSync();  // a power failure must leave it with or without a log, nothing between
  batch->Commit();
}

void LogStore::Refuse(Store& image) {
  std::unique_ptr<Batch> const batch = image.BeginBatch();
  logformat::WriteRefusal(*batch);
  batch->Commit();
  image.SetLogState(LogState::kRefused);
}

// Under the door lock, which LogBoard::Open takes: a process that is alone recovers the log, any
// other joins those that have it open. Where nobody writes, there is nobody to share words with.
std::unique_ptr<LogStore> LogStore::Open(std::unique_ptr<Store>& image, std::string directory,
                                         StoreOptions const& options) {
  std::optional<ImagePosition> position;
  WithNewest(*image, [&](View const& view) {
    position = logformat::FindPosition(view);
    if (position.has_value()) CheckContent(logformat::ContentFormat(view));
    bool const refused = !position.has_value() && logformat::RefusesLog(view);
    image->SetLogState(refused ? LogState::kRefused : LogState::kNone);
  });
  if (!position.has_value()) return nullptr;
  // Files are opened later too, and the host may change its working directory.
  directory = std::filesystem::absolute(directory).string();
  std::unique_ptr<LogStore> store(
      new LogStore(std::move(image), std::move(directory), options, *position));
  if (store->frozen()) {
    store->board_.OpenPrivately();
  } else {
    store->board_.Open(store->directory_);
  }
  if (store->board_.TryBeAlone()) {
    store->Recover();
  } else {
    store->board_.Share();
    store->Join();
  }
  store->open_ = true;
  store->board_.Release(LogBoard::Lock::kDoor);
  if (options.verify) store->Verify();
  return store;
}

// A process that only reads does not settle the image: it leaves the writing mark, so that the next
// one to write does, and may read the state before a commit that never returned.
void LogStore::Recover() {
  if (!read_only()) image_->Settle();
  std::unique_ptr<Snapshot> image = image_->Begin();
  ImagePosition const position = logformat::ReadPosition(*image);
  tail_.Restart(*image, position);
  image_->End(std::move(image));
  // The log's files of a clean image go only once it is durable. Any other image may have a last
  // state that its writer did not live to see on the disk.
  if (!position.clean || files_.AreThere()) image_->RequireSync();
  board_.Reset();
  board_.RaiseSynced(position.commit);
  if (!position.clean) RecoverFromFiles(position);
  board_.SetGeneration(Raw(tail_.position().generation));
  board_.SetPublished(tail_.applied());
  board_.SetWriting(read_only());
  board_.Share();
}

// Applies the part of the log that the image does not hold. A record that is not whole ends the
// log, unless a later one shows that it was synced once (LogFiles::HasSyncedAfter). What was read
// is synced before it is published: after a crash it may be only in the system's cache.
void LogStore::RecoverFromFiles(ImagePosition const& position) {
  if (!files_.Open()) Throw(LSCOREDB_DAMAGED);
  files_.CheckTitles();
  while (tail_.Advance()) {
  }
  if (files_.HasSyncedAfter(tail_.position())) Throw(LSCOREDB_DAMAGED);
  used_ = true;
  bool const sync = options_.sync && !read_only();
  if (sync && tail_.applied() > position.commit) SyncUpTo(tail_.applied());
}

// Starts at the image. Records are read when a snapshot or a batch needs them.
void LogStore::Join() {
  std::unique_ptr<Snapshot> image = image_->Begin();
  tail_.Restart(*image, logformat::ReadPosition(*image));
  image_->End(std::move(image));
}

LogStore::~LogStore() {
  if (!open_ || read_only()) return;
  bool const late = late_.running();
  late_.Stop();
  static_cast<void>(Guarded([&] {
    board_.Take(LogBoard::Lock::kDoor);
    if (board_.TryBeAlone()) {
      CloseAlone();
    } else if (late) {
      Sync();
    }
    return LORV_STATUS_OK;
  }));
}

// The last process to close leaves an image that holds everything, and removes the files of the
// log. If that fails, the next opening recovers from the log.
void LogStore::CloseAlone() {
  CatchUp(board_.Published());
  if (board_.Writing()) FinishForOther();
  std::unique_ptr<Snapshot> image = image_->Begin();
  ImagePosition const position = logformat::ReadPosition(*image);
  image_->End(std::move(image));
  if (position.clean && position.commit == tail_.applied()) return;
  if (tail_.layers()->active->changes.nodes() > kMostInBatch) {
    Rotate(IfNotKept::kLeaveGap);
    WriteFrozen(*tail_.layers(), kAll, IfNotKept::kLeaveGap);
  }
  WriteAll(*tail_.layers(), tail_.applied(), true);
  files_.Remove();
}

}  // namespace lscore
