#ifndef SAGLEME_HOST_JOBS_RUN_H
#define SAGLEME_HOST_JOBS_RUN_H

// One run of a job: what all kinds of jobs do around their batches.
//
//   Run run(context, {.kind = JobKind::kVacuum, .description = "..."}, control);
//   run.Perform([&] {
//     do {
//       ... a transaction: change a batch; run.Save(transaction, done); commit ...
//       if (more) run.Record();                   // or before, if it is known to be long
//     } while (more && run.GoesOn(pause));
//   });
//
// A run that returns without Finish leaves its job cut off, if it was recorded. The context has no
// open transaction except around Save.

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "jobs/runner.h"
#include "jobs/store.h"

namespace sagleme::jobs {

// Of the transactions that change the rows of jobs.
inline constexpr std::uint32_t kAttempts = 1000;

class Run {
 public:
  // Records nothing yet. `job` says what it is; a job of equal kind and details is the same one.
  // `control` may be null.
  Run(Context const& context, Row job, JobControl const* control);
  // The run of a recorded job. Throws as ResumeJob.
  Run(Context const& context, ObjectId id, JobOptions const& options);
  Run(Run const&) = delete;
  Run& operator=(Run const&) = delete;

  Row const& job() const { return job_; }
  bool recorded() const { return job_.id.value != 0; }

  // Takes over the job if it was cut off before, with its position and parts. Returns whether.
  bool TakeUp();
  // Makes the row of the job if it has none, or takes it over. `total` replaces the job's unless 0;
  // `ids` become its parts.
  void Record(std::uint64_t total = 0, std::span<ObjectId const> ids = {});
  // Throws Error with LSCOREDB_IN_USE if somebody works on the same job.
  void RequireNobodyElse() const;
  // Where the job goes on, and what it reads now. Recorded by the next Save.
  void SetPosition(std::uint64_t position, std::string input);
  // Records the progress inside of a batch's transaction. Throws Error with LSCOREDB_STOPPED if
  // the job is somebody else's now. Nothing if it is not recorded.
  void Save(Transaction& transaction, std::uint64_t done, std::uint64_t position = 0);
  // The same where batches are no transactions of the host library.
  void SaveAlone(std::uint64_t done, std::uint64_t total);
  // Between two batches. False if the job is to end; waits for the pauses of the job and its
  // control otherwise. Throws as Save if somebody took the job over during a wait.
  bool GoesOn(std::chrono::milliseconds pause);
  // The parts of the job.
  std::vector<ObjectId> Ids() const;
  JobProgress progress() const { return {job_.done, job_.total, job_.rate}; }

  // The job is done: it leaves the list, and so do cut-off ones that are the same.
  void Finish();
  // The same in the transaction that does the last of it, before a Finish.
  void FinishIn(Transaction& transaction);

  // Leaves the job cut off unless it is finished.
  void Leave() noexcept { CutOff("stopped"); }

  // Runs the work, and records why it ended unless it called Finish.
  template <typename Work>
  auto Perform(Work&& work) {
    try {
      CutOffAtEnd const end(*this);
      return work();
    } catch (std::exception const& failure) {
      CutOff(failure.what());
      throw;
    }
  }

 private:
  class CutOffAtEnd {
   public:
    explicit CutOffAtEnd(Run& run) : run_(run), exceptions_(std::uncaught_exceptions()) {}
    ~CutOffAtEnd() {
      if (std::uncaught_exceptions() == exceptions_) run_.CutOff("stopped");
    }
    CutOffAtEnd(CutOffAtEnd const&) = delete;
    CutOffAtEnd& operator=(CutOffAtEnd const&) = delete;

   private:
    Run& run_;
    int exceptions_;
  };

  void Attempt(std::function<void(Transaction&)> const& work) const;
  bool IsSame(Row const& row) const { return row.kind == job_.kind && row.details == job_.details; }
  void Claim(Store const& store, Row const& row);
  // Throws if the job is somebody else's now.
  Store RequireOwn(Transaction& transaction) const;
  // The same from time to time.
  void LookWhoOwns();
  void Count(std::uint64_t done);
  void CutOff(std::string const& reason) noexcept;

  Context const& context_;
  Row job_;
  Runner runner_;
  JobControl const* control_;
  bool finished_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point saved_ = start_;
  std::chrono::steady_clock::time_point looked_ = start_;
  std::uint64_t done_at_start_ = 0;
};

// Waits for the pause and that of the control, which may be null. False as soon as that stops the
// job. Calls `between` again and again meanwhile.
bool Wait(std::chrono::milliseconds pause, JobControl const* control,
          std::function<void()> const& between);

[[noreturn]] void ThrowNoJob(std::uint64_t id);

}  // namespace sagleme::jobs

#endif
