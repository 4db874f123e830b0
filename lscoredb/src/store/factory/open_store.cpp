#include "open_store.h"

#include <unistd.h>

#include <string>

#include "lmdb_store.h"
#include "log_store.h"
#include "open_error.h"
#include "server_place.h"
#include "server_store.h"

namespace lscore {
namespace {

// A log takes some of the image's slots for readers.
bool MayHaveLog(std::string const& directory, LogWish wish) {
  if (wish == LogWish::kOne || wish == LogWish::kUnlessRefused) return true;
  return access((directory + logformat::kBoardName).c_str(), F_OK) == 0;
}

bool WantsLog(Store const& image, StoreOptions const& options) {
  bool const wanted = options.log == LogWish::kOne || (options.log == LogWish::kUnlessRefused &&
                                                       image.log_state() != LogState::kRefused);
  // alone() also keeps others from opening the directory meanwhile.
  return wanted && options.reserve_layouts && image.layout_reservations()->alone();
}

// Only who asks for a log learns that there can be none. On a full disk, for example, the store
// stays as it is for the others. A batch that failed may be committed all the same, by a sync that
// failed, so the image is asked in any case.
std::unique_ptr<Store> WithNewLog(std::unique_ptr<Store> image, char const* directory,
                                  StoreOptions const& options) {
  Status const status = Guarded([&] {
    LogStore::Convert(*image, directory);
    return LORV_STATUS_OK;
  });
  if (options.log == LogWish::kOne) Check(status);
  ForgetOpenError();
  if (auto store = LogStore::Open(image, directory, options)) return store;
  return image;
}

}  // namespace

std::unique_ptr<Store> OpenStore(char const* directory, StoreOptions const& options) {
  if (directory == nullptr) return LmdbStore::Open(nullptr, options);
  if (IsServerUrl(directory)) return OpenServerStore(directory, options);
  StoreOptions image_options = options;
  if (MayHaveLog(directory, options.log)) image_options.max_readers += LogStore::kOwnReaders;
  std::unique_ptr<Store> image = LmdbStore::Open(directory, image_options);
  if (auto store = LogStore::Open(image, directory, options)) return store;
  if (image->read_only()) return image;
  if (WantsLog(*image, options)) return WithNewLog(std::move(image), directory, options);
  if (options.log == LogWish::kNone) RefuseLog(*image);
  return image;
}

void RefuseLog(Store& store) {
  if (store.read_only() || store.log_state() != LogState::kNone) return;
  static_cast<void>(Guarded([&] {
    LogStore::Refuse(store);
    return LORV_STATUS_OK;
  }));
}

bool StoreExists(char const* directory) {
  if (IsServerUrl(directory)) return HasServerStore(directory);
  return access((std::string(directory) + "/data.mdb").c_str(), F_OK) == 0;
}

}  // namespace lscore
