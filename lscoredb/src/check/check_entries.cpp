#include "bytes.h"
#include "check.h"
#include "format.h"

namespace lscore {

namespace {

// The least key above all that begin with `prefix`. REQUIRES: there is one.
std::string Above(std::string prefix) {
  while (prefix.back() == '\xFF') prefix.pop_back();
  ++prefix.back();
  return prefix;
}

}  // namespace

std::uint64_t EntryCheck::CountMatched() const {
  std::uint64_t count = 0;
  for (auto const& [index, entries] : matched_) count += entries;
  return count;
}

// Scans all entries in order, index by index. At the first entry of an index a quick pass counts
// its entries; if they are exactly the matched ones, the index is skipped. Otherwise each entry is
// compared with its object.
void EntryCheck::Run() {
  Cursor cursor;
  cursor.Open(snapshot_, Tree::kIndex);
  for (bool on = cursor.First(); on;) {
    bool const enters = prefix_.empty() || !cursor.key().starts_with(prefix_);
    if (enters) EnterIndex(cursor.key());
    if (enters && index_ != nullptr && HoldsWhatWasMatched()) {
      on = cursor.Seek(Above(prefix_));
      continue;
    }
    work_.Advance();
    if (index_ != nullptr) CheckEntry(cursor.key(), cursor.value());
    on = cursor.Next();
  }
}

bool EntryCheck::HoldsWhatWasMatched() {
  auto const matched = matched_.find(index_->id);
  std::uint64_t left = matched == matched_.end() ? 0 : matched->second;
  bool sound = true;
  Cursor cursor;
  cursor.Open(snapshot_, Tree::kIndex);
  for (bool on = cursor.Seek(prefix_); sound && on && cursor.key().starts_with(prefix_);
       on = cursor.Next()) {
    work_.Advance();
    sound =
        left-- > 0 && (!index_->has_no_duplicates() || !IsDuplicate(cursor.key(), cursor.value()));
  }
  last_.clear();
  tails_.clear();
  return sound && left == 0;
}

// A unique key with a null may occur again, which only the object shows. An entry that cannot be
// parsed counts as a duplicate here, so that the careful pass reports it. REQUIRES: called for the
// entries of an index in order.
bool EntryCheck::IsDuplicate(std::string_view key, std::string_view value) {
  Entry entry;
  Status const read = Guarded([&] {
    ParseEntry(*index_, key, value, &entry);
    return LORV_STATUS_OK;
  });
  if (read != LORV_STATUS_OK) return true;
  return !IsFirstWithKey(entry) && !HasNull(entry.object);
}

// Equal short keys are neighbours. Long ones with the same head are ordered by object, so the tails
// seen with that head are remembered.
bool EntryCheck::IsFirstWithKey(Entry const& entry) {
  if (last_ != entry.key.head) tails_.clear();
  last_ = entry.key.head;
  return tails_.insert(entry.key.tail).second;
}

bool EntryCheck::HasNull(ObjectId object) {
  std::uint64_t const id = Raw(object);
  std::string_view stored;
  RowRef row;
  if (!snapshot_.Get(Tree::kRows, BytesOf(id), &stored)) return false;
  if (reader_.Read(object, stored, &row).what != nullptr) return false;
  return encoder_.Encode(*index_, row, key_).has_null;
}

void EntryCheck::EnterIndex(std::string_view key) {
  std::uint64_t id = 0;
  std::size_t const size = ReadOrderedId(key, &id);
  prefix_ = key.substr(0, size == 0 ? key.size() : size);
  index_ = size == 0 ? nullptr : definitions_.FindIndex(IndexId{id});
  last_.clear();
  tails_.clear();
  bool const known = definitions_.IsBroken(IndexId{id}) || definitions_.IsAbandoned(IndexId{id});
  if (index_ != nullptr || (size != 0 && known)) return;
  Finding finding;
  finding.kind = LSCOREDB_FINDING_ENTRY;
  finding.index = IndexId{id};
  sink_.Report(finding, "There are entries of an index that does not exist.");
}

void EntryCheck::CheckEntry(std::string_view key, std::string_view value) {
  Entry entry;
  Status const read = Guarded([&] {
    ParseEntry(*index_, key, value, &entry);
    return LORV_STATUS_OK;
  });
  if (read == LORV_STATUS_OK) return CompareWithObject(entry, key, value);
  Finding finding;
  finding.kind = LSCOREDB_FINDING_ENTRY;
  finding.index = index_->id;
  sink_.Report(finding, "An entry is damaged.");
}

// The entry must be the one that its object's row gives. A damaged object has been reported
// already.
void EntryCheck::CompareWithObject(Entry const& entry, std::string_view key,
                                   std::string_view value) {
  Finding finding;
  finding.kind = LSCOREDB_FINDING_ENTRY;
  finding.index = index_->id;
  finding.object = entry.object;
  finding.layout = entry.layout;
  std::uint64_t const id = Raw(entry.object);
  std::string_view stored;
  if (!snapshot_.Get(Tree::kRows, BytesOf(id), &stored)) {
    return sink_.Report(finding, "The index holds an object that does not exist.");
  }
  RowRef row;
  if (reader_.Read(entry.object, stored, &row).what != nullptr) return;
  Cell const setspec = row.Setspec();
  if (setspec.present) Unpack(setspec.text(), setspec_);
  if (!setspec.present || !index_->Covers(setspec_)) {
    return sink_.Report(finding, "The index holds an object that it does not cover.");
  }
  KeyFacts const facts = encoder_.Encode(*index_, row, key_);
  EntryRecord const wanted = RecordOf(*index_, key_, row.id, row.layout->number());
  if (wanted.key != key || key_.size() != entry.key.head.size() + entry.key.tail.size() ||
      !key_.ends_with(entry.key.tail)) {
    return sink_.Report(finding, "The index holds the object under another key.");
  }
  if (wanted.value != value) {
    return sink_.Report(finding, "The index holds the object with another layout.");
  }
  if (index_->has_no_duplicates() && !facts.has_null) CheckUnique(entry);
}

void EntryCheck::CheckUnique(Entry const& entry) {
  if (IsFirstWithKey(entry)) return;
  Finding finding;
  finding.kind = LSCOREDB_FINDING_DUPLICATE_KEY;
  finding.index = index_->id;
  finding.object = entry.object;
  finding.layout = entry.layout;
  sink_.Report(finding, "The index is unique and holds the object's key a second time.");
}

}  // namespace lscore
