#ifndef LSCOREDB_SRC_CURSOR_H
#define LSCOREDB_SRC_CURSOR_H

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "entry_page.h"
#include "view.h"

namespace lscore {

// Scans a tree in key order. May be reopened; over snapshots of one store that allocates nothing.
// After a call that returned false it has no entry, and only Seek, First and Last are allowed. Over
// a batch, a write invalidates its entry.
class Cursor {
 public:
  void Open(View const& view, Tree tree) {
    page_.Leave();
    view.OpenCursor(tree, cursor_);
  }
  // Closes and frees. Needed before a batch ends.
  void Close() {
    page_.Leave();
    cursor_.reset();
  }

  // Each moves the cursor and returns whether it has an entry.
  bool Seek(std::string_view key) {
    page_.Leave();
    return cursor_->Seek(key, &entry_);
  }
  bool First() {
    page_.Leave();
    return cursor_->First(&entry_);
  }
  bool Last() {
    page_.Leave();
    return cursor_->Last(&entry_);
  }
  bool Next() { return (EnterPage() && page_.Next(&entry_)) || NextPage(); }
  bool Previous() { return (EnterPage() && page_.Previous(&entry_)) || PreviousPage(); }

  // The entry `ahead` steps further in the page, if the cursor is inside one, for a caller that
  // looks at one after the other and steps over them all at once.
  bool Look(std::size_t ahead, bool forward, KeyValue* entry) const {
    return page_.inside() && page_.Look(ahead, forward, entry);
  }
  // REQUIRES: Look has shown the entry so many steps ahead.
  void StepInPage(bool forward, std::size_t steps) { page_.Step(steps, forward, &entry_); }
  // As many such steps as lead to the page's last entry, and returns their number; 0, without a
  // step, if they are more than `most`.
  std::size_t SkipInPage(bool forward, std::size_t most) {
    std::size_t const left = page_.inside() ? page_.Left(forward) : 0;
    return left != 0 && left <= most && page_.SkipLeft(forward, &entry_) ? left : 0;
  }
  // Outside of a page: see TreeCursor::SkipAhead.
  bool SkipAhead(bool forward, std::size_t most, TreeCursor::WithinRange const& within,
                 std::size_t* skipped, bool* on) {
    return !page_.inside() && cursor_->SkipAhead(forward, most, within, &entry_, skipped, on);
  }
  // The key of the page's last entry in that direction. False when it is not known.
  bool PageEnd(bool forward, std::string_view* key) const {
    KeyValue first;
    KeyValue last;
    if (!page_.Ends(&first, &last)) return false;
    *key = forward ? last.key : first.key;
    return true;
  }

  // A nearby entry `ahead` steps further, if the cursor is inside a page. Its bytes are not
  // checked.
  bool Peek(std::size_t ahead, bool forward, KeyValue* entry) const {
    return page_.inside() && page_.Peek(ahead, forward, entry);
  }

  // See TreeCursor::Upcoming. REQUIRES: the cursor has an entry.
  void Upcoming(bool forward, std::size_t most, std::vector<KeyValue>* out) const {
    cursor_->Upcoming(entry_, forward, most, out);
  }
  void Expect(std::string_view low, std::string_view high) { cursor_->Expect(low, high); }
  void FetchWithNextPage(RowRun const& run) { cursor_->FetchWithNextPage(run); }

  std::string_view key() const { return entry_.key; }
  std::string_view value() const { return entry_.value; }

 private:
  bool EnterPage() { return page_.inside() || cursor_->EnterPage(entry_, &page_); }
  bool NextPage() {
    page_.Leave();
    return cursor_->Next(&entry_);
  }
  bool PreviousPage() {
    page_.Leave();
    return cursor_->Previous(&entry_);
  }

  std::unique_ptr<TreeCursor> cursor_;
  KeyValue entry_;
  EntryPage page_;
};

}  // namespace lscore

#endif
