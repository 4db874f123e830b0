#include "server_url.h"

#include <charconv>

#include "refusal.h"
#include "server_place.h"
#include "status.h"

namespace lscore {
namespace {

constexpr std::string_view kDefaultSchema = "sagleme";
constexpr std::size_t kLongestName = 63;  // the server truncates longer identifiers
constexpr std::chrono::seconds kDefaultTimeout{30};
constexpr int kLongestTimeout = 24 * 60 * 60;
constexpr std::chrono::seconds kDefaultInterval{1};
constexpr double kShortestInterval = 0.01;
constexpr double kLongestInterval = 3600;

[[noreturn]] void Refuse(std::string const& why) {
  NoteRefusal(why);
  Throw(LSCOREDB_CANNOT_OPEN);
}

std::string Decoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    if (text[i] == '%') {
      char const* const digits = text.data() + i + 1;
      bool const whole = i + 2 < text.size();
      if (!whole || std::from_chars(digits, digits + 2, value, 16).ptr != digits + 2) {
        Refuse(std::string(text) + ": two hexadecimal digits have to follow %");
      }
      i += 2;
    }
    decoded.push_back(value != 0 ? static_cast<char>(value) : text[i]);
  }
  return decoded;
}

std::string Quoted(std::string const& name) {
  if (name.empty() || name.size() > kLongestName) {
    Refuse("schema=" + name + ": the name of a schema has 1 to 63 bytes");
  }
  std::string quoted = "\"";
  for (char const c : name) {
    if (static_cast<unsigned char>(c) < ' ') Refuse("schema: its name has control characters");
    if (c == '"') quoted.push_back(c);
    quoted.push_back(c);
  }
  return quoted + '"';
}

std::chrono::seconds Timeout(std::string const& text) {
  int seconds = 0;
  char const* const end = text.data() + text.size();
  auto const read = std::from_chars(text.data(), end, seconds);
  bool const number = read.ec == std::errc() && read.ptr == end;
  if (!number || seconds < 0 || seconds > kLongestTimeout) {
    Refuse("timeout=" + text + ": it is a number of seconds from 0 to 86400");
  }
  return std::chrono::seconds(seconds);
}

std::chrono::milliseconds Interval(std::string const& text) {
  double seconds = 0;
  char const* const end = text.data() + text.size();
  auto const read = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  bool const number = read.ec == std::errc() && read.ptr == end;
  if (!number || !(seconds >= kShortestInterval && seconds <= kLongestInterval)) {
    Refuse("changes_interval=" + text + ": it is a number of seconds from 0.01 to 3600");
  }
  return std::chrono::round<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

// Options of ours, and those that are left to libpq.
void TakeOption(std::string_view option, ServerUrl* parsed) {
  std::size_t const equals = std::min(option.find('='), option.size());
  std::string_view const name = option.substr(0, equals);
  std::string_view const value = option.substr(std::min(equals + 1, option.size()));
  if (name == "schema") {
    parsed->schema_name = Decoded(value);
  } else if (name == "timeout") {
    parsed->timeout = Timeout(Decoded(value));
  } else if (name == "changes_interval") {
    parsed->changes_interval = Interval(Decoded(value));
  } else {
    bool const first = parsed->connection.find('?') == std::string::npos;
    parsed->connection.append(first ? "?" : "&").append(option);
  }
}

}  // namespace

ServerUrl ParseServerUrl(std::string_view url) {
  if (!PasswordIsClear(url)) {
    Refuse("in a password of a URL %2F stands for /, %3F for ?, %40 for @ and %23 for #");
  }
  std::size_t const query = std::min(url.find('?'), url.size());
  ServerUrl parsed;
  parsed.connection = url.substr(0, query);
  parsed.shown = ShownPlace(url);
  parsed.schema_name = kDefaultSchema;
  parsed.timeout = kDefaultTimeout;
  parsed.changes_interval = kDefaultInterval;
  for (std::size_t begin = query + 1; begin < url.size();) {
    std::size_t const end = std::min(url.find('&', begin), url.size());
    TakeOption(url.substr(begin, end - begin), &parsed);
    begin = end + 1;
  }
  parsed.schema = Quoted(parsed.schema_name);
  return parsed;
}

}  // namespace lscore
