#include "vfs.h"

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>

#include "attachment.h"
#include "failure.h"

namespace sagleme::sql {
namespace {

constexpr std::string_view kMark = "sagleme:";

struct File {
  sqlite3_file base;
  Attachment* attachment;
};

// What SQLite notes to undo a change of an attachment's file.
struct Journal {
  sqlite3_file base;
  Image* bytes;
};

// A file system in front of another one.
struct FileSystem {
  sqlite3_vfs vfs;
  sqlite3_vfs* behind;
  bool all;  // every name is ours, not only those that begin with the mark
};

// What is being attached, as its name in SQLite does not tell it: names are shown to users.
struct Wanted {
  std::string directory;
  std::string encoding;
  std::optional<OpenTransaction> joined;
};
thread_local Wanted const* wanted = nullptr;

Attachment& Of(sqlite3_file* file) { return *reinterpret_cast<File*>(file)->attachment; }

int Close(sqlite3_file* file) {
  delete reinterpret_cast<File*>(file)->attachment;
  return SQLITE_OK;
}

int Read(sqlite3_file* file, void* out, int size, sqlite3_int64 offset) {
  bool const whole =
      Of(file).image().Read(out, static_cast<std::size_t>(size), static_cast<std::size_t>(offset));
  return whole ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

// Definitions are changed by the statements made for that; an ordinary table has no place here.
int Write(sqlite3_file* file, void const* data, int size, sqlite3_int64 offset) {
  if (!Of(file).defined()) return SQLITE_READONLY;
  try {
    Of(file).image().Write(data, static_cast<std::size_t>(size), static_cast<std::size_t>(offset));
    return SQLITE_OK;
  } catch (std::bad_alloc const&) {
    return SQLITE_IOERR_NOMEM;
  }
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
  if (!Of(file).defined()) return SQLITE_READONLY;
  Of(file).image().Truncate(static_cast<std::size_t>(size));
  return SQLITE_OK;
}

int Sync(sqlite3_file*, int) { return SQLITE_OK; }

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
  *size = static_cast<sqlite3_int64>(Of(file).image().size());
  return SQLITE_OK;
}

int Lock(sqlite3_file* file, int level) {
  if (level != SQLITE_LOCK_SHARED) return SQLITE_OK;
  return Guarded([file] { Of(file).Begin(); },
                 [](char const* text) { sqlite3_log(SQLITE_ERROR, "sagleme: %s", text); });
}

int Unlock(sqlite3_file* file, int level) {
  if (level == SQLITE_LOCK_NONE) Of(file).Unlock();
  return SQLITE_OK;
}

int CheckReservedLock(sqlite3_file*, int* reserved) {
  *reserved = 0;
  return SQLITE_OK;
}

int FileControl(sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; }
int SectorSize(sqlite3_file*) { return 512; }
int Characteristics(sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; }

constexpr sqlite3_io_methods MakeMethods() {
  sqlite3_io_methods methods{};
  methods.iVersion = 1;
  methods.xClose = Close;
  methods.xRead = Read;
  methods.xWrite = Write;
  methods.xTruncate = Truncate;
  methods.xSync = Sync;
  methods.xFileSize = FileSize;
  methods.xLock = Lock;
  methods.xUnlock = Unlock;
  methods.xCheckReservedLock = CheckReservedLock;
  methods.xFileControl = FileControl;
  methods.xSectorSize = SectorSize;
  methods.xDeviceCharacteristics = Characteristics;
  return methods;
}

constexpr sqlite3_io_methods kMethods = MakeMethods();

Image& BytesOf(sqlite3_file* file) { return *reinterpret_cast<Journal*>(file)->bytes; }

int CloseJournal(sqlite3_file* file) {
  delete reinterpret_cast<Journal*>(file)->bytes;
  return SQLITE_OK;
}

int ReadJournal(sqlite3_file* file, void* out, int size, sqlite3_int64 offset) {
  bool const whole =
      BytesOf(file).Read(out, static_cast<std::size_t>(size), static_cast<std::size_t>(offset));
  return whole ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int WriteJournal(sqlite3_file* file, void const* data, int size, sqlite3_int64 offset) {
  try {
    BytesOf(file).Write(data, static_cast<std::size_t>(size), static_cast<std::size_t>(offset));
    return SQLITE_OK;
  } catch (std::bad_alloc const&) {
    return SQLITE_IOERR_NOMEM;
  }
}

int TruncateJournal(sqlite3_file* file, sqlite3_int64 size) {
  BytesOf(file).Truncate(static_cast<std::size_t>(size));
  return SQLITE_OK;
}

int JournalSize(sqlite3_file* file, sqlite3_int64* size) {
  *size = static_cast<sqlite3_int64>(BytesOf(file).size());
  return SQLITE_OK;
}

int NoLock(sqlite3_file*, int) { return SQLITE_OK; }

constexpr sqlite3_io_methods MakeJournalMethods() {
  sqlite3_io_methods methods = MakeMethods();
  methods.xClose = CloseJournal;
  methods.xRead = ReadJournal;
  methods.xWrite = WriteJournal;
  methods.xTruncate = TruncateJournal;
  methods.xFileSize = JournalSize;
  methods.xLock = NoLock;
  methods.xUnlock = NoLock;
  return methods;
}

constexpr sqlite3_io_methods kJournalMethods = MakeJournalMethods();

// There is none but while definitions change: what else would be written has no place here.
int OpenJournal(char const* name, sqlite3_file* file) {
  sqlite3_file* const of = sqlite3_database_file_object(name);
  if (of == nullptr || of->pMethods != &kMethods || !Of(of).defined()) return SQLITE_CANTOPEN;
  auto* const bytes = new (std::nothrow) Image;
  if (bytes == nullptr) return SQLITE_NOMEM;
  reinterpret_cast<Journal*>(file)->bytes = bytes;
  file->pMethods = &kJournalMethods;
  return SQLITE_OK;
}

FileSystem& SystemOf(sqlite3_vfs* vfs) { return *reinterpret_cast<FileSystem*>(vfs); }

bool IsMarked(char const* name) {
  return name != nullptr && std::string_view(name).substr(0, kMark.size()) == kMark;
}

bool IsOurs(FileSystem const& system, char const* name) {
  return name != nullptr && (system.all || IsMarked(name));
}

// What follows the last '#' only tells one attachment from another.
std::string DirectoryIn(char const* name) {
  std::string_view text(name);
  if (IsMarked(name)) text.remove_prefix(kMark.size());
  return std::string(text.substr(0, text.rfind('#')));
}

Attachment* MakeAttachment(Wanted const& asked) {
  if (!asked.joined.has_value()) {
    return new Attachment(Store::Open(asked.directory), asked.encoding);
  }
  return new Attachment(Store::Joined(*asked.joined, asked.directory), asked.encoding,
                        *asked.joined);
}

int OpenAttachment(char const* name, sqlite3_file* file, int flags, int* out_flags) {
  file->pMethods = nullptr;
  if ((flags & SQLITE_OPEN_MAIN_JOURNAL) != 0) return OpenJournal(name, file);
  if ((flags & SQLITE_OPEN_MAIN_DB) == 0) return SQLITE_CANTOPEN;
  auto const open = [&] {
    Wanted const plain = {DirectoryIn(name), "UTF-8", std::nullopt};
    Wanted const& asked = wanted == nullptr ? plain : *wanted;
    reinterpret_cast<File*>(file)->attachment = MakeAttachment(asked);
    file->pMethods = &kMethods;
  };
  if (out_flags != nullptr) *out_flags = flags;
  return Guarded(open, [](char const* text) { sqlite3_log(SQLITE_CANTOPEN, "sagleme: %s", text); });
}

int Open(sqlite3_vfs* vfs, char const* name, sqlite3_file* file, int flags, int* out_flags) {
  FileSystem& system = SystemOf(vfs);
  if (IsOurs(system, name) && (flags & SQLITE_OPEN_TEMP_DB) == 0) {
    return OpenAttachment(name, file, flags, out_flags);
  }
  return system.behind->xOpen(system.behind, name, file, flags, out_flags);
}

int Delete(sqlite3_vfs* vfs, char const* name, int sync) {
  FileSystem& system = SystemOf(vfs);
  if (IsOurs(system, name)) return SQLITE_OK;
  return system.behind->xDelete(system.behind, name, sync);
}

int AccessFile(sqlite3_vfs* vfs, char const* name, int flags, int* result) {
  FileSystem& system = SystemOf(vfs);
  if (!IsOurs(system, name)) return system.behind->xAccess(system.behind, name, flags, result);
  *result = 0;  // there is neither journal nor log
  return SQLITE_OK;
}

int FullPathname(sqlite3_vfs* vfs, char const* name, int size, char* out) {
  FileSystem& system = SystemOf(vfs);
  if (!IsOurs(system, name)) return system.behind->xFullPathname(system.behind, name, size, out);
  bool const marked = IsMarked(name);
  sqlite3_snprintf(size, out, "%s%s%s", marked ? "" : kMark.data(), name, marked ? "" : "#0");
  return SQLITE_OK;
}

void PutInFront(FileSystem& system, sqlite3_vfs* behind) {
  system.vfs = *behind;
  system.vfs.pNext = nullptr;
  system.behind = behind;
  system.vfs.szOsFile =
      std::max(behind->szOsFile, static_cast<int>(std::max(sizeof(File), sizeof(Journal))));
  system.vfs.xOpen = Open;
  system.vfs.xDelete = Delete;
  system.vfs.xAccess = AccessFile;
  system.vfs.xFullPathname = FullPathname;
}

// Connections keep pointing at a file system that they opened a file through, so none goes.
FileSystem& InFrontOf(sqlite3_vfs* behind) {
  static std::map<sqlite3_vfs*, std::unique_ptr<FileSystem>> made;
  std::unique_ptr<FileSystem>& system = made[behind];
  if (system == nullptr) {
    system = std::make_unique<FileSystem>();
    PutInFront(*system, behind);
  }
  return *system;
}

// The file system that a connection looks for by name when it attaches.
sqlite3_vfs* SystemOfConnection(sqlite3* database) {
  sqlite3_vfs* vfs = nullptr;
  sqlite3_file_control(database, "main", SQLITE_FCNTL_VFS_POINTER, &vfs);
  sqlite3_vfs* const named = vfs == nullptr ? nullptr : sqlite3_vfs_find(vfs->zName);
  return named == nullptr ? sqlite3_vfs_find(nullptr) : named;
}

class Front {
 public:
  explicit Front(sqlite3* database) {
    sqlite3_vfs* const behind = SystemOfConnection(database);
    if (behind == nullptr || behind->xOpen == Open) return;
    vfs_ = &InFrontOf(behind).vfs;
    sqlite3_vfs_register(vfs_, 1);
  }
  ~Front() {
    if (vfs_ != nullptr) sqlite3_vfs_unregister(vfs_);
  }
  Front(Front const&) = delete;
  Front& operator=(Front const&) = delete;

 private:
  sqlite3_vfs* vfs_ = nullptr;
};

std::string EncodingOf(sqlite3* database) {
  sqlite3_stmt* statement = nullptr;
  std::string encoding = "UTF-8";
  if (sqlite3_prepare_v2(database, "PRAGMA main.encoding", -1, &statement, nullptr) == SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW) {
    encoding = reinterpret_cast<char const*>(sqlite3_column_text(statement, 0));
  }
  sqlite3_finalize(statement);
  return encoding;
}

void Attach(sqlite3* database, std::string const& file, std::string const& schema) {
  sqlite3_stmt* statement = nullptr;
  int code = sqlite3_prepare_v2(database, "ATTACH ?1 AS ?2", -1, &statement, nullptr);
  if (code == SQLITE_OK) {
    sqlite3_bind_text(statement, 1, file.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, schema.c_str(), -1, SQLITE_STATIC);
    sqlite3_step(statement);
    code = sqlite3_finalize(statement);
  }
  if (code != SQLITE_OK) throw Failure(code, sqlite3_errmsg(database));
}

void AttachAsked(sqlite3* database, Wanted const& asked, std::string const& schema) {
  static std::mutex mutex;
  static std::uint64_t number = 0;
  std::lock_guard const lock(mutex);
  Front const front(database);
  // With a name of its own an attachment is never shared between connections.
  std::string const file =
      std::string(kMark) + ShownPlace(asked.directory) + "#" + std::to_string(++number);
  wanted = &asked;
  try {
    Attach(database, file, schema);
  } catch (...) {
    wanted = nullptr;
    throw;
  }
  wanted = nullptr;
}

}  // namespace

void RegisterFileSystem() {
  static std::once_flag once;
  std::call_once(once, [] {
    static FileSystem system;
    PutInFront(system, sqlite3_vfs_find(nullptr));
    system.all = true;
    system.vfs.zName = "sagleme";
    sqlite3_vfs_register(&system.vfs, 0);
  });
}

void AttachFile(sqlite3* database, std::string const& directory, std::string const& schema) {
  AttachAsked(database, {directory, EncodingOf(database), std::nullopt}, schema);
}

void AttachJoined(sqlite3* database, OpenTransaction of, std::string const& place,
                  std::string const& schema) {
  AttachAsked(database, {place, EncodingOf(database), of}, schema);
}

Attachment* FindAttachment(sqlite3* database, char const* schema) {
  sqlite3_file* file = nullptr;
  if (sqlite3_file_control(database, schema, SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file == nullptr || file->pMethods != &kMethods) {
    return nullptr;
  }
  return &Of(file);
}

}  // namespace sagleme::sql
