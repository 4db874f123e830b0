#include <fcntl.h>
#include <lmdb.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "bytes.h"
#include "checksummed_record.h"
#include "fork.h"
#include "format.h"
#include "layout_board_file.h"
#include "library_call.h"
#include "lmdb_store.h"
#include "open_error.h"
#include "store_check.h"
#include "store_errors.h"
#include "store_header.h"

namespace lscore {
namespace {

constexpr unsigned kTreeFlags[kTreeCount] = {MDB_INTEGERKEY, 0, 0, 0, 0};
constexpr mode_t kFileMode = 0640;

// While opening, what the system refuses is told as that.
void CheckOpening(int code) {
  if (code == 0) return;
  Status const status = StatusOfStore(code);
  Throw(status == LSCOREDB_IO_ERROR ? LSCOREDB_CANNOT_OPEN : status);
}

// The library gives the system's error numbers, but does not say of which file.
void NoteRefusal(std::string const& directory, int error) {
  if (error <= 0) return;  // a code of its own
  std::string const lock = directory + "/lock.mdb";
  int const file = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
  if (file < 0) return NoteOpenError(lock, errno);
  close(file);
  NoteOpenError(directory + "/data.mdb", error);
}

// A directory for the short time of opening: what the store finds there is a name for memory.
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

// The version record stands first: without it nothing else is touched.
void CheckFormat(MDB_txn* txn, MDB_dbi meta) {
  MDB_val key{format::kFormatKey.size(), const_cast<char*>(format::kFormatKey.data())};
  MDB_val value;
  int const code = CallLibrary([&] { return mdb_get(txn, meta, &key, &value); });
  if (code == MDB_NOTFOUND) Throw(LSCOREDB_NOT_A_DATABASE);
  CheckStore(code);
  FieldReader fields({static_cast<char const*>(value.mv_data), value.mv_size});
  bool const ours = fields.Bytes(format::kMagic.size()) == format::kMagic;
  auto const version = fields.Next<std::uint32_t>();
  if (!ours || !fields.ok() || version == 0) Throw(LSCOREDB_NOT_A_DATABASE);
  if (version > format::kNewestVersion) Throw(LSCOREDB_NEWER_FORMAT);
}

std::uint64_t ReadStatesBefore(MDB_txn* txn, MDB_dbi meta) {
  MDB_val key{format::kStatesBeforeKey.size(), const_cast<char*>(format::kStatesBeforeKey.data())};
  MDB_val value;
  int const code = CallLibrary([&] { return mdb_get(txn, meta, &key, &value); });
  if (code == MDB_NOTFOUND) return 0;
  CheckStore(code);
  std::string_view const stored_record(static_cast<char const*>(value.mv_data), value.mv_size);
  FieldReader fields(StripChecksum(format::kStatesBeforeKey, stored_record));
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

class StoreOpener {
 public:
  static std::unique_ptr<LmdbStore> Open(char const* path, StoreOptions const& options, bool sync) {
    std::unique_ptr<LmdbStore> store(new LmdbStore);
    CheckOpening(mdb_env_create(&store->env_));
    MDB_env* const env = store->env_;
    CheckOpening(mdb_env_set_assert(env, OnBrokenPage));
    CheckOpening(mdb_env_set_maxdbs(env, kTreeCount));
    CheckOpening(mdb_env_set_maxreaders(env, options.max_readers));
    CheckOpening(mdb_env_set_mapsize(env, options.max_file_size));
    CheckDataFile(path);
    unsigned const flags = MDB_NOTLS | MDB_NORDAHEAD | (sync ? 0u : unsigned{MDB_NOSYNC});
    int const code = mdb_env_open(env, path, flags, kFileMode);
    NoteRefusal(path, code);
    CheckOpening(code);
    store->files_ = FilesOf(env);
    for (int const file : store->files_) KeepFromChildren(file);
    CheckLength(env);
    CheckPages(env, options.verify ? PageDepth::kAll : PageDepth::kRoots);
    int dead = 0;
    CheckOpening(mdb_reader_check(env, &dead));
    OpenTrees(*store);
    store->page_size_ = PageSize(env);
    store->map_begin_ = FindMap(env, store->Handle(Tree::kMeta));
    store->guard_.Open(FileOf(env), reinterpret_cast<char const*>(store->map_begin_),
                       store->page_size_);
    return store;
  }

 private:
  static void OpenTrees(LmdbStore& store) {
    MDB_txn* txn = nullptr;
    CheckOpening(mdb_txn_begin(store.env_, nullptr, 0, &txn));
    try {
      bool const fresh = IsEmpty(txn);
      OpenTree(store, txn, Tree::kMeta, fresh);
      if (fresh) {
        WriteFormat(txn, store.Handle(Tree::kMeta));
      } else {
        CheckFormat(txn, store.Handle(Tree::kMeta));
        store.states_before_ = ReadStatesBefore(txn, store.Handle(Tree::kMeta));
      }
      for (std::size_t i = 0; i < kTreeCount; ++i)
        OpenTree(store, txn, static_cast<Tree>(i), fresh);
    } catch (...) {
      mdb_txn_abort(txn);  // nothing was written but into a file that had no pages
      throw;
    }
    int const code = CallLibrary([&] { return mdb_txn_commit(txn); });
    if (code == kBrokenPage) ReleaseWriteLock(store.env_);
    CheckStore(code);
  }

  static void OpenTree(LmdbStore& store, MDB_txn* txn, Tree tree, bool create) {
    auto const i = static_cast<std::size_t>(tree);
    unsigned const flags = kTreeFlags[i] | (create ? unsigned{MDB_CREATE} : 0u);
    unsigned* const handle = &store.trees_[i];
    int const code =
        CallLibrary([&] { return mdb_dbi_open(txn, pages::kTreeNames[i], flags, handle); });
    if (code == MDB_NOTFOUND || code == MDB_INCOMPATIBLE) Throw(LSCOREDB_NOT_A_DATABASE);
    CheckStore(code);
  }
};

std::unique_ptr<LmdbStore> LmdbStore::Open(char const* directory, StoreOptions const& options) {
  if (directory != nullptr) {
    std::shared_ptr<LayoutReservations> reservations;
    if (options.reserve_layouts) reservations = std::make_shared<FileReservations>(directory);
    std::unique_ptr<LmdbStore> store = StoreOpener::Open(directory, options, options.sync);
    if (reservations != nullptr) store->UseReservations(std::move(reservations));
    return store;
  }
  MemoryDirectory const memory;
  return StoreOpener::Open(memory.path(), options, false);
}

}  // namespace lscore
