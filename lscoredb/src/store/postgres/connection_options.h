#ifndef LSCOREDB_SRC_CONNECTION_OPTIONS_H
#define LSCOREDB_SRC_CONNECTION_OPTIONS_H

// The options of a connection for libpq: those of a URL, and those of each of its hosts.

#include <string>
#include <utility>
#include <vector>

namespace lscore {

class ConnectionOptions {
 public:
  // Throws LSCOREDB_CANNOT_OPEN, and notes why, if the URL is malformed.
  explicit ConnectionOptions(std::string const& url);

  // One set for each host, in their order. Each host is tried by itself, since libpq moves on from
  // a host that does not answer only in its blocking mode. Returns these options unchanged if they
  // name one host or leave the order of hosts to libpq.
  std::vector<ConnectionOptions> HostByHost() const;

  void Set(std::string const& name, std::string value);
  // Arrays that end with null, valid until the next Set.
  std::vector<char const*> Names() const;
  std::vector<char const*> Values() const;

 private:
  std::string Find(std::string const& name) const;  // empty: not given

  std::vector<std::pair<std::string, std::string>> options_;
};

}  // namespace lscore

#endif
