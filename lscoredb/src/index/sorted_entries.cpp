#include "sorted_entries.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <queue>
#include <utility>

#include "bytes.h"
#include "status.h"

namespace lscore {
namespace {

constexpr std::size_t kMarked = 32;
constexpr std::size_t kBufferSize = std::size_t{256} << 10;

// Buffers records that are appended to a file.
class FileWriter {
 public:
  explicit FileWriter(TemporaryFile& file) : file_(file) {}

  void Write(SortedRecord const& record) {
    record.AppendTo(buffer_);
    if (buffer_.size() >= kBufferSize) Flush();
  }
  void Flush() {
    file_.Append(buffer_);
    buffer_.clear();
  }

 private:
  TemporaryFile& file_;
  std::string buffer_;
};

}  // namespace

void SortedRecord::AppendTo(std::string& out) const {
  Head const head{static_cast<std::uint32_t>(value.size()), static_cast<std::uint32_t>(key.size()),
                  back};
  out.append(reinterpret_cast<char const*>(&head), sizeof head).append(key).append(value);
}

SortedRecord SortedRecord::At(char const* bytes) {
  Head head;
  std::memcpy(&head, bytes, sizeof head);
  char const* const key = bytes + sizeof head;
  return {{key, head.key_size}, {key + head.key_size, head.value_size}, head.back};
}

// ---- reading -----------------------------------------------------------------------------------

class SortedEntries::Scan final : public TreeCursor {
 public:
  explicit Scan(SortedEntries const& entries) : entries_(entries) {}

  bool Seek(std::string_view key, KeyValue* entry) override {
    return GoTo(entries_.LowerBound(key), entry);
  }
  bool First(KeyValue* entry) override { return GoTo(0, entry); }
  bool Last(KeyValue* entry) override { return GoTo(entries_.last_, entry); }
  bool Next(KeyValue* entry) override { return GoTo(at_ + entries_.RecordAt(at_).size(), entry); }
  bool Previous(KeyValue* entry) override {
    return at_ > 0 && GoTo(at_ - entries_.RecordAt(at_).back, entry);
  }
  bool EnterPage(KeyValue const&, EntryPage*) override { return false; }

 private:
  bool GoTo(std::uint64_t at, KeyValue* entry) {
    if (at >= entries_.content_.size()) return false;
    at_ = at;
    SortedRecord const record = entries_.RecordAt(at);
    *entry = {record.key, record.value};
    return true;
  }

  SortedEntries const& entries_;
  std::uint64_t at_ = 0;
};

// A binary search over the marks, then a linear one over at most kMarked records: records have
// different sizes, and an offset for each would cost memory.
std::uint64_t SortedEntries::LowerBound(std::string_view key) const {
  auto const mark = std::lower_bound(
      marks_.begin(), marks_.end(), key,
      [&](std::uint64_t at, std::string_view bound) { return RecordAt(at).key < bound; });
  std::uint64_t at = mark == marks_.begin() ? 0 : *std::prev(mark);
  while (at < content_.size() && RecordAt(at).key < key) at += RecordAt(at).size();
  return at;
}

bool SortedEntries::Get(Tree tree, std::string_view key, std::string_view* value) const {
  std::uint64_t const at = tree == Tree::kIndex ? LowerBound(key) : content_.size();
  if (at >= content_.size() || RecordAt(at).key != key) return false;
  *value = RecordAt(at).value;
  return true;
}

// REQUIRES: the tree is kIndex; nobody opens a cursor over the others.
void SortedEntries::OpenCursor(Tree, std::unique_ptr<TreeCursor>& cursor) const {
  cursor = std::make_unique<Scan>(*this);
}

// ---- sorting -----------------------------------------------------------------------------------

// Appends records to a sequence and keeps its marks and back links.
class SortedEntries::Writer {
 public:
  explicit Writer(SortedEntries& entries) : entries_(entries) {}

  template <typename Append>
  void Add(SortedRecord record, Append&& append) {
    if (count_++ % kMarked == 0) entries_.marks_.push_back(at_);
    record.back = at_ - entries_.last_;
    entries_.last_ = at_;
    append(record);
    at_ += record.size();
  }

 private:
  SortedEntries& entries_;
  std::uint64_t at_ = 0;
  std::size_t count_ = 0;
};

EntrySorter::EntrySorter(std::string directory, std::size_t prefix_size, std::size_t memory)
    : directory_(std::move(directory)), prefix_size_(prefix_size), memory_(memory) {}

// Memory doubles as it grows, and the old and the new exist together meanwhile.
bool EntrySorter::HasRoomFor(SortedRecord const& record) const {
  auto const grown = [](std::size_t capacity, std::size_t needed) {
    return needed <= capacity ? 0 : std::max(2 * capacity, needed);
  };
  std::size_t const bytes = grown(records_.capacity(), records_.size() + record.size());
  std::size_t const slots = slots_.capacity() + grown(slots_.capacity(), slots_.size() + 1);
  return records_.capacity() + bytes + slots * sizeof(Slot) <= memory_;
}

// Records are collected in one string with a slot for each. When both would exceed the memory, the
// slots are sorted and the records written out as a run.
void EntrySorter::Add(std::string_view key, std::string_view value) {
  SortedRecord const record{key, value, 0};
  if (value.size() > std::numeric_limits<std::uint32_t>::max()) Throw(LSCOREDB_TOO_LARGE);
  if (!directory_.empty() && !slots_.empty() && !HasRoomFor(record)) WriteRun();
  std::array<char, sizeof(std::uint64_t)> begins{};
  std::string_view const rest = key.substr(prefix_size_);
  std::copy_n(rest.begin(), std::min(rest.size(), begins.size()), begins.begin());
  slots_.push_back({LoadBig<std::uint64_t>(begins.data()), records_.size()});
  record.AppendTo(records_);
}

void EntrySorter::Sort() {
  auto const key_at = [&](Slot const& slot) {
    return SortedRecord::At(records_.data() + slot.at).key;
  };
  std::sort(slots_.begin(), slots_.end(), [&](Slot const& a, Slot const& b) {
    return a.begins != b.begins ? a.begins < b.begins : key_at(a) < key_at(b);
  });
}

void EntrySorter::WriteRun() {
  Sort();
  if (spilled_ == nullptr) spilled_ = std::make_unique<TemporaryFile>(directory_);
  std::uint64_t const begin = spilled_->size();
  FileWriter writer(*spilled_);
  for (Slot const& slot : slots_) writer.Write(SortedRecord::At(records_.data() + slot.at));
  writer.Flush();
  runs_.push_back({begin, spilled_->size()});
  slots_.clear();
  records_.clear();
}

// Reads a run in pieces. The bytes of a record stay valid until Next.
class EntrySorter::RunReader {
 public:
  RunReader(TemporaryFile const& file, Run const& run, std::size_t piece)
      : file_(file), unread_(run.begin), end_(run.end), piece_(piece) {}

  // Returns false at the end.
  bool Next() {
    at_ += size_;
    if (at_ == buffer_.size() && unread_ == end_) return false;
    Have(sizeof(SortedRecord::Head));
    size_ = SortedRecord::At(buffer_.data() + at_).size();
    Have(size_);
    record_ = SortedRecord::At(buffer_.data() + at_);
    return true;
  }
  SortedRecord const& record() const { return record_; }

 private:
  // Reads on until the buffer holds `size` bytes from `at_` on.
  void Have(std::uint64_t size) {
    if (buffer_.size() - at_ >= size) return;
    buffer_.erase(0, at_);
    at_ = 0;
    std::size_t const held = buffer_.size();
    auto const more =
        std::min<std::uint64_t>(end_ - unread_, std::max<std::uint64_t>(piece_, size - held));
    buffer_.resize(held + more);
    file_.Read(unread_, buffer_.data() + held, more);
    unread_ += more;
  }

  TemporaryFile const& file_;
  std::uint64_t unread_;
  std::uint64_t const end_;
  std::size_t const piece_;
  std::string buffer_;
  std::size_t at_ = 0;
  std::size_t size_ = 0;  // of the record there
  SortedRecord record_;
};

// A k-way merge: a heap of readers gives the lowest record each time. The readers' buffers share
// the memory that the runs were sorted in.
void EntrySorter::Merge(SortedEntries& sorted, WatchedWork& work) {
  constexpr std::size_t kLeastPiece = 4096;
  std::size_t const piece = std::clamp(memory_ / runs_.size(), kLeastPiece, kBufferSize);
  std::vector<RunReader> readers;
  readers.reserve(runs_.size());
  auto const above = [](RunReader const* a, RunReader const* b) {
    return a->record().key > b->record().key;
  };
  std::priority_queue<RunReader*, std::vector<RunReader*>, decltype(above)> next(above);
  for (Run const& run : runs_) {
    readers.emplace_back(*spilled_, run, piece);
    if (readers.back().Next()) next.push(&readers.back());
  }
  sorted.file_ = std::make_unique<TemporaryFile>(directory_);
  FileWriter file(*sorted.file_);
  SortedEntries::Writer writer(sorted);
  while (!next.empty()) {
    work.Linger();
    RunReader* const lowest = next.top();
    next.pop();
    writer.Add(lowest->record(), [&](SortedRecord const& record) { file.Write(record); });
    if (lowest->Next()) next.push(lowest);
  }
  file.Flush();
  sorted.content_ = sorted.file_->Map();
}

std::unique_ptr<SortedEntries const> EntrySorter::Finish(WatchedWork& work) {
  if (slots_.empty() && runs_.empty()) return nullptr;
  std::unique_ptr<SortedEntries> sorted(new SortedEntries);
  if (runs_.empty()) {
    Sort();
    sorted->memory_.reserve(records_.size());
    SortedEntries::Writer writer(*sorted);
    for (Slot const& slot : slots_) {
      work.Linger();
      writer.Add(SortedRecord::At(records_.data() + slot.at),
                 [&](SortedRecord const& record) { record.AppendTo(sorted->memory_); });
    }
    sorted->content_ = sorted->memory_;
  } else {
    if (!slots_.empty()) WriteRun();
    records_ = {};
    slots_ = {};
    Merge(*sorted, work);
    spilled_.reset();
  }
  return sorted;
}

}  // namespace lscore
