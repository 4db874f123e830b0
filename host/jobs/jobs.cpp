#include <fmt/format.h>

#include <algorithm>
#include <sagleme/index_build.hpp>
#include <sagleme/jobs.hpp>

#include "jobs/kinds.h"
#include "jobs/retry.h"

namespace sagleme {
namespace {

using jobs::Life;
using jobs::Row;
using jobs::Store;

JobState StateOf(std::string const& runner) {
  switch (jobs::LifeOf(runner)) {
    case Life::kLive:
      return JobState::kRunning;
    case Life::kUnknown:
      return JobState::kElsewhere;
    case Life::kEnded:
      break;
  }
  return JobState::kCutOff;
}

Job JobOf(Row const& row) {
  Job job;
  job.id = row.id.value;
  job.kind = row.kind;
  job.description = row.description;
  job.state = StateOf(row.runner);
  if (job.state != JobState::kCutOff) job.runner = jobs::DescribeRunner(row.runner);
  job.reason = row.reason;
  job.progress = {row.done, row.total, job.state == JobState::kCutOff ? 0 : row.rate};
  job.batch = row.batch;
  job.pause = std::chrono::milliseconds(row.pause);
  return job;
}

std::vector<Row> RowsOf(Context const& context) {
  Transaction transaction(context, Access::kReadOnly);
  auto const store = Store::Find(transaction);
  return store ? store->All() : std::vector<Row>{};
}

// The row of a build, if somebody recorded one; several may, one after another.
std::optional<Row> RowOfBuild(std::vector<Row> const& rows, std::uint64_t build) {
  std::string const details = std::to_string(build);
  std::optional<Row> found;
  for (Row const& row : rows) {
    if (row.kind != JobKind::kIndexBuild || row.details != details) continue;
    if (!found || jobs::LifeOf(row.runner) != Life::kEnded) found = row;
  }
  return found;
}

Job JobOf(IndexBuild const& build, std::vector<Row> const& rows) {
  Row const described = jobs::RowOfBuild(build.id, build.index);
  Job job = JobOf(RowOfBuild(rows, build.id).value_or(described));
  job.id = build.id;
  job.description = described.description;
  job.step = IndexBuildStateName(build.progress.state);
  job.progress.done = build.progress.done;
  job.progress.total = build.progress.total;
  return job;
}

std::optional<IndexBuildState> BuildState(Context const& context, std::uint64_t id) {
  for (IndexBuild const& build : IndexBuilds(context)) {
    if (build.id == id) return build.progress.state;
  }
  return std::nullopt;
}

bool IsBuild(Context const& context, std::uint64_t id) {
  return BuildState(context, id).has_value();
}

IndexBuildOptions BuildOptionsOf(std::optional<Row> const& row, JobOptions const& options) {
  IndexBuildOptions how;
  how.attempts = options.attempts;
  how.control = options.control;
  if (row) how.batch = static_cast<std::uint32_t>(row->batch);
  if (options.batch != 0) {
    how.batch = static_cast<std::uint32_t>(std::min<std::uint64_t>(options.batch, UINT32_MAX));
  }
  if (row) how.pause = std::chrono::milliseconds(row->pause);
  if (options.pause) how.pause = *options.pause;
  how.report = [&options](IndexBuildProgress const& progress) {
    return !options.report || options.report({progress.done, progress.total, 0});
  };
  return how;
}

void RequireNobodyBuilds(std::optional<Row> const& row, JobOptions const& options) {
  if (!row) return;
  Life const life = jobs::LifeOf(row->runner);
  if (life == Life::kEnded || (life == Life::kUnknown && options.take_over)) return;
  throw Error(LSCOREDB_IN_USE, fmt::format("Index build {} is running in {}.", row->details,
                                           jobs::DescribeRunner(row->runner)));
}

bool ResumeBuild(Context const& context, std::uint64_t id, JobOptions const& options) {
  auto const row = RowOfBuild(RowsOf(context), id);
  RequireNobodyBuilds(row, options);
  IndexBuildOptions const how = BuildOptionsOf(row, options);
  if (BuildState(context, id) == IndexBuildState::kAbandoned) {
    return AbandonIndexBuild(context, id, how);
  }
  return ResumeIndexBuild(context, id, how);
}

// Runs the change of a job's row, again after conflicts with the one who works on it.
template <typename Change>
void ChangeRow(Context const& context, ObjectId id, Change&& change) {
  jobs::Retry(context, jobs::kAttempts, [&](Transaction& transaction) {
    auto const store = Store::Find(transaction);
    auto row = store ? store->Read(id) : std::nullopt;
    if (!row) jobs::ThrowNoJob(id.value);
    change(transaction, *store, *row);
  });
}

}  // namespace

void jobs::ForgetBuild(Context const& context, std::uint64_t id) {
  std::string const details = std::to_string(id);
  for (Row const& each : RowsOf(context)) {
    if (each.kind != JobKind::kIndexBuild || each.details != details) continue;
    try {
      ChangeRow(context, each.id,
                [](Transaction&, Store const& store, Row const& row) { store.Delete(row.id); });
    } catch (Error const& error) {  // whoever worked on it removed it
      if (error.status() != LORV_STATUS_NO_OBJECT) throw;
    }
  }
}

std::string_view JobKindName(JobKind kind) {
  switch (kind) {
    case JobKind::kVacuum:
      return "vacuum";
    case JobKind::kIndexBuild:
      return "index build";
    case JobKind::kImport:
      return "import";
    case JobKind::kApply:
      return "apply";
    case JobKind::kRetype:
      return "retype";
    case JobKind::kColumnChange:
      return "column change";
    case JobKind::kBaseChange:
      return "base change";
  }
  return "unknown";
}

std::string_view JobStateName(JobState state) {
  switch (state) {
    case JobState::kRunning:
      return "running";
    case JobState::kElsewhere:
      return "elsewhere";
    case JobState::kCutOff:
      break;
  }
  return "cut off";
}

std::vector<Job> Jobs(Context const& context) {
  std::vector<Job> all;
  std::vector<Row> const rows = RowsOf(context);
  for (Row const& row : rows) {
    if (row.kind != JobKind::kIndexBuild) all.push_back(JobOf(row));
  }
  for (IndexBuild const& build : IndexBuilds(context)) all.push_back(JobOf(build, rows));
  std::sort(all.begin(), all.end(), [](Job const& a, Job const& b) { return a.id < b.id; });
  return all;
}

bool ResumeJob(Context const& context, std::uint64_t id, JobOptions const& options) {
  if (IsBuild(context, id)) return ResumeBuild(context, id, options);
  jobs::Run run(context, ObjectId{id}, options);
  return run.Perform([&] {
    switch (run.job().kind) {
      case JobKind::kVacuum:
        return jobs::ResumeVacuum(context, run, options);
      case JobKind::kImport:
        return jobs::ResumeImport(context, run, options);
      case JobKind::kApply:
        return jobs::ResumeApply(context, run, options);
      case JobKind::kRetype:
        return jobs::ResumeRetype(context, run, options);
      case JobKind::kColumnChange:
        return jobs::ResumeColumnChange(context, run, options);
      default:
        throw Error(LSCOREDB_INVALID_ARGUMENT,
                    fmt::format("This version cannot resume the {} of job {}.",
                                JobKindName(run.job().kind), id));
    }
  });
}

void StopJob(Context const& context, std::uint64_t id) {
  ObjectId row_id{id};
  if (IsBuild(context, id)) {
    auto const row = RowOfBuild(RowsOf(context), id);
    if (!row) return;
    row_id = row->id;
  }
  ChangeRow(context, row_id, [&](Transaction&, Store const& store, Row& row) {
    if (row.runner.empty()) return;
    row.runner.clear();
    row.reason = "stopped";
    store.Update(row);
  });
}

void AbandonJob(Context const& context, std::uint64_t id, JobOptions const& options) {
  if (IsBuild(context, id)) {
    AbandonIndexBuild(context, id, BuildOptionsOf(std::nullopt, options));
    return;
  }
  ChangeRow(context, {id}, [](Transaction& transaction, Store const& store, Row const& row) {
    if (row.kind == JobKind::kColumnChange) jobs::AbandonColumnChange(transaction, row);
    store.Delete(row.id);
  });
}

}  // namespace sagleme
