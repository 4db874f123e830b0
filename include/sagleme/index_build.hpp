#ifndef SAGLEME_INDEX_BUILD_HPP
#define SAGLEME_INDEX_BUILD_HPP

// Builds indexes over many objects beside writers.
//
//   sagleme::IndexSpec const index{"PersonByEmail", "Person", {{"Email"}}};
//   if (!sagleme::BuildIndex(context, index, options)) return;  // options.report ended it
//
// CreateIndex in a transaction reads all objects there, and conflicts with everybody who changes
// one meanwhile. A build prepares the index instead: every commit of any process keeps it up from
// then on, and small commits add the objects that were there before. When it is ready, creating
// the index in the catalogue takes a moment and conflicts with no writer. Until then no query uses
// it.
//
// The state of a build is in the database. It may end after any batch, even by the death of the
// process; IndexBuilds lists it, ResumeIndexBuild goes on with it, and so does BuildIndex for the
// same definition. AbandonIndexBuild removes it: until then every writer pays for its upkeep. From
// its first commit on nobody does; what is left of the entries if it ends early is removed by the
// next AbandonIndexBuild, BuildIndex, PrepareIndex or RunVacuum.
//
// A table that moves under another base (<sagleme/hierarchy.hpp>) takes its builds and those of its
// descendants along. They begin again from the start, and whoever works on them goes on.
//
// A unique index refuses nobody's duplicates until all objects are in it, and then new ones while
// it looks for old ones. If there are any, the build fails with LSCOREDB_DUPLICATE_KEY, refuses
// nobody's duplicates again, and stays: IndexBuildDuplicates lists the objects. Change or delete
// them and resume.
//
// A build over more objects than fit into a batch is a job (<sagleme/jobs.hpp>), whose number is
// that of the build.
//
// All functions work in transactions of their own, in a context without an open one. A step that
// the thread's watch stops (<lscoredb/watch.h>) throws Error with LSCOREDB_STOPPED and leaves the
// build where it was. A database that had a build can be opened only by versions that know of them.

#include <sagleme/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <sagleme/host.hpp>
#include <sagleme/jobs.hpp>
#include <sagleme/schema_plan.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

struct IndexSpec {
  Text name;
  Text table;  // full name
  std::vector<IndexColumnSpec> columns;
  Uniqueness uniqueness = Uniqueness::kAny;
};

enum class IndexBuildState : std::uint32_t {
  kBuilding = 1,    // objects are missing
  kWriteOnly = 2,   // all are there; duplicates are being looked for, and new ones refused
  kDuplicates = 3,  // all are there, and some have the same key
  kReady = 4,       // only the catalogue does not have it
  kAbandoned = 5,   // no index any more; its entries are being removed
};
// "building", "write-only", "duplicates", "ready", "abandoned".
SAGLEME_HOST_API std::string_view IndexBuildStateName(IndexBuildState state);

struct IndexBuildProgress {
  IndexBuildState state = IndexBuildState::kBuilding;
  std::uint64_t done = 0;       // objects in this state; of an abandoned build, removed entries
  std::uint64_t total = 0;      // 0: not known yet
  std::uint64_t conflicts = 0;  // steps that another builder of the same index took
};

struct IndexBuildOptions {
  std::uint32_t batch = 5000;          // objects in a commit, at least 1
  std::chrono::milliseconds pause{0};  // between commits
  std::uint32_t attempts = 1000;       // per commit, before a conflict is reported
  // Called after each step; false ends the build there.
  std::function<bool(IndexBuildProgress const&)> report;
  JobControl const* control = nullptr;  // may end the build from another thread
};

// Builds the index until it is ready, for a CreateIndex of the same definition to adopt. Returns
// false if `report` ended it. An index that exists with this definition is left alone, and true
// returned; SAGLEME_INDEX_EXISTS if another one has the name.
SAGLEME_HOST_API bool PrepareIndex(Context const& context, IndexSpec const& index,
                                   IndexBuildOptions const& options = {});
// The same, and creates it.
SAGLEME_HOST_API bool BuildIndex(Context const& context, IndexSpec const& index,
                                 IndexBuildOptions const& options = {});

// The indexes of a plan for which building them beside writers pays, before the plan is applied in
// one transaction: on tables with at least `objects` objects, with their descendants, that exist
// with the columns. None if the plan renames, drops, moves or changes tables or columns, or makes a
// table abstract or gives a reference a rule, which the objects may refuse.
SAGLEME_HOST_API std::vector<IndexSpec> IndexesToPrepare(Transaction& transaction, Plan const& plan,
                                                         std::uint64_t objects = 10000);

// A build that is going on, or that was cut off.
struct IndexBuild {
  std::uint64_t id = 0;
  IndexSpec index;  // without table and columns if the table or a column is gone
  IndexBuildProgress progress;
};

// Oldest first.
SAGLEME_HOST_API std::vector<IndexBuild> IndexBuilds(Context const& context);
// The indexes of a plan that are being built already, under the names that their tables and columns
// have now: what PrepareIndex goes on with and the plan adopts. Unlike IndexesToPrepare it finds
// them in plans that rename, drop or refuse something too; those that the plan itself would have to
// build anew are left out.
SAGLEME_HOST_API std::vector<IndexSpec> IndexesUnderWay(Transaction& transaction, Plan const& plan,
                                                        std::vector<IndexBuild> const& builds);
// Goes on with a build, and creates its index. Returns false if `report` ended it.
// LORV_STATUS_NO_INDEX: there is no such build, or it is abandoned. SAGLEME_TABLE_NOT_FOUND: its
// table is gone.
SAGLEME_HOST_API bool ResumeIndexBuild(Context const& context, std::uint64_t id,
                                       IndexBuildOptions const& options = {});
// LORV_STATUS_NO_INDEX: there is no such build.
SAGLEME_HOST_API void AbandonIndexBuild(Context const& context, std::uint64_t id);
// The same in commits of `options.batch` entries. Returns false if `report` or the control ended it
// before all of them were removed: the build is abandoned all the same.
SAGLEME_HOST_API bool AbandonIndexBuild(Context const& context, std::uint64_t id,
                                        IndexBuildOptions const& options);

struct DuplicateObjects {
  ObjectId object;
  ObjectId holder;  // has the same key
};
// At most `most`, of the objects that the build has added. LORV_STATUS_NO_INDEX: there is no such
// build.
SAGLEME_HOST_API std::vector<DuplicateObjects> IndexBuildDuplicates(Context const& context,
                                                                    std::uint64_t id,
                                                                    std::size_t most = 1000);

}  // namespace sagleme

#endif
