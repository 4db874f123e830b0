#include "log_changes.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "fork.h"
#include "log_store.h"
#include "status.h"

namespace lscore {
namespace {

// Without a file to watch (the system has a limit for those), waiting looks this often.
constexpr int kUnwatchedPause = 10;

void Drain(int watch) {
  std::array<char, 4096> events{};
  while (read(watch, events.data(), events.size()) > 0) {
  }
}

}  // namespace

LogChanges::LogChanges(LogStore& store, CommitId after)
    : store_(store),
      files_(store.directory_, store.files_.identity(), true),
      segments_(store.directory_, files_),
      last_(after) {}

LogChanges::~LogChanges() {
  if (watch_ >= 0) CloseKept(watch_);
}

// Reports are taken off before the last look, so that a later commit's stays.
bool LogChanges::IsNextPublished() {
  if (store_.board_.Published() > last_) return true;
  if (watch_ < 0) return false;
  Drain(watch_);
  return store_.board_.Published() > last_;
}

// The record after the one that was read last.
std::optional<LogRecord> LogChanges::ReadOn() {
  std::optional<LogRecord> record;
  if (segment_ != nullptr) {
    record = segment_->Next();
    if (!record.has_value()) segment_.reset();
  }
  if (!record.has_value() && position_.has_value()) {
    record = files_.ReadNext(*position_);
    if (record.has_value()) {
      position_ = record->PositionAfter(*position_);
    } else {
      position_.reset();
    }
  }
  return record;
}

std::optional<LogRecord> LogChanges::FindInLog(LogPosition at) {
  for (;;) {
    std::optional<LogRecord> record = files_.ReadNext(at);
    if (!record.has_value()) return std::nullopt;
    at = record->PositionAfter(at);
    if (at.commit <= last_) continue;
    position_ = at;
    return record;
  }
}

bool LogChanges::EnterSegment() {
  segment_ = segments_.Find(CommitId{Raw(last_) + 1});
  return segment_ != nullptr;
}

std::optional<LogRecord> LogChanges::FindNext() {
  CommitId searched{0};
  for (;;) {
    if (std::optional<LogRecord> record = ReadOn()) return record;
    std::unique_ptr<Snapshot> image = store_.image_->Begin();
    bool const keeps = logformat::ReadRetention(*image).keeps();
    LogPosition const held = LogPosition::At(logformat::ReadPosition(*image));
    store_.image_->End(std::move(image));
    if (!keeps) Throw(LSCOREDB_NO_CHANGES);
    if (held.commit > last_) {
      if (!EnterSegment()) Throw(LSCOREDB_CHANGES_GONE);
      continue;
    }
    if (std::optional<LogRecord> record = FindInLog(held)) return record;
    // The image did not move on, and yet the log lacks a commit that is published.
    if (Raw(searched) != 0 && searched == held.commit) Throw(LSCOREDB_DAMAGED);
    searched = held.commit;
  }
}

LogRecord const* LogChanges::NextRecord() {
  if (!IsNextPublished()) return nullptr;
  std::optional<LogRecord> record = FindNext();
  last_ = record->head.commit;
  record_ = std::move(record);
  return &*record_;
}

bool LogChanges::Next(NotedCommit* out) {
  while (LogRecord const* const record = NextRecord()) {
    out->commit = record->head.commit;
    out->time = record->head.time;
    out->notes.clear();
    std::string_view rest = record->changes();
    logformat::Change change;
    while (logformat::NextChange(rest, &change)) {
      if (change.tree == logformat::kNote) out->notes.push_back(change.value);
    }
    if (!out->notes.empty()) return true;
  }
  return false;
}

bool LogChanges::NextRecorded(RecordedCommit* out) {
  LogRecord const* const record = NextRecord();
  if (record == nullptr) return false;
  out->commit = record->head.commit;
  out->time = record->head.time;
  out->log = logformat::BytesOf(files_.identity());
  out->record = {record->bytes.get(), record->head.size};
  return true;
}

int LogChanges::File() {
  if (watch_ < 0) watch_ = store_.board_.WatchCommits();
  return watch_;
}

bool LogChanges::Wait(int milliseconds) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point const end = Clock::now() + std::chrono::milliseconds(milliseconds);
  static_cast<void>(Guarded([&]() -> Status {
    File();
    return LORV_STATUS_OK;
  }));
  while (!IsNextPublished()) {
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (milliseconds >= 0 && left <= 0) return false;
    int pause = milliseconds < 0 ? -1 : static_cast<int>(left);
    if (watch_ < 0) pause = pause < 0 ? kUnwatchedPause : std::min(pause, kUnwatchedPause);
    pollfd watched{watch_, POLLIN, 0};
    if (poll(&watched, 1, pause) < 0 && errno == EINTR) return IsNextPublished();
  }
  return true;
}

}  // namespace lscore
