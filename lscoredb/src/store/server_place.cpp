#include "server_place.h"

#include <algorithm>
#include <vector>

namespace lscore {
namespace {

constexpr std::string_view kHidden = "***";

std::string_view AfterScheme(std::string_view url) { return url.substr(url.find("://") + 3); }

// The text between the user's colon and the last '@' that may end the password: a password with a
// character that should have been encoded must not appear in a log either.
std::string_view Password(std::string_view url) {
  std::string_view const rest = AfterScheme(url);
  std::string_view const head = rest.substr(0, rest.find('?'));
  std::size_t at = head.rfind('@');
  if (at == head.npos && head.find('/') == head.npos) at = rest.rfind('@');
  std::size_t const colon = rest.find(':');
  if (at == rest.npos || colon >= at) return {};
  return rest.substr(colon + 1, at - colon - 1);
}

// The name of an option may be encoded, so every one with encoded characters counts as secret.
bool IsSecret(std::string_view option) {
  return option.find("password") != option.npos || option.find('%') != option.npos;
}

void AddOptions(std::string_view rest, std::vector<std::string_view>& passwords) {
  std::size_t begin = rest.find('?');
  while (begin != rest.npos) {
    std::string_view const option = rest.substr(begin + 1, rest.find('&', begin + 1) - begin - 1);
    std::size_t const equals = option.find('=');
    if (equals != option.npos && IsSecret(option.substr(0, equals))) {
      passwords.push_back(option.substr(equals + 1));
    }
    begin = rest.find('&', begin + 1);
  }
}

// Parts of `url`, in order.
std::vector<std::string_view> Passwords(std::string_view url) {
  std::vector<std::string_view> passwords;
  if (!IsServerUrl(url)) return passwords;
  std::string_view rest = AfterScheme(url);
  std::string_view const first = Password(url);
  if (!first.empty()) {
    passwords.push_back(first);
    rest = url.substr(static_cast<std::size_t>(first.end() - url.begin()));
  }
  AddOptions(rest, passwords);
  return passwords;
}

}  // namespace

std::string ShownPlace(std::string_view place) {
  std::string shown;
  auto const* from = place.begin();
  for (std::string_view const password : Passwords(place)) {
    shown.append(from, password.begin()).append(kHidden);
    from = password.end();
  }
  return shown.append(from, place.end());
}

std::string WithoutPasswords(std::string text, std::string_view url) {
  for (std::string_view const password : Passwords(url)) {
    if (password.empty()) continue;
    for (std::size_t at = text.find(password); at != text.npos;
         at = text.find(password, at + kHidden.size())) {
      text.replace(at, password.size(), kHidden);
    }
  }
  return text;
}

bool PasswordIsClear(std::string_view url) {
  return Password(url).find_first_of("/?@#") == url.npos;
}

}  // namespace lscore
