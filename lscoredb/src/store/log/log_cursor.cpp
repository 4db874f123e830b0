#include "log_cursor.h"

#include <algorithm>

#include "page_builder.h"
#include "status.h"

namespace lscore {
namespace {

// Building a page costs as much as a few dozen steps, and a look-up takes only a few.
constexpr int kStepsBeforePage = 8;

// Entering the image's page costs as much as this many steps within it.
constexpr std::size_t kShortestRun = 3;

// Noting fewer would cost more than stepping over them.
constexpr std::size_t kLongRun = 32;

}  // namespace

LogCursor::LogCursor(Store const& store, LayeredView const& view, Tree tree, bool frozen)
    : TreeCursor(store), view_(&view), tree_(tree), renewable_(frozen) {
  Renew(view, tree);
}

void LogCursor::Renew(LayeredView const& view, Tree tree) {
  view_ = &view;
  tree_ = tree;
  delivered_ = nullptr;
  image_on_ = false;
  steps_ = 0;
  in_image_page_ = false;
  built_end_ = nullptr;
  sources_ = 0;
  if (!view.image_has_all(tree)) {
    AddSource(view.layers().active->changes);
    if (view.layers().frozen != nullptr) AddSource(view.layers().frozen->changes);
  }
  image_view_ = &view.image();
  image_view_->OpenCursor(tree, image_);
}

// A batch may have gone on in one of the image since the cursor was opened.
void LogCursor::FollowBatch() {
  if (!renewable_ && image_view_ != &view_->image()) Renew(*view_, tree_);
}

void LogCursor::AddSource(Overlay const& overlay) {
  if (overlay.HasTree(tree_)) source_[sources_++] = {&overlay, nullptr, nullptr};
}

// ---- the sources -------------------------------------------------------------------------------

// Positions the source on the node, or on the next one in the direction of the scan that has a
// version in this state.
void LogCursor::PositionAt(Source& source, OverlayNode const* node) const {
  for (; node != nullptr; node = forward_ ? node->Next() : source.overlay->Below(node->key())) {
    source.version = node->VersionAt(view_->state());
    if (source.version != nullptr) break;
  }
  source.node = node;
  if (node == nullptr) return;
  __builtin_prefetch(node->key().bytes.data());
  __builtin_prefetch(node->Next());
}

// Positions the source after the key, in the direction of the scan.
void LogCursor::PositionAfter(Source& source, std::string_view key) const {
  OrderedKey const ordered(tree_, key);
  if (!forward_) return PositionAt(source, source.overlay->Below(ordered));
  OverlayNode const* const node = source.overlay->NotBelow(ordered);
  PositionAt(source, node != nullptr && node->key() == ordered ? node->Next() : node);
}

void LogCursor::StepImage() {
  image_on_ = forward_ ? image_->Next(&image_entry_) : image_->Previous(&image_entry_);
}

// Positions the image's cursor after `entry` for a scan that turned around or left a page. An entry
// of the image's own page leaves the cursor there, and one step is enough; otherwise it seeks.
void LogCursor::TurnImage(KeyValue const& entry) {
  if (entry.key.data() != delivered_ && in_image_page_) {
    image_entry_ = entry;
    return StepImage();
  }
  PositionImageAfter(entry.key);
}

void LogCursor::PositionImageAfter(std::string_view key) {
  image_on_ = image_->Seek(key, &image_entry_);
  if (forward_) {
    if (image_on_ && image_entry_.key == key) StepImage();
  } else if (image_on_) {
    StepImage();
  } else {
    image_on_ = image_->Last(&image_entry_);
  }
}

// Moves every source that is positioned on the key past it.
void LogCursor::StepPast(std::string_view key) {
  if (image_on_ && image_entry_.key == key) StepImage();
  StepOverlaysPast(key);
}

void LogCursor::StepOverlaysPast(std::string_view key) {
  for (std::size_t i = 0; i < sources_; ++i) {
    Source& source = source_[i];
    if (source.node == nullptr || source.node->key().bytes != key) continue;
    PositionAt(source, forward_ ? source.node->Next() : source.overlay->Below(source.node->key()));
  }
}

LogCursor::Source const* LogCursor::Nearest() const {
  Source const* nearest = nullptr;
  for (std::size_t i = 0; i < sources_; ++i) {
    Source const& source = source_[i];
    if (source.node == nullptr) continue;
    if (nearest == nullptr || IsNearer(source.node->key(), nearest->node->key())) {
      nearest = &source;
    }
  }
  return nearest;
}

// Moves every source past a deleted key, and past the run of them that it is known to be in. A
// batch under way sees what no run tells of.
void LogCursor::StepDeleted(std::string_view key) {
  last_deleted_ = key;
  if (deleted_++ != 0 || tree_ != Tree::kIndex || !renewable_) return StepPast(key);
  first_deleted_ = key;
  auto run = deleted_runs().Find(key, view_->state());
  if (!run) return StepPast(key);
  deleted_ = kLongRun;
  end_of_run_ = std::move(forward_ ? run->last : run->first);
  last_deleted_ = end_of_run_;
  for (std::size_t i = 0; i < sources_; ++i) PositionAfter(source_[i], end_of_run_);
  PositionImageAfter(end_of_run_);
}

// Before another entry is delivered: scans to come step over a long run at once.
void LogCursor::EndDeleted() {
  if (deleted_ >= kLongRun && tree_ == Tree::kIndex && renewable_) {
    std::string_view const first = forward_ ? first_deleted_ : last_deleted_;
    std::string_view const last = forward_ ? last_deleted_ : first_deleted_;
    deleted_runs().Note(first, last, view_->state());
  }
  deleted_ = 0;
}

// Delivers the nearest entry. Nearest returns the topmost of several overlays with one key, and an
// overlay wins over the image, so a version decides for all below it. A deleted key is passed.
bool LogCursor::Deliver(KeyValue* entry) {
  deleted_ = 0;
  for (;;) {
    Source const* const source = Nearest();
    bool const image_first =
        source == nullptr ||
        (image_on_ && IsNearer(OrderedKey(tree_, image_entry_.key), source->node->key()));
    if (image_first) {
      EndDeleted();
      delivered_ = image_on_ ? image_entry_.key.data() : nullptr;
      if (image_on_) *entry = image_entry_;
      return image_on_;
    }
    std::string_view const key = source->node->key().bytes;
    if (!source->version->deleted) {
      EndDeleted();
      *entry = {key, source->version->value};
      delivered_ = key.data();
      return true;
    }
    StepDeleted(key);
  }
}

// ---- moves -------------------------------------------------------------------------------------

bool LogCursor::Seek(std::string_view key, KeyValue* entry) {
  FollowBatch();
  if (bare()) return image_->Seek(key, entry);
  if (tree_ == Tree::kRows && key.size() != sizeof(std::uint64_t)) Throw(LSCOREDB_TOO_LARGE);
  forward_ = true;
  steps_ = 0;
  image_on_ = image_->Seek(key, &image_entry_);
  for (std::size_t i = 0; i < sources_; ++i) {
    PositionAt(source_[i], source_[i].overlay->NotBelow({tree_, key}));
  }
  return Deliver(entry);
}

bool LogCursor::First(KeyValue* entry) {
  FollowBatch();
  if (bare()) return image_->First(entry);
  forward_ = true;
  image_on_ = image_->First(&image_entry_);
  for (std::size_t i = 0; i < sources_; ++i)
    PositionAt(source_[i], source_[i].overlay->First(tree_));
  return Deliver(entry);
}

bool LogCursor::Last(KeyValue* entry) {
  FollowBatch();
  if (bare()) return image_->Last(entry);
  forward_ = false;
  image_on_ = image_->Last(&image_entry_);
  for (std::size_t i = 0; i < sources_; ++i)
    PositionAt(source_[i], source_[i].overlay->Last(tree_));
  return Deliver(entry);
}

// In the same direction the sources just pass the key delivered last. From a page of the image only
// the image's cursor steps, since the page ends before the next key of the overlays, and at the end
// of a page that was built all are where they have to be. Otherwise all are positioned anew.
bool LogCursor::Step(KeyValue* entry, bool forward) {
  if (bare()) return forward ? image_->Next(entry) : image_->Previous(entry);
  steps_ = forward_ == forward ? steps_ + 1 : 0;
  if (forward_ == forward && entry->key.data() == delivered_) {
    StepPast(entry->key);
    return Deliver(entry);
  }
  if (forward_ == forward && in_image_page_) {
    image_entry_ = *entry;
    StepImage();
    return Deliver(entry);
  }
  if (forward_ == forward && entry->key.data() == built_end_) return Deliver(entry);
  forward_ = forward;
  TurnImage(*entry);
  for (std::size_t i = 0; i < sources_; ++i) PositionAfter(source_[i], entry->key);
  return Deliver(entry);
}

// ---- pages -------------------------------------------------------------------------------------

// Enters the image's page from the entry on. The sources are ahead of it, so the page ends before
// the nearest of them. What lies behind the entry is left out: keys of overlays may be among it.
bool LogCursor::EnterImagePage(KeyValue const& entry, EntryPage* page) {
  if (!image_on_ || entry.key.data() != delivered_ || delivered_ != image_entry_.key.data()) {
    return false;
  }
  if (!image_->EnterPage(entry, page)) return false;
  Source const* const source = Nearest();
  std::size_t const run = page->Limit(forward_, [&](std::string_view key) {
    return source == nullptr || IsNearer(OrderedKey(tree_, key), source->node->key());
  });
  if (run < kShortestRun) {
    page->Leave();
    return false;
  }
  steps_ = 0;
  return true;
}

// Builds a page from copies of the next entries, up to 64 of them, which the view keeps. Afterwards
// the sources are positioned where the page ends.
bool LogCursor::MakePage(KeyValue const& entry, EntryPage* page) {
  bool const wanted = renewable_ && steps_ >= kStepsBeforePage && view_->has_room_for_pages();
  PageBuilder builder(forward_);
  if (!wanted || entry.key.data() != delivered_ || !builder.Add(entry)) return false;
  KeyValue next = entry;
  bool more = true;
  while (more) {
    StepPast(next.key);
    more = Deliver(&next) && builder.Add(next);
  }
  delivered_ = nullptr;
  KeyValue first;
  KeyValue last;
  if (!view_->KeepPage(builder.Finish(), page) || !page->Ends(&first, &last)) return false;
  built_end_ = forward_ ? last.key.data() : first.key.data();
  return true;
}

bool LogCursor::EnterPage(KeyValue const& entry, EntryPage* page) {
  if (bare()) return image_->EnterPage(entry, page);
  in_image_page_ = EnterImagePage(entry, page);
  return in_image_page_ || MakePage(entry, page);
}

// ---- counting ----------------------------------------------------------------------------------

// The number of the page's next entries, of `most`, that the scan meets before the key. The first
// `from` are known to be.
std::size_t LogCursor::EntriesBefore(OrderedKey const& key, EntryPage const& page, std::size_t from,
                                     std::size_t most) const {
  auto const is_before = [&](std::size_t at) {
    std::string_view const there = page.PeekKey(at, forward_);
    return !there.empty() && IsNearer(OrderedKey(tree_, there), key);
  };
  std::size_t reach = 1;
  while (from + reach <= most && is_before(from + reach - 1)) {
    from += reach;
    reach *= 2;
  }
  std::size_t high = std::min(most + 1, from + reach);  // is_before(high - 1) is false, or unknown
  while (high - from > 1) {
    std::size_t const middle = from + (high - from) / 2;
    (is_before(middle - 1) ? from : high) = middle;
  }
  return from;
}

// The number of entries before `last`, an entry of the page that comes behind `before` others. Each
// of the page's entries counts, unless an overlay deletes its key; an overlay's key counts, unless
// the page has it or it is deleted. Leaves the overlays positioned at `last`, or behind.
std::size_t LogCursor::CountUpTo(KeyValue const& last, std::size_t before, EntryPage const& page) {
  OrderedKey const end(tree_, last.key);
  std::size_t count = before;
  std::size_t at = 0;
  for (Source const* next = Nearest(); next != nullptr && IsNearer(next->node->key(), end);
       next = Nearest()) {
    OrderedKey const key = next->node->key();
    at = EntriesBefore(key, page, at, before);
    bool const in_page = page.PeekKey(at, forward_) == key.bytes;
    if (in_page && next->version->deleted) --count;
    if (!in_page && !next->version->deleted) ++count;
    StepOverlaysPast(key.bytes);
  }
  return count;
}

bool LogCursor::SkipAhead(bool forward, std::size_t most, WithinRange const& within,
                          KeyValue* entry, std::size_t* skipped, bool* on) {
  if (bare() || forward != forward_ || entry->key.data() != delivered_) return false;
  StepPast(entry->key);
  EntryPage page;
  if (!image_on_ || !image_->EnterPage(image_entry_, &page)) return false;
  std::size_t const before = page.Left(forward_);
  KeyValue last;
  if (before < kShortestRun || !page.Peek(before, forward_, &last) || !within(last.key)) {
    return false;
  }
  std::size_t const count = CountUpTo(last, before, page);
  if (count > most) {
    for (std::size_t i = 0; i < sources_; ++i) PositionAfter(source_[i], entry->key);
    return false;
  }
  image_entry_ = last;
  in_image_page_ = false;
  steps_ = 0;
  *skipped = count;
  *on = Deliver(entry);
  return true;
}

}  // namespace lscore
