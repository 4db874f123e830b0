#include "log_view.h"

#include "log_cursor.h"
#include "status.h"

namespace lscore {

void LayeredView::Set(std::shared_ptr<LogLayers const> layers, CommitId state,
                      std::unique_ptr<Snapshot> image) {
  layers_ = std::move(layers);
  state_ = state;
  image_ = std::move(image);
}

void LayeredView::EndImage() {
  image_batch_ = nullptr;
  if (image_ != nullptr) image_store_.End(std::move(image_));
}

View const& LayeredView::image() const {
  if (image_batch_ != nullptr) return *image_batch_;
  if (image_ == nullptr) image_ = image_store_.Begin();
  return *image_;
}

bool LayeredView::Get(Tree tree, std::string_view key, std::string_view* value) const {
  if (tree == Tree::kRows && key.size() != sizeof(std::uint64_t)) Throw(LSCOREDB_TOO_LARGE);
  if (image_has_all(tree)) return image().Get(tree, key, value);
  OverlayVersion const* const version = layers_->Find({tree, key}, state_);
  if (version == nullptr) return image().Get(tree, key, value);
  if (version->deleted) return false;
  *value = version->value;
  return true;
}

bool LayeredView::KeepPage(BuiltPage made, EntryPage* page) const {
  if (made.count < 2) return false;
  pages_.push_back(std::move(made));
  return pages_.back().Enter(page);
}

void LayeredView::OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor, bool frozen) const {
  if (frozen && cursor != nullptr && cursor->IsOf(store_)) {
    auto& there = static_cast<LogCursor&>(*cursor);
    if (there.renewable()) {
      there.Renew(*this, tree);
      return;
    }
  }
  cursor.reset();
  cursor = std::make_unique<LogCursor>(store_, *this, tree, frozen);
}

}  // namespace lscore
