#include "server_changes.h"

#include <lscoredb/watch.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "fork.h"
#include "noted_bytes.h"
#include "postgres_store.h"
#include "status.h"
#include "system_call.h"

namespace lscore {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A question asks for at most so much more than one commit.
constexpr std::uint64_t kFetchBytes = std::uint64_t{4} << 20;
constexpr std::uint64_t kFetchCommits = 1000;
// How often a thread that waits looks whether it is to stop.
constexpr milliseconds kAskEvery{100};

enum Column : std::uint8_t { kState, kTime, kParts, kNotes };

}  // namespace

ServerChanges::ServerChanges(PostgresStore const& store, CommitId after)
    : store_(store), last_(after) {}

ServerChanges::~ServerChanges() {
  if (timer_ >= 0) CloseKept(timer_);
}

bool ServerChanges::HasRow() const {
  return next_ < rows_.size() && rows_.Number(next_, kState) == Raw(last_) + 1;
}

// The state is read before the commits, so a state without its commit has lost it.
bool ServerChanges::Fetch() {
  std::uint64_t ticks = 0;
  if (timer_ >= 0) static_cast<void>(read(timer_, &ticks, sizeof ticks));
  rows_ = {};
  next_ = 0;
  std::vector<Result> results = store_.Ask([&](Connection& connection) {
    connection.Add(store_.statements().read_state);
    connection.Add(store_.feed_statements().read_commits,
                   Parameters().Number(Raw(last_)).Number(kFetchBytes).Number(kFetchCommits + 1));
  });
  CommitId const newest = PostgresStore::KeepingState(results[0]);
  rows_ = std::move(results[1]);
  try {
    Accept(newest);
  } catch (...) {
    rows_ = {};
    throw;
  }
  return HasRow();
}

void ServerChanges::Accept(CommitId newest) {
  if (rows_.size() > 0 && rows_.Number(0, kState) == Raw(last_)) {
    std::uint64_t const time = rows_.Number(0, kTime);
    if (last_time_.value_or(time) != time) Throw(LSCOREDB_CHANGES_GONE);
    last_time_ = time;
    next_ = 1;
  }
  bool const more = next_ < rows_.size() || newest > last_;
  if (more && !HasRow()) Throw(LSCOREDB_CHANGES_GONE);
}

void ServerChanges::ReadParts(std::size_t count) {
  std::vector<Result> const results = store_.Ask([&](Connection& connection) {
    connection.Add(store_.feed_statements().read_parts,
                   Parameters().Number(rows_.Number(next_, kState)));
  });
  if (results[0].size() != count) Throw(LSCOREDB_CHANGES_GONE);
  whole_ = rows_.Bytes(next_, kNotes);
  for (std::size_t i = 0; i < count; ++i) whole_ += results[0].Bytes(i, 0);
}

void ServerChanges::ReadRow(NotedCommit* out) {
  std::size_t const parts = rows_.Number(next_, kParts);
  if (parts > 0) ReadParts(parts);
  out->commit = CommitId{rows_.Number(next_, kState)};
  out->time = rows_.Number(next_, kTime);
  out->notes = NotesIn(parts > 0 ? whole_ : rows_.Bytes(next_, kNotes), out->commit);
  last_ = out->commit;
  last_time_ = out->time;
  ++next_;
}

bool ServerChanges::Next(NotedCommit* out) {
  while (HasRow() || Fetch()) {
    ReadRow(out);
    if (!out->notes.empty()) return true;
  }
  return false;
}

bool ServerChanges::Wait(int limit) {
  Clock::time_point const end = Clock::now() + milliseconds(limit);
  for (;;) {
    if (HasRow() || Fetch()) return true;
    Clock::time_point const again = Clock::now() + store_.changes_interval();
    while (Clock::now() < again) {
      milliseconds pause =
          std::min(kAskEvery, std::chrono::ceil<milliseconds>(again - Clock::now()));
      if (limit >= 0) pause = std::min(pause, std::chrono::ceil<milliseconds>(end - Clock::now()));
      if (limit >= 0 && pause.count() <= 0) return false;
      if (poll(nullptr, 0, std::max(0, static_cast<int>(pause.count()))) < 0 && errno == EINTR) {
        return false;
      }
      if (store_.stopped()) Throw(LSCOREDB_STOPPED);
    }
  }
}

int ServerChanges::File() {
  if (timer_ >= 0) return timer_;
  int const timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (timer < 0) ThrowErrno();
  auto const interval = store_.changes_interval();
  auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(interval);
  timespec const every{seconds.count(), std::chrono::nanoseconds(interval - seconds).count()};
  itimerspec const times{every, {0, 1}};
  if (timerfd_settime(timer, 0, &times, nullptr) != 0) {
    int const error = errno;
    close(timer);
    Throw(StatusOfSystem(error));
  }
  KeepFromChildren(timer);
  timer_ = timer;
  return timer_;
}

}  // namespace lscore
