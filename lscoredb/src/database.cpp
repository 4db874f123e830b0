#include "database.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include "layout_release.h"
#include "status.h"

namespace lscore {
namespace {

constexpr mode_t kDirectoryMode = 0750;

// Of a directory, and of the process: what was open before a fork is the parent's.
using DirectoryId = std::tuple<pid_t, dev_t, ino_t>;

struct Known {
  std::weak_ptr<Database> database;
  std::shared_ptr<LayoutNumbers> layout_numbers;  // from the first opening on
};

// The directories that this process has opened. Held over an opening, so that none is opened twice.
struct Registry {
  std::mutex mutex;
  std::map<DirectoryId, Known> known;
};

Registry& TheRegistry() {
  static auto* const registry =
      new Registry;  // outlives all static objects that may hold databases
  return *registry;
}

void MakeDirectories(std::string const& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    std::string const part = path.substr(0, end);
    if (mkdir(part.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
      struct stat status {};
      if (stat(part.c_str(), &status) != 0) Throw(LSCOREDB_CANNOT_OPEN);
    }
    if (end == std::string::npos) return;
  }
}

DirectoryId IdOf(std::string const& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) Throw(LSCOREDB_CANNOT_OPEN);
  if (!S_ISDIR(status.st_mode)) Throw(LSCOREDB_CANNOT_OPEN);
  return {getpid(), status.st_dev, status.st_ino};
}

// A directory that was removed, or made anew in the place of another, has nothing to be remembered.
void ForgetRemoved(Registry& registry) {
  std::erase_if(registry.known, [](auto const& entry) {
    Known const& known = entry.second;
    return known.database.expired() && known.layout_numbers != nullptr &&
           known.layout_numbers->orphaned();
  });
}

// Released layouts are taken away by whoever finds itself alone. What stands in the way of that, a
// full disk for one, does not stand in the way of opening.
void Collect(Store& store, LayoutNumbers& layout_numbers) {
  if (!layout_numbers.alone()) return;
  static_cast<void>(Guarded([&] {
    layout_numbers.Offer(CollectLayouts(store));
    return LORV_STATUS_OK;
  }));
  layout_numbers.Share();
}

std::shared_ptr<Database> OpenStore(std::string const& path, StoreOptions const& options,
                                    Known& known) {
  std::shared_ptr<LayoutNumbers> numbers = known.layout_numbers;
  if (numbers == nullptr) numbers = std::make_shared<LayoutNumbers>(path);
  std::unique_ptr<Store> store = Store::Open(path.c_str(), options);
  Collect(*store, *numbers);
  auto database = std::make_shared<Database>(std::move(store), numbers, options.row_memory);
  known = {database, numbers};
  return database;
}

}  // namespace

std::shared_ptr<Database> OpenDatabase(char const* directory, StoreOptions const& options) {
  if (directory == nullptr) {
    return std::make_shared<Database>(Store::Open(nullptr, options),
                                      std::make_shared<LayoutNumbers>(), options.row_memory);
  }
  std::string const path = directory;
  if (path.empty()) Throw(LSCOREDB_CANNOT_OPEN);
  Registry& registry = TheRegistry();
  std::lock_guard const lock(registry.mutex);
  MakeDirectories(path);
  ForgetRemoved(registry);
  Known& known = registry.known[IdOf(path)];
  std::shared_ptr<Database> database = known.database.lock();
  if (database == nullptr) return OpenStore(path, options, known);
  if (options.verify) database->store().Verify();
  if (options.sync) database->commits().RequireSync();
  return database;
}

// No one opens the directory again before its store is closed.
void CloseDatabase(std::shared_ptr<Database> database) {
  std::lock_guard const lock(TheRegistry().mutex);
  database.reset();
}

}  // namespace lscore
