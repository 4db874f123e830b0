#include <lscoredb/host.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "c_api.h"
#include "check.h"
#include "copy_store.h"
#include "directory.h"
#include "open_error.h"
#include "server_place.h"
#include "watched_work.h"

namespace lscore {
namespace {

constexpr mode_t kDirectoryMode = 0750;
constexpr std::uint32_t kKnownFlags = LSCOREDB_CHECK_PAGES_ONLY | LSCOREDB_CHECK_NO_ENTRIES;

// A directory that does not exist yet, or an empty one.
void PrepareTarget(char const* directory) {
  if (mkdir(directory, kDirectoryMode) == 0) {
    std::filesystem::path const above = std::filesystem::path(directory).parent_path();
    return SyncDirectory(above.empty() ? "." : above.string());
  }
  if (errno != EEXIST) ThrowCannotOpen(directory, errno);
  std::error_code error;
  bool const empty = std::filesystem::is_empty(directory, error);
  if (error) ThrowCannotOpen(directory, error.value());
  if (!empty) ThrowCannotOpen(directory, EEXIST);
}

}  // namespace
}  // namespace lscore

void lscoredb_watch(lscoredb_watch_callback watch, void* user) {
  lscore::ThreadWatch() = {watch, user};
}

uint32_t lscoredb_copy(lscoredb* database, char const* directory) {
  return lscore::Guarded([&]() -> lscore::Status {
    if (database == nullptr || directory == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (lscore::IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    lscore::ForgetOpenError();
    lscore::WatchedCall const call;
    if (!lscore::IsServerUrl(directory)) lscore::PrepareTarget(directory);
    lscore::CopyStore(database->database->store(), directory);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_check(lscoredb* database, uint32_t flags, lscoredb_finding_callback report,
                        void* user) {
  lscore::FindingSink sink(report, user);
  lscore::WatchedCall const call;
  lscore::Status const status = lscore::Guarded([&]() -> lscore::Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (lscore::IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    if ((flags & ~lscore::kKnownFlags) != 0) return LSCOREDB_INVALID_ARGUMENT;
    try {
      lscore::CheckStoreState(database->database->store(), flags, sink);
    } catch (lscore::StopCheck const&) {
      return LSCOREDB_DAMAGED;
    }
    return sink.any() ? LSCOREDB_DAMAGED : LORV_STATUS_OK;
  });
  sink.PassOnFailure();
  return status;
}
