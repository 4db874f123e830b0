#include "open_store.h"

#include <unistd.h>

#include <string>

#include "lmdb_store.h"
#include "log_store.h"
#include "server_place.h"
#include "server_store.h"

namespace lscore {
namespace {

bool MayHaveLog(std::string const& directory, StoreOptions const& options) {
  return options.log || access((directory + logformat::kBoardName).c_str(), F_OK) == 0;
}

}  // namespace

std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options) {
  if (directory == nullptr) return LmdbStore::Open(nullptr, options);
  if (IsServerUrl(directory)) return OpenServerStore(directory, options);
  StoreOptions image_options = options;
  if (MayHaveLog(directory, options)) image_options.max_readers += LogStore::kOwnReaders;
  std::unique_ptr<Store> image = LmdbStore::Open(directory, image_options);
  if (auto store = LogStore::Open(image, directory, options)) return store;
  if (image->read_only()) return image;
  // alone() also keeps others from opening the directory meanwhile.
  bool const alone = options.reserve_layouts && image->layout_reservations()->alone();
  if (!options.log || !alone) return image;
  image->RequireSync();  // a power failure must leave it with or without a log, nothing between
  LogStore::Convert(*image);
  return LogStore::Open(image, directory, options);
}

bool StoreExists(char const* directory) {
  if (IsServerUrl(directory)) return HasServerStore(directory);
  return access((std::string(directory) + "/data.mdb").c_str(), F_OK) == 0;
}

}  // namespace lscore
