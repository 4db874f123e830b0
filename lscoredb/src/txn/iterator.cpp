#include "iterator.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "bytes.h"
#include "keys.h"

namespace lscore {
namespace {

// Where the rows behind these are, if they lie side by side in the order of the scan: objects that
// were made in the order of the index.
std::optional<RowRun> RunBehind(std::span<std::uint64_t const> ids) {
  constexpr std::size_t kFewest = 8;
  constexpr std::uint64_t kSparsest = 2;  // ids for each row
  constexpr std::size_t kOutOfOrder = 8;  // one in so many
  if (ids.size() < kFewest) return std::nullopt;
  auto const [low, high] = std::minmax_element(ids.begin(), ids.end());
  if (*high - *low >= kSparsest * ids.size()) return std::nullopt;
  std::size_t rising = 0;
  for (std::size_t i = 1; i < ids.size(); ++i) rising += ids[i - 1] < ids[i] ? 1 : 0;
  std::size_t const most = (ids.size() - 1) / kOutOfOrder;
  if (ids.size() - 1 - rising <= most) return RowRun{ObjectId{*high}, true};
  if (rising <= most) return RowRun{ObjectId{*low}, false};
  return std::nullopt;
}

}  // namespace

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

// Puts both cursors on the first entry in the direction of the scan: the committed one, on the
// snapshot or the index's untouched part if this transaction created it, and the pending one, in
// the sorted map, into which Settle moves entries that were written unsorted.
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
  removed_ = 0;
  ahead_at_ = 0;
  ahead_end_ = 0;
  in_last_page_ = false;
  given_ = kNoObject;
  given_before_ = kNoObject;
  steps_ = 0;
  reading_ = false;
  together_ = kFirstTogether;
  asked_ = 0;
  run_.reset();
  if (has_committed_) {
    committed_.Open(*below, index);
    reverse_ ? committed_.SeekLast(high_) : committed_.SeekFirst(low_);
    if (source.far && committed_.valid()) committed_.Expect(low_, high_);
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
  ahead_at_ = ahead_end_;
  pending_ = nullptr;
}

// Whether a key that lies behind the bound where the scan began is not behind the other one.
bool Iterator::InRange(EncodedKey const& key) const {
  return reverse_ ? Compare(key, {low_, {}}) >= 0 : ComparePrefix(key, high_) <= 0;
}

// The first eight bytes mostly decide; the keys are compared as a whole only where they are equal.
bool Iterator::CommittedInRange() const {
  if (!has_committed_ || !committed_.valid()) return false;
  EncodedKey const& key = committed_.entry().key;
  std::string const& bound = reverse_ ? low_ : high_;
  if (key.head.size() >= sizeof(std::uint64_t) && bound.size() >= sizeof(std::uint64_t)) {
    auto const own = LoadBig<std::uint64_t>(key.head.data());
    auto const last = LoadBig<std::uint64_t>(bound.data());
    if (own != last) return (own < last) != reverse_;
  }
  return InRange(key);
}

bool Iterator::PendingInRange() const { return !at_end_ && InRange({at_->first.encoded, {}}); }

// The step is taken when the next entry is asked for, so that a caller of one Next pays for one.
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

// Steps over the pending entry, which is removed, and over all that are known to be so behind it.
void Iterator::StepRemoved() {
  last_removed_ = at_->first;
  if (removed_++ == 0) {
    first_removed_ = last_removed_;
    auto const* const run = pending_->FindRemoved(first_removed_, source_.seen);
    if (run != nullptr) return SkipRun(*run);
  }
  StepPending();
}

void Iterator::SkipRun(PendingIndex::RemovedRuns::Run const& run) {
  PendingIndex::Map const& map = pending_->map();
  removed_ = kLongRun;
  step_due_ = false;
  last_removed_ = reverse_ ? run.first : run.last;
  if (reverse_) {
    at_ = map.lower_bound(last_removed_);
    at_end_ = at_ == map.begin();
    if (!at_end_) --at_;
    if (has_committed_) committed_.SeekBefore(last_removed_.encoded, last_removed_.object);
  } else {
    at_ = map.upper_bound(last_removed_);
    at_end_ = at_ == map.end();
    if (has_committed_) committed_.SeekBehind(last_removed_.encoded, last_removed_.object);
  }
}

// Before something else is delivered: scans to come step over a long run at once.
void Iterator::EndRemoved() {
  if (removed_ >= kLongRun) {
    auto const& [first, last] = reverse_ ? std::tie(last_removed_, first_removed_)
                                         : std::tie(first_removed_, last_removed_);
    pending_->NoteRemoved(first, last, source_.seen);
  }
  removed_ = 0;
}

// An entry that was first written after the scan began is, for the scan, as the snapshot has it.
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
// The lower one is delivered (in reverse the higher one). Where both have the entry, the pending
// one decides and both step: a removed entry hides the committed one.
Entry const* Iterator::NextEntry() {
  for (;;) {
    TakeDueStep();
    SkipUntouched();
    bool const committed = CommittedInRange();
    bool const pending = PendingInRange();
    if (!committed && !pending) {
      EndRemoved();
      return nullptr;
    }
    if (pending) written_ = {{at_->first.encoded, {}}, at_->first.object, {}};
    int order = committed ? -1 : 1;
    if (committed && pending) {
      order = Compare(committed_.entry(), written_);
      if (reverse_) order = -order;
    }
    if (order < 0) {
      EndRemoved();
      StepCommitted();
      return &committed_.entry();
    }
    if (order == 0) StepCommitted();
    if (at_->second.At(source_.seen) == EntryState::kPresent) {
      EndRemoved();
      StepPending();
      return &written_;
    }
    StepRemoved();
  }
}

// Prefetch. A caller that read the last object will probably read the next ones, so their slots and
// rows in the shared cache are brought into the processor's cache a few steps ahead. Whether the
// caller reads is looked up every 32 steps, and when entries are read ahead, so that one that does
// not read hardly pays for it.
void Iterator::FetchAhead() {
  if (!has_committed_) return;
  if (source_.far) return AskTogether(false);
  if (steps_++ % kStepsPerLook == 1) reading_ = source_.rows->Find(given_) != nullptr;
  if (!reading_) return;
  source_.shared_rows->PrefetchSlot(Guess(kSlotsAhead));
  source_.shared_rows->FetchRow(Guess(kRowsAhead));
}

// The object that will be given so many steps from now.
ObjectId Iterator::Guess(std::size_t ahead) const {
  std::size_t const left = ahead_end_ - ahead_at_;
  if (ahead <= left) return ahead_[ahead_at_ + ahead - 1].object;
  return committed_.Guess(ahead - left, !reverse_);
}

// Prefetch from a server: one round trip fetches the rows of the next entries, as far as the
// current page of entries reaches, and the snapshot keeps them. The number grows from 16 to 8192,
// so short scans fetch little that is not read. Whether the caller still reads is looked at again
// in the last steps, unless it has said so (`reads`): then rows may come with the next page.
void Iterator::AskTogether(bool reads) {
  if (given_ == kNoObject && !reads) return NoteFirstRows();
  if (asked_ > 0) --asked_;
  if (asked_ > kLastSteps || !(reads || IsReading())) return;
  if (run_.has_value()) committed_.FetchWithNextPage(*std::exchange(run_, std::nullopt));
  if (asked_ == 0) AskForUpcoming();
}

// They come with the first one, when that is read.
void Iterator::NoteFirstRows() {
  FirstRows& rows = *source_.first_rows;
  rows.ids.clear();
  committed_.Upcoming(!reverse_, kFirstTogether, &rows.ids);
  rows.first = rows.ids.empty() ? kNoObject : ObjectId{rows.ids.front()};
}

// One of two that reads every second object.
bool Iterator::IsReading() const {
  return source_.rows->Find(given_) != nullptr || source_.rows->Find(given_before_) != nullptr;
}

// While the first rows are read the caller may still stop; later ones ask for the next page early.
void Iterator::AskForUpcoming() {
  bool const first = together_ == kFirstTogether;
  wanted_.clear();
  committed_.Upcoming(!reverse_, together_ + 1, &wanted_);
  bool const whole_page = wanted_.size() <= together_;
  if (!whole_page) wanted_.pop_back();
  asked_ = wanted_.size();
  std::size_t const missed = FetchRows(source_, wanted_);
  if (missed > 0) together_ = std::min(kTogetherGrowth * together_, kMostTogether);
  if (!whole_page || 2 * missed < wanted_.size()) return;
  std::optional<RowRun> const run = RunBehind(wanted_);
  if (first) {
    run_ = run;
  } else if (run.has_value()) {
    committed_.FetchWithNextPage(*run);
  }
}

Status Iterator::Next(ObjectId* object, LayoutNumber* layout) {
  if (!open_) return ended_;
  if (failed_ != LORV_STATUS_OK) return failed_;
  failed_ = Guarded([&]() -> Status {
    EntryObject found;
    if (ahead_at_ == ahead_end_ && steps_ >= kStepsAlone && !in_last_page_) ReadAhead();
    if (!TakeAhead(&found) && !Step(&found)) {
      *object = kNoObject;
      return LORV_STATUS_OK;
    }
    FetchAhead();
    given_before_ = std::exchange(given_, found.object);
    *object = found.object;
    *layout = found.layout;
    return LORV_STATUS_OK;
  });
  return failed_;
}

Status Iterator::NextMany(std::span<EntryObject> out, bool fetch, std::size_t* count) {
  if (!open_) return ended_;
  if (failed_ != LORV_STATUS_OK) return failed_;
  failed_ = Guarded([&]() -> Status {
    if (source_.far && fetch) {
      *count = TakePageFromServer(out);
      return LORV_STATUS_OK;
    }
    std::size_t const filled = TakePage(out);
    if (fetch) {
      wanted_.clear();
      for (EntryObject const& each : out.first(filled)) wanted_.push_back(Raw(each.object));
      FetchRows(source_, wanted_);
    }
    *count = filled;
    return LORV_STATUS_OK;
  });
  return failed_;
}

std::size_t Iterator::TakePage(std::span<EntryObject> out) {
  std::size_t filled = 0;
  while (filled < out.size() && TakeAhead(&out[filled])) ++filled;
  for (;;) {
    filled += TakeRun(out.subspan(filled));
    if (filled == out.size() || !Step(&out[filled])) return filled;
    ++filled;
  }
}

// By single steps, which ask for rows at the beginning of a page of entries.
std::size_t Iterator::TakePageFromServer(std::span<EntryObject> out) {
  std::size_t filled = 0;
  for (; filled < out.size() && Step(&out[filled]); ++filled) {
    if (has_committed_) AskTogether(true);
    given_before_ = std::exchange(given_, out[filled].object);
  }
  return filled;
}

Status Iterator::Skip(std::size_t most, std::size_t* count) {
  if (!open_) return ended_;
  if (failed_ != LORV_STATUS_OK) return failed_;
  failed_ = Guarded([&]() -> Status {
    std::size_t skipped = 0;
    EntryObject found;
    while (skipped < most && TakeAhead(&found)) ++skipped;
    for (;;) {
      if (InPlainPage()) skipped += committed_.SkipRun(!reverse_, most - skipped);
      if (SkipAhead(most, &skipped)) continue;
      if (skipped == most || !Step(&found)) break;
      ++skipped;
    }
    *count = skipped;
    return LORV_STATUS_OK;
  });
  return failed_;
}

// Whether all committed entries ahead in the range are delivered: the transaction has written
// nothing that could hide one or come between.
bool Iterator::IsPlain() const { return step_due_ && at_end_ && !source_.changes->has_rows(); }

// Whether all entries ahead in the page are delivered.
bool Iterator::InPlainPage() const {
  if (!IsPlain()) return false;
  std::string_view const end = committed_.PageBound(!reverse_);
  return !end.empty() && InRange({end, {}});
}

// Steps over some entries onto the one behind them, which is due to be delivered then.
bool Iterator::SkipAhead(std::size_t most, std::size_t* skipped) {
  if (*skipped == most || !IsPlain()) return false;
  auto const within = [this](std::string_view head) { return InRange({head, {}}); };
  std::size_t some = 0;
  if (!committed_.SkipAhead(!reverse_, most - *skipped, within, &some)) return false;
  step_due_ = false;
  *skipped += some;
  return true;
}

// The entries ahead in the page, at the price of a step in it alone.
std::size_t Iterator::TakeRun(std::span<EntryObject> out) {
  return InPlainPage() ? committed_.TakeRun(!reverse_, out) : 0;
}

// A scan that goes on takes several entries of a page at once. Where it ends inside the page, each
// of them is compared with the bound instead.
void Iterator::ReadAhead() {
  if (source_.far || !IsPlain()) return;
  std::string_view const end = committed_.PageBound(!reverse_);
  if (end.empty()) return;
  in_last_page_ = !InRange({end, {}});
  ahead_at_ = 0;
  ahead_end_ = in_last_page_ ? 0 : committed_.TakeRun(!reverse_, ahead_);
  reading_ = source_.rows->Find(given_) != nullptr;
}

bool Iterator::TakeAhead(EntryObject* found) {
  while (ahead_at_ < ahead_end_) {
    *found = ahead_[ahead_at_++];
    if (Amend(found)) return true;
  }
  return false;
}

bool Iterator::Step(EntryObject* found) {
  while (Entry const* const entry = NextEntry()) {
    *found = {entry->object, entry->layout};
    if (Amend(found)) return true;
  }
  return false;
}

// What the transaction has made of the object; false: it has deleted it.
bool Iterator::Amend(EntryObject* found) const {
  PendingRow const* const row = source_.changes->FindRow(found->object);
  if (row == nullptr) return true;
  found->layout = row->layout->number();
  return !row->deleted;
}

}  // namespace lscore
