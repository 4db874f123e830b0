#ifndef LSCOREDB_TESTS_POSTGRES_PROXY_TEST_H
#define LSCOREDB_TESTS_POSTGRES_PROXY_TEST_H

// A database on a server behind a proxy, with one object and a session.

#include <memory>
#include <string>

#include "postgres_url.h"
#include "process_world.h"
#include "server_proxy.h"

namespace lscoredb_test {

using lscore::ServerDirectory;

class PostgresProxyTest : public testing::Test {
 protected:
  PostgresProxyTest() { CommitPair(*session_, 1); }

  static std::string UrlThrough(std::string const& directory) {
    std::string url = lscore::NewServerUrl();
    std::string const server = ServerDirectory();
    return url.replace(url.find(server), server.size(), directory) + "&timeout=5";
  }

  // The status of a commit that creates an object, and whether others see that object.
  std::uint32_t CommitObject(bool* seen) {
    session_->Begin();
    Oid const row = session_->Insert(PairWorld(*session_).layout);
    std::uint32_t const status = session_->TryCommit();
    EXPECT_TRUE(proxy_.has_cut());
    proxy_.Open();
    Database const direct(url_ + "&timeout=6");
    Session reader(direct);
    reader.BeginReadOnly();
    std::int64_t value = 0;
    *seen = lorv_context_get_long(reader.context(), row, 0, kPairValue, &value) !=
            LORV_STATUS_NO_OBJECT;
    return status;
  }

  TemporaryDirectory const directory_;
  ServerProxy proxy_{ServerDirectory(), directory_.path()};
  std::string const url_ = UrlThrough(directory_.path());
  Database database_{url_};
  std::unique_ptr<Session> session_ = std::make_unique<Session>(database_);
};

}  // namespace lscoredb_test

#endif
