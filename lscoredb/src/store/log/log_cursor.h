#ifndef LSCOREDB_SRC_LOG_CURSOR_H
#define LSCOREDB_SRC_LOG_CURSOR_H

// Scans a tree of a store with a log: merges the entries of the image and of the overlays above it.
//
// Each source is positioned on its first entry after the last one delivered, in the direction of
// the scan, or on the last one delivered if it has that. The nearest of them is delivered next.
// Among entries with the same key the topmost source decides; if it deletes the key, none is
// delivered.

#include <array>
#include <memory>

#include "log_layers.h"
#include "log_view.h"

namespace lscore {

class LogCursor final : public TreeCursor {
 public:
  // `frozen`: over a snapshot.
  LogCursor(Store const& store, LayeredView const& view, Tree tree, bool frozen);

  // Over another snapshot of the store, or another tree. REQUIRES: renewable().
  void Renew(LayeredView const& view, Tree tree);
  bool renewable() const { return renewable_; }

  bool Seek(std::string_view key, KeyValue* entry) override;
  bool First(KeyValue* entry) override;
  bool Last(KeyValue* entry) override;
  bool Next(KeyValue* entry) override { return Step(entry, true); }
  bool Previous(KeyValue* entry) override { return Step(entry, false); }
  // Enters the image's own page as far as it reaches before the next key of an overlay. Where that
  // is not far, a longer scan gets pages that are built for it.
  bool EnterPage(KeyValue const& entry, EntryPage* page) override;
  // Over the image's page, by the number of its entries and of the overlays' keys among them.
  bool SkipAhead(bool forward, std::size_t most, WithinRange const& within, KeyValue* entry,
                 std::size_t* skipped, bool* on) override;

 private:
  // An overlay and the scan's position in it. `version` belongs to the node; no node: at the end.
  struct Source {
    Overlay const* overlay = nullptr;
    OverlayNode const* node = nullptr;
    OverlayVersion const* version = nullptr;
  };

  void FollowBatch();
  // Whether no overlay has entries in the tree, so that the image's cursor does everything.
  bool bare() const { return sources_ == 0; }
  void AddSource(Overlay const& overlay);
  void PositionAt(Source& source, OverlayNode const* node) const;
  void PositionAfter(Source& source, std::string_view key) const;
  void TurnImage(KeyValue const& entry);
  void StepImage();
  bool Step(KeyValue* entry, bool forward);
  void StepPast(std::string_view key);
  void StepOverlaysPast(std::string_view key);
  std::size_t EntriesBefore(OrderedKey const& key, EntryPage const& page, std::size_t from,
                            std::size_t most) const;
  std::size_t CountUpTo(KeyValue const& last, std::size_t before, EntryPage const& page);
  void PositionImageAfter(std::string_view key);
  void StepDeleted(std::string_view key);
  void EndDeleted();
  DeletedRuns& deleted_runs() const { return view_->layers().active->changes.deleted_runs(); }
  Source const* Nearest() const;
  bool Deliver(KeyValue* entry);
  bool IsNearer(OrderedKey const& a, OrderedKey const& b) const { return forward_ ? a < b : b < a; }
  bool EnterImagePage(KeyValue const& entry, EntryPage* page);
  bool MakePage(KeyValue const& entry, EntryPage* page);

  LayeredView const* view_;
  View const* image_view_ = nullptr;  // what image_ is a cursor over
  Tree tree_;
  bool const renewable_;
  std::unique_ptr<TreeCursor> image_;
  KeyValue image_entry_;
  bool image_on_ = false;
  std::array<Source, 2> source_;  // topmost first
  std::size_t sources_ = 0;
  bool forward_ = true;
  char const* delivered_ = nullptr;  // the key of the entry delivered last
  std::size_t deleted_ = 0;          // entries stepped over in a row
  std::string_view first_deleted_;
  std::string_view last_deleted_;
  std::string end_of_run_;
  int steps_ = 0;                    // in one direction, outside of pages
  bool in_image_page_ = false;       // an entry other than that comes from a page of the image
  char const* built_end_ = nullptr;  // the key of the last entry of the page that was built last
};

}  // namespace lscore

#endif
