#ifndef LSCOREDB_SRC_ASSEMBLED_IMAGES_H
#define LSCOREDB_SRC_ASSEMBLED_IMAGES_H

// Images of rows that the store keeps in overflow chunks, assembled in memory for a transaction. An
// image lives until the innermost read scope that was open when it was assembled, or else the
// transaction, ends. One thread at a time.

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "ids.h"

namespace lscore {

class AssembledImages {
 public:
  // Null: the row's image was not assembled.
  char const* Find(ObjectId id) const {
    for (std::size_t i = 0; i < ids_.size(); ++i) {
      if (ids_[i] == id) return images_[i].get();
    }
    return nullptr;
  }

  char const* Add(ObjectId id, std::unique_ptr<char[]> image) {
    ids_.reserve(ids_.size() + 1);
    images_.push_back(std::move(image));
    ids_.push_back(id);
    return images_.back().get();
  }

  void BeginScope() { scopes_.push_back(images_.size()); }
  // Frees the images of the scope, except those of rows for which `keep` is true; they pass to the
  // scope around it. Returns whether the scope had any. REQUIRES: a scope is open.
  template <typename Keep>
  bool EndScope(Keep&& keep) {
    std::size_t kept = scopes_.back();
    scopes_.pop_back();
    if (kept == images_.size()) return false;
    for (std::size_t i = kept; i < images_.size(); ++i) {
      if (!keep(ids_[i])) continue;
      std::swap(images_[kept], images_[i]);
      std::swap(ids_[kept], ids_[i]);
      ++kept;
    }
    images_.resize(kept);
    ids_.resize(kept);
    return true;
  }

  void Clear() {
    images_.clear();
    ids_.clear();
    scopes_.clear();
  }

 private:
  std::vector<std::unique_ptr<char[]>> images_;
  std::vector<ObjectId> ids_;
  std::vector<std::size_t> scopes_;  // the number of images when each began
};

}  // namespace lscore

#endif
