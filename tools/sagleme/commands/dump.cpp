#include <fmt/format.h>
#include <lscoredb/watch.h>

#include <sagleme/host/dump.hpp>

#include "base/interrupt.h"
#include "base/watch.h"
#include "commands/commands.h"
#include "commands/files.h"
#include "output/progress.h"
#include "output/text.h"

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
  std::string details() const override {
    return "The database is built in the directory DB.loading and renamed when it is complete: an "
           "interrupted load leaves no database. One for a server is built under TMPDIR and then "
           "copied to its URL. Dumps compressed by gzip are unpacked.";
  }
  void Declare(CLI::App& app) override {
    app.add_option("FILE", file_, "A dump; - is standard input")->required()->type_name("");
    app.add_flag("--new-ids", new_ids_, "Renumber the objects from 1, and their references");
  }
  bool at_prompt() const override { return false; }
  Exit Run(Session& session, Output& output) override {
    auto const input = OpenFile(file_);
    InterruptGuard const guard;
    Progress progress(output, "objects");
    sagleme::LoadResult result;
    try {
      Watch const watch;
      result = sagleme::Load(session.directory(), *input, file_, {new_ids_, progress.report()});
    } catch (Interrupted const&) {
      throw Stopped();
    } catch (sagleme::Error const& error) {
      if (error.status() == LSCOREDB_STOPPED) throw Stopped();
      throw Failure(Exit::kRefused, error.what(), "No database was created.");
    }
    progress.Finish(result.objects);
    if (result.dropped_references == 0) return Exit::kDone;
    output.Note(fmt::format("{} to objects that the dump does not have became null\n",
                            Counted(result.dropped_references, "references")));
    return Exit::kDone;
  }

 private:
  static Failure Stopped() {
    TakeInterrupt();
    return {Exit::kProblem, "interrupted", "No database was created."};
  }

  std::string file_;
  bool new_ids_ = false;
};

}  // namespace

std::unique_ptr<Command> MakeDump() { return std::make_unique<DumpCommand>(); }
std::unique_ptr<Command> MakeLoad() { return std::make_unique<LoadCommand>(); }

}  // namespace tool
