#include <fmt/format.h>

#include <algorithm>
#include <sagleme/hierarchy.hpp>

#include "base/interrupt.h"
#include "commands/commands.h"
#include "output/progress.h"
#include "output/text.h"
#include "query/names.h"
#include "query/search.h"

namespace tool {
namespace {

constexpr std::size_t kListed = 20;
constexpr std::uint64_t kAllAtOnce = UINT64_MAX;

class Retype : public Command {
 public:
  std::string name() const override { return "retype"; }
  std::string summary() const override { return "Make objects those of another table"; }
  std::string details() const override {
    return "The objects keep their ids, and values in columns that both tables inherit from the "
           "same table. Values in other columns are lost, and need --allow-destructive. A "
           "reference to an object that its column does not allow afterwards refuses the change.\n"
           "With --batch each batch is a separate transaction, which looks again for values that "
           "would be lost and for such references: others may have written some since the plan. It "
           "ends there then, with nothing of that batch done. What is left undone, by an "
           "interruption too, is done by the same command once more, or by jobs resume.";
  }
  std::vector<Example> examples() const override {
    return {{"retype shop Company 131073", "one object"},
            {"retype shop Company --from Customer --where Vat!= --plan",
             "shows what would be lost; ends with status 5 if there is something to do"},
            {"retype shop Company --from Customer --where Vat!= --batch 10000",
             "all that meet the condition, in transactions of 10,000"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", to_, "The new table; leading parts of its name may be omitted")
        ->required()
        ->type_name("");
    app.add_option("ID", ids_, "The ids of the objects")->type_name("");
    app.add_option("--from", from_, "Instead of ids: objects of this table and derived ones")
        ->type_name("TABLE");
    app.add_flag("--only", only_, "With --from, leave out the objects of derived tables");
    app.add_option("--where", where_, "With --from, a condition on a column. Can be repeated")
        ->allow_extra_args(false)
        ->type_name("CONDITION");
    app.add_flag("--by-name", by_name_, "Keep values of columns of equal name and type too");
    AddChoice(app, "--references", references_, {"refuse", "null", "keep"},
              "What becomes of references that may not lead to the new table: refuse, null or "
              "keep. refuse by default");
    app.add_flag("--plan", plan_only_, "Show what would be lost and change nothing");
    app.add_flag("--allow-destructive", destructive_, "Also change objects that lose values");
    AddCount(app, "--batch", batch_, "Change COUNT objects in a transaction. By default all");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  sagleme::RetypeOptions Options() const;
  void CheckArguments() const;
  std::vector<sagleme::ObjectId> Objects(sagleme::Transaction& transaction) const;
  bool Show(sagleme::Transaction& transaction, std::vector<sagleme::ObjectId> const& objects,
            Output const& output) const;
  void RefuseForbidden(sagleme::RetypePlan const& plan) const;
  Exit RunInBatches(Session& session, Output& output);

  std::string to_;
  std::vector<std::string> ids_;
  std::string from_;
  bool only_ = false;
  std::vector<std::string> where_;
  bool by_name_ = false;
  std::string references_ = "refuse";
  bool plan_only_ = false;
  bool destructive_ = false;
  std::uint64_t batch_ = kAllAtOnce;
};

sagleme::RetypeOptions Retype::Options() const {
  sagleme::RetypeOptions options;
  options.by_name = by_name_;
  if (references_ == "null") options.referring = sagleme::Referring::kSetNull;
  if (references_ == "keep") options.referring = sagleme::Referring::kKeep;
  options.loss = destructive_ ? sagleme::Loss::kAllow : sagleme::Loss::kRefuse;
  return options;
}

void Retype::CheckArguments() const {
  if (batch_ == 0) {
    throw Failure(Exit::kUsage, "the option --batch needs a number of at least 1, not 0");
  }
  if (ids_.empty() == from_.empty()) {
    throw Failure(Exit::kUsage, "retype needs either the ids of objects or --from TABLE");
  }
  if (from_.empty() && (only_ || !where_.empty())) {
    throw Failure(Exit::kUsage, "--only and --where need --from TABLE");
  }
}

std::vector<sagleme::ObjectId> Retype::Objects(sagleme::Transaction& transaction) const {
  std::vector<sagleme::ObjectId> objects;
  for (std::string const& id : ids_) objects.push_back(ObjectNamed(transaction, id).id());
  if (from_.empty()) return objects;
  SearchRequest request;
  request.table = UserTableNamed(transaction, from_);
  request.only = only_;
  for (std::string const& text : where_) {
    request.where.push_back(ParseCondition(transaction, *request.table, text));
  }
  Search(transaction, request).ForEach([&](sagleme::Object const& object) {
    objects.push_back(object.id());
  });
  return objects;
}

// Returns whether there is something to do. Throws when it may not be done.
bool Retype::Show(sagleme::Transaction& transaction, std::vector<sagleme::ObjectId> const& objects,
                  Output const& output) const {
  sagleme::TablePtr const to = UserTableNamed(transaction, to_);
  auto const plan = sagleme::PlanRetype(transaction, objects, *to, Options());
  output.Print(fmt::format("{} to change\n", Counted(plan.objects, "objects")));
  for (sagleme::LostColumn const& lost : plan.lost) {
    output.Print(fmt::format("column {} of {} is lost, with {}\n", sagleme::ToUtf8(lost.column),
                             sagleme::ToUtf8(lost.table), Counted(lost.values, "values")));
  }
  for (std::size_t i = 0; i < std::min(plan.referrers.size(), kListed); ++i) {
    sagleme::Referrer const& referrer = plan.referrers[i];
    output.Print(fmt::format("object {} refers to object {} by {} of {}\n", referrer.object.value,
                             referrer.target.value, sagleme::ToUtf8(referrer.column),
                             sagleme::ToUtf8(referrer.table)));
  }
  if (plan.referrers.size() > kListed) {
    output.Print(
        fmt::format("and {}\n", Counted(plan.referrers.size() - kListed, "more references")));
  }
  output.Flush();  // nobody's objects are changed behind a plan that could not be shown
  if (!plan_only_) RefuseForbidden(plan);
  return plan.objects != 0;
}

void Retype::RefuseForbidden(sagleme::RetypePlan const& plan) const {
  if (!plan.lost.empty() && !destructive_) {
    throw Failure(Exit::kRefused, "values would be lost; nothing was changed",
                  "Use --allow-destructive if you mean it.");
  }
  if (!plan.referrers.empty() && references_ == "refuse") {
    throw Failure(Exit::kRefused,
                  "references would lead to objects of another table than their columns allow; "
                  "nothing was changed",
                  "Change them first, or use --references null or --references keep.");
  }
}

Exit Retype::RunInBatches(Session& session, Output& output) {
  session.RequireNoTransaction("retype with --batch");
  std::vector<sagleme::ObjectId> objects;
  session.Read([&](sagleme::Transaction& transaction) {
    objects = Objects(transaction);
    Show(transaction, objects, output);
  });
  InterruptGuard const guard;
  Progress progress(output, "objects", objects.size());
  sagleme::RetypeJob job;
  job.batch = batch_;
  std::uint64_t done = 0;
  job.report = [&](std::uint64_t so_far, std::uint64_t) {
    done = so_far;
    if (InterruptPending()) return false;
    progress.Update(done, done);
    return true;
  };
  std::uint64_t changed = 0;
  try {
    changed = sagleme::RetypeInBatches(session.context(), objects, Typed(to_), Options(), job);
  } catch (...) {
    if (done != 0) {
      output.Note(fmt::format("the first {} of {} are done and stay so\n", done,
                              Counted(objects.size(), "objects")));
    }
    throw;
  }
  progress.Finish(changed);
  output.Note(fmt::format("changed {}\n", Counted(changed, "objects")));
  if (!TakeInterrupt()) return Exit::kDone;
  output.Note("interrupted: what was done is kept; run retype again to go on\n");
  return Exit::kProblem;
}

Exit Retype::Run(Session& session, Output& output) {
  session.OpenToWrite();
  CheckArguments();
  if (plan_only_) {
    bool anything = false;
    session.Read([&](sagleme::Transaction& transaction) {
      anything = Show(transaction, Objects(transaction), output);
    });
    return anything ? Exit::kSomethingToDo : Exit::kDone;
  }
  if (batch_ != kAllAtOnce) return RunInBatches(session, output);
  std::uint64_t changed = 0;
  session.Write([&](sagleme::Transaction& transaction) {
    auto const objects = Objects(transaction);
    Show(transaction, objects, output);
    sagleme::TablePtr const to = UserTableNamed(transaction, to_);
    changed = sagleme::Retype(transaction, objects, *to, Options());
  });
  output.Note(fmt::format("changed {}\n", Counted(changed, "objects")));
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeRetype() { return std::make_unique<Retype>(); }

}  // namespace tool
