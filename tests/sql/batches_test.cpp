// Definitions over many objects, made in batches: beside a writer, stopped, killed, refused.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <sagleme/index_build.hpp>
#include <sagleme/jobs.hpp>

#include "support.h"

namespace sql_tests {
namespace {

constexpr int kStepsBetweenLooks = 1000;

class BatchesTest : public testing::Test {
 protected:
  static constexpr int kRows = 12000;

  void SetUp() override {
    library_.AttachTo(sql_);
    ASSERT_EQ(sql_("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                   "WHERE i < 12000) INSERT INTO Item(Title, Year) SELECT i, i FROM n"),
              "");
  }

  static std::string Define(Sql& sql, std::string const& statement) {
    return sql("SELECT sagleme_exec('" + statement + "')");
  }
  std::string Define(std::string const& statement) { return Define(sql_, statement); }

  // Calls it between batches; true stops the work.
  void Between(Sql& sql, std::function<bool()> look) {
    look_ = std::move(look);
    auto const call = [](void* self) { return static_cast<BatchesTest*>(self)->look_() ? 1 : 0; };
    sqlite3_progress_handler(sql.handle(), kStepsBetweenLooks, call, this);
  }
  std::vector<sagleme::Job> Jobs() {
    std::vector<sagleme::Job> jobs;
    library_.Use([&](sagleme::Context const& context) { jobs = sagleme::Jobs(context); });
    return jobs;
  }

  static constexpr char kToNumber[] = "ALTER TABLE Item ALTER COLUMN Title TYPE bigint";
  static constexpr char kDone[] =
      "background   change column Title of Library.Item from string to long, in batches beside "
      "writers";

  Library library_;
  Sql sql_;
  std::function<bool()> look_;
};

TEST_F(BatchesTest, Column_TakesAnotherTypeBesideAWriter) {
  EXPECT_EQ(Define(std::string("EXPLAIN ") + kToNumber), kDone);
  Sql other;
  library_.AttachTo(other);
  int looks = 0;
  Between(sql_, [&] {
    ++looks;
    if (looks % 5 == 1) {
      EXPECT_EQ(other("UPDATE Item SET Title = '-' || Year WHERE Year = " + std::to_string(looks)),
                "");
    }
    return false;
  });
  EXPECT_EQ(Define(kToNumber), kDone);
  EXPECT_GT(looks, 12);
  EXPECT_EQ(sql_("SELECT count(*), sum(typeof(Title) = 'integer'), sum(abs(Title) = Year) "
                 "FROM Item"),
            "12000|12000|12000");
  EXPECT_EQ(sql_("SELECT sum(Title < 0) FROM Item"), std::to_string((looks - 1) / 5 + 1));
  EXPECT_EQ(sql_("SELECT Year FROM Item WHERE Title = 5000"), "5000");
  EXPECT_TRUE(Jobs().empty());
}

TEST_F(BatchesTest, InATransaction_ItIsAllOrNothing) {
  sql_("BEGIN");
  std::string const line =
      "background   change column Title of Library.Item from string to long, in this transaction";
  EXPECT_EQ(Define(std::string("EXPLAIN ") + kToNumber), line);
  EXPECT_EQ(Define(kToNumber), line);
  EXPECT_EQ(sql_("SELECT typeof(Title) FROM Item LIMIT 1"), "integer");
  EXPECT_EQ(sql_("ROLLBACK; SELECT typeof(Title) FROM Item LIMIT 1"), "text");
  sql_("SAVEPOINT s");
  EXPECT_EQ(Define(kToNumber), line);
  EXPECT_EQ(sql_("ROLLBACK TO s; RELEASE s; SELECT typeof(Title) FROM Item LIMIT 1"), "text");
}

TEST_F(BatchesTest, FewObjects_AreChangedAtOnce) {
  sql_("INSERT INTO Person(Name) VALUES('1')");
  EXPECT_EQ(Define("ALTER TABLE Person ALTER COLUMN Name TYPE bigint"),
            "background   change column Name of Library.Person from string to long");
}

TEST_F(BatchesTest, ValuesThatDoNotConvert_AreListedBeforeAnythingChanges) {
  sql_("UPDATE Item SET Title = 'x' WHERE Year = 11000");
  EXPECT_TRUE(Define(std::string("EXPLAIN ") + kToNumber).starts_with("refused "));
  int looks = 0;
  Between(sql_, [&] { return ++looks < 0; });
  std::string const refused = Define(kToNumber);
  EXPECT_TRUE(refused.starts_with("error: 1 value of column Title")) << refused;
  EXPECT_EQ(looks, 0);
  EXPECT_EQ(sql_("SELECT typeof(Title) FROM Item LIMIT 1"), "text");
  EXPECT_TRUE(Jobs().empty());
}

TEST_F(BatchesTest, StatementThatIsStopped_ContinuesWhenItIsRunAgain) {
  int looks = 0;
  Between(sql_, [&] { return ++looks > 10; });
  std::string const stopped = Define(kToNumber);
  EXPECT_TRUE(stopped.starts_with("error: The definition was stopped.")) << stopped;
  EXPECT_EQ(sql_.code(), SQLITE_INTERRUPT);
  EXPECT_EQ(sql_("SELECT typeof(Title) FROM Item LIMIT 1"), "text");
  ASSERT_EQ(Jobs().size(), 1u);
  EXPECT_EQ(Jobs().front().state, sagleme::JobState::kCutOff);
  int more = 0;
  Between(sql_, [&] { return ++more < 0; });
  EXPECT_EQ(Define(kToNumber), kDone);
  EXPECT_GT(more, 0);
  EXPECT_EQ(sql_("SELECT sum(Title = Year) FROM Item"), "12000");
  EXPECT_TRUE(Jobs().empty());
}

TEST_F(BatchesTest, ProcessThatIsKilled_LeavesAJobToResume) {
  pid_t const child = fork();
  if (child == 0) {
    Sql sql;
    library_.AttachTo(sql);
    int looks = 0;
    Between(sql, [&] { return ++looks > 10 && kill(getpid(), SIGKILL) == 0; });
    Define(sql, kToNumber);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_EQ(Jobs().size(), 1u);
  EXPECT_EQ(sql_("SELECT typeof(Title) FROM Item LIMIT 1"), "text");
  library_.Use([&](sagleme::Context const& context) {
    EXPECT_TRUE(sagleme::ResumeJob(context, sagleme::Jobs(context).front().id));
  });
  EXPECT_EQ(sql_("SELECT sum(typeof(Title) = 'integer' AND Title = Year) FROM Item"), "12000");
}

TEST_F(BatchesTest, Scan_ContinuesOverTheChange) {
  Statement scan(sql_, "SELECT Year FROM Item");
  for (int i = 1; i <= 5000; ++i) EXPECT_EQ(scan.Next(), std::to_string(i));
  EXPECT_EQ(Define(kToNumber), kDone);
  for (int i = 5001; i <= kRows; ++i) EXPECT_EQ(scan.Next(), std::to_string(i));
  EXPECT_EQ(scan.Next(), "");
}

TEST_F(BatchesTest, Index_IsBuiltBesideAWriter) {
  std::string const create = "CREATE INDEX ByPrice ON Item (Price, Year DESC)";
  std::string const line =
      "background   create index ByPrice on Library.Item, in batches beside writers";
  EXPECT_EQ(Define("EXPLAIN " + create), line);
  Sql other;
  library_.AttachTo(other);
  int looks = 0;
  Between(sql_, [&] {
    EXPECT_EQ(other("UPDATE Item SET Price = 7 WHERE Year = " + std::to_string(++looks)), "");
    return false;
  });
  EXPECT_EQ(Define(create), line);
  EXPECT_GT(looks, 0);
  EXPECT_EQ(sql_("SELECT count(*) FROM Item WHERE Price = 7"), std::to_string(looks));
  std::string const plan = sql_("EXPLAIN QUERY PLAN SELECT Year FROM Item WHERE Price = 7");
  EXPECT_NE(plan.find("ByPrice"), std::string::npos) << plan;
  EXPECT_EQ(Define("CREATE INDEX IF NOT EXISTS ByPrice ON Item (Price)"),
            "background   create index ByPrice on Library.Item");
  EXPECT_EQ(Define(create), "error: index ByPrice already exists");
}

TEST_F(BatchesTest, UniqueIndexOverDuplicates_LeavesNothing) {
  sql_("UPDATE Item SET Title = '5' WHERE Year = 9000");
  std::string const refused = Define("CREATE UNIQUE INDEX OneTitle ON Item (Title)");
  EXPECT_TRUE(refused.starts_with("error: duplicate key ")) << refused;
  EXPECT_TRUE(Jobs().empty());
  library_.Use(
      [](sagleme::Context const& context) { EXPECT_TRUE(sagleme::IndexBuilds(context).empty()); });
  EXPECT_EQ(sql_("UPDATE Item SET Title = '5' WHERE Year = 8001"), "");
  sql_("UPDATE Item SET Title = Year");
  EXPECT_EQ(Define("CREATE UNIQUE INDEX OneTitle ON Item (Title)"),
            "background   create unique index OneTitle on Library.Item, in batches beside writers");
  EXPECT_TRUE(sql_("INSERT INTO Item(Title, Year) VALUES('77', 0)").starts_with("error: UNIQUE"));
}

}  // namespace
}  // namespace sql_tests
