#ifndef LSCOREDB_SRC_CHECK_H
#define LSCOREDB_SRC_CHECK_H

// The check of a committed state: definitions, objects, and indexes against objects both ways.
// Works on a snapshot whose pages are known to be sound. lscoredb/host.h lists the rules with the
// kinds of findings.
//
// Objects are scanned once, by several threads with snapshots of the same state. Each entry that an
// object should have is looked up and counted for its index. An index that holds exactly as many
// entries holds no others, so its entries need no look at their objects; only where the numbers
// differ is each entry compared with its object. Memory does not grow with the number of objects or
// entries.

#include <array>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "definitions.h"
#include "index_builds.h"
#include "pending.h"
#include "status.h"
#include "store.h"
#include "watched_work.h"

namespace lscore {

// The parts' shares of the progress that the thread's watch sees, by the time they usually take.
// The store's own check of pages comes before them.
inline constexpr WorkShare kObjectShare{kPageShare.end, 850};
inline constexpr WorkShare kEntryShare{kObjectShare.end, 1000};

struct Finding {
  std::uint32_t kind = 0;
  ObjectId object{};
  IndexId index{};
  LayoutNumber layout{};
  std::uint32_t column = LSCOREDB_NO_COLUMN;
};

// Receives findings. Throws StopCheck to end the check.
struct StopCheck {};
class Findings {
 public:
  virtual void Report(Finding const& finding, std::string const& text) = 0;

 protected:
  ~Findings() = default;
};

// Passes findings on to the host.
class FindingSink final : public Findings {
 public:
  FindingSink(lscoredb_finding_callback report, void* user) : report_(report), user_(user) {}
  void Report(Finding const& finding, std::string const& text) override;
  // Whether the first finding ends the check.
  bool one_is_enough() const { return report_ == nullptr; }
  bool any() const { return any_; }
  // Rethrows what the callback threw, if that ended the check.
  void PassOnFailure() const {
    if (failure_ != nullptr) std::rethrow_exception(failure_);
  }

 private:
  bool CallHost(lscoredb_finding const& finding) noexcept;

  lscoredb_finding_callback report_;
  void* user_;
  bool any_ = false;
  std::exception_ptr failure_;
};

// Reports a fault of the store, with the objects or entries that it makes unreadable.
void ReportFault(FindingSink& sink, StoreFault const& fault);

// ---- definitions (check_definitions.cpp) -------------------------------------------------------

// The layouts and indexes of the state that can be read, and the rules about their records.
class CheckedDefinitions {
 public:
  CheckedDefinitions(Snapshot const& snapshot, Findings& sink) : snapshot_(snapshot), sink_(sink) {}

  void Load();
  // The records by which layouts and indexes are found, and those about sets, counts and releases.
  void CheckRecords();

  Layout const* FindLayout(LayoutNumber number) const;
  IndexDefinition const* FindIndex(IndexId id) const;
  std::vector<IndexDefinition const*> Covering(std::u16string_view setspec) const;
  // Whether a prepared index may still lack the entry with that key of the store.
  bool IsYetToCome(IndexDefinition const& index, std::string_view key) const;
  // Whether the definition exists and was reported as damaged.
  bool IsBroken(LayoutNumber number) const;
  bool IsBroken(IndexId id) const;
  // Whether it is no index any more, and has entries that are to be removed.
  bool IsAbandoned(IndexId id) const { return abandoned_.contains(id); }
  template <typename Visit>
  void ForEachLayout(Visit&& visit) const {
    for (auto const& [number, layout] : layouts_) {
      if (layout != nullptr) visit(*layout);
    }
  }
  IndexId highest_index() const { return indexes_.empty() ? IndexId{0} : indexes_.rbegin()->first; }

 private:
  void LoadOne(std::string_view key, std::string_view record);
  void ReportBroken(std::string_view key, char const* what);
  void LoadIndex(IndexId id, std::string_view record);
  void CheckOne(std::string_view key, std::string_view record);
  void CheckLayoutToken(std::string_view key, std::string_view record);
  void CheckIndexName(std::string_view key, bool by_token);
  void CheckClosedSet(std::string_view key, std::string_view record);
  void CheckBuild(std::string_view key);
  void CheckAbandoned(std::string_view key);
  void CheckSetChange(std::string_view key, std::string_view record);
  void CheckCountOf(std::string_view key, std::string_view record);
  void CheckRelease(std::string_view key);
  void ExpectRecord(DefinitionRecord const& record, Finding const& finding, char const* what);

  Snapshot const& snapshot_;
  Findings& sink_;
  // Null: broken.
  std::map<LayoutNumber, std::unique_ptr<Layout const>> layouts_;
  std::map<IndexId, std::unique_ptr<IndexDefinition const>> indexes_;
  std::map<IndexId, IndexBuild> builds_;
  std::set<IndexId> abandoned_;
};

// ---- objects (check_objects.cpp) ---------------------------------------------------------------

// Reads objects from the store and validates them.
class ObjectReader {
 public:
  ObjectReader(Snapshot const& snapshot, CheckedDefinitions const& definitions)
      : snapshot_(snapshot), definitions_(definitions) {}

  struct Problem {
    std::uint32_t kind = 0;
    char const* what = nullptr;  // null: none
  };
  // `*row` is valid until the next call if there is no problem.
  Problem Read(ObjectId id, std::string_view stored, RowRef* row);

 private:
  Problem Assemble(ObjectId id, std::string_view* stored);

  Snapshot const& snapshot_;
  CheckedDefinitions const& definitions_;
  std::string assembled_;
};

// The number of entries of each index that match their objects.
using MatchedEntries = std::unordered_map<IndexId, std::uint64_t>;

// Both ends are included.
struct ObjectRange {
  ObjectId first{};
  ObjectId last{};
};

class ObjectCheck {
 public:
  ObjectCheck(Snapshot const& snapshot, CheckedDefinitions const& definitions, Findings& sink,
              bool entries)
      : snapshot_(snapshot),
        definitions_(definitions),
        sink_(sink),
        entries_(entries),
        reader_(snapshot, definitions) {}

  // Calls `report` every few objects with their number. An exception from it ends the check.
  void Run(ObjectRange const& range, std::function<void(std::uint64_t)> const& report);
  // Adds the counts of another check.
  void Add(ObjectCheck const& other);
  // Checks the counts once all objects are counted.
  void Finish();
  MatchedEntries const& matched() const { return matched_; }

 private:
  struct Covering {
    IndexDefinition const* index;
    std::uint64_t* matched;
  };
  // What the check knows of a set specifier.
  struct Set {
    std::vector<Covering> covering;
    CommitId changed{};  // its last change, as recorded
  };

  struct StoredObject {
    ObjectId id{};
    std::string_view stored;
  };

  void FetchEntries(std::vector<StoredObject> const& objects);
  void CheckObject(ObjectId id, std::string_view stored);
  void ReportProblem(ObjectId id, std::string_view stored, ObjectReader::Problem problem);
  void CheckEntries(RowRef const& row, Set const& set);
  void CheckSetChange(RowRef const& row, Set const& set);
  Set& SetOf(std::u16string const& setspec);
  void CheckChunks();
  // Whether the object has such a chunk; otherwise reports it.
  bool CheckChunk(ObjectId id, std::uint32_t chunk);
  void CheckCount(LayoutNumber number);
  void CheckNextId();

  Snapshot const& snapshot_;
  CheckedDefinitions const& definitions_;
  Findings& sink_;
  bool entries_;
  ObjectReader reader_;
  std::unordered_map<LayoutNumber, std::uint64_t> counts_;
  std::unordered_map<std::u16string, Set> sets_;
  std::map<std::u16string, ObjectId> unnoted_;  // sets with an unrecorded change, and its object
  MatchedEntries matched_;
  KeyEncoder encoder_;
  KeyBytes key_;
  std::u16string setspec_;
};

// ---- entries (check_entries.cpp) ---------------------------------------------------------------

class EntryCheck {
 public:
  EntryCheck(Snapshot const& snapshot, CheckedDefinitions const& definitions, Findings& sink,
             MatchedEntries const& matched)
      : snapshot_(snapshot),
        definitions_(definitions),
        sink_(sink),
        matched_(matched),
        work_(kEntryShare, CountMatched()),
        reader_(snapshot, definitions) {}

  void Run();

 private:
  std::uint64_t CountMatched() const;
  void EnterIndex(std::string_view key);
  // Checks that the index holds the matched entries and no others, and no unique key twice.
  bool HoldsWhatWasMatched();
  bool IsDuplicate(std::string_view key, std::string_view value);
  bool IsFirstWithKey(Entry const& entry);
  bool HasNull(ObjectId object);
  void CheckEntry(std::string_view key, std::string_view value);
  void CompareWithObject(Entry const& entry, std::string_view key, std::string_view value);
  void CheckUnique(Entry const& entry);

  Snapshot const& snapshot_;
  CheckedDefinitions const& definitions_;
  Findings& sink_;
  MatchedEntries const& matched_;
  WatchedWork work_;
  ObjectReader reader_;
  std::string prefix_;                      // of the index that is scanned
  IndexDefinition const* index_ = nullptr;  // null: the index does not exist
  KeyEncoder encoder_;
  KeyBytes key_;
  std::u16string setspec_;
  std::string last_;                  // the head of the previous key
  std::set<std::string_view> tails_;  // the tails of the keys with that head
};

// ---- threads (check_threads.cpp) ---------------------------------------------------------------

// Checks all objects of the snapshot and adds the counts to `check`.
void CheckObjectsInThreads(Store& store, Snapshot const& snapshot,
                           CheckedDefinitions const& definitions, FindingSink& sink, bool entries,
                           ObjectCheck& check);

// Runs everything on the newest state of a store. Throws StopCheck.
void CheckStoreState(Store& store, std::uint32_t flags, FindingSink& sink);

}  // namespace lscore

#endif
