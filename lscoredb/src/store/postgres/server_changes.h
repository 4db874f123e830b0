#ifndef LSCOREDB_SRC_SERVER_CHANGES_H
#define LSCOREDB_SRC_SERVER_CHANGES_H

// Reads the commits that a server keeps, in order, by asking for what follows the last one. Waiting
// asks again every changes_interval of the URL. Between its questions it holds no connection, so it
// outlives a restart of the server and a failover.
//
// A server that takes over without the newest commits gives their numbers to others. So each
// question asks for the last commit too: if it is another one now, what followed it is gone. A
// standby that is behind shows nothing yet.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "change_source.h"
#include "connection.h"

namespace lscore {

class PostgresStore;

class ServerChanges final : public ChangeSource {
 public:
  ServerChanges(PostgresStore const& store, CommitId after);
  ~ServerChanges() override;

  bool Next(NotedCommit* out) override;
  bool Wait(int milliseconds) override;
  // A timer of the interval: readable means that it is time to ask.
  int File() override;

 private:
  bool HasRow() const;
  // Asks. Returns whether there is a commit.
  bool Fetch();
  void Accept(CommitId newest);
  void ReadRow(NotedCommit* out);
  void ReadParts(std::size_t count);

  PostgresStore const& store_;
  CommitId last_;                           // the last commit that was read
  std::optional<std::uint64_t> last_time_;  // its time, if it was seen
  Result rows_;
  std::size_t next_ = 0;  // of the rows
  std::string whole_;     // the bytes of a commit in parts
  int timer_ = -1;
};

}  // namespace lscore

#endif
