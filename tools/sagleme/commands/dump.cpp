#include <sagleme/host/dump.hpp>

#include "commands/commands.h"
#include "commands/files.h"
#include "output/progress.h"

namespace tool {
namespace {

class DumpCommand : public Command {
 public:
  std::string name() const override { return "dump"; }
  std::string summary() const override { return "Write the whole database as text"; }
  std::vector<Example> examples() const override {
    return {{"dump shop > shop.dump", "schema and objects as one transaction sees them"}};
  }
  void Declare(CLI::App&) override {}
  Exit Run(Session& session, Output& output) override {
    session.Read([&](sagleme::Transaction& transaction) {
      Progress progress(output, "objects");
      auto const print = [&](std::string_view text) { output.Print(text); };
      progress.Finish(sagleme::Dump(transaction, print, progress.report()));
    });
    return Exit::kDone;
  }
};

class LoadCommand : public Command {
 public:
  std::string name() const override { return "load"; }
  std::string summary() const override { return "Restore a dump into a new database"; }
  std::vector<Example> examples() const override {
    return {{"load copy shop.dump", "creates the directory copy; all objects keep their ids"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("FILE", file_, "A dump; - is standard input")->required()->type_name("");
  }
  bool at_prompt() const override { return false; }
  Exit Run(Session& session, Output& output) override {
    auto const input = OpenFile(file_);
    Progress progress(output, "objects");
    progress.Finish(sagleme::Load(session.directory(), *input, file_, progress.report()));
    return Exit::kDone;
  }

 private:
  std::string file_;
};

}  // namespace

std::unique_ptr<Command> MakeDump() { return std::make_unique<DumpCommand>(); }
std::unique_ptr<Command> MakeLoad() { return std::make_unique<LoadCommand>(); }

}  // namespace tool
