#include <lscoredb/watch.h>
#include <sagleme/jobs.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <sagleme/failure.hpp>
#include <sagleme/hierarchy.hpp>
#include <sagleme/host/import.hpp>
#include <sagleme/index_build.hpp>
#include <sagleme/jobs.hpp>
#include <sagleme/schema_job.hpp>
#include <sagleme/vacuum.hpp>
#include <string>
#include <string_view>

#include "c/job_options.h"

namespace sagleme {
namespace {

std::uint32_t BatchOf(sagleme_job_options const& options, std::uint32_t fallback) {
  if (options.batch == 0) return fallback;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(options.batch, UINT32_MAX));
}

std::chrono::milliseconds PauseOf(sagleme_job_options const& options) {
  return std::chrono::milliseconds(options.pause);
}

// Reports to the caller, and remembers whether it ended the job.
class Reporter {
 public:
  explicit Reporter(sagleme_job_options const& options) : options_(options) {}

  bool operator()(JobProgress const& progress) {
    if (options_.report == nullptr) return true;
    stopped_ = options_.report(options_.user, progress.done, progress.total, progress.rate) != 0;
    return !stopped_;
  }
  // What the job returns if it was not stopped in another way.
  std::uint32_t status() const {
    auto const* const control = ControlOf(options_);
    return stopped_ || (control != nullptr && control->stopped()) ? LSCOREDB_STOPPED : 0;
  }

 private:
  sagleme_job_options const& options_;
  bool stopped_ = false;
};

// Runs the work in a context of the database at a place. No exception leaves it.
template <typename Work>
std::uint32_t At(char const* place, Work&& work) {
  return Guarded([&]() -> std::uint32_t {
    Require(place);
    Database const database = Database::Open(place);
    Context const context(database);
    return work(context);
  });
}

std::u16string FullName(Context const& context, char const* table) {
  Transaction transaction(context, Access::kReadOnly);
  return transaction.Resolve(ToUtf16(table))->name;
}

RowFormat FormatOf(std::string_view file) {
  bool const json = file.ends_with(".jsonl") || file.ends_with(".jsonl.gz");
  return {json ? FileForm::kJsonLines : FileForm::kCsv};
}

sagleme_job ForC(Job const& job) {
  sagleme_job c{};
  c.size = sizeof c;
  c.id = job.id;
  c.kind = static_cast<std::uint32_t>(job.kind);
  c.state = static_cast<std::uint32_t>(job.state) + SAGLEME_JOB_RUNNING;
  c.done = job.progress.done;
  c.total = job.progress.total;
  c.rate = job.progress.rate;
  c.batch = job.batch;
  c.pause = static_cast<std::uint64_t>(job.pause.count());
  c.kind_name = JobKindName(job.kind).data();
  c.state_name = JobStateName(job.state).data();
  c.description = job.description.c_str();
  c.step = job.step.c_str();
  c.runner = job.runner.c_str();
  c.reason = job.reason.c_str();
  return c;
}

static_assert(static_cast<std::uint32_t>(JobState::kCutOff) + SAGLEME_JOB_RUNNING ==
              SAGLEME_JOB_CUT_OFF);
static_assert(static_cast<std::uint32_t>(JobKind::kBaseChange) == SAGLEME_JOB_BASE_CHANGE);

}  // namespace
}  // namespace sagleme

using sagleme::At;
using sagleme::Context;
using sagleme::Reporter;
using sagleme::ToUtf16;

sagleme_job_control* sagleme_job_control_new(void) {
  return new (std::nothrow) sagleme_job_control;
}

void sagleme_job_control_free(sagleme_job_control* control) { delete control; }

void sagleme_job_control_stop(sagleme_job_control* control) {
  if (control != nullptr) control->control.Stop();
}

void sagleme_job_control_pause(sagleme_job_control* control, std::uint64_t milliseconds) {
  if (control != nullptr) control->control.SetPause(std::chrono::milliseconds(milliseconds));
}

std::uint32_t sagleme_vacuum(char const* place, sagleme_job_options const* options) {
  return At(place, [&](Context const& context) {
    sagleme_job_options const whole = sagleme::Whole(options);
    Reporter reporter(whole);
    sagleme::VacuumOptions how;
    how.batch = sagleme::BatchOf(whole, how.batch);
    how.pause = sagleme::PauseOf(whole);
    how.control = sagleme::ControlOf(whole);
    how.report = [&](sagleme::VacuumProgress const& progress) {
      return reporter({progress.moved + progress.removed, 0, 0});
    };
    RunVacuum(context, how);
    return reporter.status();
  });
}

std::uint32_t sagleme_build_index(char const* place, char const* name, char const* table,
                                  char const* const* columns, std::uint32_t count,
                                  std::uint32_t unique, sagleme_job_options const* options) {
  return At(place, [&](Context const& context) {
    for (void const* const needed :
         {static_cast<void const*>(name), static_cast<void const*>(table),
          static_cast<void const*>(columns)}) {
      sagleme::Require(needed);
    }
    sagleme_job_options const whole = sagleme::Whole(options);
    Reporter reporter(whole);
    sagleme::IndexBuildOptions how;
    how.batch = sagleme::BatchOf(whole, how.batch);
    how.pause = sagleme::PauseOf(whole);
    how.control = sagleme::ControlOf(whole);
    how.report = [&](sagleme::IndexBuildProgress const& progress) {
      return reporter({progress.done, progress.total, 0});
    };
    sagleme::IndexSpec index{ToUtf16(name), sagleme::FullName(context, table), {}};
    for (std::uint32_t i = 0; i < count; ++i) {
      sagleme::Require(columns[i]);
      index.columns.push_back({ToUtf16(columns[i])});
    }
    if (unique != 0) index.uniqueness = sagleme::Uniqueness::kUnique;
    return BuildIndex(context, index, how) ? 0u : LSCOREDB_STOPPED;
  });
}

std::uint32_t sagleme_import(char const* place, char const* table, char const* file,
                             sagleme_job_options const* options, std::uint64_t* rows) {
  sagleme::ImportResult result;
  std::uint32_t const status = At(place, [&](Context const& context) {
    sagleme::Require(table);
    sagleme::Require(file);
    sagleme_job_options const whole = sagleme::Whole(options);
    sagleme::ImportOptions how;
    if (whole.batch != 0) how.batch = whole.batch;
    how.pause = sagleme::PauseOf(whole);
    how.control = sagleme::ControlOf(whole);
    how.after_batch = [&](sagleme::JobProgress const& progress) {
      return whole.report == nullptr ||
             whole.report(whole.user, progress.done, progress.total, progress.rate) == 0;
    };
    sagleme::FileImport const what{sagleme::FullName(context, table), file,
                                   sagleme::FormatOf(file)};
    return ImportFile(context, what, how, result) ? 0u : LSCOREDB_STOPPED;
  });
  if (rows != nullptr) *rows = result.rows;
  return status;
}

std::uint32_t sagleme_retype(char const* place, std::uint64_t const* objects, std::uint64_t count,
                             char const* table, sagleme_job_options const* options) {
  return At(place, [&](Context const& context) {
    sagleme::Require(objects);
    sagleme::Require(table);
    sagleme_job_options const whole = sagleme::Whole(options);
    Reporter reporter(whole);
    std::vector<sagleme::ObjectId> ids;
    for (std::uint64_t i = 0; i < count; ++i) ids.push_back({objects[i]});
    sagleme::RetypeJob how;
    if (whole.batch != 0) how.batch = whole.batch;
    how.pause = sagleme::PauseOf(whole);
    how.control = sagleme::ControlOf(whole);
    how.report = [&](std::uint64_t done, std::uint64_t total) {
      return reporter({done, total, 0});
    };
    RetypeInBatches(context, ids, ToUtf16(table), {}, how);
    return reporter.status();
  });
}

std::uint32_t sagleme_apply_schema(char const* place, char const* document,
                                   sagleme_job_options const* options) {
  return At(place, [&](Context const& context) {
    sagleme::Require(document);
    sagleme_job_options const whole = sagleme::Whole(options);
    Reporter reporter(whole);
    sagleme::SchemaOptions how;
    how.allow_losses = whole.allow_losses != 0;
    how.batch = sagleme::BatchOf(whole, how.batch);
    how.pause = sagleme::PauseOf(whole);
    how.control = sagleme::ControlOf(whole);
    how.report = std::ref(reporter);
    auto const wanted = sagleme::ParseSchema(document, "the document");
    return ApplySchema(context, wanted, how) ? 0u : LSCOREDB_STOPPED;
  });
}

std::uint32_t sagleme_jobs(char const* place, sagleme_job_callback visit, void* user) {
  return At(place, [&](Context const& context) {
    if (visit == nullptr) sagleme::detail::CheckKernel(LSCOREDB_NULL_ARGUMENT);
    for (sagleme::Job const& job : sagleme::Jobs(context)) {
      sagleme_job const c = sagleme::ForC(job);
      if (visit(user, &c) != 0) break;
    }
    return 0u;
  });
}

std::uint32_t sagleme_resume_job(char const* place, std::uint64_t id,
                                 sagleme_job_options const* options) {
  return At(place, [&](Context const& context) {
    sagleme_job_options const whole = sagleme::Whole(options);
    Reporter reporter(whole);
    sagleme::JobOptions how;
    how.batch = whole.batch;
    if (whole.pause != 0) how.pause = sagleme::PauseOf(whole);
    how.control = sagleme::ControlOf(whole);
    how.take_over = whole.take_over != 0;
    how.allow_losses = whole.allow_losses != 0;
    how.report = std::ref(reporter);
    return ResumeJob(context, id, how) ? 0u : LSCOREDB_STOPPED;
  });
}

std::uint32_t sagleme_stop_job(char const* place, std::uint64_t id) {
  return At(place, [&](Context const& context) {
    sagleme::StopJob(context, id);
    return 0u;
  });
}

std::uint32_t sagleme_abandon_job(char const* place, std::uint64_t id) {
  return At(place, [&](Context const& context) {
    sagleme::AbandonJob(context, id);
    return 0u;
  });
}
