#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "commands/commands.h"
#include "commands/index_jobs.h"
#include "output/listing.h"

namespace tool {
namespace {

using sagleme::IndexBuild;

class JobsCommand : public Command {
 public:
  std::string name() const override { return "jobs"; }
  std::string summary() const override {
    return "List index builds that are going on or were cut off, and resume or abandon them";
  }
  std::vector<Example> examples() const override {
    return {{"jobs shop", "lists the builds with their state and progress"},
            {"jobs shop resume", "finishes all of them, beside other writers"},
            {"jobs shop resume 131073", "finishes that one"},
            {"jobs shop duplicates 131073", "lists the objects that keep it from being unique"},
            {"jobs shop abandon 131073", "removes it"}};
  }
  std::string details() const override {
    return "The states are building: objects are missing; write-only: duplicates are being looked "
           "for; duplicates: some were found; ready: only the catalogue does not have the index.\n"
           "Each batch is a separate transaction. Ctrl-C, a kill or a power failure keeps what was "
           "done. A build costs every writer its upkeep until it is finished or abandoned.";
  }
  void Declare(CLI::App& app) override {
    app.add_option("ACTION", action_, "resume, abandon or duplicates; without it, the list")
        ->type_name("");
    app.add_option("ID", id_, "A build, by its number in the list")->type_name("");
    AddCount(app, "--batch", batch_, "Work on COUNT objects in a transaction. 5000 by default");
    AddCount(app, "--pause", pause_, "Wait MS milliseconds between transactions. 0 by default",
             "MS");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::uint64_t Id() const;
  sagleme::IndexBuildOptions Options() const;
  static void List(std::vector<IndexBuild> const& builds, Output const& output);
  void ListDuplicates(Session& session, Output const& output) const;
  Exit Resume(Session& session, std::vector<IndexBuild> const& builds, Output const& output) const;

  std::string action_;
  std::string id_;
  std::uint64_t batch_ = 5000;
  std::uint64_t pause_ = 0;
};

std::string ColumnsOf(sagleme::IndexSpec const& index) {
  std::string columns;
  for (sagleme::IndexColumnSpec const& column : index.columns) {
    if (!columns.empty()) columns += ", ";
    columns += sagleme::ToUtf8(column.name);
    if (!column.ascending) columns += " descending";
  }
  return columns;
}

void JobsCommand::List(std::vector<IndexBuild> const& builds, Output const& output) {
  Listing listing({"id", "job", "index", "table", "columns", "state", "done", "total"});
  for (IndexBuild const& build : builds) {
    bool const unique = build.index.uniqueness == sagleme::Uniqueness::kUnique;
    listing.Add(
        {Cell::Number(build.id), Cell::Text(unique ? "unique index" : "index"),
         Cell::Text(sagleme::ToUtf8(build.index.name)),
         build.index.table.empty() ? Cell{} : Cell::Text(sagleme::ToUtf8(build.index.table)),
         Cell::Text(ColumnsOf(build.index)),
         Cell::Text(std::string(sagleme::IndexBuildStateName(build.progress.state))),
         Cell::Number(build.progress.done), Cell::Number(build.progress.total)});
  }
  listing.Print(output);
}

std::uint64_t JobsCommand::Id() const {
  std::uint64_t id = 0;
  auto const [end, error] = std::from_chars(id_.data(), id_.data() + id_.size(), id);
  if (error == std::errc() && end == id_.data() + id_.size()) return id;
  throw Failure(Exit::kUsage,
                id_.empty() ? fmt::format("{} needs the number of a build", action_)
                            : fmt::format("\"{}\" is not the number of a build", id_),
                "The list of \"sagleme jobs\" has the numbers.");
}

sagleme::IndexBuildOptions JobsCommand::Options() const {
  if (batch_ == 0 || batch_ > UINT32_MAX) {
    throw Failure(
        Exit::kUsage,
        fmt::format("the option --batch needs a number from 1 to {}, not {}", UINT32_MAX, batch_));
  }
  sagleme::IndexBuildOptions options;
  options.batch = static_cast<std::uint32_t>(batch_);
  options.pause = std::chrono::milliseconds(pause_);
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

Exit JobsCommand::Resume(Session& session, std::vector<IndexBuild> const& builds,
                         Output const& output) const {
  sagleme::IndexBuildOptions const wanted = Options();
  for (IndexBuild const& build : builds) {
    if (!id_.empty() && build.id != Id()) continue;
    std::string const name = sagleme::ToUtf8(build.index.name);
    WatchBuild(output, name, wanted, [&](sagleme::IndexBuildOptions const& options) {
      return sagleme::ResumeIndexBuild(session.context(), build.id, options);
    });
    output.Note(fmt::format("created index {}\n", name));
  }
  return Exit::kDone;
}

Exit JobsCommand::Run(Session& session, Output& output) {
  session.RequireNoTransaction("jobs");
  if (!action_.empty() && action_ != "resume" && action_ != "abandon" && action_ != "duplicates") {
    throw Failure(Exit::kUsage, fmt::format("unknown action \"{}\"", action_),
                  "Choose one of: resume, abandon, duplicates.");
  }
  if (action_ == "duplicates") {
    ListDuplicates(session, output);
    return Exit::kDone;
  }
  if (action_ == "abandon") {
    sagleme::AbandonIndexBuild(session.context(), Id());
    return Exit::kDone;
  }
  std::vector<IndexBuild> const builds = sagleme::IndexBuilds(session.context());
  if (action_.empty()) {
    List(builds, output);
    return Exit::kDone;
  }
  bool const known = id_.empty() || std::any_of(builds.begin(), builds.end(),
                                                [&](auto const& one) { return one.id == Id(); });
  if (!known) throw Failure(Exit::kRefused, fmt::format("there is no index build {}", id_));
  return Resume(session, builds, output);
}

}  // namespace

std::unique_ptr<Command> MakeJobs() { return std::make_unique<JobsCommand>(); }

}  // namespace tool
