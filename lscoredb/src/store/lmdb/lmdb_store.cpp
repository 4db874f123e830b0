#include "lmdb_store.h"

#include <lmdb.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <thread>
#include <typeinfo>
#include <utility>

#include "bytes.h"
#include "directory.h"
#include "fork.h"
#include "heap.h"
#include "library_call.h"
#include "store_check.h"
#include "store_errors.h"
#include "store_header.h"
#include "store_pages.h"
#include "system_call.h"
#include "write_pause.h"

namespace lscore {
namespace {

MDB_val ValueOf(std::string_view bytes) { return {bytes.size(), const_cast<char*>(bytes.data())}; }

std::string_view BytesOf(MDB_val const& value) {
  return {static_cast<char const*>(value.mv_data), value.mv_size};
}

struct Readers {
  std::uint32_t count;
  std::uint64_t oldest;
};

// Called with each line of the table of readers: process, thread and the state that is read, "-"
// for none.
int NoteReader(char const* line, void* to) {
  auto& readers = *static_cast<Readers*>(to);
  int process = 0;
  std::size_t thread = 0;
  std::uint64_t state = 0;
  if (std::sscanf(line, "%d %zx %" SCNu64, &process, &thread, &state) != 3) return 0;
  ++readers.count;
  readers.oldest = std::min(readers.oldest, state);
  return 0;
}

[[noreturn]] void ThrowDamaged() { Throw(LSCOREDB_DAMAGED); }

StoreFault FaultOf(PageFault const& fault) {
  StoreFault found{StoreFault::Area::kWhole, Tree::kMeta, fault.low, fault.high, fault.what};
  if (fault.tree == pages::kFreeTreeName) found.area = StoreFault::Area::kFreeSpace;
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    if (fault.tree != pages::kTreeNames[i]) continue;
    found.area = StoreFault::Area::kTree;
    found.tree = static_cast<Tree>(i);
  }
  return found;
}

}  // namespace

Status StatusOfStore(int code) {
  switch (code) {
    case MDB_MAP_FULL:
    case MDB_MAP_RESIZED:
      return LSCOREDB_MAP_FULL;
    case MDB_READERS_FULL:
      return LSCOREDB_TOO_MANY_READERS;
    case MDB_BAD_VALSIZE:
    case MDB_TXN_FULL:
      return LSCOREDB_TOO_LARGE;
    case MDB_INVALID:
    case MDB_VERSION_MISMATCH:
      return LSCOREDB_NOT_A_DATABASE;
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case kBrokenPage:
    case MDB_BAD_TXN:  // a call before met a broken page
      return LSCOREDB_DAMAGED;
    default:
      return StatusOfSystem(code);
  }
}

// ---- snapshots ---------------------------------------------------------------------------------

LmdbSnapshot::LmdbSnapshot(LmdbStore const& store, MDB_txn* writing, WriteTurn turn)
    : store_(store), turn_(std::move(turn)), txn_(writing), stops_writing_(true) {
  set_id(CommitId{store.states_before() + state()});
}

LmdbSnapshot::~LmdbSnapshot() { mdb_txn_abort(txn_); }

std::uint64_t LmdbSnapshot::state() const { return mdb_txn_id(txn_) - (stops_writing_ ? 1 : 0); }

int LmdbSnapshot::BeginNew() {
  return Began(mdb_txn_begin(store_.env(), nullptr, MDB_RDONLY, &txn_));
}

int LmdbSnapshot::Renew() { return Began(mdb_txn_renew(txn_)); }

int LmdbSnapshot::Began(int code) {
  if (code == 0) set_id(CommitId{store_.states_before() + state()});
  return code;
}

void LmdbSnapshot::Reset() { mdb_txn_reset(txn_); }

// A snapshot that is renewed on the same state keeps its copy.
bool LmdbSnapshot::CopyHeader() {
  std::uint64_t const state = this->state();
  if (!trees_open_ || state_.state() != state) {
    trees_open_ = false;
    std::atomic_thread_fence(std::memory_order_acquire);
    state_.CopyHeader(store_.map(), store_.page_size(), state);
    std::atomic_thread_fence(std::memory_order_acquire);
  }
  MDB_envinfo info{};
  CheckStore(mdb_env_info(store_.env(), &info));
  return info.me_last_txnid == state;
}

// The copy is of another state when later commits have overwritten the header (BeginSnapshot).
void LmdbSnapshot::OpenTrees() {
  if (trees_open_) return;
  if (state_.state() != state()) ThrowDamaged();
  if (!state_.OpenTrees(store_.FilePages(state_.claimed_pages()))) ThrowDamaged();
  trees_open_ = true;
}

void LmdbSnapshot::OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const {
  if (cursor != nullptr && cursor->IsOf(store_) && typeid(*cursor) == typeid(MappedCursor)) {
    return static_cast<MappedCursor&>(*cursor).Open(state_, tree);
  }
  cursor = std::make_unique<MappedCursor>(store_, state_, tree);
}

// ---- batches -----------------------------------------------------------------------------------

// The turn comes first (store_locks.h), then the library's own lock. The guard then checks what the
// commit will work on.
LmdbBatch::LmdbBatch(LmdbStore& store)
    : store_(store), turn_(store.read_only() ? WriteTurn() : WriteTurn(store.locks())) {
  if (store.read_only()) Throw(LSCOREDB_READ_ONLY_DATABASE);
  if (store.given_up()) ThrowDamaged();
  CheckStore(mdb_txn_begin(store.env(), nullptr, 0, &txn_));
  set_id(CommitId{store.states_before() + mdb_txn_id(txn_)});
  try {
    store.SetSyncOfBatch();
    store.guard().Begin(mdb_txn_id(txn_) - 1);
  } catch (...) {
    mdb_txn_abort(txn_);
    throw;
  }
}

LmdbBatch::~LmdbBatch() {
  if (txn_ != nullptr) mdb_txn_abort(txn_);
}

void LmdbBatch::OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const {
  if (txn_ == nullptr) ThrowDamaged();
  cursor = std::make_unique<LmdbCursor>(store_, txn_, tree);
}

// After a broken page the library's transaction is in an unknown state: it is neither used nor
// aborted any more.
template <typename Write>
int LmdbBatch::CallWriting(Write const& write) {
  if (txn_ == nullptr) ThrowDamaged();
  int const code = CallLibrary(write);
  if (code == kBrokenPage) {
    txn_ = nullptr;
    store_.GiveUpWriting();
    turn_.End();
  }
  return code;
}

bool LmdbBatch::Get(Tree tree, std::string_view key, std::string_view* value) const {
  if (txn_ == nullptr) ThrowDamaged();
  store_.guard().Check(tree, key);
  MDB_val k = ValueOf(key);
  MDB_val v;
  unsigned const handle = store_.Handle(tree);
  int const code = CallLibrary([&] { return mdb_get(txn_, handle, &k, &v); });
  if (code == MDB_NOTFOUND) return false;
  CheckStore(code);
  *value = BytesOf(v);
  return true;
}

int LmdbBatch::PutWith(unsigned flags, Tree tree, std::string_view key, std::string_view value) {
  MDB_val k = ValueOf(key);
  MDB_val v = ValueOf(value);
  if (txn_ == nullptr) ThrowDamaged();
  store_.guard().CheckPut(tree, key, value.size());
  unsigned const handle = store_.Handle(tree);
  int const code = CallWriting([&] { return mdb_put(txn_, handle, &k, &v, flags); });
  if (code != MDB_KEYEXIST) changed_ = true;
  ++writes_;
  return code;
}

void LmdbBatch::Put(Tree tree, std::string_view key, std::string_view value) {
  CheckStore(PutWith(0, tree, key, value));
}

bool LmdbBatch::PutNew(Tree tree, std::string_view key, std::string_view value) {
  int const code = PutWith(MDB_NOOVERWRITE, tree, key, value);
  if (code == MDB_KEYEXIST) return false;
  CheckStore(code);
  return true;
}

void LmdbBatch::Append(Tree tree, std::string_view key, std::string_view value) {
  CheckStore(PutWith(MDB_APPEND, tree, key, value));
}

bool LmdbBatch::Delete(Tree tree, std::string_view key) {
  MDB_val k = ValueOf(key);
  if (txn_ == nullptr) ThrowDamaged();
  store_.guard().CheckDelete(tree, key);
  unsigned const handle = store_.Handle(tree);
  int const code = CallWriting([&] { return mdb_del(txn_, handle, &k, nullptr); });
  if (code == MDB_NOTFOUND) return false;
  changed_ = true;
  ++writes_;
  CheckStore(code);
  return true;
}

void LmdbBatch::Commit() {
  if (txn_ == nullptr) ThrowDamaged();
  if (changed_) store_.guard().CheckCommit();
  if (asks_for_sync()) store_.SyncBatch();
  if (changed_) store_.BeginOwnCommit(*this);
  int const code = CallWriting([this] { return mdb_txn_commit(txn_); });
  txn_ = nullptr;  // the library has ended the transaction in any case
  turn_.End();
  if (changed_) store_.EndOwnCommit(*this, code == 0);
  // A short write is reported as EIO without its reason.
  if (code == EIO && IsDiskFull(store_.env())) Throw(LSCOREDB_DISK_FULL);
  CheckStore(code);
  store_.NoteGrowth();
  store_.NoteWrites(writes_);
}

// ---- cursors over batches ----------------------------------------------------------------------

LmdbCursor::LmdbCursor(LmdbStore const& store, MDB_txn* txn, Tree tree)
    : TreeCursor(store), store_(store), tree_(tree) {
  CheckStore(mdb_cursor_open(txn, store.Handle(tree), &cursor_));
}

LmdbCursor::~LmdbCursor() { mdb_cursor_close(cursor_); }

bool LmdbCursor::Move(int operation, KeyValue* entry) {
  MDB_val k = ValueOf(entry->key);
  MDB_val v{};
  MDB_cursor* const cursor = cursor_;
  int const code = CallLibrary(
      [&] { return mdb_cursor_get(cursor, &k, &v, static_cast<MDB_cursor_op>(operation)); });
  if (code == MDB_NOTFOUND) return false;
  CheckStore(code);
  store_.guard().Check(tree_, BytesOf(k));
  *entry = {BytesOf(k), BytesOf(v)};
  return true;
}

bool LmdbCursor::Seek(std::string_view key, KeyValue* entry) {
  store_.guard().CheckAround(tree_, key);
  KeyValue found{key, {}};
  if (!Move(MDB_SET_RANGE, &found)) return false;
  *entry = found;
  return true;
}

bool LmdbCursor::First(KeyValue* entry) {
  store_.guard().CheckEnd(tree_, true);
  return Move(MDB_FIRST, entry);
}

bool LmdbCursor::Last(KeyValue* entry) {
  store_.guard().CheckEnd(tree_, false);
  return Move(MDB_LAST, entry);
}

bool LmdbCursor::Step(bool forward, KeyValue* entry) {
  store_.guard().CheckAround(tree_, entry->key);
  return Move(forward ? MDB_NEXT : MDB_PREV, entry);
}

// ---- the store ---------------------------------------------------------------------------------

LmdbStore::~LmdbStore() {
  idle_.clear();
  locks_.CeaseWriting();
  for (int const file : files_) ForgetFile(file);
  mdb_env_close(env_);
  if (wrote_much_) ReturnFreeHeap();
}

void LmdbStore::NoteWrites(std::uint64_t records) noexcept {
  constexpr std::uint64_t kMuch = 10000;
  if (records >= kMuch) wrote_much_ = true;
}

void LmdbStore::GiveUpWriting() noexcept {
  given_up_ = true;
  ReleaseWriteLock(env_);  // if it is not found, the end of the thread releases it
}

int LmdbStore::BeginInTurn(LmdbSnapshot& snapshot) {
  ReadersTurn const turn(locks_);
  return snapshot.BeginNew();
}

int LmdbStore::TakeSnapshot(std::unique_ptr<LmdbSnapshot>* out) {
  {
    std::lock_guard const lock(idle_mutex_);
    if (!idle_.empty()) {
      *out = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  if (*out != nullptr) return (*out)->Renew();
  auto snapshot = std::make_unique<LmdbSnapshot>(*this);
  int code = BeginInTurn(*snapshot);
  if (code == MDB_READERS_FULL && FreeDeadReaders()) code = BeginInTurn(*snapshot);
  if (code == 0) *out = std::move(snapshot);
  return code;
}

// The library reads the number of the newest state first and then its description, from one of the
// two headers that commits write in turn. If two commits happen in between, the header belongs to
// another state, or is half written. So the description is copied here and the number compared
// afterwards: while it is still the newest, the second of those commits cannot have begun, and the
// copy is consistent.
std::unique_ptr<LmdbSnapshot> LmdbStore::BeginSnapshot() {
  std::unique_ptr<LmdbSnapshot> snapshot;
  CheckStore(TakeSnapshot(&snapshot));
  while (!snapshot->CopyHeader()) {
    std::unique_ptr<LmdbSnapshot> later;
    int const code = TakeSnapshot(&later);
    if (code == MDB_READERS_FULL && !read_only()) {
      return BeginBetweenCommits(std::move(snapshot));
    }
    CheckStore(code);
    if (later->id() == snapshot->id()) {
      End(std::move(later));
      break;
    }
    End(std::exchange(snapshot, std::move(later)));
  }
  snapshot->OpenTrees();
  return snapshot;
}

std::unique_ptr<LmdbSnapshot> LmdbStore::BeginBetweenCommits(
    std::unique_ptr<LmdbSnapshot> snapshot) {
  LmdbBatch const pause(*this);
  snapshot->Reset();
  CheckStore(snapshot->Renew());
  snapshot->CopyHeader();
  snapshot->OpenTrees();
  return snapshot;
}

std::unique_ptr<Snapshot> LmdbStore::BeginVerified(FaultReport const& report) {
  pages::Header header;
  std::unique_ptr<LmdbSnapshot> snapshot =
      given_up() || read_only() ? BeginBesideWriters(&header) : BeginWithHeader(&header);
  ScanPages(FileOf(env_), header, PageDepth::kAll,
            [&](PageFault const& fault) { report(FaultOf(fault)); });
  return snapshot;
}

std::unique_ptr<LmdbSnapshot> LmdbStore::BeginWithHeader(pages::Header* header) {
  std::unique_ptr<LmdbSnapshot> snapshot;
  WritePause pause(locks_, env_);
  std::optional<pages::Header> const found = pages::FindHeader(FileOf(env_), pause.state());
  if (!found) ThrowDamaged();
  *header = *found;
  int const code = TakeSnapshot(&snapshot);
  if (code == MDB_READERS_FULL) {
    snapshot = std::make_unique<LmdbSnapshot>(*this, pause.txn(), pause.ReleaseTurn());
    static_cast<void>(pause.Release());
  } else {
    CheckStore(code);
  }
  snapshot->CopyHeader();
  snapshot->OpenTrees();
  return snapshot;
}

// Accepts a header when two readings agree: nobody wrote it in between, unless very slowly.
std::unique_ptr<LmdbSnapshot> LmdbStore::BeginBesideWriters(pages::Header* header) {
  constexpr int kAttempts = 1000;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::unique_ptr<LmdbSnapshot> snapshot = BeginSnapshot();
    std::uint64_t const state = snapshot->state();
    std::optional<pages::Header> const found = pages::FindHeader(FileOf(env_), state);
    std::this_thread::yield();
    if (found && found == pages::FindHeader(FileOf(env_), state)) {
      *header = *found;
      return snapshot;
    }
    End(std::move(snapshot));
  }
  ThrowDamaged();
}

void LmdbStore::Verify() {
  End(BeginVerified([](StoreFault const&) { ThrowDamaged(); }));
}

void LmdbStore::End(std::unique_ptr<Snapshot> snapshot) noexcept {
  std::unique_ptr<LmdbSnapshot> ended(static_cast<LmdbSnapshot*>(snapshot.release()));
  if (ended->stops_writing()) return;
  ended->Reset();
  std::lock_guard const lock(idle_mutex_);
  try {
    idle_.push_back(std::move(ended));
  } catch (std::bad_alloc const&) {
    ended.reset();  // not kept for reuse
  }
}

std::uint64_t LmdbStore::FilePages(std::uint64_t claimed) const {
  std::uint64_t known = file_pages_.load(std::memory_order_relaxed);
  if (claimed <= known) return known;
  struct stat status {};
  if (fstat(FileOf(env_), &status) != 0) Throw(LSCOREDB_IO_ERROR);
  known = static_cast<std::uint64_t>(status.st_size) / page_size_;
  file_pages_.store(known, std::memory_order_relaxed);
  return known;
}

bool LmdbStore::FreeDeadReaders() {
  int dead = 0;
  ReadersTurn const turn(locks_);
  CheckStore(mdb_reader_check(env_, &dead));
  return dead != 0;
}

// A file grows when no free page can be reused, maybe because of the slot of a reader whose process
// died: such slots are freed.
void LmdbStore::NoteGrowth() noexcept {
  MDB_envinfo info{};
  if (mdb_env_info(env_, &info) != 0) return;
  if (last_page_.exchange(info.me_last_pgno) >= info.me_last_pgno) return;
  // A failure is ignored: the next growth tries again.
  static_cast<void>(Guarded([this] {
    FreeDeadReaders();
    return LORV_STATUS_OK;
  }));
}

StoreStatistics LmdbStore::Statistics() const {
  MDB_envinfo info{};
  CheckStore(mdb_env_info(env_, &info));
  Readers readers{0, info.me_last_txnid};
  if (mdb_reader_list(env_, &NoteReader, &readers) < 0) Throw(LSCOREDB_IO_ERROR);
  StoreStatistics statistics;
  statistics.file_size = (info.me_last_pgno + 1) * page_size_;
  statistics.max_file_size = info.me_mapsize;
  statistics.last_commit = CommitId{states_before_ + info.me_last_txnid};
  statistics.oldest_commit = CommitId{states_before_ + readers.oldest};
  statistics.readers = readers.count;
  statistics.max_readers = info.me_maxreaders;
  if (sync_) statistics.synced_commit = statistics.last_commit;
  return statistics;
}

// The library does so when it begins to write. No page is written here, so none has to be checked.
void LmdbStore::Settle() {
  if (read_only()) Throw(LSCOREDB_READ_ONLY_DATABASE);
  if (given_up()) ThrowDamaged();
  WritePause const pause(locks_, env_);
}

// Other processes sync from now on; what was committed before is synced here.
void LmdbStore::RequireSync() {
  if (read_only() || in_memory_) return;
  RequireSyncFromNowOn();
  SyncName();
  WritePause const pause(locks_, env_);
  CheckStore(mdb_env_sync(env_, 1));
}

void LmdbStore::RequireSyncFromNowOn() {
  if (read_only() || in_memory_ || sync_) return;
  locks_.RequireSync();
  sync_ = true;
  WritePause const pause(locks_, env_);
  CheckStore(mdb_env_set_flags(env_, MDB_NOSYNC, 0));
}

// The data file's name in its directory, which a creation without sync has not synced.
void LmdbStore::SyncName() const {
  char const* directory = nullptr;
  CheckStore(mdb_env_get_path(env_, &directory));
  SyncDirectory(directory);
}

void LmdbStore::Sync() {
  if (read_only() || in_memory_ || sync_) return;
  SyncName();
  CheckStore(mdb_env_sync(env_, 1));
}

void LmdbStore::SyncBatch() {
  if (in_memory_ || sync_) return;
  SyncName();
  CheckStore(mdb_env_set_flags(env_, MDB_NOSYNC, 0));
}

void LmdbStore::SetSyncOfBatch() {
  if (sync_) return;
  int const sync = locks_.OthersRequireSync() ? 1 : 0;
  CheckStore(mdb_env_set_flags(env_, MDB_NOSYNC, 1 - sync));
}

}  // namespace lscore
