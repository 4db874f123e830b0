#include <fmt/format.h>
#include <lscoredb/index_build.h>

#include <algorithm>
#include <sagleme/counts.hpp>
#include <sagleme/index_build.hpp>
#include <thread>

#include "jobs/kinds.h"
#include "jobs/retry.h"
#include "text/key_values.h"

namespace sagleme {
namespace {

constexpr std::size_t kMostColumns = 15;  // of an index in the catalogue
constexpr std::uint32_t kFewest = 1;      // objects of a batch

LORVI_COLUMN_INFO InfoOf(Transaction& transaction, Table const& table, std::uint16_t ordinal) {
  LORVI_COLUMN_INFO info{};
  detail::CheckKernel(
      lorvi_context_get_column_info(transaction.context(), table.layout, ordinal, &info));
  return info;
}

// An index as the kernel is asked for it, which must be what the layer asks for later.
struct KernelIndex {
  std::u16string setspec;
  std::vector<LORVI_COLUMN_DEFINITION> columns;
  std::uint16_t sort_mask = 0;
  std::uint32_t flags = 0;
};

KernelIndex KernelIndexOf(Transaction& transaction, IndexSpec const& spec) {
  TablePtr const table = transaction.table(spec.table);
  KernelIndex index;
  index.setspec = table->setspec;
  index.flags = spec.uniqueness == Uniqueness::kUnique ? LORV_INDEX_UNIQUE : 0;
  for (std::size_t i = 0; i < spec.columns.size(); ++i) {
    Column const& column = table->GetColumn(spec.columns[i].name);
    LORVI_COLUMN_INFO const info = InfoOf(transaction, *table, column.ordinal);
    LORVI_COLUMN_DEFINITION definition{};
    definition.type = info.type;
    definition.is_nullable = column.nullable ? 1 : 0;
    definition.token = info.token;
    index.columns.push_back(definition);
    if (!spec.columns[i].ascending) index.sort_mask |= static_cast<std::uint16_t>(1u << i);
  }
  index.columns.push_back({});
  return index;
}

// Whether there is nothing to build: the index exists, or its creation will refuse it anyway.
bool IsNothingToBuild(Transaction& transaction, IndexSpec const& spec) {
  if (spec.columns.empty() || spec.columns.size() > kMostColumns) return true;
  std::optional<Index> const existing = transaction.FindIndex(spec.name);
  if (!existing) return false;
  if (detail::IsDefinedSo(*existing, spec.table, spec.columns, spec.uniqueness)) return true;
  throw Error(SAGLEME_INDEX_EXISTS, fmt::format("Index {} already exists.", ToUtf8(spec.name)));
}

IndexBuildProgress ProgressOf(lscoredb_index_build const& build) {
  return {IndexBuildState{build.state}, build.done, build.total, 0};
}

// ---- the list ----------------------------------------------------------------------------------

// The table and the columns of a build, by what they are called now.
void NameParts(Transaction& transaction, KernelIndex const& index, IndexSpec& spec) {
  TablePtr const table = transaction.BySetspec(index.setspec);
  if (table == nullptr) return;
  for (std::size_t i = 0; i + 1 < index.columns.size(); ++i) {
    bool const ascending = ((index.sort_mask >> i) & 1) == 0;
    auto const column =
        std::find_if(table->columns.begin(), table->columns.end(), [&](Column const& each) {
          return InfoOf(transaction, *table, each.ordinal).token == index.columns[i].token;
        });
    if (column == table->columns.end()) {
      spec.columns.clear();
      return;
    }
    spec.columns.push_back({column->name, ascending});
  }
  spec.table = table->name;
}

KernelIndex CopyOf(lscoredb_index_build const& build) {
  return {build.setspec,
          {build.columns, build.columns + build.column_count + 1},
          build.sort_mask,
          build.flags};
}

std::vector<lscoredb_index_build> ListKernelBuilds(Context const& context) {
  std::vector<lscoredb_index_build> builds;
  std::uint32_t count = 0;
  do {
    lscoredb_index_build sized{};
    sized.size = sizeof sized;
    builds.assign(count, sized);
    detail::CheckKernel(
        lscoredb_index_builds(context.id(), &count, builds.empty() ? nullptr : builds.data()));
  } while (count > builds.size());
  builds.resize(count);
  return builds;
}

[[noreturn]] void ThrowNoBuild(std::uint64_t id) {
  throw Error(LORV_STATUS_NO_INDEX, fmt::format("There is no index build {}.", id));
}

IndexBuild FindBuild(Context const& context, std::uint64_t id) {
  for (IndexBuild& build : IndexBuilds(context)) {
    if (build.id == id) return std::move(build);
  }
  ThrowNoBuild(id);
}

// "index ByEmail on Shop.Customer (Email, Name descending)"
std::string DescribeIndex(IndexSpec const& index) {
  std::string columns;
  for (IndexColumnSpec const& column : index.columns) {
    if (!columns.empty()) columns += ", ";
    columns += ToUtf8(column.name);
    if (!column.ascending) columns += " descending";
  }
  std::string const kind = index.uniqueness == Uniqueness::kUnique ? "unique index" : "index";
  if (columns.empty())
    return fmt::format("{} {} of a dropped table or column", kind, ToUtf8(index.name));
  return fmt::format("{} {} on {} ({})", kind, ToUtf8(index.name), ToUtf8(index.table), columns);
}

// ---- the work ----------------------------------------------------------------------------------

class Builder {
 public:
  Builder(Context const& context, IndexBuildOptions const& options)
      : context_(context), options_(options) {}

  // Builds the index as a job, and creates it if `create`. False if the host ends the build.
  bool Work(std::uint64_t id, IndexSpec const& spec, bool create) {
    jobs::Row job = jobs::RowOfBuild(id, spec);
    job.batch = options_.batch;
    job.pause = static_cast<std::uint64_t>(options_.pause.count());
    jobs::Run run(context_, job, options_.control);
    return run.Perform([&] {
      if (IsLong()) run.Record();
      if (!Run(id, spec, run)) return false;
      if (create) Create(spec, &run);
      if (create) RemoveUnlessAdopted(id);
      run.Finish();
      return true;
    });
  }

  std::uint64_t Prepare(IndexSpec const& spec, KernelIndex const& index) {
    std::uint64_t id = 0;
    detail::CheckKernel(Attempt([&] {
      return lscoredb_prepare_index(context_.id(), spec.name.c_str(), index.setspec.c_str(),
                                    index.columns.data(), index.sort_mask, index.flags, &id);
    }));
    return id;
  }

  // Nobody's objects are in its way, but other changes of the schema are. `run` ends with it, and
  // may be null.
  void Create(IndexSpec const& spec, jobs::Run* run) {
    jobs::Retry(context_, options_.attempts, [&](Transaction& transaction) {
      CreateIndex(transaction, spec.name, spec.table, spec.columns, spec.uniqueness);
      if (run != nullptr) run->FinishIn(transaction);
    });
  }

 private:
  // The table may have moved when the build was ready. The index was made without it then.
  void RemoveUnlessAdopted(std::uint64_t id) const {
    for (lscoredb_index_build const& one : ListKernelBuilds(context_)) {
      if (one.index == id) detail::CheckKernel(lscoredb_abandon_index(context_.id(), id));
    }
  }

  // Whether there may be more objects than a batch takes. Counting those of the table would read
  // them all after changes of the schema.
  bool IsLong() const {
    Transaction transaction(context_, Access::kReadOnly);
    std::uint64_t objects = 0;
    for (auto const& layout : LayoutStatistics(transaction)) objects += layout.objects;
    return objects > std::max(options_.batch, kFewest);
  }

  bool Run(std::uint64_t id, IndexSpec const& spec, jobs::Run& run) {
    for (;;) {
      lscoredb_index_build build{};
      build.size = sizeof build;
      std::uint32_t const status = Attempt([&] {
        return lscoredb_build_index(context_.id(), id, std::max(options_.batch, 1u), &build);
      });
      if (status == LSCOREDB_DUPLICATE_KEY) ThrowDuplicate(id, spec);
      if (status == LORV_STATUS_NO_INDEX) ThrowNoBuild(id);
      detail::CheckKernel(status);
      IndexBuildProgress progress = ProgressOf(build);
      progress.conflicts = conflicts_;
      run.SaveAlone(progress.done, progress.total);
      if (options_.report && !options_.report(progress)) return false;
      if (progress.state == IndexBuildState::kReady) return true;
      if (!run.GoesOn(options_.pause)) return false;
    }
  }

  template <typename Call>
  std::uint32_t Attempt(Call&& call) {
    std::uint32_t status = call();
    for (std::uint32_t attempt = 1; status == LSCOREDB_CONFLICT && attempt < options_.attempts;
         ++attempt) {
      ++conflicts_;
      std::this_thread::yield();
      status = call();
    }
    return status;
  }

  [[noreturn]] void ThrowDuplicate(std::uint64_t id, IndexSpec const& spec) const {
    std::string const index = ToUtf8(spec.name);
    auto const found = IndexBuildDuplicates(context_, id, 1);
    if (found.empty()) {
      throw Error(LSCOREDB_DUPLICATE_KEY, fmt::format("duplicate key in unique index {}", index));
    }
    auto const [first, second] = std::minmax(found[0].object.value, found[0].holder.value);
    throw Error(LSCOREDB_DUPLICATE_KEY,
                fmt::format("duplicate key {}in unique index {} (objects {} and {})",
                            DescribeKey(spec, found[0].holder), index, first, second));
  }

  // With a blank behind it; empty if the object was changed meanwhile.
  std::string DescribeKey(IndexSpec const& spec, ObjectId id) const {
    Transaction transaction(context_, Access::kReadOnly);
    TablePtr const table = transaction.table(spec.table);
    auto const object = Object::Find(transaction, id);
    if (!object) return "";
    std::vector<Value> key;
    for (IndexColumnSpec const& column : spec.columns) {
      key.push_back(object->Get(*table, table->GetColumn(column.name)));
    }
    return KeyText(key).append(" ");
  }

  Context const& context_;
  IndexBuildOptions const& options_;
  std::uint64_t conflicts_ = 0;
};

}  // namespace

std::string_view IndexBuildStateName(IndexBuildState state) {
  switch (state) {
    case IndexBuildState::kBuilding:
      return "building";
    case IndexBuildState::kWriteOnly:
      return "write-only";
    case IndexBuildState::kDuplicates:
      return "duplicates";
    case IndexBuildState::kAbandoned:
      return "abandoned";
    case IndexBuildState::kReady:
      break;
  }
  return "ready";
}

namespace {

// Nothing if there is nothing to build.
std::optional<KernelIndex> IndexToBuild(Context const& context, IndexSpec const& index) {
  Transaction transaction(context, Access::kReadOnly);
  if (IsNothingToBuild(transaction, index)) return std::nullopt;
  return KernelIndexOf(transaction, index);
}

// A build that was prepared before its table moved has followed it.
void AbandonUnlessMoved(Context const& context, std::uint64_t id, std::u16string const& setspec,
                        IndexBuildOptions const& options) {
  for (lscoredb_index_build const& one : ListKernelBuilds(context)) {
    if (one.index == id && setspec == one.setspec) AbandonIndexBuild(context, id, options);
  }
}

// Nothing if there is nothing to build.
std::optional<std::uint64_t> PrepareBuild(Context const& context, IndexSpec const& index,
                                          IndexBuildOptions const& options) {
  jobs::RemoveAbandonedBuilds(context, options);
  for (;;) {
    auto const kernel = IndexToBuild(context, index);
    if (!kernel) return std::nullopt;
    std::uint64_t const id = Builder(context, options).Prepare(index, *kernel);
    // The table may have moved before the commit, which then prepared what no object is in.
    auto const now = IndexToBuild(context, index);
    if (now && now->setspec == kernel->setspec) return id;
    AbandonUnlessMoved(context, id, kernel->setspec, options);
  }
}

}  // namespace

bool PrepareIndex(Context const& context, IndexSpec const& index,
                  IndexBuildOptions const& options) {
  auto const id = PrepareBuild(context, index, options);
  return !id || Builder(context, options).Work(*id, index, false);
}

bool BuildIndex(Context const& context, IndexSpec const& index, IndexBuildOptions const& options) {
  auto const id = PrepareBuild(context, index, options);
  if (id) return Builder(context, options).Work(*id, index, true);
  Builder(context, options).Create(index, nullptr);
  return true;
}

std::vector<IndexBuild> IndexBuilds(Context const& context) {
  std::vector<IndexBuild> builds;
  std::vector<KernelIndex> kernel;
  for (lscoredb_index_build const& one : ListKernelBuilds(context)) {
    IndexBuild build;
    build.id = one.index;
    build.index.name = std::u16string(one.name);
    bool const unique = (one.flags & LORV_INDEX_UNIQUE) != 0;
    build.index.uniqueness = unique ? Uniqueness::kUnique : Uniqueness::kAny;
    build.progress = ProgressOf(one);
    builds.push_back(std::move(build));
    kernel.push_back(CopyOf(one));
  }
  if (builds.empty()) return builds;
  Transaction transaction(context, Access::kReadOnly);
  for (std::size_t i = 0; i < builds.size(); ++i) {
    NameParts(transaction, kernel[i], builds[i].index);
  }
  return builds;
}

bool ResumeIndexBuild(Context const& context, std::uint64_t id, IndexBuildOptions const& options) {
  IndexBuild const build = FindBuild(context, id);
  if (build.progress.state == IndexBuildState::kAbandoned) ThrowNoBuild(id);
  if (build.index.columns.empty()) {
    throw Error(
        SAGLEME_TABLE_NOT_FOUND,
        fmt::format("The table of index build {}, or one of its columns, is no longer there. "
                    "Abandon the build.",
                    id));
  }
  return Builder(context, options).Work(id, build.index, true);
}

jobs::Row jobs::RowOfBuild(std::uint64_t id, IndexSpec const& spec) {
  Row row;
  row.kind = JobKind::kIndexBuild;
  row.details = std::to_string(id);
  row.description = DescribeIndex(spec);
  return row;
}

void AbandonIndexBuild(Context const& context, std::uint64_t id) {
  AbandonIndexBuild(context, id, {});
}

// Others may remove entries of the same build, and the last ones too.
bool AbandonIndexBuild(Context const& context, std::uint64_t id, IndexBuildOptions const& options) {
  for (bool begun = false;; begun = true) {
    lscoredb_index_build left{};
    left.size = sizeof left;
    std::uint32_t const status =
        lscoredb_abandon_index_step(context.id(), id, std::max(options.batch, kFewest), &left);
    if (status == LORV_STATUS_NO_INDEX && begun) return true;
    if (status == LORV_STATUS_NO_INDEX) ThrowNoBuild(id);
    detail::CheckKernel(status);
    if (!begun) jobs::ForgetBuild(context, id);
    if (left.state == LSCOREDB_INDEX_REMOVED) return true;
    if (options.report && !options.report(ProgressOf(left))) return false;
    if (!jobs::Wait(options.pause, options.control, [] {})) return false;
  }
}

void jobs::RemoveAbandonedBuilds(Context const& context, IndexBuildOptions const& options) {
  IndexBuildOptions how = options;
  how.report = {};
  for (IndexBuild const& build : IndexBuilds(context)) {
    if (build.progress.state != IndexBuildState::kAbandoned) continue;
    try {
      AbandonIndexBuild(context, build.id, how);
    } catch (Error const& error) {  // somebody else has removed the rest
      if (error.status() != LORV_STATUS_NO_INDEX) throw;
    }
  }
}

std::vector<DuplicateObjects> IndexBuildDuplicates(Context const& context, std::uint64_t id,
                                                   std::size_t most) {
  struct Found {
    std::vector<DuplicateObjects> all;
    std::size_t most;
  } found{{}, most};
  auto const report = [](void* user, std::uint64_t object, std::uint64_t holder) -> std::uint32_t {
    auto& list = *static_cast<Found*>(user);
    if (list.all.size() >= list.most) return 1;
    list.all.push_back({{object}, {holder}});
    return list.all.size() == list.most ? 1 : 0;
  };
  std::uint32_t const status = lscoredb_index_duplicates(context.id(), id, report, &found);
  if (status == LORV_STATUS_NO_INDEX) ThrowNoBuild(id);
  detail::CheckKernel(status);
  return std::move(found.all);
}

}  // namespace sagleme
