#ifndef SAGLEME_HOST_PLACE_HPP
#define SAGLEME_HOST_PLACE_HPP

// The place of a database: a directory, or the URL of a schema on a PostgreSQL server
// ("postgresql://user@host/database?schema=shop"; docs/many-machines.md).

#include <lscoredb/server.h>

#include <string>

namespace sagleme {

inline bool IsServerUrl(std::string const& place) { return lscoredb_is_url(place.c_str()) != 0; }

// The place with "***" instead of each password of a URL, for messages and lists.
inline std::string ShownPlace(std::string const& place) {
  std::string shown(lscoredb_shown_place(place.c_str(), 0, nullptr), '\0');
  lscoredb_shown_place(place.c_str(), shown.size() + 1, shown.data());
  return shown;
}

// A short name of the place, for prompts and names of schemas: the last part of a directory, the
// schema that a URL names, or else its database, or else "sagleme".
inline std::string NameOfPlace(std::string const& place) {
  auto const last_part = [](std::string path) {
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    return path.substr(path.rfind('/') + 1);
  };
  if (!IsServerUrl(place)) return last_part(place);
  for (char const* const option : {"?schema=", "&schema="}) {
    std::size_t const at = place.find(option);
    if (at != place.npos) return place.substr(at + 8, place.find('&', at + 1) - at - 8);
  }
  // The whole of a URL without a path is its host, which may be preceded by a password.
  std::string const path =
      place.substr(place.find("://") + 3, place.find('?') - place.find("://") - 3);
  std::string const name = path.find('/') == path.npos ? "" : last_part(path);
  return name.empty() || name.find('@') != name.npos ? "sagleme" : name;
}

namespace detail {

// "in DIRECTORY" or "at URL", for messages.
inline std::string WithPreposition(std::string const& place) {
  return std::string(IsServerUrl(place) ? "at " : "in ").append(ShownPlace(place));
}

}  // namespace detail

}  // namespace sagleme

#endif
