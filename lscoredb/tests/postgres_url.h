#ifndef LSCOREDB_TESTS_POSTGRES_URL_H
#define LSCOREDB_TESTS_POSTGRES_URL_H

// Places on the server that tools/with-postgres runs.

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace lscore {

// Whether suites of other stores are to run on the server of tools/with-postgres.
inline bool RunsOnServer() {
  char const* const store = std::getenv("SAGLEME_TEST_STORE");
  return store != nullptr && std::string(store) == "postgres";
}

// Where the sockets of that server are, or of several with commas between.
inline std::string ServerDirectory() {
  std::string const url = std::getenv("SAGLEME_TEST_POSTGRES");
  std::size_t const begin = url.find("host=") + 5;
  return url.substr(begin, url.find('&', begin) - begin);
}

// The URL of a schema that is not there yet.
inline std::string NewServerUrl() {
  static std::atomic<int> count{0};
  char const* const server = std::getenv("SAGLEME_TEST_POSTGRES");
  if (server == nullptr) throw std::runtime_error("run this with tools/with-postgres");
  return std::string(server) + "&schema=test_" + std::to_string(getpid()) + "_" +
         std::to_string(++count);
}

// Where a suite of any store puts a database that it opens again: `directory`, or a new schema of
// the server.
inline std::string NewPlace(std::string const& directory) {
  return RunsOnServer() ? NewServerUrl() : directory;
}

}  // namespace lscore

#endif
