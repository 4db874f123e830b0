#ifndef SAGLEME_HOST_JOBS_KINDS_H
#define SAGLEME_HOST_JOBS_KINDS_H

// What each kind of job does to go on with one that was cut off. The run owns the job already; a
// function that does not reach the end leaves it cut off again. Each is defined with its kind.

#include <sagleme/index_build.hpp>

#include "jobs/run.h"

namespace sagleme::jobs {

// Return false if the job was stopped.
bool ResumeVacuum(Context const& context, Run& run, JobOptions const& options);
bool ResumeImport(Context const& context, Run& run, JobOptions const& options);
bool ResumeApply(Context const& context, Run& run, JobOptions const& options);
bool ResumeRetype(Context const& context, Run& run, JobOptions const& options);
bool ResumeColumnChange(Context const& context, Run& run, JobOptions const& options);

// Removes what the batches wrote, which nobody sees.
void AbandonColumnChange(Transaction& transaction, Row const& job);

// The job of an index build, whose details are the number of the build. The kernel keeps its state.
Row RowOfBuild(std::uint64_t id, IndexSpec const& spec);
// Removes what others left of abandoned builds.
void RemoveAbandonedBuilds(Context const& context, IndexBuildOptions const& options = {});
// Removes the rows of a build that is gone.
void ForgetBuild(Context const& context, std::uint64_t id);

}  // namespace sagleme::jobs

#endif
