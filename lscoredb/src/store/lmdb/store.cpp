#include "store.h"

#include <lmdb.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "store_check.h"
#include "store_errors.h"

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

// Gets the table of readers as text, one line each: process, thread and the state that is read, "-"
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
      return LSCOREDB_DAMAGED;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return LSCOREDB_DISK_FULL;
    case ENOMEM:
      return LSCOREDB_NO_MEMORY;
    default:
      return LSCOREDB_IO_ERROR;
  }
}

// ---- views -------------------------------------------------------------------------------------

bool View::Get(Tree tree, std::string_view key, std::string_view* value) const {
  MDB_val k = ValueOf(key);
  MDB_val v;
  int const code = mdb_get(txn_, store_->Handle(tree), &k, &v);
  if (code == MDB_NOTFOUND) return false;
  CheckStore(code);
  CheckPlace(BytesOf(v));
  *value = BytesOf(v);
  return true;
}

void View::ThrowDamaged() { Throw(LSCOREDB_DAMAGED); }

CommitId View::id() const { return CommitId{store_->states_before_ + mdb_txn_id(txn_)}; }

Snapshot::~Snapshot() { mdb_txn_abort(txn_); }

Batch::Batch(Store& store) : View(store, nullptr, false) {
  CheckStore(mdb_txn_begin(store.env_, nullptr, 0, &txn_));
}

Batch::~Batch() {
  if (txn_ != nullptr) mdb_txn_abort(txn_);
}

void Batch::Put(Tree tree, std::string_view key, std::string_view value) {
  MDB_val k = ValueOf(key);
  MDB_val v = ValueOf(value);
  changed_ = true;
  CheckStore(mdb_put(txn_, store_->Handle(tree), &k, &v, 0));
}

bool Batch::PutNew(Tree tree, std::string_view key, std::string_view value) {
  MDB_val k = ValueOf(key);
  MDB_val v = ValueOf(value);
  int const code = mdb_put(txn_, store_->Handle(tree), &k, &v, MDB_NOOVERWRITE);
  if (code == MDB_KEYEXIST) return false;
  changed_ = true;
  CheckStore(code);
  return true;
}

void Batch::Append(Tree tree, std::string_view key, std::string_view value) {
  MDB_val k = ValueOf(key);
  MDB_val v = ValueOf(value);
  changed_ = true;
  CheckStore(mdb_put(txn_, store_->Handle(tree), &k, &v, MDB_APPEND));
}

bool Batch::Delete(Tree tree, std::string_view key) {
  MDB_val k = ValueOf(key);
  int const code = mdb_del(txn_, store_->Handle(tree), &k, nullptr);
  if (code == MDB_NOTFOUND) return false;
  changed_ = true;
  CheckStore(code);
  return true;
}

void Batch::Commit() {
  CommitId const state = id();
  MDB_txn* const txn = txn_;
  txn_ = nullptr;  // the store ends the transaction whatever comes of it
  if (changed_) store_->watch_.BeginCommit(state);
  int const code = mdb_txn_commit(txn);
  if (changed_) store_->watch_.EndCommit(state, code == 0);
  // A write that only found room for a part comes back without the reason.
  if (code == EIO && IsDiskFull(store_->env_)) Throw(LSCOREDB_DISK_FULL);
  CheckStore(code);
  store_->NoteGrowth();
}

// ---- cursors -----------------------------------------------------------------------------------

void Cursor::Open(View const& view, Tree tree) {
  bool const of_snapshot = view.frozen_;
  view_ = &view;
  behind_ = false;
  leaf_.Leave();
  if (cursor_ != nullptr && of_snapshot && of_snapshot_ && tree == tree_) {
    CheckStore(mdb_cursor_renew(view.txn_, cursor_));
    return;
  }
  Close();
  CheckStore(mdb_cursor_open(view.txn_, view.store_->Handle(tree), &cursor_));
  tree_ = tree;
  of_snapshot_ = of_snapshot;
}

void Cursor::Close() {
  if (cursor_ != nullptr) mdb_cursor_close(cursor_);
  cursor_ = nullptr;
}

bool Cursor::Move(int operation) {
  behind_ = false;
  leaf_.Leave();
  MDB_val k = ValueOf(key_);
  MDB_val v{};
  int const code = mdb_cursor_get(cursor_, &k, &v, static_cast<MDB_cursor_op>(operation));
  if (code == MDB_NOTFOUND) return false;
  CheckStore(code);
  view_->CheckPlace(BytesOf(k));
  view_->CheckPlace(BytesOf(v));
  key_ = BytesOf(k);
  value_ = BytesOf(v);
  return true;
}

bool Cursor::Seek(std::string_view key) {
  key_ = key;
  return Move(MDB_SET_RANGE);
}

bool Cursor::First() { return Move(MDB_FIRST); }
bool Cursor::Last() { return Move(MDB_LAST); }
bool Cursor::Next() { return Step(MDB_NEXT); }
bool Cursor::Previous() { return Step(MDB_PREV); }

bool Cursor::Step(int operation) {
  bool const forward = operation == MDB_NEXT;
  if (EnterLeaf() && (forward ? leaf_.Next(&key_, &value_) : leaf_.Previous(&key_, &value_))) {
    behind_ = true;
    return true;
  }
  if (behind_ && !Move(MDB_SET)) View::ThrowDamaged();
  return Move(operation);
}

bool Cursor::EnterLeaf() {
  if (leaf_.inside()) return true;
  if (!of_snapshot_ || view_->begin_ == 0) return false;
  std::size_t const size = view_->store_->page_size_;
  std::size_t const place = reinterpret_cast<std::uintptr_t>(key_.data()) - view_->begin_;
  return leaf_.Enter(key_.data() - place % size, size, key_.data());
}

// ---- the store ---------------------------------------------------------------------------------

Store::~Store() {
  idle_.clear();
  mdb_env_close(env_);
}

int Store::NewSnapshot(std::unique_ptr<Snapshot>* out) {
  auto snapshot = std::make_unique<Snapshot>(*this, nullptr);
  int code = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &snapshot->txn_);
  if (code == MDB_READERS_FULL && FreeDeadReaders()) {
    code = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &snapshot->txn_);
  }
  if (code == 0) *out = std::move(snapshot);
  return code;
}

int Store::TakeSnapshot(std::unique_ptr<Snapshot>* out) {
  {
    std::lock_guard const lock(idle_mutex_);
    if (!idle_.empty()) {
      *out = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  return *out == nullptr ? NewSnapshot(out) : mdb_txn_renew((*out)->txn_);
}

// The store takes the number of the newest state first, and then copies what describes that state
// from one of two places that commits write to in turn. When two commits get in between, the number
// and the copy belong to different states, or the copy to both. While the number is still the one
// that is given out, the first of the two commits is not over, and the copy is whole.
std::unique_ptr<Snapshot> Store::Begin() {
  std::unique_ptr<Snapshot> snapshot;
  CheckStore(TakeSnapshot(&snapshot));
  while (!NoteFile(*snapshot)) {
    std::unique_ptr<Snapshot> later;
    int const code = TakeSnapshot(&later);
    if (code == MDB_READERS_FULL) return BeginBetweenCommits(std::move(snapshot));
    CheckStore(code);
    if (later->id() == snapshot->id()) {
      End(std::move(later));
      break;
    }
    End(std::exchange(snapshot, std::move(later)));
  }
  return snapshot;
}

std::unique_ptr<Snapshot> Store::BeginBetweenCommits(std::unique_ptr<Snapshot> snapshot) {
  Batch const pause(*this);
  mdb_txn_reset(snapshot->txn_);
  CheckStore(mdb_txn_renew(snapshot->txn_));
  NoteFile(*snapshot);
  return snapshot;
}

std::unique_ptr<Snapshot> Store::BeginWalked(PageReport const& report) {
  CommitId last{0};
  for (int same = 0; same < kWalkAttempts;) {
    std::unique_ptr<Snapshot> snapshot = Begin();
    if (WalkPages(FileOf(env_), mdb_txn_id(snapshot->txn_), PageDepth::kAll, report)) {
      return snapshot;
    }
    // Overtaken by a commit, or the head of the file is not what this process knows of it.
    same = snapshot->id() == last ? same + 1 : 0;
    last = snapshot->id();
    End(std::move(snapshot));
    Batch const pause(*this);  // until a commit that is under way is over
  }
  Throw(LSCOREDB_DAMAGED);
}

void Store::Verify() { CheckPages(env_, PageDepth::kAll); }

bool Store::NoteFile(View& view) const {
  std::atomic_thread_fence(std::memory_order_acquire);
  MDB_envinfo info{};
  CheckStore(mdb_env_info(env_, &info));
  view.begin_ = map_begin_;
  view.end_ = map_begin_ == 0 ? UINTPTR_MAX : map_begin_ + (info.me_last_pgno + 1) * page_size_;
  return info.me_last_txnid == mdb_txn_id(view.txn_);
}

void Store::End(std::unique_ptr<Snapshot> snapshot) noexcept {
  mdb_txn_reset(snapshot->txn_);
  std::lock_guard const lock(idle_mutex_);
  try {
    idle_.push_back(std::move(snapshot));
  } catch (std::bad_alloc const&) {
    snapshot.reset();  // one reader slot less to reuse, nothing lost
  }
}

bool Store::FreeDeadReaders() {
  int dead = 0;
  CheckStore(mdb_reader_check(env_, &dead));
  return dead != 0;
}

// A file grows when no page can be used again: a reader in a process that is no more may be why.
void Store::NoteGrowth() noexcept {
  MDB_envinfo info{};
  if (mdb_env_info(env_, &info) != 0) return;
  if (last_page_.exchange(info.me_last_pgno) >= info.me_last_pgno) return;
  int dead = 0;
  mdb_reader_check(env_, &dead);  // what it cannot free today stays for the next time
}

StoreStatistics Store::Statistics() const {
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
  return statistics;
}

void Store::RequireSync() { CheckStore(mdb_env_set_flags(env_, MDB_NOSYNC, 0)); }

}  // namespace lscore
