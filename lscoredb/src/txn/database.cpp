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

// Of a directory, or of the URL of a server, and of the process: what was open before a fork is the
// parent's.
using DatabaseKey = std::tuple<pid_t, dev_t, ino_t, std::string>;

// What this process has open. Held over the opening of a directory, so that none is opened twice.
struct Registry {
  std::mutex mutex;
  std::map<DatabaseKey, std::weak_ptr<Database>> open;
};

// Outlives all static objects that may hold databases. Null until it is asked for, and again in a
// forked child, since a thread that is not there any more may have been working on it.
std::atomic<Registry*> the_registry{nullptr};

AtFork const forget_registry(nullptr, nullptr, [] { the_registry = nullptr; });

Registry& TheRegistry() {
  Registry* registry = the_registry;
  if (registry != nullptr) return *registry;
  auto fresh = std::make_unique<Registry>();
  if (the_registry.compare_exchange_strong(registry, fresh.get())) return *fresh.release();
  return *registry;
}

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

// Null when the directory is not open. A directory that was removed while it was open may have left
// its place, and its number in the file system, to another one.
std::shared_ptr<Database> FindOpen(Registry& registry, DatabaseKey const& id) {
  auto const found = registry.open.find(id);
  std::shared_ptr<Database> database =
      found == registry.open.end() ? nullptr : found->second.lock();
  return database != nullptr && database->orphaned() ? nullptr : database;
}

std::shared_ptr<Database> OpenNew(std::string const& path, StoreOptions options) {
  options.reserve_layouts = true;
  // The host may go to another working directory later.
  std::string const directory = IsServerUrl(path) ? "" : std::filesystem::absolute(path).string();
  auto database =
      std::make_shared<Database>(OpenStore(path.c_str(), options), options.row_memory, directory);
  database->layout_numbers().CollectReleased(database->store());
  return database;
}

// Another opener of what is open already.
void Join(Database& database, StoreOptions const& options) {
  if (options.access == Access::kWrite && database.store().read_only()) {
    Throw(LSCOREDB_READ_ONLY_DATABASE);
  }
  if (options.verify) database.store().Verify();
  if (options.sync) database.commits().RequireSync();
}

// Nobody else waits for a server meanwhile. Who opened the same one first shares what it opened.
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

// No one opens the directory again before its store is closed. What was attached is released behind
// the lock, since it may open and close databases of its own.
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
