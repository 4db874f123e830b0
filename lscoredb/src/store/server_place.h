#ifndef LSCOREDB_SRC_SERVER_PLACE_H
#define LSCOREDB_SRC_SERVER_PLACE_H

// The URL of a server in the place of a directory, and what of it may be shown.

#include <string>
#include <string_view>

namespace lscore {

// Whether a place is meant as the URL of a server, not as a directory.
constexpr bool IsServerUrl(std::string_view place) {
  return place.starts_with("postgresql://") || place.starts_with("postgres://");
}

// The place as anybody may see it: "***" stands for each password of a URL.
std::string ShownPlace(std::string_view place);
// A text about the URL, without its passwords.
std::string WithoutPasswords(std::string text, std::string_view url);
// Whether the password before the host can be told from what follows it.
bool PasswordIsClear(std::string_view url);

}  // namespace lscore

#endif
