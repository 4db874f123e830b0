#include "entries.h"

#include <algorithm>

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "status.h"

namespace lscore {
// The record of an entry, with an encoded key that is longer than kKeyPrefix bytes:
//
//   key    | prefix of the index | first kKeyPrefix bytes | object id, in its ordered form |
//   value  | layout 2 | size of the id in the key 1 | rest of the encoded key | checksum |
//
// The store orders keys bytewise. Entries with a short encoding are in order then. Those with a cut
// one and the same head are in order of objects instead, so a cursor reads all of such a group at
// once and sorts it in memory.

namespace {

constexpr std::size_t kValueHead = 3;  // layout and size of the id

// Compares heads as far as both reach, then what is left of one head with the other's tail.
int ComparePieces(std::string_view a, std::string_view a_tail, std::string_view b,
                  std::string_view b_tail) {
  if (a.size() > b.size()) return -ComparePieces(b, b_tail, a, a_tail);
  int const heads = a.compare(b.substr(0, a.size()));
  if (heads != 0) return heads;
  b.remove_prefix(a.size());
  if (b.empty()) return a_tail.compare(b_tail);
  if (a_tail.empty()) return -1;
  return ComparePieces(a_tail, {}, b, b_tail);
}

// The object that an entry leads to; kNoObject: it looks like none.
ObjectId ObjectIn(KeyValue const& seen) {
  if (seen.value.size() < kValueHead) return kNoObject;
  auto const id_size = static_cast<unsigned char>(seen.value[2]);
  return ObjectId{OrderedIdAtEnd(seen.key, id_size)};
}

// What an entry without a tail leads to. False: it has one, or it is damaged.
bool ReadPlain(KeyValue const& seen, EntryObject* found) {
  if (seen.value.size() != kValueHead + kChecksumSize) return false;
  *found = {ObjectIn(seen), LayoutNumber{Load<std::uint16_t>(seen.value.data())}};
  return found->object != kNoObject && HasValidChecksum(seen.key, seen.value);
}

void BuildKey(IndexDefinition const& index, std::string_view encoded, ObjectId object,
              std::string& key) {
  key = index.entry_prefix;
  key.append(encoded.substr(0, format::kKeyPrefix));
  AppendOrderedId(key, Raw(object));
}

}  // namespace

std::string LeastAbove(std::string prefix) {
  while (!prefix.empty() && prefix.back() == '\xFF') prefix.pop_back();
  if (!prefix.empty()) prefix.back() = static_cast<char>(prefix.back() + 1);
  return prefix;
}

int Compare(EncodedKey const& a, EncodedKey const& b) {
  return ComparePieces(a.head, a.tail, b.head, b.tail);
}

int ComparePrefix(EncodedKey const& a, std::string_view prefix) {
  int const heads = a.head.substr(0, prefix.size()).compare(prefix.substr(0, a.head.size()));
  if (heads != 0 || prefix.size() <= a.head.size()) return heads;
  prefix.remove_prefix(a.head.size());
  return a.tail.substr(0, prefix.size()).compare(prefix);
}

int Compare(Entry const& a, Entry const& b) {
  int const keys = Compare(a.key, b.key);
  if (keys != 0) return keys;
  return a.object < b.object ? -1 : (b.object < a.object ? 1 : 0);
}

// ---- writing -----------------------------------------------------------------------------------

void BuildRecord(IndexDefinition const& index, std::string_view encoded, ObjectId object,
                 LayoutNumber layout, EntryRecord& record) {
  BuildKey(index, encoded, object, record.key);
  record.value.clear();
  Append(record.value, Raw(layout));
  std::size_t const cut = std::min(encoded.size(), format::kKeyPrefix);
  record.value.push_back(static_cast<char>(record.key.size() - index.entry_prefix.size() - cut));
  record.value.append(encoded.substr(cut));
  AppendChecksum(record.key, record.value);
}

EntryRecord RecordOf(IndexDefinition const& index, std::string_view encoded, ObjectId object,
                     LayoutNumber layout) {
  EntryRecord record;
  BuildRecord(index, encoded, object, layout, record);
  return record;
}

void EntryWriter::Put(IndexDefinition const& index, std::string_view encoded, ObjectId object,
                      LayoutNumber layout) {
  BuildRecord(index, encoded, object, layout, record_);
  batch_.Put(Tree::kIndex, record_.key, record_.value);
}

void EntryWriter::Delete(IndexDefinition const& index, std::string_view encoded, ObjectId object) {
  BuildKey(index, encoded, object, record_.key);
  batch_.Remove(Tree::kIndex, record_.key);
}

AscendingEntries::AscendingEntries(Batch& batch) : batch_(batch), above_(batch.far()) {
  if (above_) return;
  Cursor last;
  last.Open(batch, Tree::kIndex);
  if (last.Last()) highest_ = last.key();
}

void AscendingEntries::Put(std::string_view key, std::string_view value) {
  above_ = above_ || key > highest_;
  if (above_) {
    batch_.Append(Tree::kIndex, key, value);
  } else {
    batch_.Put(Tree::kIndex, key, value);
  }
}

void DeleteEntries(Batch& batch, IndexDefinition const& index, std::string_view end) {
  std::string const all = LeastAbove(index.entry_prefix);
  batch.RemoveRange(Tree::kIndex, index.entry_prefix, end.empty() ? all : end);
}

std::string KeyBehind(View const& view, IndexDefinition const& index, std::uint64_t most,
                      std::uint64_t* count) {
  Cursor cursor;
  cursor.Open(view, Tree::kIndex);
  *count = 0;
  bool on = cursor.Seek(index.entry_prefix);
  for (; on && cursor.key().starts_with(index.entry_prefix); on = cursor.Next()) {
    if (*count == most) return std::string(cursor.key());
    ++*count;
  }
  return {};
}

// ---- scanning -----------------------------------------------------------------------------------

void EntryCursor::Open(View const& view, IndexDefinition const& index) {
  cursor_.Open(view, Tree::kIndex);
  index_ = &index;
  low_.clear();
  high_.clear();
  valid_ = false;
  in_group_ = false;
}

std::string SeekKey(IndexDefinition const& index, std::string_view bound) {
  return std::string(index.entry_prefix).append(bound.substr(0, format::kKeyPrefix));
}

void EntryCursor::SeekFirst(std::string_view bound) {
  scratch_ = index_->entry_prefix;
  scratch_.append(bound.substr(0, format::kKeyPrefix));
  Arrive(cursor_.Seek(scratch_), true);
  while (valid_ && Compare(entry().key, {bound, {}}) < 0) Next();
}

void EntryCursor::SeekLast(std::string_view bound) {
  scratch_ = index_->entry_prefix;
  scratch_.append(bound.substr(0, format::kKeyPrefix));
  scratch_ = LeastAbove(std::move(scratch_));
  bool const above = !scratch_.empty() && cursor_.Seek(scratch_);
  Arrive(above ? cursor_.Previous() : cursor_.Last(), false);
  while (valid_ && ComparePrefix(entry().key, bound) > 0) Previous();
}

// The store orders keys that it does not hold as a whole by object: one of them cannot be sought.
void EntryCursor::SeekBehind(std::string_view encoded, ObjectId object) {
  if (encoded.size() < format::kKeyPrefix) {
    BuildKey(*index_, encoded, object, scratch_);
    Arrive(cursor_.Seek(scratch_), true);
  } else {
    SeekFirst(encoded);
  }
  Entry const given{{encoded, {}}, object, {}};
  while (valid_ && Compare(entry(), given) <= 0) Next();
}

void EntryCursor::SeekBefore(std::string_view encoded, ObjectId object) {
  if (encoded.size() < format::kKeyPrefix) {
    BuildKey(*index_, encoded, object, scratch_);
    bool const behind = cursor_.Seek(scratch_);
    Arrive(behind ? cursor_.Previous() : cursor_.Last(), false);
  } else {
    SeekLast(encoded);
  }
  Entry const given{{encoded, {}}, object, {}};
  while (valid_ && Compare(entry(), given) >= 0) Previous();
}

void EntryCursor::Next() {
  if (in_group_ && ++group_at_ < group_.size()) return;
  Arrive(in_group_ ? cursor_on_entry_ : cursor_.Next(), true);
}

void EntryCursor::Previous() {
  if (in_group_ && group_at_-- > 0) return;
  Arrive(in_group_ ? cursor_on_entry_ : cursor_.Previous(), false);
}

// After each move of the store's cursor: parses the entry, or the group of one with a tail.
void EntryCursor::Arrive(bool on_entry, bool forward) {
  in_group_ = false;
  valid_ = on_entry && InIndex(cursor_.key());
  if (!valid_) return;
  ParseEntry(*index_, cursor_.key(), cursor_.value(), &entry_);
  if (!entry_.key.tail.empty()) GatherGroup(forward);
}

// Reads all entries with the head of the current one and sorts them by whole encoding. Leaves the
// store's cursor on the first entry after the group, in the direction of the scan.
void EntryCursor::GatherGroup(bool forward) {
  std::string const shared(
      cursor_.key().substr(0, index_->entry_prefix.size() + format::kKeyPrefix));
  group_.clear();
  do {
    ParseEntry(*index_, cursor_.key(), cursor_.value(), &group_.emplace_back());
    cursor_on_entry_ = forward ? cursor_.Next() : cursor_.Previous();
  } while (cursor_on_entry_ && cursor_.key().starts_with(shared));
  std::sort(group_.begin(), group_.end(),
            [](Entry const& a, Entry const& b) { return Compare(a, b) < 0; });
  in_group_ = true;
  group_at_ = forward ? 0 : group_.size() - 1;
}

// The encoding in a key of the store; the bytes behind it are those of the object's id. Empty: it
// is of another index, or long.
std::string_view EntryCursor::HeadOf(std::string_view stored) const {
  if (!stored.starts_with(index_->entry_prefix)) return {};
  stored.remove_prefix(index_->entry_prefix.size());
  return stored.size() < format::kKeyPrefix ? stored : std::string_view();
}

std::string_view EntryCursor::PageBound(bool forward) const {
  std::string_view key;
  return !in_group_ && cursor_.PageEnd(forward, &key) ? HeadOf(key) : std::string_view();
}

std::size_t EntryCursor::TakeRun(bool forward, std::span<EntryObject> out) {
  std::size_t taken = 0;
  KeyValue seen;
  while (taken < out.size() && cursor_.Look(taken + 1, forward, &seen) && InIndex(seen.key) &&
         ReadPlain(seen, &out[taken])) {
    ++taken;
  }
  if (taken == 0) return 0;
  cursor_.StepInPage(forward, taken);
  Arrive(true, forward);
  return taken;
}

std::size_t EntryCursor::SkipRun(bool forward, std::size_t most) {
  std::size_t const skipped = cursor_.SkipInPage(forward, most);
  if (skipped > 0) Arrive(true, forward);
  return skipped;
}

bool EntryCursor::SkipAhead(bool forward, std::size_t most, TreeCursor::WithinRange const& within,
                            std::size_t* skipped) {
  if (!valid_ || in_group_) return false;
  auto const head_within = [&](std::string_view key) {
    std::string_view const head = HeadOf(key);
    return !head.empty() && within(head);
  };
  bool on = false;
  if (!cursor_.SkipAhead(forward, most, head_within, skipped, &on)) return false;
  Arrive(on, forward);
  return true;
}

ObjectId EntryCursor::Guess(std::size_t ahead, bool forward) const {
  KeyValue seen;
  return cursor_.Peek(ahead, forward, &seen) ? ObjectIn(seen) : kNoObject;
}

void EntryCursor::Upcoming(bool forward, std::size_t most, std::vector<std::uint64_t>* objects) {
  if (!valid_ || in_group_) return;
  upcoming_.clear();
  cursor_.Upcoming(forward, most, &upcoming_);
  for (KeyValue const& seen : upcoming_) {
    ObjectId const object = ObjectIn(seen);
    if (object == kNoObject || !seen.key.starts_with(index_->entry_prefix)) break;
    if (seen.key < low_ || (!high_.empty() && seen.key >= high_)) break;
    objects->push_back(Raw(object));
  }
}

void EntryCursor::Expect(std::string_view low, std::string_view high) {
  low_ = SeekKey(*index_, low);
  high_ = LeastAbove(SeekKey(*index_, high));
  cursor_.Expect(low_, high_);
}

void ParseEntry(IndexDefinition const& index, std::string_view stored,
                std::string_view stored_record, Entry* entry) {
  std::string_view const key = stored.substr(index.entry_prefix.size());
  std::string_view const value = StripChecksum(stored, stored_record);
  if (value.size() < kValueHead) Throw(LSCOREDB_DAMAGED);
  auto const id_size = static_cast<unsigned char>(value[2]);
  if (id_size > key.size()) Throw(LSCOREDB_DAMAGED);
  entry->key = {key.substr(0, key.size() - id_size), value.substr(kValueHead)};
  entry->object = ObjectId{OrderedIdAtEnd(key, id_size)};
  if (entry->object == kNoObject) Throw(LSCOREDB_DAMAGED);
  entry->layout = LayoutNumber{Load<std::uint16_t>(value.data())};
}

}  // namespace lscore
