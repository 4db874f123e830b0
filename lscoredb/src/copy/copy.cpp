#include <lscoredb/host.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "c_api.h"
#include "copy_store.h"
#include "database.h"

namespace lscore {
namespace {

constexpr mode_t kDirectoryMode = 0750;

// A directory that is not there yet, or an empty one.
void PrepareTarget(char const* directory) {
  if (mkdir(directory, kDirectoryMode) == 0) return;
  std::error_code error;
  bool const empty = errno == EEXIST && std::filesystem::is_empty(directory, error);
  if (!empty || error) Throw(LSCOREDB_CANNOT_OPEN);
}

}  // namespace
}  // namespace lscore

uint32_t lscoredb_copy(lscoredb* database, char const* directory) {
  return lscore::Guarded([&]() -> lscore::Status {
    if (database == nullptr || directory == nullptr) return LSCOREDB_NULL_ARGUMENT;
    lscore::PrepareTarget(directory);
    lscore::CopyStore(database->database->store(), directory);
    return LORV_STATUS_OK;
  });
}
