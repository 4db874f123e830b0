#ifndef SAGLEME_JOBS_HPP
#define SAGLEME_JOBS_HPP

// Long work: what runs in a database, what was cut off, and how to stop it and go on with it.
//
//   for (sagleme::Job const& job : sagleme::Jobs(context)) {
//     std::cout << job.id << " " << sagleme::JobKindName(job.kind) << " " << job.description << " "
//               << sagleme::JobStateName(job.state) << "\n";
//     if (job.state == sagleme::JobState::kCutOff) sagleme::ResumeJob(context, job.id);
//   }
//
// A job is work in many small transactions: RunVacuum (<sagleme/vacuum.hpp>), BuildIndex
// (<sagleme/index_build.hpp>), RetypeInBatches (<sagleme/hierarchy.hpp>), RunChangeColumnType and
// its like (<sagleme/column_changes.hpp>), ImportFile
// (<sagleme/host/import.hpp>), ApplySchema (<sagleme/schema_job.hpp>). Those functions begin one.
// Work that fits into one batch is over before it could be seen, and leaves no trace.
//
// A job is a row of a table of the host library's own, which the first job makes and no ordinary
// list shows: Sagleme.Internal.Job. Where a batch must not be done twice, its commit also records
// how far the job is. A finished job has no row. One that ended before, by a failure, by its owner
// or with its process, stays in the list until somebody resumes or abandons it.
//
// Who runs a job is recorded as a process with its start, so neither another process with the same
// number nor a forked child is taken for it. Jobs of other machines and containers are kElsewhere:
// nobody here can tell whether they run. At most one process works on a job: one that another
// process stopped, abandoned or took over ends with LSCOREDB_STOPPED and commits nothing more.
//
// A check and a load have nothing to resume and are not listed: a check changes nothing, and a
// load makes a database that nobody sees before it is whole. A JobControl stops and slows them all
// the same (<sagleme/check.hpp>, <sagleme/host/dump.hpp>); what it stops throws Error of
// LSCOREDB_STOPPED.
//
// All functions work in transactions of their own, in a context without an open one.

#include <sagleme/export.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

// Stops or slows a job from any thread. It must outlive the job, and may serve several.
class JobControl {
 public:
  // The job ends after the batch that it is in, or at once if it pauses.
  void Stop() { stopped_.store(true, std::memory_order_relaxed); }
  bool stopped() const { return stopped_.load(std::memory_order_relaxed); }
  // Between batches, added to the job's own pause.
  void SetPause(std::chrono::milliseconds pause) {
    pause_.store(pause.count(), std::memory_order_relaxed);
  }
  std::chrono::milliseconds pause() const {
    return std::chrono::milliseconds(pause_.load(std::memory_order_relaxed));
  }

 private:
  std::atomic<bool> stopped_{false};
  std::atomic<std::chrono::milliseconds::rep> pause_{0};
};

enum class JobKind : std::uint64_t {
  kVacuum = 1,
  kIndexBuild = 2,
  kImport = 3,
  kApply = 4,
  kRetype = 5,
  kColumnChange = 6,
  kBaseChange = 7,
};
// "vacuum", "index build", "import", "apply", "retype", "column change", "base change".
SAGLEME_HOST_API std::string_view JobKindName(JobKind kind);

enum class JobState {
  kRunning,    // in a live process of this machine, maybe this one
  kElsewhere,  // begun on another machine or in another container, which may have ended
  kCutOff,     // nobody works on it
};
// "running", "elsewhere", "cut off".
SAGLEME_HOST_API std::string_view JobStateName(JobState state);

struct JobProgress {
  std::uint64_t done = 0;   // objects; of an import bytes of the file, of a schema steps
  std::uint64_t total = 0;  // 0: unknown
  std::uint64_t rate = 0;   // per second, since the job was last begun or resumed
};

struct Job {
  std::uint64_t id = 0;  // of an index build, that of the build
  JobKind kind = JobKind::kVacuum;
  std::string description;  // "index ByEmail on Shop.Customer (Email)"
  JobState state = JobState::kCutOff;
  std::string step;    // of an index build: IndexBuildStateName
  std::string runner;  // "process 4711", with " on HOST" if that is another; empty if cut off
  std::string reason;  // why it was cut off, if its process could say so
  JobProgress progress;
  std::uint64_t batch = 0;             // objects or rows in a transaction
  std::chrono::milliseconds pause{0};  // between transactions
};

// All jobs, oldest first.
SAGLEME_HOST_API std::vector<Job> Jobs(Context const& context);

struct JobOptions {
  std::uint64_t batch = 0;                         // 0: as before
  std::optional<std::chrono::milliseconds> pause;  // nothing: as before
  std::uint32_t attempts = 1000;                   // per batch, before a conflict is reported
  JobControl const* control = nullptr;             // may stop the job
  // Called after each batch; false stops the job.
  std::function<bool(JobProgress const&)> report;
  // Whether to take over a job that is kElsewhere, and whose process is known to have ended.
  bool take_over = false;
  // Whether a schema, a retype or a column change may lose values that it was begun to keep.
  bool allow_losses = false;
};

// Goes on with a job where it was. Returns false if it was stopped, and can be resumed again. What
// the job throws leaves it cut off. LORV_STATUS_NO_OBJECT: there is no such job. LSCOREDB_IN_USE:
// somebody works on it, or may.
SAGLEME_HOST_API bool ResumeJob(Context const& context, std::uint64_t id,
                                JobOptions const& options = {});

// Makes a running job of whatever process end after the batch that it is in, or soon if it pauses,
// cut off. Returns when the request is recorded. LORV_STATUS_NO_OBJECT: there is no such job, or
// no longer.
SAGLEME_HOST_API void StopJob(Context const& context, std::uint64_t id);

// Stops a job and forgets it. What its batches committed stays, except for the entries of an index
// build and the values that a column change prepared, which are removed. The former are in batches:
// `report` gets how far that is, and if it or the control ends it, the build stays in the list with
// the step "abandoned", for another call to remove the rest. LORV_STATUS_NO_OBJECT: there is no
// such job.
SAGLEME_HOST_API void AbandonJob(Context const& context, std::uint64_t id,
                                 JobOptions const& options = {});

}  // namespace sagleme

#endif
