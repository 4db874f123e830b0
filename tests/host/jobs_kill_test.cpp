// Jobs of processes that are killed at any moment: whoever comes next finds them cut off, and ends
// with what a job that ran in one go leaves.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sagleme/check.hpp>
#include <sagleme/hierarchy.hpp>
#include <sagleme/host/dump.hpp>
#include <sagleme/host/import.hpp>
#include <sagleme/index_build.hpp>
#include <sagleme/jobs.hpp>
#include <sagleme/schema_job.hpp>
#include <sagleme/vacuum.hpp>
#include <set>
#include <sstream>

namespace jobs_kill_test {
namespace {

using sagleme::Context;
using sagleme::Database;
using sagleme::Object;
using sagleme::ObjectId;
using sagleme::Transaction;

constexpr int kObjects = 1500;
constexpr std::uint32_t kBatch = 20;
constexpr int kMostRounds = 400;

void Die(int) { kill(getpid(), SIGKILL); }

// The process ends so many microseconds from now.
void KillMeIn(std::int64_t microseconds) {
  signal(SIGALRM, Die);
  itimerval timer{};
  timer.it_value.tv_sec = microseconds / 1000000;
  timer.it_value.tv_usec = microseconds % 1000000;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

class JobsKillTest : public ::testing::Test {
 protected:
  JobsKillTest() {
    char pattern[] = "/tmp/sagleme-jobs-XXXXXX";
    directory_ = mkdtemp(pattern);
  }
  ~JobsKillTest() override { std::filesystem::remove_all(directory_); }

  std::string path(std::string const& name) const { return directory_ + "/" + name; }
  Database Open() const { return Database::Open(path("db"), {}); }

  // Thing (Name, Number) <- Special, with objects of Thing.
  void Create(int objects) {
    Database database = Database::Create(path("db"), {}, {.no_sync = true});
    Context const context(database);
    Transaction transaction(context);
    sagleme::CreateTable(transaction, u"Thing", u"",
                         {{u"Name"}, {u"Number", sagleme::Type::kLong, true}});
    sagleme::CreateTable(transaction, u"Special", u"Thing", {{u"Extra"}});
    for (int i = 0; i < objects; ++i) {
      Object thing = Object::Create(transaction, *transaction.table(u"Thing"));
      thing.Set(u"Name", u"n");
      thing.Set(u"Number", std::int64_t{i});
      ids_.push_back(thing.id());
    }
    transaction.Commit();
  }

  // Runs the work in one process after the other, each of which lives a little longer, until one
  // reaches the end. Between them the database is sound.
  void UntilDone(std::function<void()> const& work) {
    std::mt19937 random(7);
    int killed = 0;
    for (int round = 1; round <= kMostRounds; ++round) {
      std::int64_t const life = 1000 + static_cast<std::int64_t>(random() % 4000) * round;
      pid_t const child = fork();
      if (child == 0) {
        KillMeIn(life);
        try {
          work();
          _exit(0);
        } catch (std::exception const& failure) {
          fprintf(stderr, "%s\n", failure.what());
          _exit(1);
        }
      }
      int status = 0;
      waitpid(child, &status, 0);
      if (WIFEXITED(status)) {
        EXPECT_EQ(0, WEXITSTATUS(status));
        EXPECT_GT(killed, 0) << "nobody was killed";
        return;
      }
      ASSERT_EQ(SIGKILL, WTERMSIG(status));
      ++killed;
      if (round % 8 == 0) ExpectSound();
    }
    ADD_FAILURE() << "nobody reached the end";
  }
  void ExpectSound() const {
    if (!Database::ExistsIn(path("db"))) return;
    sagleme::CheckDatabase(path("db"), {}, [](sagleme::Finding const& finding) {
      ADD_FAILURE() << finding.rule << ": " << finding.what;
    });
  }
  // Goes on with what there is, or begins.
  void ResumeOr(std::function<void(Context const&)> const& begin) const {
    Database const database = Open();
    Context const context(database);
    auto const jobs = sagleme::Jobs(context);
    for (sagleme::Job const& job : jobs) {
      if (job.state != sagleme::JobState::kCutOff) throw std::runtime_error("a dead process runs");
    }
    bool resumed = false;
    for (sagleme::Job const& job : jobs) {
      if (job.kind == sagleme::JobKind::kIndexBuild && jobs.size() > 1) continue;  // of an apply
      resumed = sagleme::ResumeJob(context, job.id);
    }
    if (!resumed) begin(context);
  }
  void ExpectNoJobs() const {
    Database const database = Open();
    Context const context(database);
    for (sagleme::Job const& left : sagleme::Jobs(context)) {
      ADD_FAILURE() << "left: " << left.description << ", " << left.progress.done << " of "
                    << left.progress.total << ", " << left.reason;
    }
    ExpectSound();
  }
  std::string DumpText() const {
    Database const database = Open();
    Context const context(database);
    Transaction transaction(context, sagleme::Access::kReadOnly);
    std::string text;
    sagleme::Dump(transaction, [&](std::string_view part) { text += part; });
    return text;
  }
  // The numbers of all things, and how many objects there are.
  std::multiset<std::int64_t> Numbers(std::u16string const& table) const {
    Database const database = Open();
    Context const context(database);
    Transaction transaction(context, sagleme::Access::kReadOnly);
    auto const of = transaction.table(table);
    sagleme::Property<std::int64_t> const number(*of, u"Number");
    std::multiset<std::int64_t> numbers;
    for (Object const& object : sagleme::Range::Subtree(transaction, *of)) {
      numbers.insert(number.GetOr(object, -1));
    }
    return numbers;
  }
  static std::multiset<std::int64_t> UpTo(int end) {
    std::multiset<std::int64_t> numbers;
    for (int i = 0; i < end; ++i) numbers.insert(i);
    return numbers;
  }

  std::string directory_;
  std::vector<ObjectId> ids_;
};

TEST_F(JobsKillTest, Vacuum_MovesEachObjectAndKeepsValues) {
  Create(kObjects);
  {
    Database const database = Open();
    Context const context(database);
    Transaction transaction(context);
    sagleme::AddColumns(transaction, u"Thing", {{u"More"}});
    transaction.Commit();
  }
  std::string const before = DumpText();
  UntilDone([&] {
    ResumeOr([](Context const& context) {
      sagleme::VacuumOptions options;
      options.batch = kBatch;
      RunVacuum(context, options);
    });
  });
  ExpectNoJobs();
  EXPECT_EQ(before, DumpText());
  Database const database = Open();
  Context const context(database);
  Transaction transaction(context, sagleme::Access::kReadOnly);
  EXPECT_EQ(0u, sagleme::ObjectsToVacuum(transaction));
}

TEST_F(JobsKillTest, Import_TakesEachRowOnce) {
  Create(0);
  {
    std::ofstream file(path("things.csv"));
    file << "Name,Number\n";
    for (int i = 0; i < kObjects; ++i) file << "thing," << i << "\n";
  }
  auto const import = [&](Context const& context) {
    if (Numbers(u"Thing").size() == kObjects) return;
    sagleme::ImportOptions options;
    options.batch = kBatch;
    sagleme::ImportResult result;
    ImportFile(context, {u"Thing", path("things.csv"), {}}, options, result);
  };
  UntilDone([&] { ResumeOr(import); });  // a job may be killed behind its last batch
  ExpectNoJobs();
  EXPECT_EQ(UpTo(kObjects), Numbers(u"Thing"));
}

TEST_F(JobsKillTest, ImportAtomic_IsAllOrNothing) {
  Create(0);
  {
    std::ofstream file(path("things.csv"));
    file << "Name,Number\n";
    for (int i = 0; i < kObjects; ++i) file << "thing," << i << "\n";
  }
  UntilDone([&] {
    std::size_t const there = Numbers(u"Thing").size();
    if (there == kObjects) return;
    if (there != 0) throw std::runtime_error("a part was committed");
    Database const database = Open();
    Context const context(database);
    Transaction transaction(context);
    std::ifstream file(path("things.csv"));
    auto const rows = sagleme::OpenRows(file, {});
    sagleme::ImportResult result;
    Import(transaction, u"Thing", *rows, {}, result);
    transaction.Commit();
  });
  ExpectNoJobs();
  EXPECT_EQ(UpTo(kObjects), Numbers(u"Thing"));
}

TEST_F(JobsKillTest, Apply_MakesTheIndexOnce) {
  Create(kObjects);
  sagleme::SchemaDoc wanted;
  {
    Database const database = Open();
    Context const context(database);
    Transaction transaction(context, sagleme::Access::kReadOnly);
    wanted = sagleme::ReadSchema(transaction, true);
  }
  for (sagleme::TableDoc& table : wanted.tables) {
    if (table.name != "Thing") continue;
    sagleme::IndexDoc index;
    index.name = "ByNumber";
    index.unique = true;
    index.columns = {{"Number"}};
    table.indexes.push_back(index);
  }
  UntilDone([&] {
    ResumeOr([&](Context const& context) {
      sagleme::SchemaOptions options;
      options.objects = 10;
      options.batch = kBatch;
      ApplySchema(context, wanted, options);
    });
  });
  ExpectNoJobs();
  Database const database = Open();
  Context const context(database);
  Transaction transaction(context, sagleme::Access::kReadOnly);
  auto const index = transaction.FindIndex(u"ByNumber");
  ASSERT_TRUE(index);
  std::int64_t next = 0;
  for (Object const& thing : sagleme::Range::Matching(transaction, *index, {})) {
    EXPECT_EQ(sagleme::Value(next++), thing.Get(u"Number"));
  }
  EXPECT_EQ(kObjects, next);
}

// The table moves in the middle of it, in whichever process gets there.
TEST_F(JobsKillTest, IndexBuildOfAMovingTable_MakesTheIndexOnce) {
  Create(kObjects);
  sagleme::IndexSpec const spec{"ByNumber", "Thing", {{"Number"}}, sagleme::Uniqueness::kUnique};
  {
    Database const database = Open();
    Context const context(database);
    Transaction transaction(context);
    sagleme::CreateTable(transaction, u"Base", u"", {{u"More"}});
    transaction.Commit();
  }
  auto const move_once = [&](Database const& database) {
    Context const context(database);
    Transaction transaction(context);
    if (transaction.table(u"Thing")->base == u"Base") return;
    sagleme::SetBase(transaction, u"Thing", u"Base");
    transaction.Commit();
  };
  UntilDone([&] {
    Database const database = Open();
    Context const context(database);
    sagleme::IndexBuildOptions options;
    options.batch = kBatch;
    options.report = [&](sagleme::IndexBuildProgress const& progress) {
      if (progress.done == kObjects / 2) move_once(database);
      return true;
    };
    BuildIndex(context, spec, options);
    move_once(database);
  });
  ExpectNoJobs();
  Database const database = Open();
  Context const context(database);
  Transaction transaction(context, sagleme::Access::kReadOnly);
  EXPECT_EQ(u"Base", transaction.table(u"Thing")->base);
  auto const index = transaction.FindIndex(u"ByNumber");
  std::int64_t next = 0;
  for (Object const& thing : sagleme::Range::Matching(transaction, *index, {})) {
    EXPECT_EQ(sagleme::Value(next++), thing.Get(u"Number"));
  }
  EXPECT_EQ(kObjects, next);
}

TEST_F(JobsKillTest, Retype_KeepsValuesAndIdentities) {
  Create(kObjects);
  UntilDone([&] {
    ResumeOr([&](Context const& context) {
      sagleme::RetypeJob job;
      job.batch = kBatch;
      sagleme::RetypeInBatches(context, ids_, u"Special", {}, job);
    });
  });
  ExpectNoJobs();
  EXPECT_EQ(UpTo(kObjects), Numbers(u"Special"));
  Database const database = Open();
  Context const context(database);
  Transaction transaction(context, sagleme::Access::kReadOnly);
  for (std::size_t i = 0; i < ids_.size(); ++i) {
    EXPECT_EQ(sagleme::Value(static_cast<std::int64_t>(i)),
              Object::Find(transaction, ids_[i])->Get(u"Number"));
  }
}

// Nobody sees a part of the new database, and the next load begins anew.
TEST_F(JobsKillTest, Load_IsThereWholeOrNotAtAll) {
  Create(kObjects);
  std::string const dump = DumpText();
  std::filesystem::rename(path("db"), path("old"));
  UntilDone([&] {
    if (Database::ExistsIn(path("db"))) return;
    std::istringstream input(dump);
    sagleme::Load(path("db"), input, "dump");
  });
  ExpectNoJobs();
  EXPECT_EQ(dump, DumpText());
}

TEST_F(JobsKillTest, Check_ChangesNothing) {
  Create(kObjects);
  std::string const before = DumpText();
  UntilDone([&] {
    sagleme::CheckDatabase(path("db"), {}, [](sagleme::Finding const& finding) {
      throw std::runtime_error(finding.what);
    });
  });
  ExpectNoJobs();
  EXPECT_EQ(before, DumpText());
}

}  // namespace
}  // namespace jobs_kill_test
