#include "log_files.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "directory.h"
#include "status.h"

namespace lscore {

using logformat::Generation;
using logformat::Head;

namespace {

std::optional<Head> ReadHead(LogFile const& file, std::uint64_t offset) {
  Head head;
  std::size_t const size = file.Read(offset, reinterpret_cast<char*>(&head), sizeof head);
  if (size < sizeof head || head.size < sizeof head) return std::nullopt;
  return head;
}

}  // namespace

LogPosition LogRecord::PositionAfter(LogPosition const& at) const {
  std::uint64_t const begin = head.generation == at.generation ? at.offset : logformat::kTitleSize;
  return {head.generation, logformat::Aligned(begin + head.size), head.checksum, head.commit};
}

bool LogFiles::AreThere() const {
  return std::any_of(
      logformat::kFileNames.begin(), logformat::kFileNames.end(),
      [&](char const* name) { return access((directory_ + name).c_str(), F_OK) == 0; });
}

bool LogFiles::Open() {
  bool all = true;
  for (std::size_t i = 0; i < files_.size(); ++i) {
    if (files_[i].is_open()) continue;
    auto const how = read_only_ ? LogFile::Access::kRead : LogFile::Access::kWrite;
    all = files_[i].Open(directory_ + logformat::kFileNames[i], how) && all;
  }
  return all;
}

void LogFiles::Create() {
  Open();
  for (std::size_t i = 0; i < files_.size(); ++i) {
    if (!files_[i].is_open()) {
      files_[i].Open(directory_ + logformat::kFileNames[i], LogFile::Access::kCreate);
      files_[i].TakePermissionsOf(directory_ + logformat::kImageName);
    }
    Entitle(files_[i]);
  }
}

void LogFiles::SyncNames() const { SyncDirectory(directory_); }

void LogFiles::Entitle(LogFile& file) const {
  std::string title = logformat::TitleOf(identity_);
  std::array<iovec, 1> piece{{{title.data(), title.size()}}};
  file.MakeRoom(title.size(), 0);
  file.Write(0, piece);
}

// A title of zeros is accepted: it was written but not synced before a power failure.
void LogFiles::CheckTitles() const {
  std::string const expected = logformat::TitleOf(identity_);
  std::string const blank(expected.size(), '\0');
  for (LogFile const& file : files_) {
    std::string title(expected.size(), '\0');
    file.Read(0, title.data(), title.size());
    if (title != expected && title != blank) Throw(LSCOREDB_DAMAGED);
  }
}

void LogFiles::Remove() noexcept {
  for (std::size_t i = 0; i < files_.size(); ++i) {
    files_[i].Close();
    unlink((directory_ + logformat::kFileNames[i]).c_str());
  }
}

// The head is read first and must be plausible; then the whole record is read, its head must still
// be the same (another process may be writing), and its checksum must hold.
std::optional<LogRecord> LogFiles::ReadAt(Generation generation, std::uint64_t offset) {
  LogFile const& file = Of(generation);
  std::optional<Head> const head = file.is_open() ? ReadHead(file, offset) : std::nullopt;
  if (!head.has_value() || head->generation != generation) return std::nullopt;
  return ReadBehind(file, offset, *head);
}

std::optional<LogRecord> LogFiles::ReadFrom(LogFile const& file, std::uint64_t offset) const {
  std::optional<Head> const head = ReadHead(file, offset);
  return head.has_value() ? ReadBehind(file, offset, *head) : std::nullopt;
}

std::optional<LogRecord> LogFiles::ReadBehind(LogFile const& file, std::uint64_t offset,
                                              Head const& head) const {
  std::uint64_t const room = file.Size();
  if (offset > room || head.size > room - offset) return std::nullopt;
  LogRecord record;
  record.head = head;
  record.bytes.reset(new char[record.head.size]);
  if (file.Read(offset, record.bytes.get(), record.head.size) < record.head.size ||
      std::memcmp(record.bytes.get(), &record.head, sizeof(Head)) != 0 ||
      !logformat::IsWhole(identity_, {record.bytes.get(), record.head.size})) {
    return std::nullopt;
  }
  return record;
}

// The next record continues the generation or, after a rotation, begins the next one in the other
// file. Either must name the last record's checksum and the next commit number: what an earlier
// generation left in the file does not.
std::optional<LogRecord> LogFiles::ReadNext(LogPosition const& at) {
  if (!Open()) return std::nullopt;
  auto const follows = [&](std::optional<LogRecord> const& record) {
    return record.has_value() && record->head.before == at.before &&
           Raw(record->head.commit) == Raw(at.commit) + 1;
  };
  std::optional<LogRecord> record = ReadAt(at.generation, at.offset);
  if (!follows(record)) record = ReadAt(logformat::After(at.generation), logformat::kTitleSize);
  if (!follows(record)) record.reset();
  return record;
}

// After a crash the log ends at the first record that is not whole: a torn write whose commit never
// returned. But each record names the last commit that was synced before it. If a whole record
// further on names a commit after the end, that commit had returned, so the log is damaged and must
// not be cut here:
//
//   7 whole, 8 broken, nothing after          commit 8 was being written: the log ends after 7
//   7 whole, 8 broken, 9 whole: synced 8      8 was synced, and is damaged
bool LogFiles::HasSyncedAfter(LogPosition const& at) {
  return HoldsSynced(at.generation, at.offset, at.commit) ||
         HoldsSynced(logformat::After(at.generation), logformat::kTitleSize, at.commit);
}

// Searches every offset where a record can begin, since the length of the broken one is unknown.
bool LogFiles::HoldsSynced(Generation generation, std::uint64_t offset, CommitId after) {
  LogFile const& file = Of(generation);
  if (!file.is_open()) return false;
  std::uint64_t const end = file.Size();
  if (offset >= end) return false;
  std::string bytes(end - offset, '\0');
  bytes.resize(file.Read(offset, bytes.data(), bytes.size()));
  for (std::size_t at = 0; at + sizeof(Head) <= bytes.size(); at += logformat::kAlignment) {
    Head head;
    std::memcpy(&head, bytes.data() + at, sizeof head);
    bool const may_be = head.generation == generation && head.commit > after &&
                        head.synced > after && head.size >= sizeof(Head);
    if (may_be && ReadAt(generation, offset + at).has_value()) return true;
  }
  return false;
}

}  // namespace lscore
