#ifndef LSCOREDB_SRC_CONNECTION_H
#define LSCOREDB_SRC_CONNECTION_H

// A connection to the server, which speaks in round trips: statements are gathered, sent together,
// and answered together. One thread at a time.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "server_url.h"
#include "status.h"

struct pg_conn;
struct pg_result;

namespace lscore {

struct FreeResult {
  void operator()(pg_result* result) const noexcept;
};

// The rows that a statement gave, in binary. Bytes stay where they are as long as the result.
class Result {
 public:
  Result() = default;
  explicit Result(pg_result* result) : result_(result) {}

  pg_result const* get() const { return result_.get(); }
  std::size_t size() const;
  // REQUIRES: there is such a row and column, and it is not null.
  std::string_view Bytes(std::size_t row, std::size_t column) const;
  std::uint64_t Number(std::size_t row, std::size_t column) const;  // a bigint

 private:
  std::unique_ptr<pg_result, FreeResult> result_;
};

// What a statement takes, in binary. Borrows nothing.
class Parameters {
 public:
  Parameters& Bytes(std::string_view bytes);
  Parameters& Number(std::uint64_t number);  // a bigint
  Parameters& ManyBytes(std::vector<std::string_view> const& values);
  Parameters& ManyNumbers(std::vector<std::uint64_t> const& numbers);

  std::vector<std::string> const& values() const { return values_; }

 private:
  std::vector<std::string> values_;
};

// A statement that the server keeps prepared under its name once a connection has used it.
struct Statement {
  std::string name;
  std::string text;
};

// What a request is worth when its reply is lost.
enum class Lost : std::uint8_t {
  kNothing,      // it changed nothing, or is undone
  kPerhapsDone,  // it may have been a commit
};

// Thrown in place of a Failure when the reply to a commit is lost.
class ReplyLost {};

class ConnectionOptions;

using RoundTrips = std::shared_ptr<std::atomic<std::uint64_t>>;

class Connection {
 public:
  // Connects. Throws LSCOREDB_SERVER_LOST, LSCOREDB_CANNOT_OPEN (refused) or LSCOREDB_NO_MEMORY.
  // Counts the round trips that are waited for in `round_trips`, which may be null.
  explicit Connection(ServerUrl const& url, RoundTrips round_trips = nullptr);
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  // Adds a statement to those that go with the next round trip.
  void Add(Statement const& statement, Parameters const& parameters = {});
  // Sends what was added and returns one result for each. Throws the status of the first statement
  // that failed; the others behind it were not executed.
  std::vector<Result> Exchange(Lost lost = Lost::kNothing);
  // Sends what was added; its results are awaited, and passed over, with the next exchange.
  void Post() noexcept;
  // Exchange for one statement.
  Result Run(Statement const& statement, Parameters const& parameters = {});

  // Whether it can be used for another transaction: it is outside of any, or will be when what was
  // posted is done.
  bool usable() const;

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  struct Awaited {
    std::string prepares;  // the name of a statement; empty: it is executed
  };

  void Open(ServerUrl const& url);
  void Connect(ConnectionOptions const& options);
  [[noreturn]] void Refuse(int last, ConnectionOptions const& options);
  Deadline DeadlineFromNow() const;
  // Waits until the server can be read from, or written to. Throws when it takes too long.
  void Await(short events, Deadline deadline);
  void Flush(Deadline deadline);
  pg_result* NextResult(Deadline deadline);
  void PassOverPosted(Deadline deadline);
  bool TakeResult(Deadline deadline, Status* failed, Result* out);
  std::vector<Result> TakeResults(Deadline deadline);
  [[noreturn]] void Break(Lost lost);

  std::chrono::milliseconds timeout_;
  pg_conn* connection_ = nullptr;
  std::set<std::string> prepared_;
  std::vector<Awaited> added_;
  std::size_t posted_ = 0;  // exchanges whose results are still to come
  RoundTrips round_trips_;
  bool broken_ = false;
};

}  // namespace lscore

#endif
