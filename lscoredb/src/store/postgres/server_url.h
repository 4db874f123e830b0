#ifndef LSCOREDB_SRC_SERVER_URL_H
#define LSCOREDB_SRC_SERVER_URL_H

// The URL of a database on a server: a URL of libpq with options of our own among its parameters,
// which are removed before libpq gets it.
//
//   postgresql://user@host1,host2/shop?target_session_attrs=read-write&schema=tenant7
//
//   schema    the schema that holds the tables of the database; default `sagleme`
//   timeout   seconds that a reply may take before the connection is given up; default 30, 0 waits
//             for ever
//   changes_interval   seconds between the questions of a reader of changes that waits; default 1

#include <chrono>
#include <string>
#include <string_view>

namespace lscore {

struct ServerUrl {
  std::string connection;   // for libpq
  std::string schema_name;  // unquoted
  std::string schema;       // as an SQL identifier, quoted
  std::string shown;        // all of it as anybody may see it
  std::chrono::milliseconds timeout{0};
  std::chrono::milliseconds changes_interval{0};
};

// Throws LSCOREDB_CANNOT_OPEN, and notes why, for a bad value of our options.
ServerUrl ParseServerUrl(std::string_view url);

}  // namespace lscore

#endif
