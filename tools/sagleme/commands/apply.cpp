#include <fmt/format.h>

#include <algorithm>

#include "commands/commands.h"
#include "commands/files.h"
#include "schema/plan.h"
#include "schema/validate.h"

namespace tool {
namespace {

class ApplySchema : public Command {
 public:
  std::string name() const override { return "apply"; }
  std::string summary() const override { return "Brings the database to the schema in a file"; }
  std::vector<Example> examples() const override {
    return {{"apply shop shop.json --plan", "shows what would be changed, and changes nothing"},
            {"apply shop shop.json", "makes the changes in one transaction"},
            {"apply shop shop.json --allow-destructive", "also those that lose values or objects"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("FILE", file_, "A schema document; - is the standard input")
        ->required()
        ->type_name("");
    app.add_flag("--plan", plan_only_, "Shows the plan and changes nothing");
    app.add_flag("--allow-destructive", destructive_, "Makes changes that lose values or objects");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  Plan MakePlan(sagleme::Transaction& transaction, SchemaDoc const& wanted) const;
  void RefuseDestructive(Plan const& plan) const;

  std::string file_;
  bool plan_only_ = false;
  bool destructive_ = false;
};

void PrintPlan(Plan const& plan, Output const& output) {
  for (Change const& change : plan) {
    output.Print(fmt::format("{:<11}  {}\n", LabelName(LabelOf(change)), Describe(change)));
  }
  if (plan.empty()) output.Print("nothing to do\n");
}

Plan ApplySchema::MakePlan(sagleme::Transaction& transaction, SchemaDoc const& wanted) const {
  SchemaDoc const present = ReadSchema(transaction, true);
  SchemaDoc const whole = Completed(wanted, present);
  Validate(whole, file_);
  return Compare(present, whole);
}

void ApplySchema::RefuseDestructive(Plan const& plan) const {
  bool const any = std::any_of(plan.begin(), plan.end(), [](Change const& change) {
    return LabelOf(change) == Label::kDestructive;
  });
  if (!any || destructive_) return;
  throw Failure(Exit::kRefused, "the plan would lose values or objects, and nothing was changed",
                "Take --allow-destructive when that is meant.");
}

Exit ApplySchema::Run(Session& session, Output& output) {
  SchemaDoc const wanted = ParseSchema(ReadFile(file_), file_);
  if (plan_only_) {
    session.Read([&](sagleme::Transaction& transaction) {
      PrintPlan(MakePlan(transaction, wanted), output);
    });
    return Exit::kDone;
  }
  session.Write([&](sagleme::Transaction& transaction) {
    AssureDatabaseIdentity(transaction);
    Plan const plan = MakePlan(transaction, wanted);
    PrintPlan(plan, output);
    RefuseDestructive(plan);
    output.Flush();  // nobody's changes are made behind a plan that could not be shown
    if (!plan.empty()) Apply(transaction, plan);
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeApply() { return std::make_unique<ApplySchema>(); }

}  // namespace tool
