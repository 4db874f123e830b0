#include "definitions.h"

#include <algorithm>

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "index_builds.h"
#include "status.h"
#include "text.h"

namespace lscore {
namespace {

template <typename... Parts>
std::string KeyOf(char letter, Parts... parts) {
  std::string key(1, letter);
  (AppendBig(key, parts), ...);
  return key;
}

// Visits the keys that begin with `prefix`, in order, until `visit` returns false.
template <typename Visit>
void ForEachWithPrefix(View const& view, Tree tree, std::string const& prefix, Visit&& visit) {
  Cursor cursor;
  cursor.Open(view, tree);
  for (bool on = cursor.Seek(prefix); on && cursor.key().starts_with(prefix); on = cursor.Next()) {
    std::string_view const record = StripChecksum(cursor.key(), cursor.value());
    if (!visit(cursor.key().substr(prefix.size()), record)) return;
  }
}

void AppendColumn(std::string& record, std::uint8_t type, bool nullable, Token token) {
  Append(record, type);
  Append(record, static_cast<std::uint8_t>(nullable ? 1 : 0));
  Append(record, Raw(token));
}

// FNV-1a over the units of a text. The hash of a text continues that of its prefix, so all prefixes
// are hashed in one pass.
class TextHash {
 public:
  void Add(char16_t unit) { value_ = (value_ ^ unit) * 0x100000001B3; }
  std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 0xCBF29CE484222325;
};

std::uint64_t HashOf(std::u16string_view text) {
  TextHash hash;
  for (char16_t const unit : text) hash.Add(unit);
  return hash.value();
}

// The text's units, big endian, cut to what fits into a key.
std::string SetPrefix(char letter, std::u16string_view setspec) {
  std::string key(1, letter);
  for (char16_t const unit : setspec.substr(0, format::kSetPrefix / 2)) {
    AppendBig(key, static_cast<std::uint16_t>(unit));
  }
  return key;
}

}  // namespace

// ---- the format and its parts -------------------------------------------------------------------

void RequireFormat(Batch& batch, std::uint32_t version) {
  std::string_view stored;
  if (!batch.Get(Tree::kMeta, format::kFormatKey, &stored)) Throw(LSCOREDB_DAMAGED);
  if (stored.size() != format::FormatRecord(version).size()) Throw(LSCOREDB_DAMAGED);
  if (Load<std::uint32_t>(stored.data() + format::kMagic.size()) >= version) return;
  batch.Put(Tree::kMeta, format::kFormatKey, format::FormatRecord(version));
}

void AppendDefinitionText(std::string& record, std::u16string_view text) {
  bool const wide = NeedsWide(text);
  record.push_back(wide ? 1 : 0);
  std::size_t const start = record.size();
  record.resize(start + PackedSize(text, wide));
  Pack(text, wide, record.data() + start);
}

std::u16string ReadDefinitionText(std::string_view record) {
  if (record.empty() || (record[0] != 0 && record.size() % 2 == 0)) Throw(LSCOREDB_DAMAGED);
  std::u16string text;
  Unpack({record.substr(1), record[0] != 0}, text);
  return text;
}

std::string SetKey(char letter, std::u16string_view setspec) {
  std::string key = SetPrefix(letter, setspec);
  AppendBig(key, HashOf(setspec));
  return key;
}

// ---- layouts -----------------------------------------------------------------------------------

// A layout's record: base (2), token (8), commit (8) and position (4) of its making, number of
// columns after the first two (4), and for each type (1), nullable (1), token (8).

std::string LayoutKey(LayoutNumber number) { return KeyOf(format::kLayoutLetter, Raw(number)); }

DefinitionRecord LayoutTokenRecord(Layout const& layout, LayoutOrder order) {
  std::string made;
  Append(made, Raw(order.commit));
  Append(made, order.position);
  return {KeyOf(format::kLayoutTokenLetter, Raw(layout.token()), Raw(layout.number())), made};
}

void WriteLayout(Batch& batch, Layout const& layout, LayoutOrder order) {
  std::string record;
  Append(record, Raw(layout.base()));
  Append(record, Raw(layout.token()));
  Append(record, Raw(order.commit));
  Append(record, order.position);
  Append(record, layout.bit_count());
  for (std::uint32_t i = kFirstStoredColumn; i < layout.column_count(); ++i) {
    Column const& column = layout.column(i);
    AppendColumn(record, column.type, column.nullable, column.token);
  }
  PutChecked(batch, Tree::kDefinitions, LayoutKey(layout.number()), record);
  DefinitionRecord const named = LayoutTokenRecord(layout, order);
  PutChecked(batch, Tree::kDefinitions, named.key, named.value);
}

std::vector<std::pair<LayoutOrder, LayoutNumber>> LayoutsOfToken(View const& view, Token token) {
  std::vector<std::pair<LayoutOrder, LayoutNumber>> found;
  ForEachWithPrefix(view, Tree::kDefinitions, KeyOf(format::kLayoutTokenLetter, Raw(token)),
                    [&](std::string_view key, std::string_view value) {
                      FieldReader fields(value);
                      LayoutOrder order;
                      order.commit = CommitId{fields.Next<std::uint64_t>()};
                      order.position = fields.Next<std::uint32_t>();
                      if (key.size() != 2 || !fields.at_end()) Throw(LSCOREDB_DAMAGED);
                      found.emplace_back(order, LayoutNumber{LoadBig<std::uint16_t>(key.data())});
                      return true;
                    });
  return found;
}

namespace {

// The layout numbers in the keys that begin with a letter, with their records, in ascending order.
template <typename Visit>
void ForEachNumber(View const& view, char letter, Visit&& visit) {
  ForEachWithPrefix(view, Tree::kDefinitions, std::string(1, letter),
                    [&](std::string_view key, std::string_view value) {
                      if (key.size() != 2) Throw(LSCOREDB_DAMAGED);
                      visit(LayoutNumber{LoadBig<std::uint16_t>(key.data())}, value);
                      return true;
                    });
}

std::vector<LayoutNumber> NumbersOf(View const& view, char letter) {
  std::vector<LayoutNumber> numbers;
  ForEachNumber(view, letter,
                [&](LayoutNumber number, std::string_view) { numbers.push_back(number); });
  return numbers;
}

}  // namespace

// The entry before the first key of the next letter, found without reading other layouts.
LayoutNumber HighestLayout(View const& view) {
  constexpr char kNextLetter = format::kLayoutLetter + 1;
  Cursor cursor;
  cursor.Open(view, Tree::kDefinitions);
  bool const found = cursor.Seek({&kNextLetter, 1}) ? cursor.Previous() : cursor.Last();
  if (!found || cursor.key().front() != format::kLayoutLetter) return kNoLayout;
  if (cursor.key().size() != 3) Throw(LSCOREDB_DAMAGED);
  return LayoutNumber{LoadBig<std::uint16_t>(cursor.key().data() + 1)};
}

std::vector<LayoutNumber> AllLayouts(View const& view) {
  return NumbersOf(view, format::kLayoutLetter);
}

std::map<LayoutNumber, LayoutNumber> LayoutBases(View const& view) {
  std::map<LayoutNumber, LayoutNumber> bases;
  ForEachNumber(view, format::kLayoutLetter, [&](LayoutNumber number, std::string_view record) {
    FieldReader fields(record);
    bases.emplace(number, LayoutNumber{fields.Next<std::uint16_t>()});
    if (!fields.ok()) Throw(LSCOREDB_DAMAGED);
  });
  return bases;
}

std::unique_ptr<Layout const> ParseLayout(LayoutNumber number, std::string_view record) {
  FieldReader fields(record);
  LayoutNumber const base{fields.Next<std::uint16_t>()};
  Token const token{fields.Next<std::uint64_t>()};
  LayoutOrder order;
  order.commit = CommitId{fields.Next<std::uint64_t>()};
  order.position = fields.Next<std::uint32_t>();
  auto const count = fields.Next<std::uint32_t>();
  std::vector<Column> columns;
  for (std::uint32_t i = 0; i < count && fields.ok(); ++i) {
    Column column;
    column.type = fields.Next<std::uint8_t>();
    column.nullable = fields.Next<std::uint8_t>() != 0;
    column.token = Token{fields.Next<std::uint64_t>()};
    columns.push_back(column);
  }
  if (!fields.at_end()) Throw(LSCOREDB_DAMAGED);
  return std::make_unique<Layout const>(number, base, token, order, columns);
}

void DeleteLayout(Batch& batch, LayoutNumber number) {
  std::string_view record;
  if (!GetChecked(batch, Tree::kDefinitions, LayoutKey(number), &record)) Throw(LSCOREDB_DAMAGED);
  Token const token = ParseLayout(number, record)->token();
  batch.Delete(Tree::kDefinitions, LayoutKey(number));
  batch.Delete(Tree::kDefinitions, KeyOf(format::kLayoutTokenLetter, Raw(token), Raw(number)));
  batch.Delete(Tree::kMeta, KeyOf(format::kCountLetter, Raw(number)));
  batch.Delete(Tree::kDefinitions, KeyOf(format::kReleaseLetter, Raw(number)));
}

void WriteRelease(Batch& batch, LayoutNumber number) {
  PutChecked(batch, Tree::kDefinitions, KeyOf(format::kReleaseLetter, Raw(number)), {});
}

bool IsReleased(View const& view, LayoutNumber number) {
  std::string_view nothing;
  return view.Get(Tree::kDefinitions, KeyOf(format::kReleaseLetter, Raw(number)), &nothing);
}

std::vector<LayoutNumber> ReleasedLayouts(View const& view) {
  return NumbersOf(view, format::kReleaseLetter);
}

namespace {

// The layouts with numbers near `number`, and that one, in one round trip to a server: tables that
// were made together are used together. Those whose record is damaged are left out.
std::map<LayoutNumber, std::string_view> LayoutsAround(View const& view, LayoutNumber number) {
  constexpr std::uint16_t kTogether = 32;
  auto const first = static_cast<std::uint16_t>(Raw(number) - Raw(number) % kTogether);
  std::vector<std::string> keys;
  for (std::uint16_t i = 0; i < kTogether; ++i) {
    keys.push_back(LayoutKey(LayoutNumber{static_cast<std::uint16_t>(first + i)}));
  }
  std::vector<std::optional<std::string_view>> values(kTogether);
  view.GetMany(Tree::kDefinitions, std::vector<std::string_view>(keys.begin(), keys.end()), values);
  std::map<LayoutNumber, std::string_view> records;
  for (std::uint16_t i = 0; i < kTogether; ++i) {
    if (!values[i].has_value() || !HasValidChecksum(keys[i], *values[i])) continue;
    LayoutNumber const found{static_cast<std::uint16_t>(first + i)};
    records.emplace(found, StripChecksum(keys[i], *values[i]));
  }
  return records;
}

}  // namespace

// A layout may be cached by a transaction with a newer snapshot; an older one does not see it.
Layout const* LayoutCache::Find(View const& view, LayoutNumber number) {
  Layout const* layout = At(number).load(std::memory_order_acquire);
  if (layout == nullptr) layout = LoadFrom(view, number);
  return layout != nullptr && layout->order().commit <= view.id() ? layout : nullptr;
}

Layout const* LayoutCache::LoadFrom(View const& view, LayoutNumber number) {
  auto const keep = [this](LayoutNumber kept, std::string_view record) {
    std::unique_ptr<Layout const> layout = ParseLayout(kept, record);
    std::lock_guard const lock(mutex_);
    Layout const* const known = At(kept).load(std::memory_order_acquire);
    if (known != nullptr) return known;
    owned_.push_back(std::move(layout));
    At(kept).store(owned_.back().get(), std::memory_order_release);
    return owned_.back().get();
  };
  if (view.far()) {
    for (auto const& [neighbour, record] : LayoutsAround(view, number)) keep(neighbour, record);
  }
  std::string_view record;
  if (!GetChecked(view, Tree::kDefinitions, LayoutKey(number), &record)) return nullptr;
  return keep(number, record);
}

// ---- indexes -----------------------------------------------------------------------------------

// An index's record: token (8), flags (4), sort mask (2), number of columns (2, with kPreparedMark
// if the index is a prepared one), for each type (1), nullable (1), token (8), and then the set
// specifier.

namespace {

constexpr std::uint16_t kPreparedMark = 0x8000;
static_assert(kMaxIndexColumns < kPreparedMark);

}  // namespace

bool IndexDefinition::HasColumn(Token wanted) const {
  return std::any_of(columns.begin(), columns.end(),
                     [wanted](IndexColumn const& column) { return column.token == wanted; });
}

bool IndexDefinition::IsLike(IndexDefinition const& other) const {
  return setspec == other.setspec && columns == other.columns && sort_mask == other.sort_mask &&
         flags == other.flags;
}

void IndexDefinition::Prepare() {
  key_columns.clear();
  for (std::size_t i = 0; i < columns.size(); ++i) {
    bool const descending = i < format::kSortMaskBits && ((sort_mask >> i) & 1) != 0;
    key_columns.push_back({columns[i].type, descending});
  }
  entry_prefix.clear();
  AppendOrderedId(entry_prefix, Raw(id));
}

std::string IndexKey(IndexId id) { return KeyOf(format::kIndexLetter, Raw(id)); }

DefinitionRecord IndexTokenRecord(IndexDefinition const& index) {
  return {KeyOf(format::kIndexTokenLetter, Raw(index.token), Raw(index.id)), {}};
}

DefinitionRecord IndexSetRecord(IndexDefinition const& index) {
  return {KeyOf(format::kIndexSetLetter, HashOf(index.setspec), Raw(index.id)), {}};
}

std::string AbandonedKey(IndexId id) { return KeyOf(format::kAbandonedLetter, Raw(id)); }

namespace {

std::string RecordOf(IndexDefinition const& index) {
  std::string record;
  Append(record, Raw(index.token));
  Append(record, index.flags);
  Append(record, index.sort_mask);
  auto const count = static_cast<std::uint16_t>(index.columns.size());
  Append(record, index.prepared() ? static_cast<std::uint16_t>(count | kPreparedMark) : count);
  for (IndexColumn const& column : index.columns) {
    AppendColumn(record, column.type, column.nullable, column.token);
  }
  AppendDefinitionText(record, index.setspec);
  return record;
}

}  // namespace

void WriteAbandoned(Batch& batch, IndexDefinition const& index) {
  PutChecked(batch, Tree::kDefinitions, AbandonedKey(index.id), RecordOf(index));
  RequireFormat(batch, format::kAbandonedIndexVersion);
}

void DeleteAbandoned(Batch& batch, IndexId id) {
  batch.Remove(Tree::kDefinitions, AbandonedKey(id));
}

std::unique_ptr<IndexDefinition const> LoadAbandoned(View const& view, IndexId id) {
  std::string_view record;
  if (!GetChecked(view, Tree::kDefinitions, AbandonedKey(id), &record)) return nullptr;
  std::unique_ptr<IndexDefinition> index = ParseIndex(id, record);
  index->phase = BuildPhase::kAbandoned;
  return index;
}

void WriteIndex(Batch& batch, IndexDefinition const& index) {
  PutChecked(batch, Tree::kDefinitions, IndexKey(index.id), RecordOf(index));
  if (index.columns.size() > format::kSortMaskBits) {
    RequireFormat(batch, format::kWideIndexVersion);
  }
  DefinitionRecord const by_set = IndexSetRecord(index);
  PutChecked(batch, Tree::kDefinitions, by_set.key, by_set.value);
  if (index.prepared()) return;
  DefinitionRecord const by_token = IndexTokenRecord(index);
  PutChecked(batch, Tree::kDefinitions, by_token.key, by_token.value);
}

bool DeleteIndex(Batch& batch, IndexDefinition const& index) {
  batch.Delete(Tree::kDefinitions, IndexTokenRecord(index).key);
  batch.Delete(Tree::kDefinitions, IndexSetRecord(index).key);
  DeleteBuild(batch, index.id);
  return batch.Delete(Tree::kDefinitions, IndexKey(index.id));
}

bool HasIndex(View const& view, IndexId id) {
  std::string_view record;
  return view.Get(Tree::kDefinitions, IndexKey(id), &record);
}

std::vector<IndexId> IndexesOfToken(View const& view, Token token) {
  std::vector<IndexId> ids;
  ForEachWithPrefix(view, Tree::kDefinitions, KeyOf(format::kIndexTokenLetter, Raw(token)),
                    [&](std::string_view key, std::string_view) {
                      if (key.size() != 8) Throw(LSCOREDB_DAMAGED);
                      ids.push_back(IndexId{LoadBig<std::uint64_t>(key.data())});
                      return true;
                    });
  return ids;
}

CommitId IndexVersion(View const& view) {
  std::string_view value;
  if (!GetChecked(view, Tree::kMeta, format::kIndexesKey, &value)) return CommitId{0};
  if (value.size() != 8) Throw(LSCOREDB_DAMAGED);
  return CommitId{Load<std::uint64_t>(value.data())};
}

void WriteIndexVersion(Batch& batch) {
  std::string value;
  Append(value, Raw(batch.id()));
  PutChecked(batch, Tree::kMeta, format::kIndexesKey, value);
}

std::unique_ptr<IndexDefinition> ParseIndex(IndexId id, std::string_view record) {
  auto index = std::make_unique<IndexDefinition>();
  FieldReader fields(record);
  index->id = id;
  index->token = Token{fields.Next<std::uint64_t>()};
  index->flags = fields.Next<std::uint32_t>();
  index->sort_mask = fields.Next<std::uint16_t>();
  auto const marked = fields.Next<std::uint16_t>();
  std::uint16_t const count = marked & static_cast<std::uint16_t>(~kPreparedMark);
  if (count > kMaxIndexColumns) Throw(LSCOREDB_DAMAGED);
  if (count != marked) index->phase = BuildPhase::kFilling;
  for (std::uint16_t i = 0; i < count && fields.ok(); ++i) {
    IndexColumn column;
    column.type = fields.Next<std::uint8_t>();
    column.nullable = fields.Next<std::uint8_t>() != 0;
    column.token = Token{fields.Next<std::uint64_t>()};
    index->columns.push_back(column);
  }
  std::size_t const read = 16 + std::size_t{10} * count;
  if (!fields.ok() || read > record.size()) Throw(LSCOREDB_DAMAGED);
  index->setspec = ReadDefinitionText(record.substr(read));
  index->Prepare();
  return index;
}

std::unique_ptr<IndexDefinition const> LoadIndex(View const& view, IndexId id) {
  std::string_view record;
  if (!GetChecked(view, Tree::kDefinitions, IndexKey(id), &record)) return nullptr;
  std::unique_ptr<IndexDefinition> index = ParseIndex(id, record);
  if (!index->prepared()) return index;
  std::optional<IndexBuild> const build = FindBuild(view, id);
  if (!build.has_value()) Throw(LSCOREDB_DAMAGED);
  index->phase = build->phase;
  return index;
}

IndexDefinition const* IndexCatalogue::Find(View const& view, IndexId id) {
  {
    std::shared_lock const lock(mutex_);
    auto const at = by_id_.find(Raw(id));
    if (at != by_id_.end()) return at->second.get();
  }
  std::unique_lock const lock(mutex_);
  return FindLocked(view, id);
}

IndexDefinition const* IndexCatalogue::FindLocked(View const& view, IndexId id) {
  auto const at = by_id_.find(Raw(id));
  if (at != by_id_.end()) return at->second.get();
  auto index = LoadIndex(view, id);
  return index == nullptr ? nullptr : by_id_.emplace(Raw(id), std::move(index)).first->second.get();
}

IndexList const& IndexCatalogue::Covering(View const& view, std::u16string_view setspec) {
  {
    std::shared_lock const lock(mutex_);
    auto const at = covering_.find(setspec);
    if (at != covering_.end()) return at->second;
  }
  std::unique_lock const lock(mutex_);
  auto const at = covering_.find(setspec);
  if (at != covering_.end()) return at->second;
  return covering_.emplace(setspec, CollectLocked(view, setspec)).first->second;
}

// The indexes over a set are those whose own set specifier is a prefix of it. Each prefix is looked
// up by its hash: a path of a few dozen units takes as many seeks, however many indexes there are.
// A definition with the same hash is compared.
IndexList IndexCatalogue::CollectLocked(View const& view, std::u16string_view setspec) {
  IndexList found;
  TextHash hash;
  for (std::size_t length = 0;; ++length) {
    ForEachWithPrefix(view, Tree::kDefinitions, KeyOf(format::kIndexSetLetter, hash.value()),
                      [&](std::string_view key, std::string_view) {
                        if (key.size() != 8) Throw(LSCOREDB_DAMAGED);
                        IndexDefinition const* const index =
                            FindLocked(view, IndexId{LoadBig<std::uint64_t>(key.data())});
                        if (index == nullptr) Throw(LSCOREDB_DAMAGED);
                        if (index->setspec == setspec.substr(0, length)) found.push_back(index);
                        return true;
                      });
    if (length == setspec.size()) return found;
    hash.Add(setspec[length]);
  }
}

// A catalogue belongs to one index version, the commit that last changed an index. Only the newest
// is kept; a transaction with an older snapshot gets one of its own.
std::shared_ptr<IndexCatalogue> IndexCatalogues::For(Snapshot const& snapshot) {
  CommitId const version = IndexVersion(snapshot);
  std::lock_guard const lock(mutex_);
  if (newest_ != nullptr && newest_->version() == version) return newest_;
  auto catalogue = std::make_shared<IndexCatalogue>(version);
  if (newest_ == nullptr || newest_->version() < version) newest_ = catalogue;
  return catalogue;
}

// ---- changes by set ----------------------------------------------------------------------------

std::string SetChangeKey(std::u16string_view setspec) {
  return SetKey(format::kSetChangeLetter, setspec);
}

SetChange ParseSetChange(std::string_view record) {
  if (record.size() < 9) Throw(LSCOREDB_DAMAGED);
  return {CommitId{Load<std::uint64_t>(record.data())}, ReadDefinitionText(record.substr(8))};
}

DefinitionRecord SetChangeRecord(std::u16string_view setspec, CommitId commit) {
  DefinitionRecord record{SetChangeKey(setspec), {}};
  Append(record.value, Raw(commit));
  AppendDefinitionText(record.value, setspec);
  AppendChecksum(record.key, record.value);
  return record;
}

void WriteSetChange(Batch& batch, std::u16string_view setspec) {
  DefinitionRecord const record = SetChangeRecord(setspec, batch.id());
  batch.Put(Tree::kMeta, record.key, record.value);
}

// Keys of long set specifiers are cut, so records of other sets may have the same prefix: each
// record's own set specifier decides.
bool SetChangedSince(View const& view, std::u16string_view prefix, CommitId since) {
  bool changed = false;
  ForEachWithPrefix(view, Tree::kMeta, SetPrefix(format::kSetChangeLetter, prefix),
                    [&](std::string_view, std::string_view value) {
                      SetChange const change = ParseSetChange(value);
                      changed = change.commit > since && change.setspec.starts_with(prefix);
                      return !changed;
                    });
  return changed;
}

CommitId LastSetChange(View const& view, std::u16string_view prefix) {
  CommitId last{0};
  ForEachWithPrefix(view, Tree::kMeta, SetPrefix(format::kSetChangeLetter, prefix),
                    [&](std::string_view, std::string_view value) {
                      SetChange const change = ParseSetChange(value);
                      if (change.setspec.starts_with(prefix)) last = std::max(last, change.commit);
                      return true;
                    });
  return last;
}

// ---- objects by layout -------------------------------------------------------------------------

LayoutCount ParseCount(std::string_view record) {
  if (record.size() < 9) Throw(LSCOREDB_DAMAGED);
  LayoutCount count;
  count.objects = Load<std::uint64_t>(record.data());
  count.has_setspec = record[8] != 0;
  if (count.has_setspec) count.setspec = ReadDefinitionText(record.substr(9));
  return count;
}

std::string CountKey(LayoutNumber number) { return KeyOf(format::kCountLetter, Raw(number)); }

LayoutCount ReadCount(View const& view, LayoutNumber number) {
  std::string_view record;
  return GetChecked(view, Tree::kMeta, CountKey(number), &record) ? ParseCount(record)
                                                                  : LayoutCount{};
}

void WriteCount(Batch& batch, LayoutNumber number, LayoutCount const& count) {
  std::string value;
  Append(value, count.objects);
  value.push_back(count.has_setspec ? 1 : 0);
  if (count.has_setspec) AppendDefinitionText(value, count.setspec);
  PutChecked(batch, Tree::kMeta, CountKey(number), value);
}

}  // namespace lscore
