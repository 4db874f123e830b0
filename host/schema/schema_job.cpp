#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sagleme/failure.hpp>
#include <sagleme/schema_job.hpp>

#include "jobs/kinds.h"

namespace sagleme {
namespace {

constexpr int kAttempts = 100;
constexpr char kSource[] = "the document of the job";

jobs::Row RowOf(SchemaDoc const& wanted, bool allow_losses, std::uint64_t objects) {
  jobs::Row row;
  row.kind = JobKind::kApply;
  row.description = wanted.part.empty() ? "a schema document"
                                        : fmt::format("a schema document of {}", wanted.part);
  row.details = nlohmann::json{
      {"document", SchemaJson(wanted)},
      {"allow_losses", allow_losses},
      {"objects",
       objects}}.dump();
  return row;
}

Plan PlanOf(Transaction& transaction, SchemaDoc const& wanted, bool allow_losses) {
  SchemaDoc const present = ReadSchema(transaction, true);
  SchemaDoc const whole = CompletedSchema(wanted, present);
  ValidateSchema(whole, kSource);
  RefuseDoubts(FindDoubts(present, whole), kSource);
  Plan plan = CompareSchemas(present, whole);
  bool const loses = std::any_of(plan.begin(), plan.end(), [](Change const& change) {
    return LabelOf(change) == Label::kDestructive;
  });
  if (loses && !allow_losses) {
    throw Failure(Failure::Kind::kRefused,
                  "the plan would lose values or objects; nothing was changed");
  }
  if (allow_losses) AllowLosses(plan);
  return plan;
}

class SchemaWork {
 public:
  SchemaWork(Context const& context, SchemaDoc const& wanted, SchemaOptions const& options,
             jobs::Run& run)
      : context_(context), wanted_(wanted), options_(options), run_(run) {}

  bool Do() {
    for (int attempt = 1;; ++attempt) {
      if (!Prepare()) return false;
      try {
        Apply();
        return true;
      } catch (Error const& error) {  // writers changed what was prepared
        if (error.status() != LSCOREDB_CONFLICT || attempt == kAttempts) throw;
      }
    }
  }

 private:
  bool Prepare() {
    std::vector<IndexBuild> const builds = IndexBuilds(context_);
    std::vector<IndexSpec> indexes;
    std::vector<Change> changes;
    {
      Transaction transaction(context_, Access::kReadOnly);
      Plan const plan = PlanOf(transaction, wanted_, options_.allow_losses);
      indexes = IndexesToPrepare(transaction, plan, options_.objects);
      // A plan that came to drop something since prepares nothing more, but finishes what it began.
      if (indexes.empty()) indexes = IndexesUnderWay(transaction, plan, builds);
      changes = ChangesToPrepare(transaction, plan, options_.objects);
    }
    steps_ = indexes.size() + changes.size() + 1;
    done_ = 0;
    if (steps_ > 1) run_.Record(steps_);
    for (IndexSpec const& index : indexes) {
      if (!PrepareIndex(context_, index, BuildOptions()) || !Step()) return false;
    }
    for (Change const& change : changes) {
      if (!PrepareChange(context_, change, ChangeOptions()) || !Step()) return false;
    }
    return true;
  }
  bool Step() {
    run_.SaveAlone(++done_, steps_);
    return run_.GoesOn({});
  }
  void Apply() {
    Transaction transaction(context_);
    ApplyPlan(transaction, PlanOf(transaction, wanted_, options_.allow_losses));
    run_.FinishIn(transaction);
    transaction.Commit();
  }
  // Between two batches of a step.
  bool GoesOn() {
    return (!options_.report || options_.report(run_.progress())) && run_.GoesOn(options_.pause);
  }
  IndexBuildOptions BuildOptions() {
    IndexBuildOptions build;
    build.batch = options_.batch;
    build.control = options_.control;
    build.report = [this](IndexBuildProgress const&) { return GoesOn(); };
    return build;
  }
  ColumnChangeOptions ChangeOptions() {
    ColumnChangeOptions change;
    change.batch = options_.batch;
    change.report = [this](ColumnChangeProgress const&) { return GoesOn(); };
    return change;
  }

  Context const& context_;
  SchemaDoc const& wanted_;
  SchemaOptions const& options_;
  jobs::Run& run_;
  std::uint64_t steps_ = 1;
  std::uint64_t done_ = 0;
};

}  // namespace

bool ApplySchema(Context const& context, SchemaDoc const& wanted, SchemaOptions const& options) {
  jobs::Row row = RowOf(wanted, options.allow_losses, options.objects);
  row.batch = options.batch;
  row.pause = static_cast<std::uint64_t>(options.pause.count());
  jobs::Run run(context, row, options.control);
  return run.Perform([&] {
    run.RequireNobodyElse();
    run.TakeUp();
    if (!SchemaWork(context, wanted, options, run).Do()) return false;
    run.Finish();
    return true;
  });
}

bool jobs::ResumeApply(Context const& context, Run& run, JobOptions const& options) {
  auto const details = nlohmann::json::parse(run.job().details);
  SchemaDoc const wanted = ParseSchema(details.at("document"), kSource);
  SchemaOptions how;
  how.allow_losses = options.allow_losses || details.at("allow_losses").get<bool>();
  how.objects = details.at("objects");
  if (run.job().batch != 0) how.batch = static_cast<std::uint32_t>(run.job().batch);
  how.pause = std::chrono::milliseconds(run.job().pause);
  how.control = options.control;
  how.report = options.report;
  if (!SchemaWork(context, wanted, how, run).Do()) return false;
  run.Finish();
  return true;
}

struct SchemaJob::State {
  jobs::Run run;
  std::uint64_t done = 0;
};

SchemaJob::SchemaJob(Context const& context, SchemaDoc const& wanted, bool allow_losses,
                     std::uint64_t steps)
    : state_(new State{{context, RowOf(wanted, allow_losses, SchemaOptions{}.objects), nullptr}}) {
  state_->run.RequireNobodyElse();
  state_->run.Record(steps);
  state_->run.SaveAlone(0, steps);
}

SchemaJob::~SchemaJob() { state_->run.Leave(); }

void SchemaJob::Step() { state_->run.SaveAlone(++state_->done, state_->run.job().total); }

void SchemaJob::Abandon() { state_->run.Finish(); }

void SchemaJob::Finish(Transaction& transaction) { state_->run.FinishIn(transaction); }

}  // namespace sagleme
