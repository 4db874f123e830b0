#include "checkpoint.h"

#include <limits>

#include "format.h"

namespace lscore {
namespace {

constexpr CommitId kAlways{0};
constexpr SliceLimit kAll{std::numeric_limits<std::size_t>::max()};

std::string LastKey(Batch const& image, Tree tree) {
  Cursor cursor;
  cursor.Open(image, tree);
  std::string last = cursor.Last() ? std::string(cursor.key()) : std::string();
  cursor.Close();
  return last;
}

// Writes the entries of one tree in key order. Keys above the tree's last one are appended, which
// packs pages.
class TreeWriter {
 public:
  TreeWriter(Batch& image, Tree tree) : image_(image), tree_(tree), last_(LastKey(image, tree)) {}

  // Returns whether the entry was appended.
  bool Write(OrderedKey const& key, OverlayVersion const& version) {
    bool const appends = !version.deleted && (last_.empty() || OrderedKey(tree_, last_) < key);
    if (version.deleted) {
      image_.Delete(tree_, key.bytes);
    } else if (appends) {
      image_.Append(tree_, key.bytes, version.value);
    } else {
      image_.Put(tree_, key.bytes, ValueFor(key, version.value));
    }
    return appends;
  }

 private:
  // The format record of the content is stored as that of an image with a log.
  std::string_view ValueFor(OrderedKey const& key, std::string_view value) {
    if (tree_ != Tree::kMeta || key.bytes != format::kFormatKey) return value;
    format_ = logformat::ImageFormat(image_, value);
    return format_;
  }

  Batch& image_;
  Tree tree_;
  std::string last_;
  std::string format_;
};

// The first node that is not written.
OverlayNode const* NodeAt(Overlay const& changes, CheckpointPlace const& place) {
  auto const tree = static_cast<Tree>(place.tree);
  return place.key.empty() ? changes.First(tree) : changes.NotBelow({tree, place.key});
}

// What is left of a limit.
class Allowance {
 public:
  explicit Allowance(SliceLimit const& limit)
      : entries_(limit.entries), appended_in_one_(limit.appended_in_one) {}

  bool used_up() const { return entries_ == 0; }
  void Take(bool appended) {
    if (appended && ++appended_ < appended_in_one_) return;
    appended_ = 0;
    --entries_;
  }

 private:
  std::size_t entries_;
  std::size_t const appended_in_one_;
  std::size_t appended_ = 0;
};

// Returns whether all entries of the place's tree are written; so many more may be.
bool WriteSliceOfTree(Batch& image, LogLayer const& layer, CommitId state, CheckpointPlace* place,
                      Allowance& allowance) {
  OverlayNode const* node = NodeAt(layer.changes, *place);
  if (node == nullptr) return true;
  TreeWriter writer(image, static_cast<Tree>(place->tree));
  for (; node != nullptr; node = node->Next(), ++place->written) {
    if (allowance.used_up()) {
      place->key = node->key().bytes;
      return false;
    }
    // Entries of kAlways are the layer's own view of the image (LogLayer).
    OverlayVersion const* const version = node->VersionAt(state);
    bool const written = version != nullptr && version->commit != kAlways;
    allowance.Take(written && writer.Write(node->key(), *version));
  }
  return true;
}

}  // namespace

bool WriteSlice(Batch& image, LogLayer const& layer, CommitId state, CheckpointPlace* place,
                SliceLimit const& limit) {
  Allowance allowance(limit);
  if (place->layer != layer.number) *place = {layer.number, 0, {}, 0};
  for (; place->tree < kTreeCount; ++place->tree, place->key.clear()) {
    if (!WriteSliceOfTree(image, layer, state, place, allowance)) return false;
  }
  return true;
}

void WriteLayer(Batch& image, LogLayer const& layer, CommitId state) {
  CheckpointPlace place;
  WriteSlice(image, layer, state, &place, kAll);
}

void WriteTree(Batch& image, LogLayer const& layer, CommitId state, Tree tree) {
  CheckpointPlace place{layer.number, static_cast<std::size_t>(tree), {}, 0};
  Allowance allowance(kAll);
  WriteSliceOfTree(image, layer, state, &place, allowance);
}

}  // namespace lscore
