#ifndef LSCOREDB_TESTS_ASK_SERVER_H
#define LSCOREDB_TESTS_ASK_SERVER_H

// Statements of a test's own for the server of tools/with-postgres.

#include <cstdio>
#include <memory>
#include <string>

#include "postgres_url.h"

namespace lscore {

inline std::string SchemaOf(std::string const& url) { return url.substr(url.find("schema=") + 7); }

// What psql prints for the statement, in which no ' may be.
inline std::string AskServer(std::string const& statement) {
  std::string const command = "psql -q -A -t -U sagleme -d postgres -h " + ServerDirectory() +
                              " -c '" + statement + "' 2>&1";
  std::string answer;
  std::unique_ptr<FILE, int (*)(FILE*)> const output(popen(command.c_str(), "r"), pclose);
  for (int c = std::getc(output.get()); c != EOF; c = std::getc(output.get())) {
    answer.push_back(static_cast<char>(c));
  }
  return answer;
}

}  // namespace lscore

#endif
