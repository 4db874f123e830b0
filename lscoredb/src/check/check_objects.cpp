#include <algorithm>

#include "allocators.h"
#include "bytes.h"
#include "check.h"
#include "checksummed_record.h"
#include "format.h"
#include "overflow.h"

namespace lscore {
namespace {

Finding Of(std::uint32_t kind, ObjectId object) {
  Finding finding;
  finding.kind = kind;
  finding.object = object;
  return finding;
}

constexpr std::uint64_t kObjectsBetween = 64;  // reports of progress
constexpr std::size_t kTogether = 256;         // objects whose entries come from a server at once

std::uint64_t ChunkCount(std::uint64_t size) {
  return (size + format::kChunkSize - 1) / format::kChunkSize;
}

}  // namespace

// ---- reading -----------------------------------------------------------------------------------

ObjectReader::Problem ObjectReader::Read(ObjectId id, std::string_view stored, RowRef* row) {
  if (IsStub(stored)) {
    Problem const problem = Assemble(id, &stored);
    if (problem.what != nullptr) return problem;
  }
  if (stored.size() < format::kHeaderSize) return {LSCOREDB_FINDING_OBJECT, "It is too short."};
  RowImage const image(stored);
  Layout const* const layout = definitions_.FindLayout(image.layout());
  if (layout == nullptr) return {LSCOREDB_FINDING_OBJECT, "Its layout is not there."};
  if (!RowImage::Validate(stored, id, *layout)) {
    return {LSCOREDB_FINDING_OBJECT, "Its bytes are not what was written for it."};
  }
  if (image.commit() > snapshot_.id()) {
    return {LSCOREDB_FINDING_OBJECT, "It comes from a commit that never happened."};
  }
  *row = RefOf(id, *layout, stored);
  return {};
}

ObjectReader::Problem ObjectReader::Assemble(ObjectId id, std::string_view* stored) {
  constexpr std::uint32_t kOverflow = LSCOREDB_FINDING_OVERFLOW;
  if (!StubHolds(*stored)) return {LSCOREDB_FINDING_OBJECT, "What says its size is damaged."};
  std::uint64_t const size = WholeSize(*stored);
  assembled_.clear();
  for (std::uint32_t chunk = 0; assembled_.size() < size; ++chunk) {
    std::string_view bytes;
    if (!snapshot_.Get(Tree::kOverflow, ChunkKey(id, chunk), &bytes)) {
      return {kOverflow, "A chunk of it is missing."};
    }
    if (bytes.size() != std::min<std::uint64_t>(format::kChunkSize, size - assembled_.size())) {
      return {kOverflow, "A chunk of it has the wrong size."};
    }
    assembled_.append(bytes);
  }
  *stored = assembled_;
  return {};
}

// ---- objects -----------------------------------------------------------------------------------

void ObjectCheck::Run(ObjectRange const& range, std::function<void(std::uint64_t)> const& report) {
  Cursor cursor;
  cursor.Open(snapshot_, Tree::kRows);
  std::uint64_t const first = Raw(range.first);
  std::uint64_t objects = 0;
  std::vector<StoredObject> far;  // those of a server, to be checked together
  auto const check_far = [&] {
    FetchEntries(far);
    for (StoredObject const& each : far) CheckObject(each.id, each.stored);
    far.clear();
  };
  for (bool on = cursor.Seek(BytesOf(first)); on; on = cursor.Next()) {
    ObjectId const id{Load<std::uint64_t>(cursor.key().data())};
    if (id > range.last) break;
    if (snapshot_.far()) {
      far.push_back({id, cursor.value()});
      if (far.size() == kTogether) check_far();
    } else {
      CheckObject(id, cursor.value());
    }
    if (++objects % kObjectsBetween == 0) report(kObjectsBetween);
  }
  check_far();
  report(objects % kObjectsBetween);
}

// Lets the snapshot get all entries that CheckEntries will look for. Says nothing of damage.
void ObjectCheck::FetchEntries(std::vector<StoredObject> const& objects) {
  if (!entries_ || objects.empty()) return;
  std::vector<std::string> keys;
  for (StoredObject const& each : objects) {
    RowRef row;
    if (IsStub(each.stored) || reader_.Read(each.id, each.stored, &row).what != nullptr) continue;
    Cell const setspec = row.Setspec();
    if (!setspec.present) continue;
    Unpack(setspec.text(), setspec_);
    for (auto const& [index, matched] : SetOf(setspec_).covering) {
      encoder_.Encode(*index, row, key_);
      keys.push_back(RecordOf(*index, key_, row.id, row.layout->number()).key);
    }
  }
  std::vector<std::string_view> const asked(keys.begin(), keys.end());
  std::vector<std::optional<std::string_view>> entries(keys.size());
  snapshot_.GetMany(Tree::kIndex, asked, entries);
}

void ObjectCheck::Add(ObjectCheck const& other) {
  for (auto const& [layout, objects] : other.counts_) counts_[layout] += objects;
  for (auto const& [index, entries] : other.matched_) matched_[index] += entries;
  for (auto const& [setspec, object] : other.unnoted_) {
    auto const [at, first] = unnoted_.emplace(setspec, object);
    if (!first) at->second = std::min(at->second, object);
  }
}

// What only the whole shows: sets whose last change is not recorded, chunks without an object,
// counts of layouts, and ids that could be allocated again.
void ObjectCheck::Finish() {
  for (auto const& [setspec, object] : unnoted_) {
    sink_.Report(Of(LSCOREDB_FINDING_SET_CHANGE, object),
                 "The object's last change is not recorded for its set.");
  }
  CheckChunks();
  definitions_.ForEachLayout([&](Layout const& layout) { CheckCount(layout.number()); });
  CheckNextId();
}

void ObjectCheck::CheckObject(ObjectId id, std::string_view stored) {
  RowRef row;
  ObjectReader::Problem const problem = reader_.Read(id, stored, &row);
  if (stored.size() >= format::kHeaderSize) ++counts_[RowImage(stored).layout()];
  if (problem.what != nullptr) {
    return ReportProblem(id, stored, problem);
  }
  Cell const setspec = row.Setspec();
  if (!setspec.present) return;
  Unpack(setspec.text(), setspec_);
  Set& set = SetOf(setspec_);
  CheckSetChange(row, set);
  if (entries_) CheckEntries(row, set);
}

void ObjectCheck::ReportProblem(ObjectId id, std::string_view stored,
                                ObjectReader::Problem problem) {
  Finding finding = Of(problem.kind, id);
  if (stored.size() >= format::kHeaderSize) finding.layout = RowImage(stored).layout();
  sink_.Report(finding, std::string("The object is damaged. ") + problem.what);
}

// Looks up the indexes over a set and its recorded change once, and keeps them for its other
// objects.
ObjectCheck::Set& ObjectCheck::SetOf(std::u16string const& setspec) {
  auto const [at, first] = sets_.try_emplace(setspec);
  Set& set = at->second;
  if (!first) return set;
  for (IndexDefinition const* const index : definitions_.Covering(setspec)) {
    set.covering.push_back({index, &matched_[index->id]});
  }
  std::string const key = SetChangeKey(setspec);
  std::string_view record;
  if (snapshot_.Get(Tree::kMeta, key, &record) && HasValidChecksum(key, record)) {
    Status const read = Guarded([&] {
      set.changed = ParseSetChange(StripChecksum(key, record)).commit;
      return LORV_STATUS_OK;
    });
    if (read != LORV_STATUS_OK) set.changed = CommitId{0};
  }
  return set;
}

// The recorded change of a set must not be older than any of its rows: an index that is created
// relies on it (CommitApplier::ValidateIndexes). REQUIRES: `setspec_` is the set's.
void ObjectCheck::CheckSetChange(RowRef const& row, Set const& set) {
  bool const noted = set.changed >= row.stored().commit() && set.changed <= snapshot_.id();
  if (!noted) unnoted_.emplace(setspec_, row.id);
}

void ObjectCheck::CheckEntries(RowRef const& row, Set const& set) {
  for (auto const& [index, matched] : set.covering) {
    encoder_.Encode(*index, row, key_);
    std::string_view stored;
    EntryRecord const record = RecordOf(*index, key_, row.id, row.layout->number());
    if (snapshot_.Get(Tree::kIndex, record.key, &stored)) {
      if (stored == record.value) ++*matched;
      continue;
    }
    if (definitions_.IsYetToCome(*index, record.key)) continue;
    Finding finding = Of(LSCOREDB_FINDING_MISSING_ENTRY, row.id);
    finding.index = index->id;
    finding.layout = row.layout->number();
    sink_.Report(finding, "The index does not hold the object.");
  }
}

// ---- overflow ----------------------------------------------------------------------------------

void ObjectCheck::CheckChunks() {
  Cursor cursor;
  cursor.Open(snapshot_, Tree::kOverflow);
  WatchedWork work({kObjectShare.end, kObjectShare.end}, 0);
  ObjectId reported{~std::uint64_t{0}};  // each object is reported once
  for (bool on = cursor.First(); on; on = cursor.Next()) {
    work.Advance();
    std::string_view const key = cursor.key();
    ObjectId id{};
    std::uint32_t chunk = 0;
    if (key.size() == sizeof id + sizeof chunk) {
      id = ObjectId{LoadBig<std::uint64_t>(key.data())};
      chunk = LoadBig<std::uint32_t>(key.data() + sizeof id);
    }
    if (id != reported && !CheckChunk(id, chunk)) reported = id;
  }
}

bool ObjectCheck::CheckChunk(ObjectId id, std::uint32_t chunk) {
  std::uint64_t const raw = Raw(id);
  std::string_view stored;
  bool const there = id != kNoObject && snapshot_.Get(Tree::kRows, BytesOf(raw), &stored);
  if (there && IsStub(stored) && (!StubHolds(stored) || chunk < ChunkCount(WholeSize(stored))))
    return true;
  sink_.Report(Of(LSCOREDB_FINDING_OVERFLOW, id),
               there ? "There are overflow chunks that the object does not have."
                     : "There are overflow chunks of an object that does not exist.");
  return false;
}

// ---- counts ------------------------------------------------------------------------------------

void ObjectCheck::CheckCount(LayoutNumber number) {
  std::uint64_t const found = counts_[number];
  std::uint64_t counted = 0;
  Status const read = Guarded([&] {
    counted = ReadCount(snapshot_, number).objects;
    return LORV_STATUS_OK;
  });
  if (read != LORV_STATUS_OK || counted == found) return;  // a broken record is reported as that
  Finding finding;
  finding.kind = LSCOREDB_FINDING_COUNT;
  finding.layout = number;
  sink_.Report(finding, "The layout has " + std::to_string(found) +
                            " objects, and its count says " + std::to_string(counted) + ".");
}

// ---- identities --------------------------------------------------------------------------------

// Ids that are allocated must lie below the mark, and the free ranges must hold no object's id. The
// ids of indexes come from the same range as those of objects.
void ObjectCheck::CheckNextId() {
  std::uint64_t mark = 0;
  ObjectId misplaced = kNoObject;
  Status const read = Guarded([&] {
    mark = ReadIdMark(snapshot_);
    misplaced = FindMisplacedId(snapshot_, mark);
    return IndexVersion(snapshot_) <= snapshot_.id() ? LORV_STATUS_OK : LSCOREDB_DAMAGED;
  });
  if (read != LORV_STATUS_OK) {
    Finding finding;
    finding.kind = LSCOREDB_FINDING_DEFINITION;
    return sink_.Report(finding, "The record of free identities is damaged.");
  }
  if (misplaced != kNoObject) {
    sink_.Report(Of(LSCOREDB_FINDING_NEXT_ID, misplaced),
                 "The ranges of free identities contradict each other here.");
  }
  IndexId const last = definitions_.highest_index();
  if (Raw(last) < mark) return;
  Finding finding;
  finding.kind = LSCOREDB_FINDING_NEXT_ID;
  finding.index = last;
  sink_.Report(finding, "The index's identity could be allocated again.");
}

}  // namespace lscore
