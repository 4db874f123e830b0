#ifndef LSCOREDB_SRC_SERVER_STORE_H
#define LSCOREDB_SRC_SERVER_STORE_H

// Stores on servers. They lie in a library of their own, which is loaded when the first one is
// opened, so that whoever has no use for them needs nothing of what they need.

#include <cstdint>
#include <memory>
#include <string>

#include "store.h"

namespace lscore {

// Throws LSCOREDB_NO_SERVER_LIBRARY, or what the store throws.
std::unique_ptr<Store> OpenServerStore(char const* url, StoreOptions const& options);

// Whether there is a database at the URL. Throws as opening does.
bool HasServerStore(char const* url);

// What such a library exports, as "lscoredb_open_server_store". Both sides have to be of one build
// of the seam. Null: they are not. Throws as the store does; `*reason` says why then, as far as the
// server has said it.
inline constexpr std::uint32_t kSeamVersion = 5;
using OpenServerStoreFunction = Store*(char const* url, StoreOptions const* options,
                                       std::uint32_t seam_version, std::string* reason);
// "lscoredb_find_server_store": 1: there is a database, 0: there is none, -1: not of one build.
using FindServerStoreFunction = int(char const* url, std::uint32_t seam_version,
                                    std::string* reason);

}  // namespace lscore

#endif
