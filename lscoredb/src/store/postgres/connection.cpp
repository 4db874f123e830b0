#include "connection.h"

#include <libpq-fe.h>
#include <lscoredb/watch.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "connection_options.h"
#include "fork.h"
#include "refusal.h"
#include "status.h"

namespace lscore {
namespace {

constexpr int kBinary = 1;
// How often a thread that waits asks whether it is to stop.
constexpr std::chrono::milliseconds kAskEvery{100};
// Plans are made once for each statement of a connection, not for each execution of it, which costs
// more than the execution. So they must not depend on how small a table was when they were made:
// what can use an index does. A plan that cannot counts as a costly one, which is not worth
// compiling. Servers without one of these settings leave it out, and may refuse all.
constexpr char kPlanOnce[] =
    "SELECT set_config(name, CASE name WHEN 'plan_cache_mode' THEN 'force_generic_plan' ELSE 'off'"
    " END, false) FROM pg_settings WHERE name IN ('plan_cache_mode', 'enable_seqscan', 'jit')";
constexpr std::uint32_t kBytesType = 17;   // the protocol's number of the type bytea
constexpr std::uint32_t kNumberType = 20;  // and of bigint

template <typename Number>
void AppendNetwork(std::string& bytes, Number number) {
  for (std::size_t shift = 8 * sizeof number; shift > 0; shift -= 8) {
    bytes.push_back(static_cast<char>(number >> (shift - 8)));
  }
}

// The head of a one-dimensional array without nulls, in the server's binary form: dimensions, has
// nulls, type of the elements, then for each dimension its size and lower bound.
std::string ArrayHead(std::uint32_t type, std::size_t count) {
  std::string head;
  AppendNetwork<std::uint32_t>(head, count == 0 ? 0 : 1);
  AppendNetwork<std::uint32_t>(head, 0);
  AppendNetwork(head, type);
  if (count == 0) return head;
  AppendNetwork(head, static_cast<std::uint32_t>(count));
  AppendNetwork<std::uint32_t>(head, 1);
  return head;
}

// SQLSTATE codes, or the classes that they begin with, and our statuses. The first match counts, so
// codes come before their class.
struct Meaning {
  std::string_view state;
  Status status;
};
constexpr std::array kMeanings = {
    Meaning{"25P02", LSCOREDB_IO_ERROR},          // an earlier statement failed
    Meaning{"25P03", LSCOREDB_SNAPSHOT_EXPIRED},  // idle in transaction for too long
    Meaning{"25P04", LSCOREDB_SNAPSHOT_EXPIRED},  // transaction took too long
    Meaning{"57014", LSCOREDB_SNAPSHOT_EXPIRED},  // cancelled
    Meaning{"40001", LSCOREDB_CONFLICT},          // serialization failure
    Meaning{"40P01", LSCOREDB_CONFLICT},          // deadlock
    Meaning{"25006", LSCOREDB_WRITE_REFUSED},     // a standby
    Meaning{"42501", LSCOREDB_CANNOT_OPEN},       // no privilege
    Meaning{"53100", LSCOREDB_DISK_FULL},         //
    Meaning{"53200", LSCOREDB_NO_MEMORY},         //
    Meaning{"53300", LSCOREDB_TOO_MANY_READERS},  // connections
    Meaning{"54000", LSCOREDB_TOO_LARGE},         //
    Meaning{"55P03", LSCOREDB_CONFLICT},          // lock not available
    Meaning{"57P", LSCOREDB_SERVER_LOST},         // the server shuts down or starts
    Meaning{"08", LSCOREDB_SERVER_LOST},          //
    Meaning{"28", LSCOREDB_CANNOT_OPEN},          // authentication failed
    Meaning{"3D", LSCOREDB_CANNOT_OPEN},          // no such database
    Meaning{"42P01", LSCOREDB_NOT_A_DATABASE},    // no such table
    Meaning{"3F000", LSCOREDB_NOT_A_DATABASE},    // no such schema
    Meaning{"XX001", LSCOREDB_DAMAGED},           //
    Meaning{"XX002", LSCOREDB_DAMAGED},           //
};

Status StatusOf(pg_result const* result) {
  char const* const field = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  std::string_view const state = field == nullptr ? "" : field;
  for (Meaning const& meaning : kMeanings) {
    if (state.starts_with(meaning.state)) return meaning.status;
  }
  return LSCOREDB_IO_ERROR;
}

// Whether the server has answered in this state of connecting, or may have.
bool HasAnswered(ConnStatusType state) {
  switch (state) {
    case CONNECTION_AWAITING_RESPONSE:
    case CONNECTION_AUTH_OK:
    case CONNECTION_SSL_STARTUP:
    case CONNECTION_GSS_STARTUP:
      return true;
    default:  // not connected yet, or looking whether the session can write
      return false;
  }
}

// While connecting libpq does not return the server's error code. A ping distinguishes a server
// that accepts nobody, because it starts or stops, from one that refuses this user.
bool LetsNobodyIn(ConnectionOptions options, std::chrono::milliseconds timeout) {
  auto const seconds = std::chrono::ceil<std::chrono::seconds>(timeout).count();
  options.Set("connect_timeout", std::to_string(seconds));
  return PQpingParams(options.Names().data(), options.Values().data(), 0) != PQPING_OK;
}

// Notes the server's own message if there is one.
void NoteRefusalIn(pg_result const* result) {
  char const* const words = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
  NoteRefusal(words != nullptr ? words : PQresultErrorMessage(result));
}

}  // namespace

void FreeResult::operator()(pg_result* result) const noexcept { PQclear(result); }

std::size_t Result::size() const { return static_cast<std::size_t>(PQntuples(result_.get())); }

std::size_t Result::columns() const { return static_cast<std::size_t>(PQnfields(result_.get())); }

std::size_t Result::memory() const {
  return result_ == nullptr ? 0 : PQresultMemorySize(result_.get());
}

std::string_view Result::Bytes(std::size_t row, std::size_t column) const {
  auto const r = static_cast<int>(row);
  auto const c = static_cast<int>(column);
  return {PQgetvalue(result_.get(), r, c),
          static_cast<std::size_t>(PQgetlength(result_.get(), r, c))};
}

std::uint64_t Result::Number(std::size_t row, std::size_t column) const {
  std::uint64_t number = 0;
  for (char const c : Bytes(row, column)) number = number << 8 | static_cast<unsigned char>(c);
  return number;
}

bool Result::IsNull(std::size_t row, std::size_t column) const {
  return PQgetisnull(result_.get(), static_cast<int>(row), static_cast<int>(column)) != 0;
}

Parameters& Parameters::Bytes(std::string_view bytes) {
  values_.emplace_back(bytes);
  return *this;
}

Parameters& Parameters::Number(std::uint64_t number) {
  AppendNetwork(values_.emplace_back(), number);
  return *this;
}

Parameters& Parameters::ManyBytes(std::vector<std::string_view> const& values) {
  std::string array = ArrayHead(kBytesType, values.size());
  for (std::string_view const value : values) {
    AppendNetwork(array, static_cast<std::uint32_t>(value.size()));
    array += value;
  }
  values_.push_back(std::move(array));
  return *this;
}

Parameters& Parameters::ManyNumbers(std::vector<std::uint64_t> const& numbers) {
  std::string array = ArrayHead(kNumberType, numbers.size());
  for (std::uint64_t const number : numbers) {
    AppendNetwork<std::uint32_t>(array, sizeof number);
    AppendNetwork(array, number);
  }
  values_.push_back(std::move(array));
  return *this;
}

// ---- the connection ----------------------------------------------------------------------------

Connection::Connection(ServerUrl const& url, Waits waits)
    : timeout_(url.timeout), waits_(std::move(waits)) {
  try {
    Open(url);
  } catch (...) {
    PQfinish(connection_);
    throw;
  }
  KeepFromChildren(PQsocket(connection_));
}

Connection::~Connection() {
  ForgetFile(PQsocket(connection_));
  PQfinish(connection_);
}

Status Connection::TryHost(ConnectionOptions const& host) {
  PQfinish(std::exchange(connection_, nullptr));
  broken_ = false;
  return Guarded([&] {
    Connect(host);
    return Status{LORV_STATUS_OK};
  });
}

// Tries the hosts in turn, each with its share of the time. A host that refuses twice has been
// reached and ends the search; only lost ones are passed over. One refusal may be that of a server
// that was starting, and that accepts everybody by the time it is asked whether it does.
void Connection::Open(ServerUrl const& url) {
  std::vector<ConnectionOptions> const hosts = ConnectionOptions(url.connection).HostByHost();
  timeout_ = url.timeout / static_cast<int>(hosts.size());
  std::string refusals;
  Status status = LSCOREDB_SERVER_LOST;
  for (std::size_t i = 0; i < hosts.size() && status == LSCOREDB_SERVER_LOST; ++i) {
    status = TryHost(hosts[i]);
    if (status == LSCOREDB_CANNOT_OPEN) status = TryHost(hosts[i]);
    if (status != LORV_STATUS_OK) refusals.append(i == 0 ? "" : "; ").append(LastRefusal());
  }
  timeout_ = url.timeout;
  if (status != LORV_STATUS_OK) {
    NoteRefusal(refusals);
    Throw(status);
  }
  Add({"plan_once", kPlanOnce});
  Post();
  may_refuse_ = true;
}

void Connection::Connect(ConnectionOptions const& options) {
  connection_ = PQconnectStartParams(options.Names().data(), options.Values().data(), 0);
  if (connection_ == nullptr) Throw(LSCOREDB_NO_MEMORY);
  Deadline const deadline = DeadlineFromNow();
  PostgresPollingStatusType awaited = PGRES_POLLING_WRITING;
  ConnStatusType last = CONNECTION_NEEDED;
  while (awaited != PGRES_POLLING_OK) {
    ConnStatusType const now = PQstatus(connection_);
    if (now == CONNECTION_BAD) Refuse(last, options);
    last = now;
    Await(awaited == PGRES_POLLING_READING ? POLLIN : POLLOUT, deadline);
    awaited = PQconnectPoll(connection_);
  }
  PQsetNoticeProcessor(
      connection_, [](void*, char const*) {}, nullptr);
  if (PQsetnonblocking(connection_, 1) != 0 || PQenterPipelineMode(connection_) != 1) {
    Throw(LSCOREDB_NO_MEMORY);
  }
}

// Decides between a lost server, for which trying again is worth while, and a refusal, which is
// final. `last` is the state of connecting before it failed. It is a refusal if the server had
// answered, unless
//   - libpq has closed the socket, because the server hung up,
//   - the server has accepted the user and sent its parameters: then it is just not the kind of
//     server that target_session_attrs asks for,
//   - the server accepts nobody at the moment.
void Connection::Refuse(int last, ConnectionOptions const& options) {
  NoteRefusal(PQerrorMessage(connection_));
  bool const let_in = PQparameterStatus(connection_, "server_version") != nullptr;
  bool const answered =
      HasAnswered(static_cast<ConnStatusType>(last)) && PQsocket(connection_) >= 0 && !let_in;
  Throw(answered && !LetsNobodyIn(options, timeout_) ? LSCOREDB_CANNOT_OPEN : LSCOREDB_SERVER_LOST);
}

Connection::Deadline Connection::DeadlineFromNow() const {
  bool const forever = timeout_.count() == 0;
  return forever ? Deadline::max() : std::chrono::steady_clock::now() + timeout_;
}

void Connection::Await(short events, Deadline deadline) {
  using std::chrono::milliseconds;
  pollfd socket{PQsocket(connection_), events, 0};
  for (;;) {
    milliseconds wait = kAskEvery;
    if (deadline != Deadline::max()) {
      auto const left =
          std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
      wait = std::clamp(left, milliseconds(0), kAskEvery);
    }
    int const ready = poll(&socket, 1, static_cast<int>(wait.count()));
    if (ready > 0) return;
    bool const late = wait.count() == 0;
    if (late || (ready < 0 && errno != EINTR)) {
      NoteRefusal("the server does not answer");
      broken_ = true;
      Throw(LSCOREDB_SERVER_LOST);
    }
    if (stoppable_ && waits_.stopped()) Throw(LSCOREDB_STOPPED);
  }
}

void Connection::Flush(Deadline deadline) {
  for (;;) {
    int const left = PQflush(connection_);
    if (left == 0) return;
    if (left < 0) Throw(LSCOREDB_SERVER_LOST);
    Await(POLLIN | POLLOUT, deadline);
    // The server may have to send answers before it reads more.
    if (PQconsumeInput(connection_) != 1) Throw(LSCOREDB_SERVER_LOST);
  }
}

// Null ends the results of one statement.
pg_result* Connection::NextResult(Deadline deadline) {
  while (PQisBusy(connection_) != 0) {
    Await(POLLIN, deadline);
    if (PQconsumeInput(connection_) != 1) Throw(LSCOREDB_SERVER_LOST);
  }
  return PQgetResult(connection_);
}

void Connection::Break(Lost lost) {
  broken_ = true;
  if (lost == Lost::kPerhapsDone) throw ReplyLost();
  Throw(LSCOREDB_SERVER_LOST);
}

bool Connection::usable() const {
  return !broken_ && !stopped_ && (posted_ > 0 || PQtransactionStatus(connection_) == PQTRANS_IDLE);
}

void Connection::Add(Statement const& statement, Parameters const& parameters) {
  if (broken_) Throw(LSCOREDB_SERVER_LOST);
  try {
    Send(statement, parameters);
  } catch (...) {
    broken_ = true;  // libpq may have more statements than `added_`
    throw;
  }
}

// A statement that this connection has not prepared is prepared in the same round trip.
void Connection::Send(Statement const& statement, Parameters const& parameters) {
  bool ok = true;
  if (!prepared_.contains(statement.name)) {
    ok =
        PQsendPrepare(connection_, statement.name.c_str(), statement.text.c_str(), 0, nullptr) == 1;
    added_.push_back({statement.name});
    prepared_.insert(statement.name);
  }
  std::vector<char const*> values;
  std::vector<int> lengths;
  std::vector<int> const formats(parameters.values().size(), kBinary);
  for (std::string const& value : parameters.values()) {
    values.push_back(value.data());
    lengths.push_back(static_cast<int>(value.size()));
  }
  ok = ok &&
       PQsendQueryPrepared(connection_, statement.name.c_str(), static_cast<int>(values.size()),
                           values.data(), lengths.data(), formats.data(), kBinary) == 1;
  added_.push_back({});
  ++statements_added_;
  if (!ok) Break(Lost::kNothing);
}

void Connection::Post() noexcept {
  try {
    if (broken_ || stopped_) return;
    added_.clear();
    statements_added_ = 0;
    if (PQpipelineSync(connection_) != 1) Break(Lost::kNothing);
    ++posted_;
    Deadline const deadline = DeadlineFromNow();
    Flush(deadline);
    stoppable_ = true;
    ReadEarly(deadline);
    early_.reset();
    early_failed_ = LORV_STATUS_OK;
  } catch (...) {
    broken_ = true;
  }
}

bool Connection::can_send_early() const {
  return !broken_ && !stopped_ && posted_ == 0 && !early_.has_value();
}

bool Connection::DropEarly() {
  if (early_.has_value() && !early_->awaited.empty()) return false;
  early_.reset();
  return true;
}

void Connection::SendEarly() noexcept {
  try {
    early_.emplace().awaited = std::exchange(added_, {});
    statements_added_ = 0;
    if (PQpipelineSync(connection_) != 1) Break(Lost::kNothing);
    Flush(DeadlineFromNow());
  } catch (...) {
    broken_ = true;
  }
}

void Connection::ReadEarly(Deadline deadline) {
  if (!early_.has_value() || early_->awaited.empty()) return;
  early_->results = TakeResults(early_->awaited, deadline, &early_->failed);
  early_->awaited.clear();
  early_failed_ = early_->failed;
  if (waits_.count != nullptr) ++*waits_.count;
}

// Reads the results of posted exchanges, up to the end mark of each. A transaction that did not end
// as told makes the connection useless.
void Connection::PassOverPosted(Deadline deadline) {
  while (posted_ > 0) {
    Result const result(NextResult(deadline));
    ExecStatusType const state =
        result.get() == nullptr ? PGRES_COMMAND_OK : PQresultStatus(result.get());
    bool const refused = state == PGRES_FATAL_ERROR && !may_refuse_;
    if (PQstatus(connection_) == CONNECTION_BAD || refused) Throw(LSCOREDB_SERVER_LOST);
    if (state != PGRES_PIPELINE_SYNC) continue;
    --posted_;
    may_refuse_ = false;
  }
}

// Returns whether the statement was executed. Notes the first failure of the exchange.
bool Connection::TakeResult(Deadline deadline, Status* failed, Result* out) {
  pg_result* const first = NextResult(deadline);
  if (first == nullptr) Throw(LSCOREDB_SERVER_LOST);
  Result result(first);
  for (pg_result* more; (more = NextResult(deadline)) != nullptr;) PQclear(more);
  ExecStatusType const state = PQresultStatus(first);
  if (state == PGRES_TUPLES_OK || state == PGRES_COMMAND_OK) {
    *out = std::move(result);
    return true;
  }
  if (PQstatus(connection_) == CONNECTION_BAD) Throw(LSCOREDB_SERVER_LOST);
  if (state != PGRES_PIPELINE_ABORTED && *failed == LORV_STATUS_OK) {
    *failed = StatusOf(first);
    NoteRefusalIn(first);
  }
  return false;
}

// All results are read even after a failure, so that the connection stays usable. A statement whose
// preparation failed is prepared again next time.
std::vector<Result> Connection::TakeResults(std::vector<Awaited> const& awaited, Deadline deadline,
                                            Status* failed) {
  std::vector<Result> results;
  for (Awaited const& one : awaited) {
    Result result;
    bool const well = *failed == LORV_STATUS_OK;
    bool const done = TakeResult(deadline, failed, &result);
    if (well && *failed != LORV_STATUS_OK) refused_at_ = results.size();
    if (one.prepares.empty()) {
      results.push_back(std::move(result));
    } else if (!done) {
      prepared_.erase(one.prepares);
    }
  }
  PQclear(NextResult(deadline));  // the end of the exchange
  return results;
}

template <typename Read>
std::vector<Result> Connection::Wait(Lost lost, std::size_t sent, Read const& read) {
  stoppable_ = lost == Lost::kNothing;
  try {
    if (broken_) Throw(LSCOREDB_SERVER_LOST);
    return read(DeadlineFromNow());
  } catch (Failure const& failure) {
    if (failure.status() == LSCOREDB_STOPPED) LeaveToServer(sent);
    if (failure.status() != LSCOREDB_SERVER_LOST) throw;
    Break(lost);
  } catch (std::bad_alloc const&) {
    broken_ = true;  // results were left unread
    if (lost == Lost::kPerhapsDone) throw ReplyLost();
    throw;
  }
}

// After what was sent early has failed, the server refuses everything; the first status counts.
std::vector<Result> Connection::Exchange(Lost lost) {
  statements_added_ = 0;
  return Wait(lost, 1, [&](Deadline deadline) {
    if (PQpipelineSync(connection_) != 1) Throw(LSCOREDB_SERVER_LOST);
    Flush(deadline);
    ReadEarly(deadline);
    PassOverPosted(deadline);
    if (waits_.count != nullptr) ++*waits_.count;
    Status failed = LORV_STATUS_OK;
    std::vector<Awaited> const awaited = std::exchange(added_, {});
    std::vector<Result> results = TakeResults(awaited, deadline, &failed);
    if (failed == LORV_STATUS_OK) return results;
    Throw(early_failed_ != LORV_STATUS_OK ? early_failed_ : failed);
  });
}

std::vector<Result> Connection::TakeEarly() {
  return Wait(Lost::kNothing, 0, [&](Deadline deadline) {
    ReadEarly(deadline);
    Early early = std::exchange(early_, std::nullopt).value();
    if (early.failed != LORV_STATUS_OK) Throw(early.failed);
    return std::move(early.results);
  });
}

// `sent` requests become ones that were posted, and so does one that was sent early.
void Connection::LeaveToServer(std::size_t sent) {
  posted_ += sent;
  if (early_.has_value() && !early_->awaited.empty()) ++posted_;
  added_.clear();
  early_.reset();
  stopped_ = true;
}

Result Connection::Run(Statement const& statement, Parameters const& parameters) {
  Add(statement, parameters);
  return std::move(Exchange().back());
}

}  // namespace lscore
