#include <fmt/format.h>

#include <sagleme/vacuum.hpp>

#include "base/interrupt.h"
#include "commands/commands.h"
#include "output/progress.h"
#include "output/text.h"

namespace tool {
namespace {

class VacuumCommand : public Command {
 public:
  std::string name() const override { return "vacuum"; }
  std::string summary() const override {
    return "Move objects to the current layouts and remove those of dropped tables";
  }
  std::vector<Example> examples() const override {
    return {
        {"vacuum shop", "does everything that is left to do, beside other writers"},
        {"vacuum shop --batch 100 --pause 50", "in small transactions with pauses between them"}};
  }
  std::string details() const override {
    return "Each batch is a separate transaction. A vacuum that is interrupted by Ctrl-C, a kill "
           "or "
           "a power failure keeps the completed batches, and the next one continues. Nothing is "
           "lost, and readers see no difference.";
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

std::uint64_t ToDo(Session& session) {
  std::uint64_t count = 0;
  session.Read(
      [&](sagleme::Transaction& transaction) { count = sagleme::ObjectsToVacuum(transaction); });
  return count;
}

Exit VacuumCommand::Run(Session& session, Output& output) {
  session.OpenToWrite();
  session.RequireNoTransaction("vacuum");
  InterruptGuard const guard;
  Progress progress(output, "objects", ToDo(session));
  sagleme::VacuumOptions options;
  if (batch_ == 0 || batch_ > UINT32_MAX) {
    throw Failure(
        Exit::kUsage,
        fmt::format("the option --batch needs a number from 1 to {}, not {}", UINT32_MAX, batch_));
  }
  options.batch = static_cast<std::uint32_t>(batch_);
  options.pause = std::chrono::milliseconds(pause_);
  options.report = [&](sagleme::VacuumProgress const& so_far) {
    if (InterruptPending()) return false;
    progress.Update(so_far.moved + so_far.removed, so_far.moved + so_far.removed);
    return true;
  };
  auto const done = sagleme::RunVacuum(session.context(), options);
  progress.Finish(done.moved + done.removed);
  output.Note(fmt::format("moved {}, removed {}, finished {} of {}, released {}\n",
                          Counted(done.moved, "objects"), Counted(done.removed, "objects"),
                          done.requests_done, Counted(done.requests, "requests"),
                          Counted(done.released, "layouts")));
  if (!TakeInterrupt()) return Exit::kDone;
  output.Note("interrupted: what was done is kept; run vacuum again to go on\n");
  return Exit::kProblem;
}

}  // namespace

std::unique_ptr<Command> MakeVacuum() { return std::make_unique<VacuumCommand>(); }

}  // namespace tool
