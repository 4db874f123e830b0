#include <fcntl.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "bytes.h"
#include "checksummed_record.h"
#include "directory.h"
#include "fork.h"
#include "format.h"
#include "layout_board_file.h"
#include "library_call.h"
#include "lmdb_store.h"
#include "open_error.h"
#include "store_check.h"
#include "store_errors.h"
#include "store_header.h"
#include "write_pause.h"

namespace lscore {
namespace {

constexpr unsigned kTreeFlags[kTreeCount] = {MDB_INTEGERKEY, 0, 0, 0, 0};
constexpr mode_t kFileMode = 0640;
constexpr mode_t kDirectoryMode = 0750;

// Reports an error of the system as such while opening.
void CheckOpening(int code) {
  if (code == 0) return;
  Status const status = StatusOfStore(code);
  Throw(status == LSCOREDB_IO_ERROR ? LSCOREDB_CANNOT_OPEN : status);
}

// The lock file is open already, so an error of the system concerns the data file.
void CheckOpening(int code, char const* directory) {
  if (code > 0) NoteOpenError(std::string(directory) + "/data.mdb", code);
  CheckOpening(code);
}

// A directory that exists only while a store in memory is opened: its data file is a link to
// memory.
class MemoryDirectory {
 public:
  MemoryDirectory() {
    char const* const base = std::getenv("TMPDIR");
    path_ = (base != nullptr ? std::string(base) : std::string("/tmp")) + "/lscoredb-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) ThrowCannotOpen(path_, errno);
    try {
      LinkMemory();
    } catch (...) {
      Clear();
      throw;
    }
  }
  ~MemoryDirectory() { Clear(); }
  MemoryDirectory(MemoryDirectory const&) = delete;
  MemoryDirectory& operator=(MemoryDirectory const&) = delete;

  char const* path() const { return path_.c_str(); }

 private:
  void LinkMemory() {
    data_ = path_ + "/data.mdb";
    lock_ = path_ + "/lock.mdb";
    file_ = memfd_create("lscoredb", MFD_CLOEXEC);
    std::string const target = "/proc/self/fd/" + std::to_string(file_);
    if (file_ < 0 || symlink(target.c_str(), data_.c_str()) != 0) ThrowCannotOpen(data_, errno);
  }

  void Clear() noexcept {
    unlink(data_.c_str());
    unlink(lock_.c_str());
    rmdir(path_.c_str());
    if (file_ >= 0) close(file_);
    file_ = -1;
  }

  std::string path_;
  std::string data_;
  std::string lock_;
  int file_ = -1;
};

bool IsEmpty(MDB_txn* txn) {
  MDB_dbi main = 0;
  MDB_stat stat{};
  CheckStore(CallLibrary([&] { return mdb_dbi_open(txn, nullptr, 0, &main); }));
  CheckStore(mdb_stat(txn, main, &stat));
  return stat.ms_entries == 0;
}

// Checked before anything else is used. Returns the format's version.
std::uint32_t CheckFormat(MappedState const& state) {
  std::string_view record;
  if (!state.Get(Tree::kMeta, format::kFormatKey, &record)) Throw(LSCOREDB_NOT_A_DATABASE);
  FieldReader fields(record);
  bool const ours = fields.Bytes(format::kMagic.size()) == format::kMagic;
  auto const version = fields.Next<std::uint32_t>();
  if (!ours || !fields.ok() || version == 0) Throw(LSCOREDB_NOT_A_DATABASE);
  if (version > format::kNewestVersion) Throw(LSCOREDB_NEWER_FORMAT);
  return version;
}

bool HasLog(std::uint32_t version) {
  return version == format::kLogVersion || version == format::kChangesVersion;
}

std::uint64_t ReadStatesBefore(MappedState const& state) {
  std::string_view record;
  if (!state.Get(Tree::kMeta, format::kStatesBeforeKey, &record)) return 0;
  FieldReader fields(StripChecksum(format::kStatesBeforeKey, record));
  auto const count = fields.Next<std::uint64_t>();
  if (!fields.ok()) Throw(LSCOREDB_DAMAGED);
  return count;
}

void WriteFormat(MDB_txn* txn, MDB_dbi meta) {
  std::string record = format::FormatRecord(format::kFirstVersion);
  MDB_val key{format::kFormatKey.size(), const_cast<char*>(format::kFormatKey.data())};
  MDB_val value{record.size(), record.data()};
  CheckStore(CallLibrary([&] { return mdb_put(txn, meta, &key, &value, 0); }));
}

}  // namespace

// Creates a data file so that after a power failure there is a complete database or none: a new
// file is written and synced under another name and then renamed.
class DataFile {
 public:
  DataFile(std::string const& directory, StoreOptions const& options, bool sync)
      : directory_(directory), options_(options), sync_(sync) {}

  bool IsThere() const {
    struct stat status {};
    return stat((directory_ + "/data.mdb").c_str(), &status) == 0 && status.st_size != 0;
  }

  // REQUIRES: nobody else has the directory open.
  void Make() const {
    Clear();  // leftovers of a process that died here
    std::string const scratch = Scratch();
    std::string const path = directory_ + "/data.mdb";
    if (mkdir(scratch.c_str(), kDirectoryMode) != 0) ThrowCannotOpen(scratch, errno);
    try {
      Fill();
      std::string const made = scratch + "/data.mdb";
      if (rename(made.c_str(), path.c_str()) != 0) ThrowCannotOpen(path, errno);
    } catch (...) {
      Clear();
      throw;
    }
    Clear();
    if (sync_) SyncDirectory(directory_);
  }

 private:
  void Fill() const;

  std::string Scratch() const { return directory_ + "/data.new"; }
  void Clear() const noexcept {
    std::string const scratch = Scratch();
    unlink((scratch + "/data.mdb").c_str());
    rmdir(scratch.c_str());
  }

  std::string const directory_;
  StoreOptions const& options_;
  bool sync_;
};

// Opening, in an order in which a second opener, a crash or a damaged file does no harm:
//
//   1. wait in line, so that one process opens the directory at a time
//   2. create the data file if this process is alone and there is none; otherwise check its headers
//   3. let the library open it, and take its locks over
//   4. while nobody writes: check length, roots and format, and sync what others did not
//   5. leave the line; then the longer work: verifying all pages, freeing dead readers
class StoreOpener {
 public:
  static std::unique_ptr<LmdbStore> Open(char const* path, StoreOptions const& options,
                                         bool in_memory) {
    bool const sync = options.sync && !in_memory;
    std::unique_ptr<LmdbStore> store(new LmdbStore);
    store->locks_.LineUp(path, options.max_readers);
    bool const alone = store->locks_.alone();
    DataFile const data(path, options, sync);
    if (alone && !in_memory && !data.IsThere()) data.Make();
    CheckDataFile(path, !alone);
    store->env_ = OpenLibrary(path, options, sync ? 0u : unsigned{MDB_NOSYNC});
    store->files_ = FilesOf(store->env_, store->locks_.lock_file());
    for (int const file : store->files_) KeepFromChildren(file);
    store->locks_.TakeOver(store->env_);
    if (sync) store->locks_.RequireSync();
    store->sync_ = sync;
    store->in_memory_ = in_memory;
    store->locks_.BecomeWriter(path, FileOf(store->env_));
    LookIn(*store);
    store->locks_.LeaveLine();
    if (options.verify) store->Verify();
    store->FreeDeadReaders();
    return store;
  }

  // `slot`: with one in the table of readers. Without one, nobody writes until the store is closed.
  static std::unique_ptr<LmdbStore> OpenToRead(char const* path, StoreOptions const& options,
                                               bool slot) {
    std::unique_ptr<LmdbStore> store(new LmdbStore);
    store->read_only_ = true;
    if (slot) {
      store->locks_.LineUp(path, options.max_readers);
    } else {
      store->locks_.LineUpWithoutSlot(path);
    }
    CheckDataFile(path, slot && !store->locks_.alone());
    unsigned const flags = slot ? 0u : unsigned{MDB_NOLOCK};
    store->env_ = OpenLibrary(path, options, flags | MDB_RDONLY);
    if (slot) {
      store->files_ = FilesOf(store->env_, store->locks_.lock_file());
      store->locks_.TakeOver(store->env_);
    } else {
      store->files_ = {FileOf(store->env_)};
    }
    for (int const file : store->files_) KeepFromChildren(file);
    LookInBesideWriters(*store);
    store->locks_.LeaveLine();
    if (options.verify) store->Verify();
    return store;
  }

  static void Use(LmdbStore& store, std::shared_ptr<LayoutReservations> reservations) {
    store.UseReservations(std::move(reservations));
  }

  // In a file that has no final name yet.
  static void MakeTrees(MDB_env* env) {
    unsigned handles[kTreeCount] = {};
    WritePause writing(env);
    MakeTrees(writing.txn(), handles);
    int const code = mdb_txn_commit(writing.Release());
    if (code == EIO && IsDiskFull(env)) Throw(LSCOREDB_DISK_FULL);
    CheckStore(code);
  }

  // Read-ahead is off since reads are random; slots belong to transactions, not to threads.
  static MDB_env* OpenLibrary(char const* path, StoreOptions const& options, unsigned flags) {
    MDB_env* env = nullptr;
    CheckOpening(mdb_env_create(&env));
    try {
      CheckOpening(mdb_env_set_assert(env, OnBrokenPage));
      CheckOpening(mdb_env_set_maxdbs(env, kTreeCount));
      CheckOpening(mdb_env_set_maxreaders(env, options.max_readers));
      CheckOpening(mdb_env_set_mapsize(env, options.max_file_size));
      CheckOpening(mdb_env_open(env, path, flags | MDB_NOTLS | MDB_NORDAHEAD, kFileMode), path);
    } catch (...) {
      mdb_env_close(env);
      throw;
    }
    return env;
  }

 private:
  // Checks the header and the trees and syncs what others did not, while nobody writes. A log knows
  // by itself what has to be synced under it, mostly nothing.
  // Twice for a new file: the second time finds the trees that the first one created.
  static void LookIn(LmdbStore& store) {
    std::optional<std::uint32_t> version = FindTrees(store);
    if (!version) version = FindTrees(store);
    bool const has_log = version && HasLog(*version);
    if (store.sync_ && !has_log) CheckStore(mdb_env_sync(store.env_, 1));
  }

  // Opens the trees and returns the version of their format. Creates them if there are none.
  static std::optional<std::uint32_t> FindTrees(LmdbStore& store) {
    MDB_env* const env = store.env_;
    WritePause pause(store.locks_, env);
    pages::Header const header = HeaderOf(env, pause);
    CheckLength(FileOf(env), header);
    CheckPages(FileOf(env), header, PageDepth::kRoots);
    std::optional<std::uint32_t> version;
    if (IsEmpty(pause.txn())) {
      MakeTrees(pause.txn(), store.trees_);
    } else {
      version = OpenTrees(store, pause.txn(), header);
    }
    Commit(env, pause);
    return version;
  }

  static pages::Header HeaderOf(MDB_env* env, WritePause const& pause) {
    std::optional<pages::Header> const header = pages::FindHeader(FileOf(env), pause.state());
    if (!header) Throw(LSCOREDB_DAMAGED);
    return *header;
  }

  static void Commit(MDB_env* env, WritePause& pause) {
    int const code = CallLibrary([&] { return mdb_txn_commit(pause.Release()); });
    if (code == kBrokenPage) ReleaseWriteLock(env);
    CheckStore(code);
  }

  // The same for a process that cannot make writers wait.
  static void LookInBesideWriters(LmdbStore& store) {
    MDB_env* const env = store.env_;
    MDB_txn* txn = nullptr;
    {
      ReadersTurn const turn(store.locks_);
      CheckOpening(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn));
    }
    std::unique_ptr<MDB_txn, void (*)(MDB_txn*)> reading(txn, mdb_txn_abort);
    pages::Header const header = StableHeader(FileOf(env), mdb_txn_id(txn));
    CheckReadLength(FileOf(env), header);
    CheckPages(FileOf(env), header, PageDepth::kRoots);
    if (IsEmpty(txn)) Throw(LSCOREDB_NOT_A_DATABASE);
    OpenTrees(store, txn, header);
    reading.release();
    CheckStore(mdb_txn_commit(txn));  // which keeps the trees open
  }

  // Commits may overwrite the header while it is looked for, but only of processes that are open
  // already: others wait in line.
  static pages::Header StableHeader(int file, std::uint64_t state) {
    constexpr int kAttempts = 1000;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      std::optional<pages::Header> const header = pages::FindHeader(file, state);
      std::this_thread::yield();
      if (header && header == pages::FindHeader(file, state)) return *header;
    }
    Throw(LSCOREDB_DAMAGED);
  }

  static std::uint32_t OpenTrees(LmdbStore& store, MDB_txn* txn, pages::Header const& header) {
    store.page_size_ = header.page_size;
    store.map_ = MapBegin(txn, header);
    store.guard_.Open(FileOf(store.env_), store.map_, store.page_size_);
    OpenTree(store.trees_, txn, Tree::kMeta, 0);
    MappedState state;
    state.CopyHeader(store.map_, store.page_size_, header.commit);
    bool const whole = state.OpenTrees(store.FilePages(header.last_page + 1));
    std::uint32_t const version = CheckFormat(state);
    store.states_before_ = ReadStatesBefore(state);
    if (!whole) Throw(LSCOREDB_NOT_A_DATABASE);
    for (std::size_t i = 0; i < kTreeCount; ++i) {
      OpenTree(store.trees_, txn, static_cast<Tree>(i), 0);
    }
    return version;
  }

  static void MakeTrees(MDB_txn* txn, unsigned (&handles)[kTreeCount]) {
    OpenTree(handles, txn, Tree::kMeta, MDB_CREATE);
    WriteFormat(txn, handles[static_cast<std::size_t>(Tree::kMeta)]);
    for (std::size_t i = 0; i < kTreeCount; ++i) {
      OpenTree(handles, txn, static_cast<Tree>(i), MDB_CREATE);
    }
  }

  static void OpenTree(unsigned (&handles)[kTreeCount], MDB_txn* txn, Tree tree, unsigned create) {
    auto const i = static_cast<std::size_t>(tree);
    unsigned const flags = kTreeFlags[i] | create;
    unsigned* const handle = &handles[i];
    int const code =
        CallLibrary([&] { return mdb_dbi_open(txn, pages::kTreeNames[i], flags, handle); });
    if (code == MDB_NOTFOUND || code == MDB_INCOMPATIBLE) Throw(LSCOREDB_NOT_A_DATABASE);
    CheckStore(code);
  }
};

// Without locks: the scratch directory is known to this process only.
void DataFile::Fill() const {
  unsigned const flags = MDB_NOLOCK | (sync_ ? 0u : unsigned{MDB_NOSYNC});
  MDB_env* const env = StoreOpener::OpenLibrary(Scratch().c_str(), options_, flags);
  try {
    StoreOpener::MakeTrees(env);
  } catch (...) {
    mdb_env_close(env);
    throw;
  }
  mdb_env_close(env);
}

namespace {

// Opens with the lock file and a reader slot if the files allow it, otherwise without both.
std::unique_ptr<LmdbStore> OpenOnlyToRead(char const* directory, StoreOptions const& options) {
  CheckDataFile(directory, true);
  try {
    std::shared_ptr<LayoutReservations> reservations;
    if (options.reserve_layouts) reservations = std::make_shared<FileReservations>(directory);
    std::unique_ptr<LmdbStore> store = StoreOpener::OpenToRead(directory, options, true);
    if (reservations != nullptr) StoreOpener::Use(*store, std::move(reservations));
    return store;
  } catch (Failure const&) {
    if (!OpenErrorIsOfWriting()) throw;
  }
  return StoreOpener::OpenToRead(directory, options, false);
}

std::unique_ptr<LmdbStore> OpenToWrite(char const* directory, StoreOptions const& options) {
  std::shared_ptr<LayoutReservations> reservations;
  if (options.reserve_layouts) reservations = std::make_shared<FileReservations>(directory);
  std::unique_ptr<LmdbStore> store = StoreOpener::Open(directory, options, false);
  if (reservations != nullptr) StoreOpener::Use(*store, std::move(reservations));
  return store;
}

bool HasData(char const* directory) {
  return access((std::string(directory) + "/data.mdb").c_str(), R_OK) == 0;
}

}  // namespace

// kAutomatic falls back to reading only when the system refused to let it write, and only if there
// is a data file to read.
std::unique_ptr<LmdbStore> LmdbStore::Open(char const* directory, StoreOptions const& options) {
  if (directory != nullptr) {
    if (options.access == Access::kRead) return OpenOnlyToRead(directory, options);
    try {
      return OpenToWrite(directory, options);
    } catch (Failure const&) {
      bool const may_read = options.access == Access::kAutomatic && OpenErrorIsOfWriting();
      if (!may_read || !HasData(directory)) throw;
    }
    return OpenOnlyToRead(directory, options);
  }
  MemoryDirectory const memory;
  return StoreOpener::Open(memory.path(), options, true);
}

}  // namespace lscore
