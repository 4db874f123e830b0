#include "bytes.h"
#include "check.h"
#include "checksummed_record.h"
#include "closed_sets.h"
#include "format.h"

namespace lscore {
namespace {

using Letter = char;

// The size of a key with this letter; 0: it has no fixed size.
std::size_t KeySize(Letter letter) {
  switch (letter) {
    case format::kLayoutLetter:
    case format::kCountLetter:
    case format::kReleaseLetter:
      return 3;
    case format::kIndexLetter:
    case format::kBuildLetter:
    case format::kAbandonedLetter:
      return 9;
    case format::kLayoutTokenLetter:
      return 11;
    case format::kIndexTokenLetter:
    case format::kIndexSetLetter:
      return 17;
    default:
      return 0;
  }
}

LayoutNumber LayoutAtEnd(std::string_view key) {
  return LayoutNumber{LoadBig<std::uint16_t>(key.data() + key.size() - 2)};
}
IndexId IndexAtEnd(std::string_view key) {
  return IndexId{LoadBig<std::uint64_t>(key.data() + key.size() - 8)};
}

// A finding about the layout or index that a record's key names.
Finding About(std::string_view key) {
  Finding finding;
  finding.kind = LSCOREDB_FINDING_DEFINITION;
  Letter const letter = key.empty() ? '\0' : key[0];
  if (KeySize(letter) != key.size()) return finding;
  bool const of_layout = letter == format::kLayoutLetter || letter == format::kCountLetter ||
                         letter == format::kReleaseLetter || letter == format::kLayoutTokenLetter;
  if (of_layout) {
    finding.layout = LayoutAtEnd(key);
  } else {
    finding.index = IndexAtEnd(key);
  }
  return finding;
}

Finding OfLayout(LayoutNumber number) {
  return {LSCOREDB_FINDING_LAYOUT, {}, {}, number, LSCOREDB_NO_COLUMN};
}
Finding OfIndex(IndexId id) { return {LSCOREDB_FINDING_INDEX, {}, id, {}, LSCOREDB_NO_COLUMN}; }

// Keys with a set specifier have no fixed size.
bool IsOfSet(Letter letter) {
  return letter == format::kSetChangeLetter || letter == format::kClosedSetLetter;
}

bool IsKeptInMeta(Letter letter) {
  return letter == format::kCountLetter || letter == format::kSetChangeLetter;
}

// Calls `visit` for the well-formed records whose keys begin with `prefix`, `broken` for the
// others.
template <typename Visit, typename Broken>
void ForEachIn(Snapshot const& snapshot, Tree tree, std::string const& prefix, Visit&& visit,
               Broken&& broken) {
  Cursor cursor;
  cursor.Open(snapshot, tree);
  bool on = prefix.empty() ? cursor.First() : cursor.Seek(prefix);
  for (; on && cursor.key().starts_with(prefix); on = cursor.Next()) {
    if (!HasValidChecksum(cursor.key(), cursor.value())) {
      broken(cursor.key(), "Its checksum is wrong.");
      continue;
    }
    if (IsKeptInMeta(cursor.key()[0]) != (tree == Tree::kMeta)) {
      broken(cursor.key(), "It is in the wrong tree.");
      continue;
    }
    Status const status = Guarded([&] {
      visit(cursor.key(), StripChecksum(cursor.key(), cursor.value()));
      return LORV_STATUS_OK;
    });
    if (status != LORV_STATUS_OK) broken(cursor.key(), "It is not well formed.");
  }
}

template <typename Visit, typename Broken>
void ForEachRecord(Snapshot const& snapshot, Visit&& visit, Broken&& broken) {
  ForEachIn(snapshot, Tree::kDefinitions, "", visit, broken);
  for (Letter const letter : {format::kCountLetter, format::kSetChangeLetter}) {
    ForEachIn(snapshot, Tree::kMeta, std::string(1, letter), visit, broken);
  }
}

}  // namespace

void CheckedDefinitions::Load() {
  ForEachRecord(
      snapshot_, [&](std::string_view key, std::string_view record) { LoadOne(key, record); },
      [&](std::string_view key, char const* what) { ReportBroken(key, what); });
}

void CheckedDefinitions::ReportBroken(std::string_view key, char const* what) {
  Finding const finding = About(key);
  if (!key.empty() && key[0] == format::kLayoutLetter) layouts_.try_emplace(finding.layout);
  if (!key.empty() && key[0] == format::kIndexLetter) indexes_.try_emplace(finding.index);
  sink_.Report(finding, std::string("A definition is damaged. ") + what);
}

void CheckedDefinitions::LoadOne(std::string_view key, std::string_view record) {
  Letter const letter = key[0];
  std::size_t const size = KeySize(letter);
  if (size != key.size() && !IsOfSet(letter)) Throw(LSCOREDB_DAMAGED);
  if (letter == format::kLayoutLetter) {
    LayoutNumber const number = LayoutAtEnd(key);
    layouts_[number] = ParseLayout(number, record);
  } else if (letter == format::kIndexLetter) {
    LoadIndex(IndexAtEnd(key), record);
  } else if (letter == format::kBuildLetter) {
    builds_.emplace(IndexAtEnd(key), ParseBuild(IndexAtEnd(key), record));
  } else if (letter == format::kAbandonedLetter) {
    ParseIndex(IndexAtEnd(key), record);
    abandoned_.insert(IndexAtEnd(key));
  } else if (letter == format::kCountLetter) {
    ParseCount(record);
  } else if (letter == format::kSetChangeLetter) {
    ParseSetChange(record);
  } else if (letter == format::kClosedSetLetter) {
    ParseClosedSet(record);
  }
}

void CheckedDefinitions::LoadIndex(IndexId id, std::string_view record) {
  std::unique_ptr<IndexDefinition> index = ParseIndex(id, record);
  if (index->prepared()) {
    std::optional<IndexBuild> const build = FindBuild(snapshot_, id);
    if (!build.has_value()) {
      indexes_.try_emplace(id);
      return sink_.Report(OfIndex(id), "The index is prepared, but its state is not recorded.");
    }
    index->phase = build->phase;
  }
  for (std::size_t i = 0; i < index->columns.size(); ++i) {
    if (IsColumnType(index->columns[i].type)) continue;
    indexes_.try_emplace(id);
    Finding const finding{LSCOREDB_FINDING_DEFINITION, {}, id, {}, static_cast<std::uint32_t>(i)};
    return sink_.Report(finding, "A column of the index has an invalid type.");
  }
  indexes_[id] = std::move(index);
}

// Both directions: each record that finds a layout or index must be the one that its definition
// gives (CheckOne), and each definition must have its records (ExpectRecord).
void CheckedDefinitions::CheckRecords() {
  ForEachRecord(
      snapshot_, [&](std::string_view key, std::string_view record) { CheckOne(key, record); },
      [](std::string_view, char const*) {});  // reported when they were loaded
  for (auto const& [number, layout] : layouts_) {
    if (layout == nullptr) continue;
    ExpectRecord(LayoutTokenRecord(*layout, layout->order()), OfLayout(number),
                 "The layout is not found by its token.");
    bool const based = layout->base() == kNoLayout || layouts_.contains(layout->base());
    if (!based) sink_.Report(OfLayout(number), "The layout's base does not exist.");
  }
  for (auto const& [id, index] : indexes_) {
    if (index == nullptr) continue;
    if (!index->prepared()) {
      ExpectRecord(IndexTokenRecord(*index), OfIndex(id), "The index is not found by its token.");
    }
    ExpectRecord(IndexSetRecord(*index), OfIndex(id),
                 "The index is not found by its set specifier.");
  }
}

void CheckedDefinitions::CheckOne(std::string_view key, std::string_view record) {
  switch (key[0]) {
    case format::kLayoutTokenLetter:
      return CheckLayoutToken(key, record);
    case format::kIndexTokenLetter:
    case format::kIndexSetLetter:
      return CheckIndexName(key, key[0] == format::kIndexTokenLetter);
    case format::kBuildLetter:
      return CheckBuild(key);
    case format::kAbandonedLetter:
      return CheckAbandoned(key);
    case format::kSetChangeLetter:
      return CheckSetChange(key, record);
    case format::kClosedSetLetter:
      return CheckClosedSet(key, record);
    case format::kCountLetter:
      return CheckCountOf(key, record);
    case format::kReleaseLetter:
      return CheckRelease(key);
    default:
      return;
  }
}

void CheckedDefinitions::CheckLayoutToken(std::string_view key, std::string_view record) {
  if (key.size() != KeySize(key[0])) return;
  LayoutNumber const number = LayoutAtEnd(key);
  if (IsBroken(number)) return;
  Layout const* const layout = FindLayout(number);
  if (layout == nullptr) {
    return sink_.Report(OfLayout(number), "A token names a layout that does not exist.");
  }
  DefinitionRecord const wanted = LayoutTokenRecord(*layout, layout->order());
  if (wanted.key != key) {
    sink_.Report(OfLayout(number), "A token names a layout that is not its own.");
  } else if (wanted.value != record) {
    sink_.Report(OfLayout(number), "The layout's age differs from the one that its token gives.");
  }
}

void CheckedDefinitions::CheckIndexName(std::string_view key, bool by_token) {
  if (key.size() != KeySize(key[0])) return;
  IndexId const id = IndexAtEnd(key);
  if (IsBroken(id)) return;
  IndexDefinition const* const index = FindIndex(id);
  std::string const by = by_token ? "A token" : "A set specifier";
  if (index == nullptr)
    return sink_.Report(OfIndex(id), by + " names an index that does not exist.");
  if (by_token && index->prepared()) {
    return sink_.Report(OfIndex(id), "A token names an index that is not created yet.");
  }
  std::string const wanted = (by_token ? IndexTokenRecord(*index) : IndexSetRecord(*index)).key;
  if (wanted != key) sink_.Report(OfIndex(id), by + " names an index that is not its own.");
}

void CheckedDefinitions::CheckBuild(std::string_view key) {
  if (key.size() != KeySize(key[0])) return;
  IndexId const id = IndexAtEnd(key);
  IndexDefinition const* const index = FindIndex(id);
  if (IsBroken(id) || IsAbandoned(id) || (index != nullptr && index->prepared())) return;
  sink_.Report(OfIndex(id), "There is the state of a prepared index that does not exist.");
}

void CheckedDefinitions::CheckAbandoned(std::string_view key) {
  if (key.size() != KeySize(key[0])) return;
  IndexId const id = IndexAtEnd(key);
  auto const build = builds_.find(id);
  bool const recorded = build != builds_.end() && build->second.phase == BuildPhase::kAbandoned;
  if (!recorded) sink_.Report(OfIndex(id), "The state of an abandoned index is not recorded.");
  if (FindIndex(id) != nullptr) sink_.Report(OfIndex(id), "An abandoned index is still defined.");
}

bool CheckedDefinitions::IsYetToCome(IndexDefinition const& index, std::string_view key) const {
  if (index.phase != BuildPhase::kFilling) return false;
  auto const build = builds_.find(index.id);
  return build != builds_.end() && key > build->second.position;
}

void CheckedDefinitions::CheckSetChange(std::string_view key, std::string_view record) {
  SetChange const change = ParseSetChange(record);
  if (SetChangeKey(change.setspec) != key) {
    sink_.Report(About(key), "The last change of a set is recorded under another one.");
  }
}

void CheckedDefinitions::CheckClosedSet(std::string_view key, std::string_view record) {
  if (ClosedSetKey(ParseClosedSet(record)) != key) {
    sink_.Report(About(key), "A closed set is recorded under another one.");
  }
  if (LastClosing(snapshot_) == CommitId{0}) {
    sink_.Report(About(key), "A set is closed, but the database is marked as having none.");
  }
}

void CheckedDefinitions::CheckCountOf(std::string_view key, std::string_view record) {
  LayoutNumber const number = LayoutAtEnd(key);
  if (layouts_.contains(number) || ParseCount(record).objects == 0) return;
  sink_.Report(OfLayout(number), "There is an object count for a layout that does not exist.");
}

void CheckedDefinitions::CheckRelease(std::string_view key) {
  LayoutNumber const number = LayoutAtEnd(key);
  if (layouts_.contains(number)) return;
  sink_.Report(OfLayout(number), "A layout that does not exist is marked as released.");
}

void CheckedDefinitions::ExpectRecord(DefinitionRecord const& record, Finding const& finding,
                                      char const* what) {
  std::string_view ignored;
  if (!snapshot_.Get(Tree::kDefinitions, record.key, &ignored)) sink_.Report(finding, what);
}

bool CheckedDefinitions::IsBroken(LayoutNumber number) const {
  auto const at = layouts_.find(number);
  return at != layouts_.end() && at->second == nullptr;
}

bool CheckedDefinitions::IsBroken(IndexId id) const {
  auto const at = indexes_.find(id);
  return at != indexes_.end() && at->second == nullptr;
}

Layout const* CheckedDefinitions::FindLayout(LayoutNumber number) const {
  auto const at = layouts_.find(number);
  return at == layouts_.end() ? nullptr : at->second.get();
}

IndexDefinition const* CheckedDefinitions::FindIndex(IndexId id) const {
  auto const at = indexes_.find(id);
  return at == indexes_.end() ? nullptr : at->second.get();
}

std::vector<IndexDefinition const*> CheckedDefinitions::Covering(
    std::u16string_view setspec) const {
  std::vector<IndexDefinition const*> covering;
  for (auto const& [id, index] : indexes_) {
    if (index != nullptr && index->Covers(setspec)) covering.push_back(index.get());
  }
  return covering;
}

}  // namespace lscore
