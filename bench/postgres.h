#ifndef SAGLEME_BENCH_POSTGRES_H
#define SAGLEME_BENCH_POSTGRES_H

// A PostgreSQL server of one's own, spoken to over a socket in its own directory.

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>

namespace bench {

// The data of a server; removed at the end. A superuser's is owned, and its server run, by the user
// "postgres", since a server refuses to run as superuser.
class PostgresCluster {
 public:
  // In `directory`, which is there and empty. Throws a runtime_error that says why there is none.
  explicit PostgresCluster(std::string directory);
  ~PostgresCluster();
  PostgresCluster(PostgresCluster const&) = delete;
  PostgresCluster& operator=(PostgresCluster const&) = delete;

  std::string const& directory() const { return directory_; }
  std::string Program(std::string const& name) const { return programs_ + "/" + name; }

 private:
  std::string directory_;
  std::string programs_;  // where they are
};

// A running server and one connection to it. Ends with the object, and with the process too.
class PostgresServer {
 public:
  // Without `sync` what is committed survives the death of the server, not of the machine.
  PostgresServer(PostgresCluster const& cluster, bool sync);
  ~PostgresServer();
  PostgresServer(PostgresServer const&) = delete;
  PostgresServer& operator=(PostgresServer const&) = delete;

  // Runs one statement, committed when it returns. Throws a runtime_error with the server's words.
  void Run(std::string const& statement);

 private:
  void Connect(std::string const& directory);
  bool TryConnect(std::string const& directory);
  void Send(std::string const& message);
  // The kind and the body of a message.
  std::pair<char, std::string> Receive();
  void AwaitReady();

  pid_t server_ = 0;
  int socket_ = -1;
};

}  // namespace bench

#endif
