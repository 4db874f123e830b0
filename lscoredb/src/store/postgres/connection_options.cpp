#include "connection_options.h"

#include <libpq-fe.h>

#include <algorithm>
#include <array>
#include <memory>

#include "refusal.h"
#include "status.h"

namespace lscore {
namespace {

// The parts of a list with commas. As for libpq, an empty list has one empty part.
std::vector<std::string> Split(std::string const& list) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end = list.find(','); end != list.npos; end = list.find(',', begin)) {
    parts.push_back(list.substr(begin, end - begin));
    begin = end + 1;
  }
  parts.push_back(list.substr(begin));
  return parts;
}

constexpr std::array<char const*, 3> kPerHost = {"host", "hostaddr", "port"};

}  // namespace

ConnectionOptions::ConnectionOptions(std::string const& url) {
  char* error = nullptr;
  std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)> const found(
      PQconninfoParse(url.c_str(), &error), PQconninfoFree);
  if (found == nullptr) {
    if (error == nullptr) Throw(LSCOREDB_NO_MEMORY);
    NoteRefusal(error);
    PQfreemem(error);
    Throw(LSCOREDB_CANNOT_OPEN);
  }
  for (PQconninfoOption const* each = found.get(); each->keyword != nullptr; ++each) {
    if (each->val != nullptr) options_.emplace_back(each->keyword, each->val);
  }
}

std::vector<ConnectionOptions> ConnectionOptions::HostByHost() const {
  std::size_t hosts = 1;
  for (char const* const name : kPerHost) hosts = std::max(hosts, Split(Find(name)).size());
  bool const libpq_orders =
      Find("target_session_attrs") == "prefer-standby" || Find("load_balance_hosts") == "random";
  std::vector<ConnectionOptions> all(libpq_orders ? 1 : hosts, *this);
  if (all.size() == 1) return all;
  for (char const* const name : kPerHost) {
    std::vector<std::string> const values = Split(Find(name));
    bool const for_all = values.size() == 1;
    // Lists that do not match are left to libpq, whose message explains them best.
    if (!for_all && values.size() != hosts) return {*this};
    for (std::size_t i = 0; i < hosts; ++i) all[i].Set(name, values[for_all ? 0 : i]);
  }
  return all;
}

void ConnectionOptions::Set(std::string const& name, std::string value) {
  auto const is_named = [&](auto const& option) { return option.first == name; };
  auto const found = std::find_if(options_.begin(), options_.end(), is_named);
  if (found != options_.end()) {
    found->second = std::move(value);
  } else {
    options_.emplace_back(name, std::move(value));
  }
}

std::string ConnectionOptions::Find(std::string const& name) const {
  for (auto const& [each, value] : options_) {
    if (each == name) return value;
  }
  return {};
}

std::vector<char const*> ConnectionOptions::Names() const {
  std::vector<char const*> names;
  for (auto const& option : options_) names.push_back(option.first.c_str());
  names.push_back(nullptr);
  return names;
}

std::vector<char const*> ConnectionOptions::Values() const {
  std::vector<char const*> values;
  for (auto const& option : options_) values.push_back(option.second.c_str());
  values.push_back(nullptr);
  return values;
}

}  // namespace lscore
