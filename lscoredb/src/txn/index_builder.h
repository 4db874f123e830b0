#ifndef LSCOREDB_SRC_INDEX_BUILDER_H
#define LSCOREDB_SRC_INDEX_BUILDER_H

// Builds prepared indexes (index_builds.h) beside other transactions, step by step. Each step is a
// commit of its own, or none:
//
//   prepare      every commit from then on keeps the index up                  -> kFilling
//   sort         one scan of the set's objects into a sorted sequence
//   add          so many entries of it, in the order of the store; the last    -> kReady, or
//                for a unique index: duplicates are refused from then on       -> kVerifying
//   verify       so many entries, for equal keys; at the end                   -> kReady
//                at the first duplicate: they are no longer refused            -> kDuplicates
//   again        duplicates are refused again                                  -> kVerifying
//   (a commit that moves the objects to another set may move the index too)    -> kFilling
//   abandon      the index is one no more; so many entries are removed         -> kAbandoned, or
//   remove       so many more                                                  -> gone
//
// What is sorted belongs to this object. Another one, after a kill or in another process, sorts
// again and goes on where the stored state says. One thread at a time.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "index_builds.h"
#include "index_filler.h"
#include "row_reader.h"
#include "schema_view.h"
#include "transaction_state.h"

namespace lscore {

class IndexBuilder {
 public:
  explicit IndexBuilder(std::shared_ptr<Database> database) : state_(std::move(database)) {}

  // A build of an equal definition is taken up. LSCOREDB_CONFLICT: another one began just now.
  Status Prepare(std::unique_ptr<IndexDefinition> index, std::u16string name, IndexId* out);
  // An index that is being built, with its definition.
  struct Listed {
    IndexBuild build;
    std::shared_ptr<IndexDefinition const> index;
  };
  // With about `most` entries. `*out` is the state afterwards, also with LSCOREDB_DUPLICATE_KEY:
  // the index is unique and there are duplicates. LSCOREDB_CONFLICT: somebody else did a step.
  // LORV_STATUS_NO_INDEX: there is no such build.
  Status Step(IndexId id, std::uint64_t most, Listed* out);
  // Removes about `most` entries of a build, which is no index any more from the first call on.
  // `out->build.phase` is kNone once nothing of it is left. LORV_STATUS_NO_INDEX: nothing was.
  Status Abandon(IndexId id, std::uint64_t most, Listed* out);
  // All of it, in commits of so many entries. The thread's watch sees the removed ones.
  Status AbandonAll(IndexId id, std::uint64_t most);

  std::vector<Listed> List();
  // Calls `visit` with each object among the present entries whose key an earlier one has, and with
  // that one, until it returns false.
  Status ForEachDuplicate(IndexId id, std::function<bool(ObjectId, ObjectId)> const& visit);

 private:
  class Reading;

  Status Commit(BuildChange const& change);
  Status Continue(IndexDefinition const& index, IndexBuild const& before, IndexBuild const& after);
  Status TryAbandon(IndexId id, std::uint64_t most, Listed* out);
  std::shared_ptr<IndexDefinition const> Definition(IndexBuild const& build) const;
  // What this object keeps of a build between its steps.
  struct Sorted {
    std::unique_ptr<SortedEntries const> entries;  // null: there were none
    CommitId from{0};
    std::uint64_t total = 0;
    std::uint32_t round = 0;  // of the build: another one is over another set
  };
  struct Verified {  // in a round of verification
    std::uint32_t round = 0;
    std::uint64_t count = 0;
    std::string to;
  };

  void Forget(IndexId id, BuildPhase phase, std::uint32_t round);
  Status Sort(IndexDefinition const& index, IndexBuild* build);
  Status AddEntries(IndexDefinition const& index, std::uint64_t most, IndexBuild* build);
  Status Verify(IndexDefinition const& index, std::uint64_t most, IndexBuild* build);
  Status Enforce(IndexDefinition const& index, IndexBuild* build);
  template <typename Visit>
  bool CompareNeighbours(IndexDefinition const& index, std::uint64_t most, std::string* position,
                         std::uint64_t* compared, Visit&& visit);
  bool HasNull(IndexDefinition const& index, ObjectId object);

  TransactionState state_;
  SchemaView schema_{state_};
  RowReader reader_{state_, schema_};
  IndexFiller filler_{state_, schema_, reader_};

  std::map<IndexId, Sorted> sorted_;
  std::map<IndexId, Verified> verified_;
  KeyEncoder encoder_;
};

}  // namespace lscore

#endif
