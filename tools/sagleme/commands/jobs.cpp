#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <sagleme/jobs.hpp>

#include "commands/commands.h"
#include "commands/index_jobs.h"
#include "output/listing.h"

namespace tool {
namespace {

using sagleme::Job;
using sagleme::JobKind;
using sagleme::JobState;

constexpr std::uint64_t kNotGiven = UINT64_MAX;

class JobsCommand : public Command {
 public:
  std::string name() const override { return "jobs"; }
  std::string summary() const override {
    return "List long work that is going on or was cut off, and resume, stop or abandon it";
  }
  std::vector<Example> examples() const override {
    return {{"jobs shop", "lists the jobs with their state and progress"},
            {"jobs shop resume", "finishes all that were cut off, beside other writers"},
            {"jobs shop resume 131073", "finishes that one"},
            {"jobs shop stop 131073", "makes the process that works on it stop"},
            {"jobs shop duplicates 131073",
             "lists the objects that keep an index from being "
             "unique"},
            {"jobs shop abandon 131073", "forgets it; of an index build, removes the entries"}};
  }
  std::string details() const override {
    return "Jobs are vacuums, index builds, imports, changes of schemas and of objects' tables "
           "that take more than one transaction. Each batch is a separate transaction. Ctrl-C, a "
           "kill or a power failure keeps what was done.\n"
           "A job is running in a live process, cut off, or elsewhere: begun on another machine, "
           "or in another container. --take-over resumes such a job, whose process must have "
           "ended.\n"
           "The steps of an index build are building: objects are missing; write-only: duplicates "
           "are being looked for; duplicates: some were found; ready: only the catalogue does not "
           "have the index. It costs every writer its upkeep until it is finished or abandoned. "
           "Abandoned: an earlier abandon was interrupted; resume or abandon removes the rest.";
  }
  void Declare(CLI::App& app) override {
    app.add_option("ACTION", action_, "resume, stop, abandon or duplicates; without it, the list")
        ->type_name("");
    app.add_option("ID", id_, "A job, by its number in the list")->type_name("");
    AddCount(app, "--batch", batch_,
             "Work on COUNT objects in a transaction. As before by default");
    AddCount(app, "--pause", pause_,
             "Wait MS milliseconds between transactions. As before by default", "MS");
    app.add_flag("--take-over", take_over_,
                 "Resume a job of another machine or container, whose process has ended");
    app.add_flag("--allow-destructive", destructive_,
                 "Resume a job although values are lost that it was begun to keep");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::uint64_t Id() const;
  sagleme::JobOptions Options() const;
  static void List(std::vector<Job> const& jobs, Output const& output);
  void ListDuplicates(Session& session, Output const& output) const;
  void ResumeOne(Session& session, Job const& job, Output const& output) const;
  Exit Resume(Session& session, std::vector<Job> jobs, Output const& output) const;

  std::string action_;
  std::string id_;
  std::uint64_t batch_ = kNotGiven;
  std::uint64_t pause_ = kNotGiven;
  bool take_over_ = false;
  bool destructive_ = false;
};

Cell TextOrNothing(std::string const& text) { return text.empty() ? Cell{} : Cell::Text(text); }

Cell NumberOrNothing(std::uint64_t number) { return number == 0 ? Cell{} : Cell::Number(number); }

void JobsCommand::List(std::vector<Job> const& jobs, Output const& output) {
  Listing listing(
      {"id", "job", "description", "state", "step", "done", "total", "rate", "by", "reason"});
  for (Job const& job : jobs) {
    listing.Add({Cell::Number(job.id), Cell::Text(std::string(JobKindName(job.kind))),
                 Cell::Text(job.description), Cell::Text(std::string(JobStateName(job.state))),
                 TextOrNothing(job.step), Cell::Number(job.progress.done),
                 NumberOrNothing(job.progress.total), NumberOrNothing(job.progress.rate),
                 TextOrNothing(job.runner), TextOrNothing(job.reason)});
  }
  listing.Print(output);
}

std::uint64_t JobsCommand::Id() const {
  std::uint64_t id = 0;
  auto const [end, error] = std::from_chars(id_.data(), id_.data() + id_.size(), id);
  if (error == std::errc() && end == id_.data() + id_.size()) return id;
  throw Failure(Exit::kUsage,
                id_.empty() ? fmt::format("{} needs the number of a job", action_)
                            : fmt::format("\"{}\" is not the number of a job", id_),
                "The list of \"sagleme jobs\" has the numbers.");
}

sagleme::JobOptions JobsCommand::Options() const {
  sagleme::JobOptions options;
  if (batch_ != kNotGiven) {
    if (batch_ == 0 || batch_ > UINT32_MAX) {
      throw Failure(Exit::kUsage,
                    fmt::format("the option --batch needs a number from 1 to {}, not {}",
                                UINT32_MAX, batch_));
    }
    options.batch = batch_;
  }
  if (pause_ != kNotGiven) options.pause = std::chrono::milliseconds(pause_);
  options.take_over = take_over_;
  options.allow_losses = destructive_;
  return options;
}

void JobsCommand::ListDuplicates(Session& session, Output const& output) const {
  constexpr std::size_t kMost = 100000;
  Listing listing({"object", "same key as"});
  auto const found = sagleme::IndexBuildDuplicates(session.context(), Id(), kMost);
  for (sagleme::DuplicateObjects const& pair : found) {
    listing.Add({Cell::Number(pair.object.value), Cell::Number(pair.holder.value)});
  }
  listing.Print(output);
  if (found.size() == kMost) output.Note(fmt::format("only the first {} are listed\n", kMost));
}

bool IsAbandoned(Job const& job) {
  return job.step == sagleme::IndexBuildStateName(sagleme::IndexBuildState::kAbandoned);
}

std::string DoneText(Job const& job) {
  if (IsAbandoned(job)) return fmt::format("removed what was left of {}\n", job.description);
  if (job.kind == JobKind::kIndexBuild) return fmt::format("created {}\n", job.description);
  return fmt::format("finished the {} of {}\n", JobKindName(job.kind), job.description);
}

void JobsCommand::ResumeOne(Session& session, Job const& job, Output const& output) const {
  WatchJob(output, job, Options(), [&](sagleme::JobOptions const& options) {
    return sagleme::ResumeJob(session.context(), job.id, options);
  });
  output.Note(DoneText(job));
}

// Without a number, those that nobody works on: first what is left of abandoned builds, which other
// builds would remove.
Exit JobsCommand::Resume(Session& session, std::vector<Job> jobs, Output const& output) const {
  std::stable_partition(jobs.begin(), jobs.end(), IsAbandoned);
  for (Job const& job : jobs) {
    bool const wanted = id_.empty() ? job.state != JobState::kRunning : job.id == Id();
    if (wanted) ResumeOne(session, job, output);
  }
  return Exit::kDone;
}

Exit JobsCommand::Run(Session& session, Output& output) {
  session.RequireNoTransaction("jobs");
  constexpr std::array kActions{"", "resume", "stop", "abandon", "duplicates"};
  if (std::find(kActions.begin(), kActions.end(), action_) == kActions.end()) {
    throw Failure(Exit::kUsage, fmt::format("unknown action \"{}\"", action_),
                  "Choose one of: resume, stop, abandon, duplicates.");
  }
  sagleme::JobOptions const options = Options();
  if (action_ == "duplicates") {
    ListDuplicates(session, output);
  } else if (action_ == "abandon") {
    sagleme::AbandonJob(session.context(), Id(), options);
  } else if (action_ == "stop") {
    sagleme::StopJob(session.context(), Id());
  } else {
    std::vector<Job> jobs = sagleme::Jobs(session.context());
    if (action_.empty()) {
      List(jobs, output);
      return Exit::kDone;
    }
    bool const known = id_.empty() || std::any_of(jobs.begin(), jobs.end(),
                                                  [&](auto const& one) { return one.id == Id(); });
    if (!known) throw Failure(Exit::kRefused, fmt::format("there is no job {}", id_));
    return Resume(session, std::move(jobs), output);
  }
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeJobs() { return std::make_unique<JobsCommand>(); }

}  // namespace tool
