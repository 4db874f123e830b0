#include "iterator.h"

#include <algorithm>
#include <vector>

#include "bytes.h"
#include "keys.h"

namespace lscore {

Status Iterator::SetRange(IndexDefinition const& index, ScanRange const& range) {
  low_.clear();
  high_.clear();
  reverse_ = range.reverse;
  void const* const low = reverse_ ? range.last_key : range.first_key;
  void const* const high = reverse_ ? range.first_key : range.last_key;
  bool const both = AppendContractKey(low_, low, index.key_columns) &&
                    AppendContractKey(high_, high, index.key_columns);
  return both ? LORV_STATUS_OK : LSCOREDB_MALFORMED_KEY;
}

void Iterator::SetPrefix(std::string_view prefix) {
  reverse_ = false;
  low_ = prefix;
  high_ = prefix;
}

void Iterator::Start(ScanSource const& source, IndexDefinition const& index) {
  source_ = source;
  open_ = true;
  failed_ = LORV_STATUS_OK;
  PendingIndex* const pending = source.changes->FindIndex(index.id);
  if (pending != nullptr) pending->Settle();
  pending_ = pending;
  View const* const below =
      pending_ == nullptr ? source.snapshot : pending_->Below(*source.snapshot);
  has_committed_ = below != nullptr;
  step_due_ = false;
  given_ = kNoObject;
  steps_ = 0;
  reading_ = false;
  together_ = kFirstTogether;
  asked_ = 0;
  if (has_committed_) {
    committed_.Open(*below, index);
    reverse_ ? committed_.SeekLast(high_) : committed_.SeekFirst(low_);
  }
  at_end_ = pending_ == nullptr;
  if (at_end_) return;
  PendingIndex::Map const& map = pending_->map();
  if (reverse_) {
    at_ = map.lower_bound(BehindPrefix{high_});
    at_end_ = at_ == map.begin();
    if (!at_end_) --at_;
  } else {
    at_ = map.lower_bound(PendingKey{low_, kNoObject});
    at_end_ = at_ == map.end();
  }
  SkipUntouched();
}

void Iterator::Finish(Status ended) {
  open_ = false;
  ended_ = ended;
  pending_ = nullptr;
}

// Mostly the first bytes tell.
bool Iterator::CommittedInRange() const {
  if (!has_committed_ || !committed_.valid()) return false;
  EncodedKey const& key = committed_.entry().key;
  std::string const& bound = reverse_ ? low_ : high_;
  if (key.head.size() >= sizeof(std::uint64_t) && bound.size() >= sizeof(std::uint64_t)) {
    auto const own = LoadBig<std::uint64_t>(key.head.data());
    auto const last = LoadBig<std::uint64_t>(bound.data());
    if (own != last) return (own < last) != reverse_;
  }
  return reverse_ ? Compare(key, {low_, {}}) >= 0 : ComparePrefix(key, high_) <= 0;
}

bool Iterator::PendingInRange() const {
  if (at_end_) return false;
  EncodedKey const key{at_->first.encoded, {}};
  return reverse_ ? Compare(key, {low_, {}}) >= 0 : ComparePrefix(key, high_) <= 0;
}

// Whoever wants one entry is not to pay for the next.
void Iterator::StepCommitted() { step_due_ = true; }

void Iterator::TakeDueStep() {
  if (!step_due_) return;
  step_due_ = false;
  reverse_ ? committed_.Previous() : committed_.Next();
}

void Iterator::StepPending() {
  if (reverse_) {
    at_end_ = at_ == pending_->map().begin();
    if (!at_end_) --at_;
  } else {
    at_end_ = ++at_ == pending_->map().end();
  }
}

// Entries that were written after the scan began are as the snapshot has them.
void Iterator::SkipUntouched() {
  while (!at_end_ && at_->second.At(source_.seen) == EntryState::kUntouched) StepPending();
}

// Merges two sequences in one order: the entries of the snapshot, and those that the transaction
// had written when the scan began. Each step compares the next of both.
//
//   committed   a@1        c@3   d@4
//   written         b@7    c@3   d@4     in order of key, then object
//               present  present removed
//   delivered   a@1  b@7   c@3
//
// The lower one is delivered. Where both have an entry, what was written decides, and both step: an
// entry that was removed hides the committed one. Backwards the higher one is next.
Entry const* Iterator::NextEntry() {
  for (;;) {
    TakeDueStep();
    SkipUntouched();
    bool const committed = CommittedInRange();
    bool const pending = PendingInRange();
    if (!committed && !pending) return nullptr;
    if (pending) written_ = {{at_->first.encoded, {}}, at_->first.object, {}};
    int order = committed ? -1 : 1;
    if (committed && pending) {
      order = Compare(committed_.entry(), written_);
      if (reverse_) order = -order;
    }
    if (order < 0) {
      StepCommitted();
      return &committed_.entry();
    }
    bool const present = at_->second.At(source_.seen) == EntryState::kPresent;
    if (order == 0) StepCommitted();
    StepPending();
    if (present) return &written_;
  }
}

// Whoever read the object that was given last will read the next ones. What waits for memory then
// is on its way while objects before it are worked with. Asked now and then, since whoever does not
// read is not to wait for the answer.
void Iterator::FetchAhead() {
  if (!has_committed_) return;
  if (source_.far) return AskTogether();
  if (steps_++ % kStepsPerLook == 1) reading_ = source_.rows->Find(given_) != nullptr;
  if (!reading_) return;
  source_.shared_rows->PrefetchSlot(committed_.Guess(kSlotsAhead, !reverse_));
  source_.shared_rows->FetchRow(committed_.Guess(kRowsAhead, !reverse_));
}

// What waits for a server is asked for in one round trip, as far as the page of entries goes. The
// snapshot keeps the rows.
void Iterator::AskTogether() {
  if (asked_ > 0) --asked_;
  if (asked_ > 0 || given_ == kNoObject || source_.rows->Find(given_) == nullptr) return;
  std::vector<std::uint64_t> wanted;
  while (asked_ < together_) {
    ObjectId const id = committed_.Guess(asked_, !reverse_);
    if (id == kNoObject) break;
    ++asked_;
    if (source_.shared_rows->Find(id) == nullptr) wanted.push_back(Raw(id));
  }
  if (wanted.size() < 2) return;
  together_ = std::min(2 * together_, kMostTogether);
  std::vector<std::string_view> keys;
  for (std::uint64_t const& id : wanted) keys.push_back(BytesOf(id));
  std::vector<std::optional<std::string_view>> rows(keys.size());
  source_.snapshot->GetMany(Tree::kRows, keys, rows);
}

Status Iterator::Next(ObjectId* object, LayoutNumber* layout) {
  if (!open_) return ended_;
  if (failed_ == LORV_STATUS_OK) failed_ = Guarded([&] { return Step(object, layout); });
  return failed_;
}

Status Iterator::Step(ObjectId* object, LayoutNumber* layout) {
  while (Entry const* const entry = NextEntry()) {
    PendingRow const* const row = source_.changes->FindRow(entry->object);
    if (row != nullptr && row->deleted) continue;
    FetchAhead();
    given_ = entry->object;
    *object = entry->object;
    *layout = row != nullptr ? row->layout->number() : entry->layout;
    return LORV_STATUS_OK;
  }
  *object = kNoObject;
  return LORV_STATUS_OK;
}

}  // namespace lscore
