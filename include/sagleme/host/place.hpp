#ifndef SAGLEME_HOST_PLACE_HPP
#define SAGLEME_HOST_PLACE_HPP

// Where a database lies: a directory, or the URL of a schema on a PostgreSQL server
// ("postgresql://user@host/database?schema=shop"; docs/many-machines.md).

#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

inline bool IsServerUrl(std::string_view place) {
  return place.starts_with("postgresql://") || place.starts_with("postgres://");
}

namespace detail {

// The password between the user and the last '@' that may end it. A password whose characters
// should have been encoded is hidden too.
inline std::string_view UserPassword(std::string_view url) {
  std::string_view const rest = url.substr(url.find("://") + 3);
  std::string_view const head = rest.substr(0, rest.find('?'));
  std::size_t at = head.rfind('@');
  if (at == head.npos && head.find('/') == head.npos) at = rest.rfind('@');
  std::size_t const colon = rest.find(':');
  if (at == rest.npos || colon >= at) return {};
  return rest.substr(colon + 1, at - colon - 1);
}

// Parts of a URL, in order. An option whose name has encoded characters may be any.
inline std::vector<std::string_view> Passwords(std::string_view url) {
  std::vector<std::string_view> passwords;
  if (!IsServerUrl(url)) return passwords;
  std::string_view const user = UserPassword(url);
  if (!user.empty()) passwords.push_back(user);
  std::size_t const head = user.empty() ? 0 : static_cast<std::size_t>(user.end() - url.begin());
  for (std::size_t at = url.find('?', head); at != url.npos; at = url.find('&', at + 1)) {
    std::string_view const option = url.substr(at + 1, url.find('&', at + 1) - at - 1);
    std::size_t const equals = option.find('=');
    if (equals == option.npos) continue;
    std::string_view const name = option.substr(0, equals);
    bool const secret = name.find("password") != name.npos || name.find('%') != name.npos;
    if (secret && equals + 1 < option.size()) passwords.push_back(option.substr(equals + 1));
  }
  return passwords;
}

// A text about the place, with "***" for each of its passwords.
inline std::string WithoutPasswords(std::string text, std::string_view place) {
  constexpr std::string_view kHidden = "***";
  for (std::string_view const password : Passwords(place)) {
    for (std::size_t at = text.find(password); at != text.npos;
         at = text.find(password, at + kHidden.size())) {
      text.replace(at, password.size(), kHidden);
    }
  }
  return text;
}

}  // namespace detail

// The place as it may be shown to anybody: without the passwords of a URL.
inline std::string ShownPlace(std::string const& place) {
  std::string shown;
  std::size_t from = 0;
  for (std::string_view const password : detail::Passwords(place)) {
    auto const begin = static_cast<std::size_t>(password.data() - place.data());
    shown.append(place, from, begin - from).append("***");
    from = begin + password.size();
  }
  return shown.append(place, from);
}

namespace detail {

// "in DIRECTORY" or "at URL", for messages.
inline std::string WithPreposition(std::string const& place) {
  return std::string(IsServerUrl(place) ? "at " : "in ").append(ShownPlace(place));
}

}  // namespace detail

}  // namespace sagleme

#endif
