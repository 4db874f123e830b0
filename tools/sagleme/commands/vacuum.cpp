#include <fmt/format.h>

#include <sagleme/vacuum.hpp>

#include "commands/commands.h"
#include "output/progress.h"

namespace tool {
namespace {

class VacuumCommand : public Command {
 public:
  std::string name() const override { return "vacuum"; }
  std::string summary() const override {
    return "Moves objects to their table's current layout and removes those of dropped tables";
  }
  std::vector<Example> examples() const override {
    return {{"vacuum shop", "works everything off, beside other writers if need be"},
            {"vacuum shop --batch 100 --pause 50", "in small steps with rests between"}};
  }
  void Declare(CLI::App& app) override {
    AddCount(app, "--batch", batch_, "Work on COUNT objects in a transaction. 1000 by default");
    AddCount(app, "--pause", pause_, "Wait MS milliseconds between transactions. 0 by default",
             "MS");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::uint64_t batch_ = 1000;
  std::uint64_t pause_ = 0;
};

Exit VacuumCommand::Run(Session& session, Output& output) {
  session.RequireNoTransaction("vacuum");
  Progress progress(output, "objects", 0);
  sagleme::VacuumOptions options;
  if (batch_ == 0 || batch_ > UINT32_MAX) {
    throw Failure(
        Exit::kUsage,
        fmt::format("the option --batch needs a number from 1 to {}, not {}", UINT32_MAX, batch_));
  }
  options.batch = static_cast<std::uint32_t>(batch_);
  options.pause = std::chrono::milliseconds(pause_);
  options.report = [&](sagleme::VacuumProgress const& so_far) {
    progress.Update(0, so_far.moved + so_far.removed);
    return true;
  };
  auto const done = sagleme::RunVacuum(session.context(), options);
  progress.Finish(done.moved + done.removed);
  output.Note(
      fmt::format("moved {}, removed {}, requests worked off {} of {}, layouts released {}\n",
                  done.moved, done.removed, done.requests_done, done.requests, done.released));
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeVacuum() { return std::make_unique<VacuumCommand>(); }

}  // namespace tool
