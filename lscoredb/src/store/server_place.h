#ifndef LSCOREDB_SRC_SERVER_PLACE_H
#define LSCOREDB_SRC_SERVER_PLACE_H

// The place of a database: a directory or the URL of a server, and what of a URL may be shown.

#include <string>
#include <string_view>

namespace lscore {

// Whether a place is the URL of a server, not a directory.
constexpr bool IsServerUrl(std::string_view place) {
  return place.starts_with("postgresql://") || place.starts_with("postgres://");
}

// The place with "***" instead of each password of a URL.
std::string ShownPlace(std::string_view place);
// A text about the URL, without its passwords.
std::string WithoutPasswords(std::string text, std::string_view url);
// Whether it is clear where the password before the host ends.
bool PasswordIsClear(std::string_view url);

}  // namespace lscore

#endif
