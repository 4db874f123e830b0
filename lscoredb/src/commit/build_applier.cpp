#include "build_applier.h"

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "overflow.h"
#include "status.h"

namespace lscore {
namespace {

// Visits the entries that the change adds.
template <typename Visit>
void ForEachEntry(BuildChange const& change, Visit&& visit) {
  if (change.entries == nullptr) return;
  std::string const& low = change.before.position;
  std::string const& high = change.after.position;
  Cursor cursor;
  cursor.Open(*change.entries, Tree::kIndex);
  bool on = low.empty() ? cursor.First() : cursor.Seek(low);
  if (on && cursor.key() == low) on = cursor.Next();
  for (; on && (high.empty() || cursor.key() <= high); on = cursor.Next()) {
    visit(cursor.key(), cursor.value());
  }
}

ObjectId ObjectOf(IndexDefinition const& index, std::string_view key, std::string_view value) {
  Entry entry;
  ParseEntry(index, key, value, &entry);
  return entry.object;
}

}  // namespace

void AddHints(BuildChange const& change, std::vector<TreeKey>* hints) {
  hints->push_back({Tree::kDefinitions, BuildKey(change.index->id)});
  if (change.set_quiet) return;
  ForEachEntry(change, [&](std::string_view key, std::string_view value) {
    std::uint64_t const id = Raw(ObjectOf(*change.index, key, value));
    hints->push_back({Tree::kRows, std::string(BytesOf(id))});
  });
}

void BuildApplier::Validate(BuildChange const& change) {
  if (change.kind == BuildChange::Kind::kPrepare) return RequireNoneLike(*change.index);
  std::optional<IndexBuild> const stored = FindBuild(batch_, change.before.id);
  if (!stored.has_value() || *stored != change.before) Throw(LSCOREDB_CONFLICT);
}

// Two builds of one definition would be one too many: the second is to continue the first.
void BuildApplier::RequireNoneLike(IndexDefinition const& index) const {
  for (IndexBuild const& build : AllBuilds(batch_)) {
    std::unique_ptr<IndexDefinition const> const other = LoadIndex(batch_, build.id);
    if (other != nullptr && other->IsLike(index)) Throw(LSCOREDB_CONFLICT);
  }
}

void BuildApplier::Apply(BuildChange const& change) {
  if (change.kind == BuildChange::Kind::kContinue) AddEntries(change);
  Write(change);
}

// A new phase changes what other transactions have to do, as a new index does.
void BuildApplier::Write(BuildChange const& change) {
  switch (change.kind) {
    case BuildChange::Kind::kPrepare:
      WriteIndex(batch_, *change.index);
      WriteBuild(batch_, change.after);
      RequireFormat(batch_, format::kPreparedIndexVersion);
      return WriteIndexVersion(batch_);
    case BuildChange::Kind::kAbandon:
      DeleteIndex(batch_, *change.index);
      if (!change.left.empty()) WriteAbandoned(batch_, *change.index);
      Remove(change);
      return WriteIndexVersion(batch_);
    case BuildChange::Kind::kRemove:
      if (change.left.empty()) DeleteAbandoned(batch_, change.index->id);
      return Remove(change);
    case BuildChange::Kind::kContinue:
      WriteBuild(batch_, change.after);
      if (change.before.phase != change.after.phase) WriteIndexVersion(batch_);
  }
}

void BuildApplier::Remove(BuildChange const& change) {
  DeleteEntries(batch_, *change.index, change.left);
  if (change.left.empty()) {
    DeleteBuild(batch_, change.index->id);
  } else {
    WriteBuild(batch_, change.after);
  }
}

// Nothing holds the objects still while the entries are sorted and added batch by batch. Since all
// of them were read from one state, a set without a change since is taken as it was read.
void BuildApplier::AddEntries(BuildChange const& change) {
  if (!SetChangedSince(batch_, change.index->setspec, change.read)) return AddReadEntries(change);
  if (change.set_quiet && batch_.far()) FetchObjects(change);
  ForEachEntry(change,
               [&](std::string_view key, std::string_view value) { AddEntry(change, key, value); });
}

void BuildApplier::AddReadEntries(BuildChange const& change) {
  AscendingEntries writer(batch_);
  ForEachEntry(change,
               [&](std::string_view key, std::string_view value) { writer.Put(key, value); });
}

// The set was quiet when the batch was begun, so that its objects were not among the hints.
void BuildApplier::FetchObjects(BuildChange const& change) const {
  std::vector<std::uint64_t> ids;
  ForEachEntry(change, [&](std::string_view key, std::string_view value) {
    ids.push_back(Raw(ObjectOf(*change.index, key, value)));
  });
  std::vector<std::string_view> keys;
  for (std::uint64_t const& id : ids) keys.push_back(BytesOf(id));
  std::vector<std::optional<std::string_view>> rows(keys.size());
  batch_.GetMany(Tree::kRows, keys, rows);
}

// The entry of an object that was changed since may be out of date, and the commit that changed the
// object wrote a new one only if the key differs. So it is derived again from the object as it is.
void BuildApplier::AddEntry(BuildChange const& change, std::string_view key,
                            std::string_view value) {
  ObjectId const object = ObjectOf(*change.index, key, value);
  std::uint64_t const id = Raw(object);
  std::string_view stored;
  if (!batch_.Get(Tree::kRows, BytesOf(id), &stored)) return;
  if (stored.size() < format::kHeaderSize) Throw(LSCOREDB_DAMAGED);
  if (RowImage(stored).commit() > change.read) return DeriveEntry(*change.index, object, stored);
  batch_.Put(Tree::kIndex, key, value);
}

void BuildApplier::DeriveEntry(IndexDefinition const& index, ObjectId object,
                               std::string_view stored) {
  image_ = stored;  // what follows writes and so invalidates it
  if (IsStub(image_)) image_ = AssembleImage(batch_, object, image_);
  std::string_view const image = image_;
  if (image.size() < format::kHeaderSize) Throw(LSCOREDB_DAMAGED);
  Layout const& layout = LayoutOf(RowImage(image).layout());
  if (!RowImage::Validate(image, object, layout)) Throw(LSCOREDB_DAMAGED);
  RowRef const row = RefOf(object, layout, image);
  Cell const setspec = row.Setspec();
  if (!setspec.present) return;
  Unpack(setspec.text(), text_);
  if (!index.Covers(text_)) return;
  encoder_.Encode(index, row, key_);
  writer_.Put(index, key_, object, layout.number());
}

Layout const& BuildApplier::LayoutOf(LayoutNumber number) {
  std::unique_ptr<Layout const>& layout = layouts_[number];
  if (layout != nullptr) return *layout;
  std::string_view record;
  if (!GetChecked(batch_, Tree::kDefinitions, LayoutKey(number), &record)) Throw(LSCOREDB_DAMAGED);
  layout = ParseLayout(number, record);
  return *layout;
}

}  // namespace lscore
