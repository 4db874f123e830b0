#ifndef LSCOREDB_SRC_CONNECTION_H
#define LSCOREDB_SRC_CONNECTION_H

// A connection to the server in libpq's pipeline mode: statements are collected, sent together and
// answered together, in one round trip. One thread at a time.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "server_url.h"
#include "status.h"
#include "store.h"

struct pg_conn;
struct pg_result;

namespace lscore {

struct FreeResult {
  void operator()(pg_result* result) const noexcept;
};

// The rows that a statement returned, in binary. Their bytes are valid as long as the result.
class Result {
 public:
  Result() = default;
  explicit Result(pg_result* result) : result_(result) {}

  pg_result const* get() const { return result_.get(); }
  std::size_t size() const;
  std::size_t columns() const;
  std::size_t memory() const;  // bytes
  // REQUIRES: the row and column exist, and the value is not null.
  std::string_view Bytes(std::size_t row, std::size_t column) const;
  std::uint64_t Number(std::size_t row, std::size_t column) const;  // a bigint
  bool IsNull(std::size_t row, std::size_t column) const;

 private:
  std::unique_ptr<pg_result, FreeResult> result_;
};

// The parameters of a statement, in binary. Copies what it is given.
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

// A statement that a connection prepares under its name when it is first used.
struct Statement {
  std::string name;
  std::string text;
};

// What a lost reply means for a request.
enum class Lost : std::uint8_t {
  kNothing,      // it changed nothing, or the server rolls it back
  kPerhapsDone,  // it has a commit, which may have taken place
};

// Thrown in place of a Failure when the reply to a commit is lost.
class ReplyLost {};

class ConnectionOptions;

using RoundTrips = std::shared_ptr<std::atomic<std::uint64_t>>;

// What becomes of the waits for a server.
struct Waits {
  RoundTrips count;  // of those that were answered; may be null
  StopsWait stops = nullptr;

  bool stopped() const { return stops != nullptr && stops(); }
  Waits Unstoppable() const { return {count, nullptr}; }
};

class Connection {
 public:
  // Connects. Throws LSCOREDB_SERVER_LOST, LSCOREDB_CANNOT_OPEN (refused), LSCOREDB_STOPPED or
  // LSCOREDB_NO_MEMORY.
  Connection(ServerUrl const& url, Waits waits);
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  // Adds a statement to the next round trip.
  void Add(Statement const& statement, Parameters const& parameters = {});
  // How many statements were added since the last exchange.
  std::size_t added() const { return statements_added_; }
  // Sends what was added and returns one result for each. Throws the status of the first statement
  // that failed; those after it were not executed.
  //
  // A wait that is stopped throws LSCOREDB_STOPPED and leaves the request to the server, which is
  // not asked to cancel it. The next Exchange of the transaction waits for it first. A request with
  // a commit is not stopped: a server that stops waiting for its standby shows others a commit that
  // the standby does not have.
  std::vector<Result> Exchange(Lost lost = Lost::kNothing);
  // After an Exchange that threw what the server refused: the position of the statement.
  std::size_t refused_at() const { return refused_at_; }
  // Sends what was added without waiting. The next Exchange reads and ignores the results.
  void Post() noexcept;
  // Sends what was added without waiting, for TakeEarly, which does what Exchange would do. An
  // Exchange that comes first keeps the results until then. Post ends that: it waits for them,
  // since the server would wait for a reader of a long reply before it ends the transaction.
  // REQUIRES: can_send_early(); has_early(), which a wait that was stopped ends.
  void SendEarly() noexcept;
  std::vector<Result> TakeEarly();
  bool can_send_early() const;
  bool has_early() const { return early_.has_value(); }
  // Forgets results that were read; false: they were not.
  bool DropEarly();
  // Exchange for one statement.
  Result Run(Statement const& statement, Parameters const& parameters = {});

  // Whether another transaction can use the connection: it is outside of any, or will be after what
  // was posted. A stopped wait makes it useless for others, since the server may be busy for long.
  bool usable() const;
  // Makes it useless.
  void GiveUp() noexcept { broken_ = true; }

  // For the store: whether it leads to the primary, which kNow says of the present and kBefore of
  // the past.
  enum class Primary : std::uint8_t { kPerhaps, kNow, kBefore };
  Primary primary() const { return primary_; }
  void SetPrimary(Primary primary) { primary_ = primary; }

 private:
  using Deadline = std::chrono::steady_clock::time_point;
  struct Awaited {
    std::string prepares;  // the name of a statement; empty: it is executed
  };
  struct Early {
    std::vector<Awaited> awaited;  // empty when they were read
    Status failed = LORV_STATUS_OK;
    std::vector<Result> results;
  };

  void Open(ServerUrl const& url);
  void Send(Statement const& statement, Parameters const& parameters);
  Status TryHost(ConnectionOptions const& host);
  void Connect(ConnectionOptions const& options);
  [[noreturn]] void Refuse(int last, ConnectionOptions const& options);
  Deadline DeadlineFromNow() const;
  // Waits until the socket can be read or written. Throws when the deadline has passed or the wait
  // was stopped.
  void Await(short events, Deadline deadline);
  void Flush(Deadline deadline);
  pg_result* NextResult(Deadline deadline);
  void PassOverPosted(Deadline deadline);
  bool TakeResult(Deadline deadline, Status* failed, Result* out);
  std::vector<Result> TakeResults(std::vector<Awaited> const& awaited, Deadline deadline,
                                  Status* failed);
  void ReadEarly(Deadline deadline);
  // Runs `read`, which waits for the server, for so many requests that were just sent.
  template <typename Read>
  std::vector<Result> Wait(Lost lost, std::size_t sent, Read const& read);
  void LeaveToServer(std::size_t sent);
  [[noreturn]] void Break(Lost lost);

  std::chrono::milliseconds timeout_;
  pg_conn* connection_ = nullptr;
  std::set<std::string> prepared_;
  std::vector<Awaited> added_;
  std::size_t posted_ = 0;   // posted exchanges whose results were not read yet
  bool may_refuse_ = false;  // the server, what was posted first
  std::optional<Early> early_;
  Status early_failed_ = LORV_STATUS_OK;  // in the present transaction, which that ends
  std::size_t refused_at_ = 0;
  std::size_t statements_added_ = 0;
  Waits waits_;
  Primary primary_ = Primary::kPerhaps;
  bool stoppable_ = true;  // what is being waited for
  bool stopped_ = false;   // a wait was
  bool broken_ = false;
};

}  // namespace lscore

#endif
