#ifndef SAGLEME_HOST_PLACE_HPP
#define SAGLEME_HOST_PLACE_HPP

// Where a database lies: a directory, or the URL of a schema on a PostgreSQL server
// ("postgresql://user@host/database?schema=shop"; docs/many-machines.md).

#include <lscoredb/server.h>

#include <string>

namespace sagleme {

inline bool IsServerUrl(std::string const& place) { return lscoredb_is_url(place.c_str()) != 0; }

// The place as it may be shown to anybody: without the passwords of a URL.
inline std::string ShownPlace(std::string const& place) {
  std::string shown(lscoredb_shown_place(place.c_str(), 0, nullptr), '\0');
  lscoredb_shown_place(place.c_str(), shown.size() + 1, shown.data());
  return shown;
}

namespace detail {

// "in DIRECTORY" or "at URL", for messages.
inline std::string WithPreposition(std::string const& place) {
  return std::string(IsServerUrl(place) ? "at " : "in ").append(ShownPlace(place));
}

}  // namespace detail

}  // namespace sagleme

#endif
