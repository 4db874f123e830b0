#include "database.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include "directory.h"
#include "fork.h"
#include "open_error.h"
#include "open_store.h"
#include "server_place.h"
#include "status.h"

namespace lscore {
namespace {

constexpr mode_t kDirectoryMode = 0750;

// A directory by device and inode, or a server by its URL. The process id is part of the key, since
// what was open before a fork is the parent's.
using DatabaseKey = std::tuple<pid_t, dev_t, ino_t, std::string>;

// The databases that this process has open. The mutex is held while a directory is opened, so that
// none is opened twice. Weak pointers: only handles keep a database open.
struct Registry {
  std::mutex mutex;
  std::map<DatabaseKey, std::weak_ptr<Database>> open;
};

// Never destroyed, since static objects may hold databases. Created on first use. A forked child
// starts with a new one: a thread that exists only in the parent may have held the mutex.
std::atomic<Registry*> the_registry{nullptr};

AtFork const forget_registry(nullptr, nullptr, [] { the_registry = nullptr; });

Registry& TheRegistry() {
  Registry* registry = the_registry;
  if (registry != nullptr) return *registry;
  auto fresh = std::make_unique<Registry>();
  if (the_registry.compare_exchange_strong(registry, fresh.get())) return *fresh.release();
  return *registry;
}

// Creates the missing parts of the path. Each new part is synced into its parent, or a power
// failure could lose the directory with all commits in it.
void MakeDirectories(std::string const& path, bool sync) {
  std::string above = path.starts_with('/') ? "/" : ".";
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    std::string const part = path.substr(0, end);
    if (mkdir(part.c_str(), kDirectoryMode) == 0) {
      if (sync) SyncDirectory(above);
    } else if (errno != EEXIST) {
      struct stat status {};
      int const error = errno;
      if (stat(part.c_str(), &status) != 0) ThrowCannotOpen(part, error);
    }
    if (end == std::string::npos) return;
    above = part;
  }
}

DatabaseKey IdOf(std::string const& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) ThrowCannotOpen(path, errno);
  if (!S_ISDIR(status.st_mode)) ThrowCannotOpen(path, ENOTDIR);
  return {getpid(), status.st_dev, status.st_ino, {}};
}

void ForgetClosed(Registry& registry) {
  std::erase_if(registry.open, [](auto const& entry) { return entry.second.expired(); });
}

// Null when the directory is not open. The inode number of a directory that was removed while open
// may have been reused: such an orphan is not the one that is wanted.
std::shared_ptr<Database> FindOpen(Registry& registry, DatabaseKey const& id) {
  auto const found = registry.open.find(id);
  std::shared_ptr<Database> database =
      found == registry.open.end() ? nullptr : found->second.lock();
  return database != nullptr && database->orphaned() ? nullptr : database;
}

std::shared_ptr<Database> OpenNew(std::string const& path, StoreOptions options) {
  options.reserve_layouts = true;
  // Absolute, since the host may change its working directory.
  std::string const directory = IsServerUrl(path) ? "" : std::filesystem::absolute(path).string();
  auto database =
      std::make_shared<Database>(OpenStore(path.c_str(), options), options.row_memory, directory);
  database->layout_numbers().CollectReleased(database->store());
  return database;
}

// A second open of a database shares the first one's store. It can ask for more (a check, synced
// commits), but not turn a read-only store into a writable one.
void Join(Database& database, StoreOptions const& options) {
  if (options.access == Access::kWrite && database.store().read_only()) {
    Throw(LSCOREDB_READ_ONLY_DATABASE);
  }
  if (options.verify) database.store().Verify();
  if (options.log == LogWish::kNone) RefuseLog(database.store());
  if (options.sync) database.commits().RequireSync(std::chrono::milliseconds(0));
}

// Connects without the mutex, since a server may take long to answer. When two threads open the
// same URL at once, the second to finish drops its connection and shares the first one's database.
std::shared_ptr<Database> OpenServer(std::string const& url, StoreOptions const& options) {
  Registry& registry = TheRegistry();
  DatabaseKey const id{getpid(), 0, 0, url};
  auto const find = [&] {
    std::lock_guard const lock(registry.mutex);
    ForgetClosed(registry);
    return FindOpen(registry, id);
  };
  std::shared_ptr<Database> database = find();
  if (database == nullptr) {
    std::shared_ptr<Database> const opened = OpenNew(url, options);
    std::lock_guard const lock(registry.mutex);
    database = FindOpen(registry, id);
    if (database == nullptr) {
      registry.open[id] = opened;
      return opened;
    }
  }
  Join(*database, options);
  return database;
}

}  // namespace

std::uint64_t NextDatabaseNumber() {
  static constinit std::atomic<std::uint64_t> last{0};
  return ++last;
}

std::shared_ptr<Database> OpenDatabase(char const* directory, StoreOptions const& options) {
  if (directory == nullptr) {
    return std::make_shared<Database>(OpenStore(nullptr, options), options.row_memory, "");
  }
  std::string const path = directory;
  if (path.empty()) ThrowCannotOpen(path, ENOENT);
  if (IsServerUrl(path)) return OpenServer(path, options);
  Registry& registry = TheRegistry();
  std::lock_guard const lock(registry.mutex);
  if (options.access != Access::kRead) MakeDirectories(path, options.sync);
  ForgetClosed(registry);
  DatabaseKey const id = IdOf(path);
  std::shared_ptr<Database> database = FindOpen(registry, id);
  if (database == nullptr) {
    database = OpenNew(path, options);
    registry.open[id] = database;
    return database;
  }
  Join(*database, options);
  return database;
}

// The store is closed under the mutex, so that nobody opens the directory while it is still locked.
// The locals are destroyed in reverse order: first the mutex is released, then the attachments,
// which may open and close other databases, and last the reserved layout numbers.
void CloseDatabase(std::shared_ptr<Database> database) {
  std::shared_ptr<LayoutReservations> numbers;
  std::unique_ptr<Attachments> attachments;
  Registry& registry = TheRegistry();
  std::lock_guard const lock(registry.mutex);
  if (database.use_count() == 1) {
    numbers = database->layout_numbers().reservations();
    attachments = database->TakeAttachments();
  }
  database.reset();
}

}  // namespace lscore
