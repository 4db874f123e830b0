// Long seeded runs of schema changes and object operations on a database, against the model.
//
// Transactions are committed and rolled back, and rolled back to savepoints, which nest.
//
// A run is cut into legs. Each leg is a process of its own: it replays the model up to its start,
// without a database, opens what the leg before it left, and goes on. What has to be
// carried over beside the seed are the identities that the database gave out.
//
// SAGLEME_MODEL_STEPS and SAGLEME_MODEL_SEEDS give longer and more runs, SAGLEME_MODEL_FIRST_SEED
// the first seed.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <deque>

#include "model/generator.h"
#include "model/session.h"

namespace sagleme_model {

namespace {

std::uint64_t FromEnvironment(char const* name, std::uint64_t otherwise) {
  char const* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// Where a run is cut: another place for each seed and leg.
std::size_t StepsOfLeg(std::uint64_t seed, std::size_t leg) {
  std::mt19937_64 random(seed * 1000 + leg);
  return 50 + random() % 400;
}

constexpr std::size_t kRemembered = 60;  // operations reported of a run that failed

enum class StepKind { kOperation, kCommit, kRollback, kSavepoint, kRollbackTo, kRelease };

struct Step {
  StepKind kind = StepKind::kOperation;
  Operation operation;
  Outcome expected;
  bool clean = true;  // false: a failure that leaves a part of its change until the rollback
  Model before;
  std::size_t savepoint = 0;  // which of the open ones
};

// The model's side of a run: what comes next, and what it must answer.
class Script {
 public:
  explicit Script(std::uint64_t seed) : generator_(seed) {}

  Model const& model() const { return model_; }

  Step Next() {
    if (must_roll_back_ || generator_.Chance(6)) return RollBackSomewhere();
    if (generator_.Chance(8)) return Commit();
    if (savepoints_.size() < kMostSavepoints && generator_.Chance(6)) return SetSavepoint();
    if (!savepoints_.empty() && generator_.Chance(4)) return Release();
    Step step;
    step.operation = generator_.Draw(model_);
    step.before = model_;
    step.expected = Expect(model_, step.operation, &step.clean);
    must_roll_back_ = !step.clean;
    return step;
  }

  // Ends the transaction at the end of a leg.
  Step End() { return must_roll_back_ ? RollBack() : Commit(); }

 private:
  Step Commit() {
    model_.Commit();
    committed_ = model_;
    savepoints_.clear();
    Step step;
    step.kind = StepKind::kCommit;
    return step;
  }

  Step RollBack() {
    Restore(committed_);
    savepoints_.clear();
    Step step;
    step.kind = StepKind::kRollback;
    return step;
  }

  Step RollBackSomewhere() {
    if (savepoints_.empty() || generator_.Chance(40)) return RollBack();
    Step step;
    step.kind = StepKind::kRollbackTo;
    step.savepoint = AnySavepoint();
    savepoints_.resize(step.savepoint + 1);
    Restore(savepoints_.back());
    return step;
  }

  Step SetSavepoint() {
    savepoints_.push_back(model_);
    Step step;
    step.kind = StepKind::kSavepoint;
    return step;
  }

  Step Release() {
    Step step;
    step.kind = StepKind::kRelease;
    step.savepoint = AnySavepoint();
    savepoints_.resize(step.savepoint);
    return step;
  }

  std::size_t AnySavepoint() {
    std::size_t number = savepoints_.size() - 1;
    while (number > 0 && generator_.Chance(40)) --number;
    return number;
  }

  void Restore(Model restored) {
    restored.SkipRowsOf(model_);
    model_ = std::move(restored);
    must_roll_back_ = false;
  }

  static constexpr std::size_t kMostSavepoints = 4;

  Generator generator_;
  Model model_;
  Model committed_;
  std::vector<Model> savepoints_;  // as it was at each that is open
  bool must_roll_back_ = false;
};

struct Run {
  std::uint64_t seed;
  std::size_t leg;
  std::size_t first_step;  // of the leg
  std::string place;
  std::filesystem::path identities;
};

// The database's side of one leg.
class Leg {
 public:
  Leg(Run const& run, Script& script) : run_(run), script_(script), database_(run.place) {}

  // Returns what is wrong, nothing when all is well.
  std::string Play() {
    Open();
    if (differences_.empty()) CompareAll();
    std::size_t const steps = StepsOfLeg(run_.seed, run_.leg);
    for (std::size_t i = 0; i < steps && differences_.empty(); ++i) Take(script_.Next());
    if (differences_.empty()) Take(script_.End());
    session_.identities().Save(run_.identities);
    *metalayer::TlsMetalayerContext::Current() = 0;
    return differences_.empty() ? std::string() : differences_.text() + History();
  }

 private:
  void Open() {
    if (run_.leg == 0) {
      differences_.Same("status of the bootstrap", 0u, database_.Bootstrap());
      database_.Begin();
    } else {
      session_.identities() = Identities::Load(run_.identities);
      database_.Begin();
      differences_.Same("status of the start", 0u, lorv_init_metalayer(session_.context()));
    }
    *metalayer::TlsMetalayerContext::Current() = session_.context();
  }

  void Take(Step const& step) {
    ++steps_;
    switch (step.kind) {
      case StepKind::kOperation:
        return TakeOperation(step);
      case StepKind::kCommit:
        Remember("commit");
        differences_.Same("status of the commit", 0u, lscoredb_commit(session_.context()));
        break;
      case StepKind::kRollback:
        Remember("roll back");
        differences_.Same("status of the rollback", 0u, lscoredb_rollback(session_.context()));
        break;
      default:
        return TakeSavepointStep(step);
    }
    savepoints_.clear();
    database_.Begin();
    differences_.Same("status of the refresh", 0u, session_.RefreshHandles());
    CompareAll();
  }

  void TakeSavepointStep(Step const& step) {
    std::uint64_t const context = session_.context();
    std::string const which = std::to_string(step.savepoint);
    if (step.kind == StepKind::kSavepoint) {
      Remember("savepoint " + std::to_string(savepoints_.size()));
      differences_.Same("status of the savepoint", 0u,
                        lscoredb_savepoint(context, &savepoints_.emplace_back()));
    } else if (step.kind == StepKind::kRelease) {
      Remember("release " + which);
      differences_.Same("status of the release", 0u,
                        lscoredb_release(context, savepoints_.at(step.savepoint)));
      savepoints_.resize(step.savepoint);
    } else {
      Remember("roll back to " + which);
      differences_.Same("status of the rollback", 0u,
                        lscoredb_rollback_to(context, savepoints_.at(step.savepoint)));
      savepoints_.resize(step.savepoint + 1);
      differences_.Same("status of the refresh", 0u, session_.RefreshHandles());
      CompareAll();
    }
  }

  void TakeOperation(Step const& step) {
    std::string const what = Describe(step.operation);
    Remember(what + " -> " + std::to_string(step.expected.status));
    Outcome const found = session_.Run(step.before, step.operation);
    differences_.Same(what + ", status", step.expected.status, found.status);
    if (step.expected.text) differences_.Same(what + ", text", *step.expected.text, *found.text);
    if (step.expected.made != 0) session_.identities().Learn(step.expected.made, found.made);
    if (!differences_.empty() || !step.clean) return;
    differences_.Same("status of the refresh", 0u, session_.RefreshHandles());
    session_.CompareCatalogue(script_.model(), differences_);
    if (steps_ % 8 == 0) session_.CompareObjects(script_.model(), differences_);
  }

  void CompareAll() {
    session_.CompareCatalogue(script_.model(), differences_);
    session_.CompareObjects(script_.model(), differences_);
  }

  void Remember(std::string const& line) {
    history_.push_back(std::to_string(run_.first_step + steps_) + " " + line);
    if (history_.size() > kRemembered) history_.pop_front();
  }

  std::string History() const {
    std::string text = "seed " + std::to_string(run_.seed) + ", leg " + std::to_string(run_.leg) +
                       ", the last steps:\n";
    for (std::string const& line : history_) text += "    " + line + "\n";
    return text;
  }

  Run const& run_;
  Script& script_;
  sagleme_test::Database database_;
  Session session_{database_};
  Differences differences_;
  std::deque<std::string> history_;
  std::vector<std::uint64_t> savepoints_;  // the database's numbers of those that are open
  std::size_t steps_ = 0;
};

void Replay(Script& script, Run const& run) {
  for (std::size_t leg = 0; leg < run.leg; ++leg) {
    std::size_t const steps = StepsOfLeg(run.seed, leg);
    for (std::size_t i = 0; i < steps; ++i) script.Next();
    script.End();
  }
}

int PlayLeg(Run const& run) {
  Script script(run.seed);
  Replay(script, run);
  std::string wrong;
  {
    Leg leg(run, script);
    wrong = leg.Play();
  }
  if (!wrong.empty()) std::fprintf(stderr, "%s", wrong.c_str());
  return wrong.empty() && !::testing::Test::HasFailure() ? 0 : 1;
}

void PlaySeed(std::uint64_t seed, std::size_t steps) {
  sagleme_test::TemporaryDirectory directory;
  Run run{seed, 0, 0, sagleme_test::NewPlace(directory.path() + "/database"),
          directory.path() + "/identities"};
  while (run.first_step < steps) {
    ASSERT_EQ(0, sagleme_test::InChildProcess([&] { return PlayLeg(run); }))
        << "seed " << seed << ", leg " << run.leg;
    run.first_step += StepsOfLeg(seed, run.leg++);
  }
}

class ModelRunTest : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(ModelRunTest, DatabaseAndModel_AgreeAtEveryStep) {
  std::uint64_t const first = FromEnvironment("SAGLEME_MODEL_FIRST_SEED", 1);
  std::uint64_t const seeds = FromEnvironment("SAGLEME_MODEL_SEEDS", 1);
  std::size_t const steps = FromEnvironment("SAGLEME_MODEL_STEPS", 1500);
  for (std::uint64_t i = 0; i < seeds; ++i) {
    PlaySeed(first + GetParam() + i * 1000, steps);
    if (HasFatalFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelRunTest, ::testing::Range<std::uint64_t>(0, 10));

}  // namespace

}  // namespace sagleme_model
