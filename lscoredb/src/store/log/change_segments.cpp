#include "change_segments.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>

#include "crc32c.h"
#include "directory.h"
#include "status.h"
#include "system_call.h"

namespace lscore {
namespace {

using logformat::kTitleSize;

constexpr std::string_view kSegmentMark = "lscorchg";
constexpr std::string_view kPrefix = "changes-";
constexpr char const* kUnfinished = "/changes.new";
constexpr std::size_t kDigits = 16;
constexpr std::uint64_t kSmall = std::uint64_t{1} << 20;

std::string NameOf(CommitId first) {
  std::array<char, kDigits> digits{};
  auto const [end, error] = std::to_chars(digits.begin(), digits.end(), Raw(first), 16);
  std::string name(kPrefix);
  name.append(kDigits - static_cast<std::size_t>(end - digits.begin()), '0');
  return name.append(digits.data(), end);
}

std::optional<CommitId> FirstIn(std::string_view name) {
  if (!name.starts_with(kPrefix) || name.size() != kPrefix.size() + kDigits) return std::nullopt;
  std::uint64_t first = 0;
  auto const [end, error] =
      std::from_chars(name.data() + kPrefix.size(), name.data() + name.size(), first, 16);
  if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return CommitId{first};
}

struct Title {
  CommitId first{0};
  CommitId last{0};
  std::uint64_t size = 0;
};

std::string BytesOf(Title const& title, logformat::Identity const& identity) {
  std::string bytes(kSegmentMark);
  bytes.append(logformat::BytesOf(identity));
  Append(bytes, Raw(title.first));
  Append(bytes, Raw(title.last));
  Append(bytes, title.size);
  Append(bytes, Crc32c(bytes));
  bytes.resize(kTitleSize, '\0');
  return bytes;
}

// A segment in the making, in a file that readers do not look at.
class SegmentWriter {
 public:
  SegmentWriter(std::string const& directory, logformat::Identity const& identity)
      : directory_(directory), identity_(identity), path_(directory + kUnfinished) {
    unlink(path_.c_str());
    file_.Open(path_, LogFile::Access::kCreate);
  }
  ~SegmentWriter() {
    if (!finished_) unlink(path_.c_str());
  }
  SegmentWriter(SegmentWriter const&) = delete;
  SegmentWriter& operator=(SegmentWriter const&) = delete;

  bool empty() const { return Raw(title_.first) == 0; }

  void Add(LogRecord const& record) {
    std::array<iovec, 1> piece{{{record.bytes.get(), record.head.size}}};
    Add(record.head.commit, piece);
  }
  void Add(CommitId commit, std::span<iovec> pieces) {
    std::uint64_t size = 0;
    for (iovec const& piece : pieces) size += piece.iov_len;
    file_.Write(end_, pieces);
    end_ = logformat::Aligned(end_ + size);
    if (empty()) title_.first = commit;
    title_.last = commit;
  }

  // Makes it a segment, durably.
  void Finish() {
    title_.size = end_;
    std::string bytes = BytesOf(title_, identity_);
    std::array<iovec, 1> piece{{{bytes.data(), bytes.size()}}};
    file_.Write(0, piece);
    file_.Sync();
    std::string const name = directory_ + "/" + NameOf(title_.first);
    Retry([&] { return rename(path_.c_str(), name.c_str()); });
    finished_ = true;
    SyncDirectory(directory_);
  }

 private:
  std::string const& directory_;
  logformat::Identity const& identity_;
  std::string path_;
  LogFile file_;
  Title title_;
  std::uint64_t end_ = kTitleSize;
  bool finished_ = false;
};

}  // namespace

// ---- reading -----------------------------------------------------------------------------------

SegmentReader::SegmentReader(LogFiles& files, std::string const& path)
    : files_(files), path_(path) {}

bool SegmentReader::Open() {
  if (!file_.Open(path_, LogFile::Access::kRead)) return false;
  std::string bytes(kTitleSize, '\0');
  if (file_.Read(0, bytes.data(), bytes.size()) < bytes.size()) Throw(LSCOREDB_DAMAGED);
  Title title;
  FieldReader fields(bytes);
  fields.Bytes(kSegmentMark.size() + logformat::kIdentitySize);
  title.first = CommitId{fields.Next<std::uint64_t>()};
  title.last = CommitId{fields.Next<std::uint64_t>()};
  title.size = fields.Next<std::uint64_t>();
  if (bytes != BytesOf(title, files_.identity())) Throw(LSCOREDB_DAMAGED);
  first_ = title.first;
  last_ = title.last;
  before_ = CommitId{Raw(first_) - 1};
  end_ = title.size;
  return true;
}

std::optional<LogRecord> SegmentReader::Next() {
  if (before_ == last_) return std::nullopt;
  std::optional<LogRecord> record = files_.ReadFrom(file_, at_);
  if (!record.has_value() || Raw(record->head.commit) != Raw(before_) + 1) Throw(LSCOREDB_DAMAGED);
  before_ = record->head.commit;
  at_ = logformat::Aligned(at_ + record->head.size);
  return record;
}

std::string ChangeSegments::PathOf(CommitId first) const {
  return directory_ + "/" + NameOf(first);
}

std::unique_ptr<SegmentReader> ChangeSegments::Open(CommitId first) const {
  auto reader = std::make_unique<SegmentReader>(files_, PathOf(first));
  if (!reader->Open()) return nullptr;
  return reader;
}

std::vector<ChangeSegment> ChangeSegments::List() const {
  std::vector<ChangeSegment> segments;
  std::unique_ptr<DIR, int (*)(DIR*)> const directory(opendir(directory_.c_str()), closedir);
  if (directory == nullptr) ThrowErrno();
  while (dirent const* const entry = readdir(directory.get())) {
    std::optional<CommitId> const first = FirstIn(entry->d_name);
    struct stat status {};
    if (!first.has_value() || stat(PathOf(*first).c_str(), &status) != 0) continue;
    segments.push_back({*first, static_cast<std::uint64_t>(status.st_size),
                        static_cast<std::uint64_t>(status.st_mtime)});
  }
  std::sort(segments.begin(), segments.end(),
            [](ChangeSegment const& a, ChangeSegment const& b) { return a.first < b.first; });
  return segments;
}

std::unique_ptr<SegmentReader> ChangeSegments::Find(CommitId commit) const {
  std::vector<ChangeSegment> const segments = List();
  auto const above = std::upper_bound(
      segments.begin(), segments.end(), commit,
      [](CommitId wanted, ChangeSegment const& segment) { return wanted < segment.first; });
  if (above == segments.begin()) return nullptr;
  std::unique_ptr<SegmentReader> reader = Open(std::prev(above)->first);
  if (reader == nullptr || reader->last() < commit) return nullptr;
  for (std::uint64_t skipped = Raw(reader->first()); skipped < Raw(commit); ++skipped) {
    reader->Next();
  }
  return reader;
}

CommitId ChangeSegments::FirstUpTo(CommitId last) const {
  CommitId first{Raw(last) + 1};
  std::vector<ChangeSegment> const segments = List();
  for (auto segment = segments.rbegin(); segment != segments.rend(); ++segment) {
    if (segment->first >= first) continue;  // a leftover
    std::unique_ptr<SegmentReader> const reader = Open(segment->first);
    if (reader == nullptr || Raw(reader->last()) + 1 < Raw(first)) break;
    first = reader->first();
  }
  return first;
}

// ---- writing -----------------------------------------------------------------------------------

void ChangeSegments::Remove(CommitId first) const {
  if (unlink(PathOf(first).c_str()) != 0 && errno != ENOENT) ThrowErrno();
}

// The last segment of commits up to `after`, if later ones belong into it: it is small, or holds
// some of them already, since a process died before the image held them.
std::unique_ptr<SegmentReader> ChangeSegments::LastBefore(CommitId after) const {
  std::vector<ChangeSegment> const segments = List();
  auto const last = std::find_if(segments.rbegin(), segments.rend(),
                                 [&](ChangeSegment const& one) { return one.first <= after; });
  if (last == segments.rend()) return nullptr;
  std::unique_ptr<SegmentReader> reader = Open(last->first);
  if (reader == nullptr) return nullptr;
  bool const goes_on = reader->last() > after || (reader->last() == after && last->size < kSmall);
  return goes_on ? std::move(reader) : nullptr;
}

// The records that a segment of commits after `after` begins with. One that is damaged is left
// alone: its readers are told, and the commits after it go into another one.
std::vector<LogRecord> ChangeSegments::Continued(CommitId after) const {
  std::vector<LogRecord> records;
  Status const status = Guarded([&]() -> Status {
    std::unique_ptr<SegmentReader> const before = LastBefore(after);
    if (before == nullptr) return LORV_STATUS_OK;
    do {
      records.push_back(*before->Next());
    } while (records.back().head.commit < after);
    return LORV_STATUS_OK;
  });
  if (status == LSCOREDB_DAMAGED) return {};
  Check(status);
  return records;
}

void ChangeSegments::RemoveAfter(CommitId held) {
  for (ChangeSegment const& segment : List()) {
    if (segment.first > held) Remove(segment.first);
  }
}

void ChangeSegments::Keep(LogPosition const& from, CommitId last) {
  if (from.commit >= last) return;
  SegmentWriter writer(directory_, files_.identity());
  for (LogRecord const& record : Continued(from.commit)) writer.Add(record);
  for (LogPosition at = from; at.commit < last;) {
    std::optional<LogRecord> const record = files_.ReadNext(at);
    if (!record.has_value()) Throw(LSCOREDB_DAMAGED);
    writer.Add(*record);
    at = record->PositionAfter(at);
  }
  writer.Finish();
}

void ChangeSegments::Keep(CommitId commit, std::span<iovec> record) {
  SegmentWriter writer(directory_, files_.identity());
  writer.Add(commit, record);
  writer.Finish();
}

void ChangeSegments::Prune(Retention const& retention) {
  std::vector<ChangeSegment> const segments = List();
  if (segments.empty()) return;
  auto const now = static_cast<std::uint64_t>(time(nullptr));
  std::uint64_t total = 0;
  for (ChangeSegment const& segment : segments) total += segment.size;
  for (auto segment = segments.begin(); segment != segments.end() - 1; ++segment) {
    bool const too_many = retention.bytes != 0 && total > retention.bytes;
    bool const too_old = retention.seconds != 0 && segment->written < now &&
                         now - segment->written > retention.seconds;
    if (!too_many && !too_old) return;
    Remove(segment->first);
    total -= segment->size;
  }
}

void ChangeSegments::RemoveOldest() {
  std::vector<ChangeSegment> const segments = List();
  if (!segments.empty()) Remove(segments.front().first);
}

void ChangeSegments::RemoveAll() {
  for (ChangeSegment const& segment : List()) Remove(segment.first);
}

}  // namespace lscore
