#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <sagleme/counts.hpp>
#include <sagleme/schema_job.hpp>
#include <sagleme/schema_plan.hpp>

#include "base/interrupt.h"
#include "base/watch.h"
#include "cli/question.h"
#include "commands/column_jobs.h"
#include "commands/commands.h"
#include "commands/files.h"
#include "commands/index_jobs.h"
#include "output/progress.h"

namespace tool {
namespace {

// Writers that change objects of tables whose columns change are waited for so often.
constexpr int kAttempts = 1000;

// What is built beside writers before the plan is applied.
struct Preparations {
  std::vector<sagleme::IndexSpec> indexes;
  std::vector<sagleme::Change> changes;
};

class ApplySchema : public Command {
 public:
  std::string name() const override { return "apply"; }
  std::string summary() const override {
    return "Change the schema of a database to the one in a file";
  }
  std::string details() const override {
    return "A table or column that is gone, where a similar one is new in its place without "
           "an id, may have been renamed. On a terminal apply asks; elsewhere it refuses until "
           "the document says so: \"was\": \"OLD NAME\" for a rename, \"was\": null for what is "
           "new.\n"
           "Indexes on tables with many objects are built before the other changes, beside writers "
           "and in small transactions, unless the plan renames, drops or moves something. So are "
           "the values of columns that move to several tables or take another type, unless the "
           "plan renames or drops something or moves a table. Ctrl-C keeps what was built; the "
           "same apply goes on with it, and \"sagleme jobs\" with an index. An index that is being "
           "built already is finished so whatever else the plan does, unless it changes the "
           "columns of the index or moves its table.";
  }
  std::vector<Example> examples() const override {
    return {{"apply shop shop.json --plan",
             "shows what would be changed; ends with status 5 if anything would"},
            {"apply shop shop.json", "makes the changes"},
            {"apply shop shop.json --atomic",
             "makes them in one transaction, indexes included, which conflicts with writers"},
            {"apply shop shop.json --allow-destructive",
             "also makes changes that lose values or objects"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("FILE", file_, "A schema document; - is standard input")
        ->required()
        ->type_name("");
    app.add_flag("--plan", plan_only_,
                 "Show the plan and change nothing. The status is 5 if there is something to do");
    app.add_flag("--allow-destructive", destructive_,
                 "Also make changes that lose values or objects");
    app.add_flag("--atomic", atomic_,
                 "Build everything inside the one transaction of all changes, not beside writers");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  sagleme::Plan MakePlan(sagleme::Transaction& transaction, sagleme::SchemaDoc const& wanted,
                         Output const& output) const;
  void SettleDoubts(sagleme::SchemaDoc const& present, sagleme::SchemaDoc& wanted,
                    Output const& output) const;
  void NoteStranger(sagleme::Transaction& transaction, sagleme::SchemaDoc const& wanted,
                    Output const& output);
  void Show(std::string const& plan, Output const& output);
  void RefuseDestructive(sagleme::Plan const& plan) const;
  Preparations FindPreparations(Session& session, sagleme::SchemaDoc const& wanted,
                                Output const& output);
  bool Prepare(Session& session, sagleme::SchemaDoc const& wanted, Output const& output);
  void ApplyOnce(Session& session, sagleme::SchemaDoc const& wanted, Output const& output);
  void ApplyInSteps(Session& session, sagleme::SchemaDoc const& wanted, Output const& output);

  std::string file_;
  bool plan_only_ = false;
  bool destructive_ = false;
  bool atomic_ = false;
  bool stranger_noted_ = false;
  bool stranger_ = false;                    // the document was written by another database
  std::string shown_;                        // the plan
  std::unique_ptr<sagleme::SchemaJob> job_;  // while something is prepared beside writers
};

// What a plan would lose refuses it when it is applied; with `refusals` the text says so.
std::string TextOf(sagleme::Transaction& transaction, sagleme::Plan const& plan, bool refusals) {
  std::string text;
  for (sagleme::Change const& change : plan) {
    std::string const refusal = refusals ? sagleme::RefusalOf(transaction, change) : "";
    std::string_view const label =
        refusal.empty() ? sagleme::LabelName(sagleme::LabelOf(change)) : "refused";
    text += fmt::format("{:<11}  {}{}{}\n", label, sagleme::DescribeChange(change),
                        refusal.empty() ? "" : ": ", refusal);
  }
  return plan.empty() ? "nothing to do\n" : text;
}

// The number of objects that the indexes of a plan read, for tables that exist under their names.
std::uint64_t ObjectsToRead(sagleme::Transaction& transaction, sagleme::Plan const& plan) {
  sagleme::ObjectCounts const counts(transaction);
  std::uint64_t objects = 0;
  for (sagleme::Change const& change : plan) {
    auto const* const index = std::get_if<sagleme::change::CreateIndex>(&change);
    auto const table = index == nullptr ? nullptr : transaction.Find(index->table);
    if (table != nullptr) objects += counts.Subtree(*table);
  }
  return objects;
}

[[noreturn]] void ThrowRefused(sagleme::Error const& error) {
  throw Failure(Exit::kRefused, std::string(error.what()) + " Nothing was changed.",
                "Use --allow-destructive to lose these values.");
}

// Makes the changes and reports the progress of indexes, each of which the kernel counts from 0.
void ApplyWithProgress(sagleme::Transaction& transaction, sagleme::Plan const& plan,
                       Output const& output) {
  Progress progress(output, "objects indexed", ObjectsToRead(transaction, plan));
  std::uint64_t before = 0;
  std::uint64_t last = 0;
  Watch const watch([&](std::uint64_t done, std::uint64_t) {
    if (done < last) before += last;
    last = done;
    progress.Update(before + done, before + done);
  });
  try {
    sagleme::ApplyPlan(transaction, plan);
  } catch (sagleme::Error const& error) {
    if (error.status() != LSCOREDB_WRONG_TYPE) throw;
    ThrowRefused(error);
  }
}

void Abandon(Session& session, sagleme::IndexSpec const& index) {
  for (sagleme::IndexBuild const& build : sagleme::IndexBuilds(session.context())) {
    if (build.index.name == index.name && build.index.table == index.table) {
      sagleme::AbandonIndexBuild(session.context(), build.id);
    }
  }
}

// Nothing if the user does not choose.
std::optional<sagleme::Reading> AskWhich(Output const& output, sagleme::Doubt const& doubt) {
  bool const tables = doubt.table.empty();
  std::string const question = fmt::format(
      "{} {}{} is gone and {} is new in its place.\n"
      "Type r if {} is its new name, n to drop the {} of {}, or nothing to stop: ",
      tables ? "Table" : "Column", doubt.gone, tables ? "" : " of " + doubt.table, doubt.come,
      doubt.come, tables ? "objects" : "values", doubt.gone);
  char const letter = AskLetter(output, question, "rn");
  if (letter == 0) return std::nullopt;
  return letter == 'r' ? sagleme::Reading::kRenamed : sagleme::Reading::kNew;
}

void ApplySchema::SettleDoubts(sagleme::SchemaDoc const& present, sagleme::SchemaDoc& wanted,
                               Output const& output) const {
  while (true) {
    auto const doubts = sagleme::FindDoubts(present, wanted);
    if (doubts.empty()) return;
    bool const can_ask = file_ != "-" && CanAsk(output);
    auto const reading = can_ask ? AskWhich(output, doubts.front()) : std::nullopt;
    if (!reading) return sagleme::RefuseDoubts(doubts, file_);
    sagleme::Settle(wanted, doubts.front(), *reading);
  }
}

sagleme::Plan ApplySchema::MakePlan(sagleme::Transaction& transaction,
                                    sagleme::SchemaDoc const& wanted, Output const& output) const {
  sagleme::SchemaDoc const present = sagleme::ReadSchema(transaction, true);
  sagleme::SchemaDoc whole = sagleme::CompletedSchema(wanted, present);
  sagleme::ValidateSchema(whole, file_);
  SettleDoubts(present, whole, output);
  sagleme::Plan plan = sagleme::CompareSchemas(present, whole);
  if (destructive_) sagleme::AllowLosses(plan);
  return plan;
}

// The ids of another database's document mean nothing here, and every difference looks like
// something to drop.
void ApplySchema::NoteStranger(sagleme::Transaction& transaction, sagleme::SchemaDoc const& wanted,
                               Output const& output) {
  std::int64_t const own = sagleme::DatabaseIdentity(transaction);
  stranger_ = wanted.database != 0 && wanted.database != own;
  if (!stranger_ || stranger_noted_) return;
  stranger_noted_ = true;
  output.Note(
      fmt::format("{} was written by another database; tables and columns are matched by "
                  "their names\n",
                  file_));
}

void ApplySchema::RefuseDestructive(sagleme::Plan const& plan) const {
  bool const any = std::any_of(plan.begin(), plan.end(), [](sagleme::Change const& change) {
    return sagleme::LabelOf(change) == sagleme::Label::kDestructive;
  });
  if (!any || destructive_) return;
  std::string const what = "the plan would lose values or objects; nothing was changed";
  throw Failure(Exit::kRefused,
                stranger_ ? file_ + " describes another database, and " + what : what,
                "Use --allow-destructive if you mean it.");
}

// Once, unless it has changed since.
void ApplySchema::Show(std::string const& plan, Output const& output) {
  if (plan == shown_) return;
  output.Print(plan);
  output.Flush();  // nobody's changes are made behind a plan that could not be shown
  shown_ = plan;
}

// A plan with doubts renames or drops something. Such a plan prepares nothing, but finishes what an
// earlier one began.
Preparations ApplySchema::FindPreparations(Session& session, sagleme::SchemaDoc const& wanted,
                                           Output const& output) {
  Preparations found;
  std::vector<sagleme::IndexBuild> const builds = sagleme::IndexBuilds(session.context());
  session.Read([&](sagleme::Transaction& transaction) {
    NoteStranger(transaction, wanted, output);
    sagleme::SchemaDoc const present = sagleme::ReadSchema(transaction, true);
    sagleme::SchemaDoc const whole = sagleme::CompletedSchema(wanted, present);
    sagleme::ValidateSchema(whole, file_);
    if (!sagleme::FindDoubts(present, whole).empty()) return;
    sagleme::Plan plan = sagleme::CompareSchemas(present, whole);
    if (destructive_) sagleme::AllowLosses(plan);
    found.indexes = sagleme::IndexesToPrepare(transaction, plan);
    if (found.indexes.empty()) {
      found.indexes = sagleme::IndexesUnderWay(transaction, plan, builds);
    }
    found.changes = sagleme::ChangesToPrepare(transaction, plan);
    if (found.indexes.empty() && found.changes.empty()) return;
    Show(TextOf(transaction, plan, false), output);
    RefuseDestructive(plan);
  });
  return found;
}

// A unique index that cannot be made leaves nothing behind, like any other change.
void PrepareOne(Session& session, sagleme::IndexSpec const& index, Output const& output) {
  try {
    WatchBuild(output, sagleme::ToUtf8(index.name), {},
               [&](sagleme::IndexBuildOptions const& options) {
                 return sagleme::PrepareIndex(session.context(), index, options);
               });
  } catch (sagleme::Error const& error) {
    if (error.status() == LSCOREDB_DUPLICATE_KEY) Abandon(session, index);
    throw;
  }
}

// Neither does a change that would lose values. The last batches belong to the plan itself.
void PrepareAll(Session& session, std::vector<sagleme::Change> const& changes,
                Output const& output) {
  for (sagleme::Change const& change : changes) {
    try {
      WatchChange(output, change, [&](sagleme::ColumnChangeOptions const& options) {
        return sagleme::PrepareChange(session.context(), change, options);
      });
    } catch (sagleme::Error const& error) {
      if (error.status() != LSCOREDB_WRONG_TYPE) throw;
      for (sagleme::Change const& each : changes) sagleme::AbandonChange(session.context(), each);
      ThrowRefused(error);
    }
  }
}

// Whether changes of columns were prepared, whose objects writers may change until the plan is
// applied.
bool ApplySchema::Prepare(Session& session, sagleme::SchemaDoc const& wanted,
                          Output const& output) {
  Preparations const found = FindPreparations(session, wanted, output);
  std::size_t const steps = found.indexes.size() + (found.changes.empty() ? 0 : 1);
  if (steps != 0 && job_ == nullptr) {
    job_ = std::make_unique<sagleme::SchemaJob>(session.context(), wanted, destructive_, steps + 1);
  }
  for (sagleme::IndexSpec const& index : found.indexes) {
    PrepareOne(session, index, output);
    job_->Step();
  }
  PrepareAll(session, found.changes, output);
  return !found.changes.empty();
}

void ApplySchema::ApplyOnce(Session& session, sagleme::SchemaDoc const& wanted,
                            Output const& output) {
  session.Write([&](sagleme::Transaction& transaction) {
    NoteStranger(transaction, wanted, output);
    sagleme::Plan const plan = MakePlan(transaction, wanted, output);
    Show(TextOf(transaction, plan, false), output);
    RefuseDestructive(plan);
    if (!plan.empty()) ApplyWithProgress(transaction, plan, output);
    if (job_ != nullptr) job_->Finish(transaction);
  });
}

void ApplySchema::ApplyInSteps(Session& session, sagleme::SchemaDoc const& wanted,
                               Output const& output) {
  for (int attempt = 1;; ++attempt) {
    bool const beside = !atomic_ && !session.in_transaction() && Prepare(session, wanted, output);
    try {
      return ApplyOnce(session, wanted, output);
    } catch (sagleme::Error const& error) {
      if (error.status() != LSCOREDB_CONFLICT || !beside || attempt == kAttempts) throw;
    }
  }
}

Exit ApplySchema::Run(Session& session, Output& output) {
  sagleme::SchemaDoc const wanted = sagleme::ParseSchema(ReadFile(file_), file_);
  if (plan_only_) {
    bool anything = false;
    session.Read([&](sagleme::Transaction& transaction) {
      NoteStranger(transaction, wanted, output);
      sagleme::Plan const plan = MakePlan(transaction, wanted, output);
      output.Print(TextOf(transaction, plan, true));
      anything = !plan.empty();
    });
    return anything ? Exit::kSomethingToDo : Exit::kDone;
  }
  try {
    ApplyInSteps(session, wanted, output);
  } catch (Interrupted const&) {
    job_.reset();  // to be resumed
    throw;
  } catch (std::exception const&) {
    if (job_ != nullptr) job_->Abandon();  // what is refused is no job to go on with
    throw;
  }
  job_.reset();
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeApply() { return std::make_unique<ApplySchema>(); }

}  // namespace tool
