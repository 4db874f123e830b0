#ifndef LSCOREDB_SRC_SERVER_PLACE_H
#define LSCOREDB_SRC_SERVER_PLACE_H

#include <string_view>

namespace lscore {

// Whether a place is meant as the URL of a server, not as a directory.
constexpr bool IsServerUrl(std::string_view place) {
  return place.starts_with("postgresql://") || place.starts_with("postgres://");
}

}  // namespace lscore

#endif
