#include <fmt/format.h>

#include <sagleme/check.hpp>

#include "base/failure.h"
#include "commands/commands.h"
#include "output/listing.h"
#include "output/progress.h"
#include "output/text.h"

namespace tool {
namespace {

class CheckCommand : public Command {
 public:
  std::string name() const override { return "check"; }
  std::string summary() const override {
    return "Check the file, catalogue, objects and indexes for damage";
  }
  std::vector<Example> examples() const override {
    return {{"check shop", "lists what is wrong; ends with status 1 if anything is"},
            {"check shop --no-references", "does not report references to missing objects"}};
  }
  void Declare(CLI::App& app) override {
    app.add_flag_callback(
        "--no-references", [this] { options_.references = false; },
        "Do not report references to missing objects");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  void Look(Session& session, Output const& output, sagleme::FindingReport const& report);

  sagleme::CheckOptions options_;
};

// If there is no database, opening reports it.
void CheckCommitted(Session& session, sagleme::CheckOptions const& options,
                    sagleme::FindingReport const& report) {
  if (!sagleme::Database::ExistsIn(session.directory())) session.database_to_read();
  try {
    sagleme::CheckDatabase(session.directory(), options, report);
  } catch (sagleme::Error const& error) {
    throw Failure(Exit::kCannotOpen, error.what());
  }
}

void CheckCommand::Look(Session& session, Output const& output,
                        sagleme::FindingReport const& report) {
  Progress progress(output, "checking");
  options_.progress = [&](std::uint64_t done, std::uint64_t total) {
    progress.UpdateShare(done, total);
  };
  if (!session.in_transaction()) return CheckCommitted(session, options_, report);
  session.Read([&](sagleme::Transaction& transaction) {
    sagleme::CheckCatalogue(transaction, options_, report);
  });
}

Exit CheckCommand::Run(Session& session, Output& output) {
  Listing listing({"rule", "table", "object", "problem"});
  auto const add = [&](sagleme::Finding const& finding) {
    listing.Add(
        {Cell::Text(finding.rule), finding.table.empty() ? Cell{} : Cell::Text(finding.table),
         finding.object == 0 ? Cell{} : Cell::Number(finding.object), Cell::Text(finding.what)});
  };
  Look(session, output, add);
  if (listing.size() == 0) {
    output.Note("no problems found\n");
    return Exit::kDone;
  }
  listing.Print(output);
  output.Note(Counted(listing.size(), "problems") + "\n");
  return Exit::kProblem;
}

}  // namespace

std::unique_ptr<Command> MakeCheck() { return std::make_unique<CheckCommand>(); }

}  // namespace tool
