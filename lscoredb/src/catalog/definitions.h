#ifndef LSCOREDB_SRC_DEFINITIONS_H
#define LSCOREDB_SRC_DEFINITIONS_H

// The records of layouts and indexes in the store, and the database's caches of them.
//
// Definitions are read on first use, so that a database with very many tables costs only what is
// used. Caches may be used from any thread.

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ids.h"
#include "keys.h"
#include "layout.h"
#include "store.h"
#include "zero_pages.h"

namespace lscore {

// A record of the tree of definitions, without its checksum.
struct DefinitionRecord {
  std::string key;
  std::string value;
};

// ---- the format and its parts -------------------------------------------------------------------

// Raises the file's format to that version, unless it has it or a later one.
void RequireFormat(Batch& batch, std::uint32_t version);

// A text in a record: a byte for whether it is wide, then its packed bytes to the end.
void AppendDefinitionText(std::string& record, std::u16string_view text);
// Throws when the bytes are not a text.
std::u16string ReadDefinitionText(std::string_view record);
// The key of a set's record: the letter, the set specifier as far as a key takes it, its hash.
std::string SetKey(char letter, std::u16string_view setspec);

// ---- layouts -----------------------------------------------------------------------------------

std::string LayoutKey(LayoutNumber number);
void WriteLayout(Batch& batch, Layout const& layout, LayoutOrder order);
// The numbers of the layouts of a token and when they were made.
std::vector<std::pair<LayoutOrder, LayoutNumber>> LayoutsOfToken(View const& view, Token token);
// kNoLayout: there is none.
LayoutNumber HighestLayout(View const& view);
// All layout numbers, in ascending order.
std::vector<LayoutNumber> AllLayouts(View const& view);
// All layouts with the layouts they were made on.
std::map<LayoutNumber, LayoutNumber> LayoutBases(View const& view);
// REQUIRES: the layout is not in use by objects or as a base.
void DeleteLayout(Batch& batch, LayoutNumber number);

// Marks a layout as released by its host. It stays usable until it is removed (layout_release.h).
void WriteRelease(Batch& batch, LayoutNumber number);
bool IsReleased(View const& view, LayoutNumber number);
std::vector<LayoutNumber> ReleasedLayouts(View const& view);

// Throws when the bytes are not a layout.
std::unique_ptr<Layout const> ParseLayout(LayoutNumber number, std::string_view record);
// The record that finds a layout by its token.
DefinitionRecord LayoutTokenRecord(Layout const& layout, LayoutOrder order);

// A cache of the committed layouts by number. Layouts live as long as the cache. Memory for numbers
// that are not used is never touched.
class LayoutCache {
 public:
  // Null when the view holds no such layout.
  Layout const* Find(View const& view, LayoutNumber number);

 private:
  std::atomic_ref<Layout const*> At(LayoutNumber number) const {
    return std::atomic_ref(known_[Raw(number)]);
  }
  Layout const* LoadFrom(View const& view, LayoutNumber number);

  ZeroPages<Layout const*> known_{kLayoutNumbers};
  std::mutex mutex_;
  std::deque<std::unique_ptr<Layout const>> owned_;
};

// ---- indexes -----------------------------------------------------------------------------------

struct IndexColumn {
  Token token{};
  std::uint8_t type = 0;
  bool nullable = false;

  friend bool operator==(IndexColumn const&, IndexColumn const&) = default;
};

inline constexpr std::size_t kMaxIndexColumns = 1024;

// How far a prepared index is (index_builds.h).
enum class BuildPhase : std::uint8_t {
  kNone = 0,        // not a prepared index, or no longer
  kFilling = 1,     // entries of existing objects are being added
  kVerifying = 2,   // complete; commits refuse new duplicates, old ones are being looked for
  kDuplicates = 3,  // complete, with duplicates, which commits do not refuse
  kReady = 4,
  kAbandoned = 5,  // no index any more: nobody keeps it up, and its entries are being removed
};

struct IndexDefinition {
  IndexId id{};
  Token token{};
  std::uint32_t flags = 0;
  std::uint16_t sort_mask = 0;
  std::u16string setspec;
  std::vector<IndexColumn> columns;
  BuildPhase phase = BuildPhase::kNone;
  // Derived from the above by Prepare.
  std::vector<KeyColumn> key_columns;
  std::string entry_prefix;  // what the keys of its entries begin with

  bool prepared() const { return phase != BuildPhase::kNone; }
  bool declared_unique() const { return (flags & 1) != 0; }
  // Whether duplicates are refused.
  bool unique() const {
    bool const tolerant = phase == BuildPhase::kFilling || phase == BuildPhase::kDuplicates;
    return declared_unique() && !tolerant;
  }
  // Old duplicates may still be there when new ones are refused already.
  bool has_no_duplicates() const { return unique() && phase != BuildPhase::kVerifying; }
  bool Covers(std::u16string_view of) const {
    return of.size() >= setspec.size() && of.substr(0, setspec.size()) == setspec;
  }
  bool HasColumn(Token token) const;
  // Whether the entries of both are the same.
  bool IsLike(IndexDefinition const& other) const;
  void Prepare();
};

using IndexList = std::vector<IndexDefinition const*>;

// Throws when the bytes are not an index. A prepared one gets the phase kFilling.
std::unique_ptr<IndexDefinition> ParseIndex(IndexId id, std::string_view record);
// The same from the view, with its phase. Null: there is none.
std::unique_ptr<IndexDefinition const> LoadIndex(View const& view, IndexId id);
std::string IndexKey(IndexId id);
// The records that find an index by its token and by its set specifier.
DefinitionRecord IndexTokenRecord(IndexDefinition const& index);
DefinitionRecord IndexSetRecord(IndexDefinition const& index);

// A prepared index is written without the record that finds it by its token.
void WriteIndex(Batch& batch, IndexDefinition const& index);
// Leaves of the definition what is needed to remove the entries batch by batch.
void WriteAbandoned(Batch& batch, IndexDefinition const& index);
void DeleteAbandoned(Batch& batch, IndexId id);
// Null: no index with that id is abandoned.
std::unique_ptr<IndexDefinition const> LoadAbandoned(View const& view, IndexId id);
std::string AbandonedKey(IndexId id);
// Returns whether the index was there.
bool DeleteIndex(Batch& batch, IndexDefinition const& index);
bool HasIndex(View const& view, IndexId id);
std::vector<IndexId> IndexesOfToken(View const& view, Token token);

// The commit that last created or dropped an index; 0: there was none.
CommitId IndexVersion(View const& view);
void WriteIndexVersion(Batch& batch);

// A cache of the indexes of one index version. Its definitions live as long as it does.
class IndexCatalogue {
 public:
  explicit IndexCatalogue(CommitId version) : version_(version) {}
  CommitId version() const { return version_; }

  // REQUIRES: `view` has this version. Null: no such index.
  IndexDefinition const* Find(View const& view, IndexId id);
  // The indexes that cover objects with that set specifier.
  IndexList const& Covering(View const& view, std::u16string_view setspec);

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::u16string_view text) const {
      return std::hash<std::u16string_view>()(text);
    }
  };

  IndexDefinition const* FindLocked(View const& view, IndexId id);
  IndexList CollectLocked(View const& view, std::u16string_view setspec);

  CommitId const version_;
  std::shared_mutex mutex_;
  std::unordered_map<std::uint64_t, std::unique_ptr<IndexDefinition const>> by_id_;
  std::unordered_map<std::u16string, IndexList, Hash, std::equal_to<>> covering_;
};

// Keeps the newest catalogue.
class IndexCatalogues {
 public:
  std::shared_ptr<IndexCatalogue> For(Snapshot const& snapshot);

 private:
  std::mutex mutex_;
  std::shared_ptr<IndexCatalogue> newest_;
};

// ---- changes by set ----------------------------------------------------------------------------

struct SetChange {
  CommitId commit{};
  std::u16string setspec;
};
std::string SetChangeKey(std::u16string_view setspec);
SetChange ParseSetChange(std::string_view record);

// Begins with the number of the commit, and has its checksum.
DefinitionRecord SetChangeRecord(std::u16string_view setspec, CommitId commit);
void WriteSetChange(Batch& batch, std::u16string_view setspec);
// Whether an object whose set specifier begins with `prefix` was changed after `since`.
bool SetChangedSince(View const& view, std::u16string_view prefix, CommitId since);
// The commit that last changed one; 0: none did.
CommitId LastSetChange(View const& view, std::u16string_view prefix);

// ---- objects by layout -------------------------------------------------------------------------

struct LayoutCount {
  std::uint64_t objects = 0;
  bool has_setspec = false;
  std::u16string setspec;  // of the objects, while there are any
};

LayoutCount ParseCount(std::string_view record);
std::string CountKey(LayoutNumber number);  // in kMeta
LayoutCount ReadCount(View const& view, LayoutNumber number);
void WriteCount(Batch& batch, LayoutNumber number, LayoutCount const& count);

}  // namespace lscore

#endif
