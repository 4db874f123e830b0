#ifndef LSCOREDB_SRC_SERVER_URL_H
#define LSCOREDB_SRC_SERVER_URL_H

// Where a database lies on a server: the URL that libpq takes, with options of our own among its
// parameters, which libpq does not know and does not get to see.
//
//   postgresql://user@host1,host2/shop?target_session_attrs=read-write&schema=tenant7
//
//   schema    the schema that holds the tables of the database; `sagleme` when it is not given
//   timeout   seconds that a reply may take before the connection is given up; 30 when not given,
//             0 waits for ever

#include <chrono>
#include <string>
#include <string_view>

namespace lscore {

struct ServerUrl {
  std::string connection;   // for libpq
  std::string schema_name;  // as it is
  std::string schema;       // as an SQL identifier, quoted
  std::chrono::milliseconds timeout{0};
};

// Throws LSCOREDB_CANNOT_OPEN for an option of ours that is not allowed.
ServerUrl ParseServerUrl(std::string_view url);

}  // namespace lscore

#endif
