#include "check/check.h"

#include <fmt/format.h>

#include "commands/commands.h"
#include "output/listing.h"

namespace tool {
namespace {

class CheckCommand : public Command {
 public:
  std::string name() const override { return "check"; }
  std::string summary() const override {
    return "Looks for damage in catalogue, objects and indexes";
  }
  std::vector<Example> examples() const override {
    return {{"check shop", "prints what is wrong, and ends with status 1 when anything is"},
            {"check shop --references", "also references that lead nowhere"}};
  }
  void Declare(CLI::App& app) override {
    app.add_flag("--references", options_.references, "References must lead to an object too");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  CheckOptions options_;
};

Exit CheckCommand::Run(Session& session, Output& output) {
  Listing listing({"rule", "table", "object", "problem"});
  session.Read([&](sagleme::Transaction& transaction) {
    Check(transaction, options_, [&](Finding const& finding) {
      listing.Add(
          {Cell::Text(finding.rule), finding.table.empty() ? Cell{} : Cell::Text(finding.table),
           finding.object == 0 ? Cell{} : Cell::Number(finding.object), Cell::Text(finding.what)});
    });
  });
  if (listing.size() == 0) {
    output.Note("nothing is wrong\n");
    return Exit::kDone;
  }
  listing.Print(output);
  output.Note(fmt::format("{} problems\n", listing.size()));
  return Exit::kProblem;
}

}  // namespace

std::unique_ptr<Command> MakeCheck() { return std::make_unique<CheckCommand>(); }

}  // namespace tool
