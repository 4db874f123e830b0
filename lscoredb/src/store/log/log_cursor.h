#ifndef LSCOREDB_SRC_LOG_CURSOR_H
#define LSCOREDB_SRC_LOG_CURSOR_H

// Scans a tree of a store with a log: the entries of the image and of the overlays over it, merged.
//
// Each source stands on its first entry behind the last one given, in the direction of the scan, or
// on the last one given where it has that. The nearest of them is given next. Of several with the
// same key the topmost counts; when that says that the key is deleted, none is given.

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
  // The image's pages, as they are, where no overlay has anything between their entries. Elsewhere
  // a scan that goes on gets pages that are made for it.
  bool EnterPage(KeyValue const& entry, EntryPage* page) override;

 private:
  // An overlay and where in it the scan is. `version` is that of the node; no node: at the end.
  struct Source {
    Overlay const* overlay = nullptr;
    OverlayNode const* node = nullptr;
    OverlayVersion const* version = nullptr;
  };

  // Whether the image's cursor is all there is.
  bool bare() const { return sources_ == 0; }
  void AddSource(Overlay const& overlay);
  void Stand(Source& source, OverlayNode const* node) const;
  void StandBehind(Source& source, std::string_view key) const;
  void TurnImage(KeyValue const& entry);
  void StepImage();
  bool Step(KeyValue* entry, bool forward);
  void Pass(std::string_view key);
  Source const* Nearest() const;
  bool Give(KeyValue* entry);
  bool IsNearer(std::string_view a, std::string_view b) const;
  bool HasBetween(KeyValue const& first, KeyValue const& last) const;
  bool EnterImagePage(KeyValue const& entry, EntryPage* page);
  bool MakePage(KeyValue const& entry, EntryPage* page);

  LayeredView const* view_;
  Tree tree_;
  bool const renewable_;
  std::unique_ptr<TreeCursor> image_;
  KeyValue image_entry_;
  bool image_on_ = false;
  std::array<Source, 2> source_;  // the topmost first
  std::size_t sources_ = 0;
  bool forward_ = true;
  char const* given_ = nullptr;  // the key of the entry that was given last
  int steps_ = 0;                // in one direction, outside of pages
  bool in_image_page_ = false;   // an entry that was not given comes from a page of the image
  KeyValue mixed_first_;         // of the last page of the image that could not be handed out
  KeyValue mixed_last_;
};

}  // namespace lscore

#endif
