// What the library of the store exports.

#include "postgres_store.h"
#include "refusal.h"
#include "server_store.h"

#define EXPORTED __attribute__((visibility("default")))

extern "C" {
EXPORTED lscore::OpenServerStoreFunction lscoredb_open_server_store;
EXPORTED lscore::FindServerStoreFunction lscoredb_find_server_store;
}

lscore::Store* lscoredb_open_server_store(char const* url, lscore::StoreOptions const* options,
                                          std::uint32_t seam_version, std::string* reason) {
  if (seam_version != lscore::kSeamVersion) return nullptr;
  lscore::ForgetRefusal();
  try {
    return new lscore::PostgresStore(url, *options);
  } catch (...) {
    *reason = lscore::LastRefusal();
    throw;
  }
}

int lscoredb_find_server_store(char const* url, lscore::StopsWait stops_wait,
                               std::uint32_t seam_version, std::string* reason) {
  if (seam_version != lscore::kSeamVersion) return -1;
  lscore::ForgetRefusal();
  try {
    return lscore::PostgresStore::Exists(url, stops_wait) ? 1 : 0;
  } catch (...) {
    *reason = lscore::LastRefusal();
    throw;
  }
}
