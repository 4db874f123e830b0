#ifndef LSCOREDB_SRC_SERVER_STORE_H
#define LSCOREDB_SRC_SERVER_STORE_H

// Stores on servers. They are in a library of their own, which is loaded when the first one is
// opened, so that other users need not install what it needs.

#include <cstdint>
#include <memory>
#include <string>

#include "store.h"

namespace lscore {

// Throws LSCOREDB_NO_SERVER_LIBRARY, or what the store throws.
std::unique_ptr<Store> OpenServerStore(char const* url, StoreOptions const& options);

// Whether there is a database at the URL. Throws as opening does.
bool HasServerStore(char const* url);

// The function that such a library exports as "lscoredb_open_server_store". Null: the versions of
// the seam differ. Throws as the store does; `*reason` then has the server's reason, if it gave
// one.
inline constexpr std::uint32_t kSeamVersion = 9;
using OpenServerStoreFunction = Store*(char const* url, StoreOptions const* options,
                                       std::uint32_t seam_version, std::string* reason);
// "lscoredb_find_server_store": 1: there is a database, 0: there is none, -1: the versions differ.
using FindServerStoreFunction = int(char const* url, StopsWait stops_wait,
                                    std::uint32_t seam_version, std::string* reason);

}  // namespace lscore

#endif
