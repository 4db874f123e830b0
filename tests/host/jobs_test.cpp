// Jobs: what is listed of them, and how they are stopped, resumed and abandoned.

#include <lscoredb/watch.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sagleme/failure.hpp>
#include <sagleme/host/import.hpp>
#include <sagleme/jobs.hpp>
#include <sagleme/schema_job.hpp>

#include "hierarchy_test.h"
#include "work_in_thread.h"

namespace hierarchy_test {
namespace {

using sagleme::AbandonJob;
using sagleme::Job;
using sagleme::JobControl;
using sagleme::JobKind;
using sagleme::JobOptions;
using sagleme::Jobs;
using sagleme::JobState;
using sagleme::ResumeJob;
using sagleme::StopJob;
using sagleme::VacuumOptions;
using sagleme::VacuumProgress;
using sagleme_test::WorkInThread;

constexpr int kBooks = 50;

class JobsTest : public HierarchyTest {
 protected:
  JobsTest() : other_(database_) {
    Transaction transaction(context_);
    for (std::int64_t i = 0; i < kBooks; ++i) {
      books_.push_back(Make(transaction, u"Book", {{u"Title", u"t"}, {u"Pages", i}}).id());
    }
    transaction.Commit();
  }

  // Something for the vacuum: all books come under a new layout.
  void Widen() {
    Transaction transaction(context_);
    sagleme::AddColumns(transaction, u"Book", {{u"More" + std::u16string(1, letter_++)}});
    transaction.Commit();
  }
  static VacuumOptions Small(std::function<bool(VacuumProgress const&)> report = {}) {
    VacuumOptions options;
    options.batch = 10;
    options.report = std::move(report);
    return options;
  }
  static JobOptions WithoutPause() {
    JobOptions options;
    options.pause = std::chrono::milliseconds(0);
    return options;
  }
  VacuumProgress CutOffVacuum() {
    Widen();
    return RunVacuum(context_,
                     Small([](VacuumProgress const& so_far) { return so_far.moved < 20; }));
  }
  bool HasTable() {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    return transaction.Find(u"Sagleme.Internal.Job") != nullptr;
  }
  std::uint64_t Left() {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    return ObjectsToVacuum(transaction);
  }
  // Changes the recorded runner of the only job.
  void SetRunner(std::string const& runner) {
    Transaction transaction(context_);
    auto const table = transaction.table(u"Sagleme.Internal.Job");
    auto row = *sagleme::Range::Only(transaction, *table).Next();
    sagleme::Property<std::string>(*table, u"Runner").Set(row, runner);
    transaction.Commit();
  }
  std::string Runner() {
    Transaction transaction(other_, sagleme::Access::kReadOnly);
    auto const table = transaction.table(u"Sagleme.Internal.Job");
    auto const row = *sagleme::Range::Only(transaction, *table).Next();
    return sagleme::Property<std::string>(*table, u"Runner").GetOr(row, "");
  }

  sagleme::Context other_;
  Ids books_;
  char16_t letter_ = u'A';
};

TEST_F(JobsTest, WorkOfOneBatch_LeavesNoTrace) {
  EXPECT_TRUE(Jobs(context_).empty());
  Widen();
  EXPECT_EQ(static_cast<std::uint64_t>(kBooks), RunVacuum(context_).moved);
  EXPECT_FALSE(HasTable());
}

TEST_F(JobsTest, EndedVacuum_IsListedAndResumed) {
  EXPECT_EQ(20u, CutOffVacuum().moved);
  ASSERT_EQ(1u, Jobs(context_).size());
  Job const job = Jobs(context_).front();
  EXPECT_EQ(JobKind::kVacuum, job.kind);
  EXPECT_EQ(JobState::kCutOff, job.state);
  EXPECT_EQ("", job.runner);
  EXPECT_EQ("stopped", job.reason);
  EXPECT_EQ(20u, job.progress.done);
  EXPECT_EQ(50u, job.progress.total);
  EXPECT_EQ(10u, job.batch);
  std::vector<std::uint64_t> seen;
  JobOptions options;
  options.batch = 7;
  options.report = [&](sagleme::JobProgress const& progress) {
    seen.push_back(progress.done);
    return true;
  };
  EXPECT_TRUE(ResumeJob(context_, job.id, options));
  EXPECT_EQ(27u, seen.front());
  EXPECT_EQ(50u, seen.back());
  EXPECT_TRUE(Jobs(context_).empty());
  EXPECT_EQ(0u, Left());
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, StatusOf([&] { ResumeJob(context_, job.id); }));
}

TEST_F(JobsTest, Tables_AreListedAmongTheSystemsOnly) {
  CutOffVacuum();
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_TRUE(transaction.table(u"Sagleme.Internal.Job")->system);
  for (auto const& table : transaction.Tables()) {
    EXPECT_FALSE(table->name.starts_with(u"Sagleme.Internal.")) << sagleme::ToUtf8(table->name);
  }
}

TEST_F(JobsTest, NextVacuum_TakesUpTheOneThatWasCutOff) {
  CutOffVacuum();
  EXPECT_EQ(30u, RunVacuum(context_, Small()).moved);
  EXPECT_TRUE(Jobs(context_).empty());
  CutOffVacuum();
  EXPECT_EQ(30u, RunVacuum(context_).moved);  // in one batch
  EXPECT_TRUE(Jobs(context_).empty());
}

TEST_F(JobsTest, RunningJob_IsListedAndNotResumed) {
  Widen();
  int looked = 0;
  RunVacuum(context_, Small([&](VacuumProgress const& so_far) {
              if (so_far.moved != 30) return true;
              Job const job = Jobs(other_).at(0);
              EXPECT_EQ(JobState::kRunning, job.state);
              EXPECT_EQ("process " + std::to_string(getpid()), job.runner);
              EXPECT_EQ(30u, job.progress.done);
              EXPECT_EQ(LSCOREDB_IN_USE, StatusOf([&] { ResumeJob(other_, job.id); }));
              ++looked;
              return true;
            }));
  EXPECT_EQ(1, looked);
  EXPECT_TRUE(Jobs(context_).empty());
}

TEST_F(JobsTest, Control_StopsFromAnotherThreadAlsoInAPause) {
  Widen();
  JobControl control;
  control.SetPause(std::chrono::hours(1));
  VacuumOptions options = Small();
  options.control = &control;
  std::uint64_t moved = 0;
  WorkInThread vacuum([&] { moved = RunVacuum(context_, options).moved; });
  ASSERT_TRUE(vacuum.Until([&] { return !Jobs(other_).empty(); }));
  control.Stop();
  EXPECT_EQ(0u, vacuum.Status());
  EXPECT_EQ(10u, moved);
  EXPECT_EQ(JobState::kCutOff, Jobs(context_).at(0).state);
}

TEST_F(JobsTest, StopAndAbandon_EndTheRunOfAnybody) {
  Widen();
  auto const at_20 = [&](auto const& act) {
    return StatusOf([&] {
      RunVacuum(context_, Small([&](VacuumProgress const& so_far) {
                  if (so_far.moved == 20) act(Jobs(other_).at(0).id);
                  return true;
                }));
    });
  };
  EXPECT_EQ(LSCOREDB_STOPPED, at_20([&](std::uint64_t id) { StopJob(other_, id); }));
  EXPECT_EQ(30u, Left());
  EXPECT_EQ("stopped", Jobs(context_).at(0).reason);
  EXPECT_EQ(JobState::kCutOff, Jobs(context_).at(0).state);
  EXPECT_EQ(LSCOREDB_STOPPED, at_20([&](std::uint64_t id) { AbandonJob(other_, id); }));
  EXPECT_EQ(10u, Left());
  EXPECT_TRUE(Jobs(context_).empty());
}

TEST_F(JobsTest, Failure_IsTheReasonOfTheEnd) {
  Widen();
  EXPECT_THROW(RunVacuum(context_, Small([](VacuumProgress const& so_far) -> bool {
                           if (so_far.moved < 20) return true;
                           throw std::runtime_error("the reason \xFF");
                         })),
               std::runtime_error);
  EXPECT_EQ("the reason ?", Jobs(context_).at(0).reason);
  AbandonJob(context_, Jobs(context_).at(0).id);
  EXPECT_TRUE(Jobs(context_).empty());
}

// The number of a live process with another start is not the process that ran the job.
TEST_F(JobsTest, ReusedNumberOfAProcess_IsNotTakenForTheRunner) {
  Widen();
  std::string runner;
  RunVacuum(context_, Small([&](VacuumProgress const& so_far) {
              if (so_far.moved == 20) runner = Runner();
              return so_far.moved < 20;
            }));
  SetRunner(runner);  // of this process, whose run has ended
  EXPECT_EQ(JobState::kCutOff, Jobs(context_).at(0).state);
  std::string const pid = "/" + std::to_string(getpid()) + "/";
  std::string first = runner;
  first.replace(first.find(pid), pid.size(), "/1/");
  SetRunner(first);  // started at another time
  EXPECT_EQ(JobState::kCutOff, Jobs(context_).at(0).state);
  SetRunner("x" + runner.substr(0, runner.rfind('/')) + "/elsewhere");
  Job const elsewhere = Jobs(context_).at(0);
  EXPECT_EQ(JobState::kElsewhere, elsewhere.state);
  EXPECT_EQ("process " + std::to_string(getpid()) + " on elsewhere", elsewhere.runner);
  EXPECT_EQ(LSCOREDB_IN_USE, StatusOf([&] { ResumeJob(context_, elsewhere.id); }));
  JobOptions options;
  options.take_over = true;
  EXPECT_TRUE(ResumeJob(context_, elsewhere.id, options));
  EXPECT_EQ(0u, Left());
}

TEST_F(JobsTest, UnknownJob_IsRefused) {
  for (int round = 0; round < 2; ++round) {
    for (std::uint64_t const id : {std::uint64_t{0}, std::uint64_t{77777777}, books_[0].value}) {
      EXPECT_EQ(LORV_STATUS_NO_OBJECT, StatusOf([&] { ResumeJob(context_, id); }));
      EXPECT_EQ(LORV_STATUS_NO_OBJECT, StatusOf([&] { StopJob(context_, id); }));
      EXPECT_EQ(LORV_STATUS_NO_OBJECT, StatusOf([&] { AbandonJob(context_, id); }));
    }
    if (round == 0) CutOffVacuum();
  }
}

TEST_F(JobsTest, IndexBuild_IsAJobByTheNumberOfTheBuild) {
  sagleme::IndexBuildOptions options;
  options.batch = 10;
  options.report = [&](sagleme::IndexBuildProgress const& progress) {
    if (progress.done != 20) return true;
    Job const job = Jobs(other_).at(0);
    EXPECT_EQ(JobState::kRunning, job.state);
    EXPECT_EQ("building", job.step);
    EXPECT_EQ(LSCOREDB_IN_USE, StatusOf([&] { ResumeJob(other_, job.id); }));
    return false;
  };
  sagleme::IndexSpec const spec{"ByPages", "Book", {{"Pages", false}}};
  EXPECT_FALSE(BuildIndex(context_, spec, options));
  Job const job = Jobs(context_).at(0);
  EXPECT_EQ(sagleme::IndexBuilds(context_).at(0).id, job.id);
  EXPECT_EQ(JobKind::kIndexBuild, job.kind);
  EXPECT_EQ("index ByPages on Book (Pages descending)", job.description);
  EXPECT_EQ(JobState::kCutOff, job.state);
  EXPECT_EQ(20u, job.progress.done);
  EXPECT_TRUE(ResumeJob(context_, job.id));
  EXPECT_TRUE(Jobs(context_).empty());
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_EQ(50u, InIndex(transaction, u"ByPages").size());
}

TEST_F(JobsTest, StoppedBuild_EndsAndAbandonedOneIsGone) {
  sagleme::IndexBuildOptions options;
  options.batch = 10;
  options.report = [&](sagleme::IndexBuildProgress const& progress) {
    if (progress.done == 10) StopJob(other_, Jobs(other_).at(0).id);
    return true;
  };
  sagleme::IndexSpec const spec{"ByPages", "Book", {{"Pages", false}}};
  EXPECT_EQ(LSCOREDB_STOPPED, StatusOf([&] { BuildIndex(context_, spec, options); }));
  AbandonJob(context_, Jobs(context_).at(0).id);
  EXPECT_TRUE(Jobs(context_).empty());
  EXPECT_TRUE(sagleme::IndexBuilds(context_).empty());
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_TRUE(Subtree(transaction, u"Sagleme.Internal.Job").empty());
}

// Neither waits for the end of the pause.
TEST_F(JobsTest, PausedJob_IsStoppedByOthersAndByItsControl) {
  JobControl control;
  VacuumOptions options = Small();
  options.pause = std::chrono::hours(1);
  options.control = &control;
  for (bool const by_others : {true, false}) {
    Widen();
    WorkInThread vacuum([&] { RunVacuum(context_, options); });
    ASSERT_TRUE(vacuum.Until([&] { return !Jobs(other_).empty(); }));
    if (by_others) StopJob(other_, Jobs(other_).at(0).id);
    if (!by_others) control.Stop();
    EXPECT_EQ(by_others ? LSCOREDB_STOPPED : 0u, vacuum.Status());
    Job const job = Jobs(other_).at(0);
    EXPECT_EQ(JobState::kCutOff, job.state);
    EXPECT_EQ("stopped", job.reason);
    EXPECT_LT(job.progress.done, static_cast<std::uint64_t>(kBooks));
    EXPECT_TRUE(ResumeJob(context_, job.id, WithoutPause()));
    EXPECT_TRUE(Jobs(other_).empty());
  }
}

// A step of a schema's application has no row of its own in the list.
TEST_F(JobsTest, PausedColumnChangeOfAnApplication_IsStopped) {
  sagleme::SchemaDoc wanted;
  {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    wanted = sagleme::ReadSchema(transaction, true);
  }
  for (auto& table : wanted.tables) {
    for (auto& column : table.columns) {
      if (column.name == "Pages") column.type = sagleme::Type::kString;
    }
  }
  sagleme::SchemaOptions options;
  options.batch = 10;
  options.objects = 1;
  options.pause = std::chrono::hours(1);
  WorkInThread apply([&] { ApplySchema(context_, wanted, options); });
  ASSERT_TRUE(apply.Until([&] { return !Jobs(other_).empty(); }));
  StopJob(other_, Jobs(other_).at(0).id);
  EXPECT_EQ(LSCOREDB_STOPPED, apply.Status());
  Job const job = Jobs(other_).at(0);
  EXPECT_TRUE(ResumeJob(context_, job.id, WithoutPause()));
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_EQ(sagleme::Type::kString, transaction.table(u"Book")->FindColumn(u"Pages")->type);
}

TEST_F(JobsTest, Retype_GoesOnBehindTheLastBatch) {
  sagleme::RetypeJob how;
  how.batch = 10;
  how.report = [](std::uint64_t done, std::uint64_t) { return done < 30; };
  EXPECT_EQ(30u, sagleme::RetypeInBatches(context_, books_, u"Novel", {}, how));
  Job const job = Jobs(context_).at(0);
  EXPECT_EQ("objects to Novel", job.description);
  EXPECT_EQ(30u, job.progress.done);
  EXPECT_EQ(50u, job.progress.total);
  EXPECT_TRUE(ResumeJob(context_, job.id));
  EXPECT_TRUE(Jobs(context_).empty());
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_EQ(50u, Subtree(transaction, u"Novel").size());
}

TEST_F(JobsTest, ApplyWithoutIndexes_IsOneTransaction) {
  sagleme::SchemaDoc wanted;
  {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    wanted = sagleme::ReadSchema(transaction, true);
  }
  sagleme::TableDoc table;
  table.name = "New";
  wanted.tables.push_back(table);
  EXPECT_TRUE(ApplySchema(context_, wanted));
  EXPECT_FALSE(HasTable());
  wanted.tables.pop_back();
  EXPECT_THROW(ApplySchema(context_, wanted), sagleme::Failure);  // it would drop a table
  sagleme::SchemaOptions options;
  options.allow_losses = true;
  EXPECT_TRUE(ApplySchema(context_, wanted, options));
  Transaction transaction(context_, sagleme::Access::kReadOnly);
  EXPECT_EQ(nullptr, transaction.Find(u"New"));
}

// ---- imports ------------------------------------------------------------------------------------

class ImportJobsTest : public JobsTest {
 protected:
  ImportJobsTest() {
    char pattern[] = "/tmp/sagleme-jobs-XXXXXX";
    directory_ = mkdtemp(pattern);
    WriteRows(95);
  }
  ~ImportJobsTest() override { std::filesystem::remove_all(directory_); }

  std::string File() const { return directory_ + "/films.csv"; }
  void WriteRows(int rows, int bad = -1) const {
    std::ofstream file(File());
    file << "Title,Length\n";
    for (int i = 0; i < rows; ++i) file << "film " << i << "," << (i == bad ? "x" : "7") << "\n";
  }
  sagleme::FileImport What() const { return {u"Film", File(), {}}; }
  static sagleme::ImportOptions Small() {
    sagleme::ImportOptions options;
    options.batch = 10;
    return options;
  }
  // Ends behind the third batch.
  sagleme::ImportResult CutOffImport() {
    sagleme::ImportOptions options = Small();
    JobControl control;
    options.control = &control;
    options.report = [&](sagleme::TransferProgress const& progress) {
      if (progress.objects == 25) control.Stop();
    };
    sagleme::ImportResult result;
    EXPECT_FALSE(ImportFile(context_, What(), options, result));
    EXPECT_EQ(30u, result.rows);
    return result;
  }
  std::size_t Films() {
    Transaction transaction(context_, sagleme::Access::kReadOnly);
    return Subtree(transaction, u"Film").size();
  }

  std::string directory_;
};

TEST_F(ImportJobsTest, CutOffImport_IsListedAndResumed) {
  CutOffImport();
  Job const job = Jobs(context_).at(0);
  EXPECT_EQ("films.csv into Film", job.description);
  EXPECT_EQ(JobKind::kImport, job.kind);
  EXPECT_EQ(std::filesystem::file_size(File()), job.progress.total);
  EXPECT_GT(job.progress.done, 0u);
  EXPECT_TRUE(ResumeJob(context_, job.id));
  EXPECT_EQ(95u, Films());
  EXPECT_TRUE(Jobs(context_).empty());
}

TEST_F(ImportJobsTest, SecondImportOfTheFile_GoesOn) {
  CutOffImport();
  sagleme::ImportResult result;
  EXPECT_TRUE(ImportFile(context_, What(), Small(), result));
  EXPECT_EQ(30u, result.before);
  EXPECT_EQ(65u, result.objects);
  EXPECT_EQ(95u, result.rows);
  EXPECT_EQ(95u, Films());
  EXPECT_TRUE(Jobs(context_).empty());
  result = {};
  EXPECT_TRUE(ImportFile(context_, What(), Small(), result));  // the whole file once more
  EXPECT_EQ(95u, result.objects);
}

TEST_F(ImportJobsTest, ChangedFile_IsRefused) {
  CutOffImport();
  WriteRows(96);
  std::uint64_t const id = Jobs(context_).at(0).id;
  sagleme::ImportResult result;
  EXPECT_THROW(ImportFile(context_, What(), Small(), result), sagleme::Failure);
  EXPECT_THROW(ResumeJob(context_, id), sagleme::Failure);
  EXPECT_EQ(30u, Films());
  EXPECT_NE(std::string::npos, Jobs(context_).at(0).reason.find("films.csv has changed since its "
                                                                "import was cut off after 30 rows"))
      << Jobs(context_).at(0).reason;
  sagleme::ImportOptions options = Small();
  options.skip = 30;
  EXPECT_TRUE(ImportFile(context_, What(), options, result));
  EXPECT_EQ(96u, Films());
  EXPECT_TRUE(Jobs(context_).empty());
}

TEST_F(ImportJobsTest, LostFile_IsRefused) {
  CutOffImport();
  std::filesystem::remove(File());
  std::uint64_t const id = Jobs(context_).at(0).id;
  EXPECT_THROW(ResumeJob(context_, id), sagleme::Failure);
  EXPECT_NE(std::string::npos, Jobs(context_).at(0).reason.find("cannot read"));
  AbandonJob(context_, id);
  EXPECT_EQ(30u, Films());
}

TEST_F(ImportJobsTest, BadRow_IsTheReasonAndLeavesItsBatch) {
  WriteRows(95, 44);
  sagleme::ImportResult result;
  EXPECT_THROW(ImportFile(context_, What(), Small(), result), sagleme::BadRow);
  EXPECT_EQ(40u, result.rows);
  EXPECT_EQ(40u, Films());
  EXPECT_THROW(ResumeJob(context_, Jobs(context_).at(0).id), sagleme::Failure);
  EXPECT_NE(std::string::npos, Jobs(context_).at(0).reason.find("films.csv:46:"))
      << Jobs(context_).at(0).reason;
  EXPECT_EQ(40u, Films());
}

TEST_F(ImportJobsTest, RunningImport_RefusesASecondOne) {
  sagleme::ImportOptions options = Small();
  int tried = 0;
  options.report = [&](sagleme::TransferProgress const& progress) {
    if (progress.objects != 15) return;
    sagleme::ImportResult second;
    EXPECT_EQ(LSCOREDB_IN_USE, StatusOf([&] { ImportFile(other_, What(), Small(), second); }));
    ++tried;
  };
  sagleme::ImportResult result;
  EXPECT_TRUE(ImportFile(context_, What(), options, result));
  EXPECT_EQ(1, tried);
  EXPECT_EQ(95u, Films());
}

}  // namespace
}  // namespace hierarchy_test
