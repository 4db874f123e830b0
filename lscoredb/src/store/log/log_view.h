#ifndef LSCOREDB_SRC_LOG_VIEW_H
#define LSCOREDB_SRC_LOG_VIEW_H

// Reads a state of a store with a log: layers over an image, as of one commit. One thread at a
// time.

#include <deque>
#include <memory>

#include "log_layers.h"
#include "page_builder.h"

namespace lscore {

// The state itself. If Set was given no snapshot of the image, one begins when it is first needed.
//
// A batch that is too large for the log goes on in a batch of the image (ReadImageBatch), which
// then has all of the state but the few entries of kMeta that the batch itself wrote.
class LayeredView {
 public:
  LayeredView(Store const& store, Store& image_store) : store_(store), image_store_(image_store) {}
  ~LayeredView() { EndImage(); }
  LayeredView(LayeredView const&) = delete;
  LayeredView& operator=(LayeredView const&) = delete;

  void Set(std::shared_ptr<LogLayers const> layers, CommitId state,
           std::unique_ptr<Snapshot> image);
  void EndImage();
  // From now on the image is read as `batch` has it. What cursors have open of its snapshot stays
  // there until EndImage.
  void ReadImageBatch(Batch const& batch) { image_batch_ = &batch; }
  // Whether the image has all of the tree's state, so that no layer is looked at.
  bool image_has_all(Tree tree) const { return image_batch_ != nullptr && tree != Tree::kMeta; }

  bool Get(Tree tree, std::string_view key, std::string_view* value) const;
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor, bool frozen) const;

  bool has_room_for_pages() const { return pages_.size() < kMostPages; }
  // Keeps a page that was built for a scan, and enters it. Returns false for one that is too small.
  bool KeepPage(BuiltPage made, EntryPage* page) const;

  LogLayers const& layers() const { return *layers_; }
  CommitId state() const { return state_; }
  View const& image() const;

 private:
  static constexpr std::size_t kMostPages = 512;

  Store const& store_;
  Store& image_store_;
  std::shared_ptr<LogLayers const> layers_;
  CommitId state_{0};
  std::unique_ptr<Snapshot> mutable image_;
  Batch const* image_batch_ = nullptr;
  std::deque<BuiltPage> mutable pages_;
};

class LogSnapshot final : public Snapshot {
 public:
  LogSnapshot(Store const& store, Store& image_store, std::shared_ptr<LogLayers const> layers,
              CommitId state, std::unique_ptr<Snapshot> image)
      : view_(store, image_store) {
    set_id(state);
    view_.Set(std::move(layers), state, std::move(image));
  }

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override {
    return view_.Get(tree, key, value);
  }
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override {
    view_.OpenCursor(tree, cursor, true);
  }

  std::size_t index = 0;  // in LogStore::readers_

 private:
  LayeredView view_;
};

}  // namespace lscore

#endif
