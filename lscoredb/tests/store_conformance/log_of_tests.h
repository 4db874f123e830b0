#ifndef LSCOREDB_TESTS_STORE_CONFORMANCE_LOG_OF_TESTS_H
#define LSCOREDB_TESTS_STORE_CONFORMANCE_LOG_OF_TESTS_H

#include <memory>
#include <string>

#include "lmdb_store.h"
#include "log_store.h"

namespace lscore {

// The store with a log in a directory that nobody else has open. It gets one if it has none.
inline std::unique_ptr<Store> OpenLogStore(std::string const& directory,
                                           StoreOptions const& options) {
  StoreOptions image_options = options;
  image_options.max_readers += LogStore::kOwnReaders;
  std::unique_ptr<Store> image = LmdbStore::Open(directory.c_str(), image_options);
  if (auto store = LogStore::Open(image, directory, options)) return store;
  LogStore::Convert(*image, directory);
  return LogStore::Open(image, directory, options);
}

}  // namespace lscore

#endif
