// Changes of columns in batches, beside writers, abandoned and killed.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <sagleme/annotations.hpp>
#include <sagleme/check.hpp>
#include <sagleme/column_changes.hpp>
#include <sagleme/vacuum.hpp>

#include "status_of.h"

namespace {

using sagleme::ColumnChangeOptions;
using sagleme::ColumnChangeProgress;
using sagleme::ColumnSpec;
using sagleme::Context;
using sagleme::Database;
using sagleme::Object;
using sagleme::Text;
using sagleme::Transaction;
using sagleme::Type;
using sagleme::Value;

constexpr std::int64_t kObjects = 500;
std::array<Text, 2> const kDown{u"L.Film", u"L.Book"};

void MakeTables(Context const& context) {
  Transaction transaction(context);
  sagleme::CreateTable(transaction, u"L.Item", u"", {{u"Title", Type::kString}});
  sagleme::CreateTable(transaction, u"L.Book", u"L.Item", {{u"Pages", Type::kLong}});
  sagleme::CreateTable(transaction, u"L.Novel", u"L.Book", {{u"Genre", Type::kString}});
  sagleme::CreateTable(transaction, u"L.Film", u"L.Item", {{u"Pages", Type::kLong}});
  sagleme::CreateIndex(transaction, u"ByTitle", u"L.Item", {{u"Title", true}},
                       sagleme::Uniqueness::kUnique);
  for (std::int64_t i = 0; i < kObjects; ++i) {
    Text const table = i % 2 == 0 ? u"L.Film" : i % 3 == 0 ? u"L.Book" : u"L.Novel";
    Object object = Object::Create(transaction, *transaction.table(table));
    object.Set(u"Title", std::to_string(i));
    object.Set(u"Pages", i);
  }
  transaction.Commit();
}

// The titles and pages of all objects, which tell each other.
void ExpectValues(Context const& context, std::int64_t count) {
  Transaction transaction(context, sagleme::Access::kReadOnly);
  std::int64_t seen = 0;
  for (Object const& object : sagleme::Range::Subtree(transaction, *transaction.table(u"L.Item"))) {
    EXPECT_EQ(sagleme::ToUtf8(std::get<std::u16string>(object.Get(u"Title"))),
              std::to_string(std::get<std::int64_t>(object.Get(u"Pages"))));
    ++seen;
  }
  EXPECT_EQ(count, seen);
  sagleme::CheckCatalogue(transaction, {}, [](sagleme::Finding const& finding) {
    ADD_FAILURE() << finding.rule << " " << finding.table << ": " << finding.what;
  });
  for (auto const& table : transaction.Tables()) {
    EXPECT_EQ(nullptr, table->FindColumn(u"__next_Pages"));
    EXPECT_EQ(nullptr, table->FindColumn(u"__next_Title"));
  }
}

void ExpectType(Context const& context, Type type) {
  Transaction transaction(context, sagleme::Access::kReadOnly);
  EXPECT_EQ(type, transaction.table(u"L.Novel")->GetColumn(u"Pages").type);
}

// A value that nobody has yet, in an object from before or a new one.
void Write(Context const& context, std::int64_t number, bool fresh) {
  Transaction transaction(context);
  auto const film = transaction.table(u"L.Film");
  std::optional<Object> object;
  if (fresh) {
    object = Object::Create(transaction, *film);
  } else {
    for (Object const& each : sagleme::Range::Only(transaction, *film)) object = each;
  }
  if (film->GetColumn(u"Title").type == Type::kString)
    object->Set(u"Title", std::to_string(number));
  object->Set(u"Pages", number);
  transaction.Commit();
}

class ColumnJobsTest : public ::testing::Test {
 protected:
  ColumnJobsTest() : database_(Database::InMemory()), context_(database_), other_(database_) {
    MakeTables(context_);
  }
  // Changes an object and makes another one after some batches.
  ColumnChangeOptions BesideAWriter() {
    ColumnChangeOptions options;
    options.batch = 20;
    options.report = [this](ColumnChangeProgress const& progress) {
      EXPECT_LE(progress.done, progress.total);
      if (++reports_ % 4 == 1) {
        Write(other_, kObjects + reports_, true);
        Write(other_, 10 * kObjects + reports_, false);
        ++made_;
      }
      return true;
    };
    return options;
  }

  Database database_;
  Context context_;
  Context other_;
  std::int64_t reports_ = 0;
  std::int64_t made_ = 0;
};

TEST_F(ColumnJobsTest, EachChange_BesideAWriter_MissesNothing) {
  EXPECT_TRUE(sagleme::RunPullUpColumn(context_, u"L.Book", u"Pages", u"L.Item", BesideAWriter()));
  EXPECT_LT(0, made_);
  ExpectValues(context_, kObjects + made_);
  EXPECT_TRUE(sagleme::RunPushDownColumn(context_, u"L.Item", u"Pages", kDown, BesideAWriter()));
  ExpectValues(context_, kObjects + made_);
  EXPECT_TRUE(sagleme::RunChangeColumnType(context_, u"L.Book", {u"Pages", Type::kString},
                                           BesideAWriter()));
  EXPECT_TRUE(
      sagleme::RunChangeColumnType(context_, u"L.Book", {u"Pages", Type::kLong}, BesideAWriter()));
  ExpectValues(context_, kObjects + made_);
  sagleme::RunVacuum(context_);
  ExpectValues(context_, kObjects + made_);
}

TEST_F(ColumnJobsTest, UniqueIndex_IsBuiltAnewAtTheEnd) {
  ColumnChangeOptions options;
  options.batch = 50;
  EXPECT_TRUE(sagleme::RunChangeColumnType(context_, u"L.Item", {u"Title", Type::kULong}, options));
  Transaction transaction(context_);
  auto const index = transaction.FindIndex(u"ByTitle");
  int found = 0;
  for (Object const& each : sagleme::Range::Matching(transaction, *index, {std::uint64_t{77}})) {
    EXPECT_EQ(Value(std::int64_t{77}), each.Get(u"Pages"));
    ++found;
  }
  EXPECT_EQ(1, found);
}

// A comment and a default of the column that the table declares.
void ExpectAnnotations(Context const& context, Text const& table, Value const& standard) {
  Transaction transaction(context, sagleme::Access::kReadOnly);
  auto const owner = transaction.table(table);
  auto const& column = owner->GetColumn(u"Pages");
  EXPECT_FALSE(column.inherited);
  EXPECT_EQ("how long it is", sagleme::CommentOf(transaction, *owner, column));
  EXPECT_EQ(standard, sagleme::DefaultOf(transaction, *owner, column));
}

TEST_F(ColumnJobsTest, AnnotationsOfTheColumn_GoWithIt) {
  {
    Transaction transaction(context_);
    auto const book = transaction.table(u"L.Book");
    sagleme::SetComment(transaction, *book, u"Pages", "how long it is");
    sagleme::SetDefault(transaction, *book, u"Pages", std::int64_t{7});
    transaction.Commit();
  }
  Value const seven = std::int64_t{7};
  EXPECT_TRUE(sagleme::RunPullUpColumn(context_, u"L.Book", u"Pages", u"L.Item"));
  ExpectAnnotations(context_, u"L.Item", seven);
  EXPECT_TRUE(sagleme::RunPushDownColumn(context_, u"L.Item", u"Pages", kDown));
  ExpectAnnotations(context_, u"L.Book", seven);
  ExpectAnnotations(context_, u"L.Film", seven);
  EXPECT_TRUE(sagleme::RunChangeColumnType(context_, u"L.Film", {u"Pages", Type::kString}));
  ExpectAnnotations(context_, u"L.Film", "7");
  Transaction transaction(context_);
  EXPECT_EQ(4u, sagleme::Annotations(transaction).size());
}

TEST_F(ColumnJobsTest, ColumnThatBecomesNullable_KeepsZerosThatNobodyWrote) {
  {
    Transaction transaction(context_);
    sagleme::AddColumns(transaction, u"L.Film", {{u"Count", Type::kLong, false}});
    sagleme::CreateIndex(transaction, u"ByCount", u"L.Film", {{u"Count", true}});
    transaction.Commit();
  }
  ColumnChangeOptions options;
  options.batch = 50;
  std::uint64_t batches = 0;
  options.report = [&](ColumnChangeProgress const&) { return ++batches > 0; };
  EXPECT_TRUE(
      sagleme::RunChangeColumnType(context_, u"L.Film", {u"Count", Type::kLong, true}, options));
  EXPECT_LT(2u, batches);
  sagleme::RunVacuum(context_);
  Transaction transaction(context_);
  std::int64_t found = 0;
  auto const index = transaction.FindIndex(u"ByCount");
  for (Object const& each : sagleme::Range::Matching(transaction, *index, {std::int64_t{0}})) {
    EXPECT_EQ(Value(std::int64_t{0}), each.Get(u"Count"));
    ++found;
  }
  EXPECT_EQ(kObjects / 2, found);
}

TEST_F(ColumnJobsTest, Abandoned_LeavesNothing) {
  ColumnChangeOptions options;
  options.batch = 20;
  options.report = [](ColumnChangeProgress const& progress) { return progress.done < 60; };
  EXPECT_FALSE(sagleme::RunPullUpColumn(context_, u"L.Book", u"Pages", u"L.Item", options));
  EXPECT_FALSE(
      sagleme::RunChangeColumnType(context_, u"L.Book", {u"Pages", Type::kString}, options));
  ExpectValues(context_, kObjects);
}

TEST_F(ColumnJobsTest, ValuesThatDoNotConvert_RefuseItBeforeTheFirstBatch) {
  {
    Transaction transaction(context_);
    Object::Create(transaction, *transaction.table(u"L.Item")).Set(u"Title", "no number");
    transaction.Commit();
  }
  ColumnChangeOptions options;
  options.report = [](ColumnChangeProgress const&) -> bool { throw std::logic_error("a batch"); };
  EXPECT_EQ(LSCOREDB_WRONG_TYPE, StatusOf([&] {
              sagleme::RunChangeColumnType(context_, u"L.Item", {u"Title", Type::kLong}, options);
            }));
}

TEST_F(ColumnJobsTest, CutOff_IsFinishedByTheChangeItselfOrTakenBack) {
  struct CutOff {};
  ColumnChangeOptions options;
  options.batch = 20;
  options.report = [](ColumnChangeProgress const&) -> bool { throw CutOff(); };
  ColumnSpec const wanted{u"Pages", Type::kString};
  EXPECT_THROW(sagleme::RunChangeColumnType(context_, u"L.Book", wanted, options), CutOff);
  {
    Transaction transaction(context_);
    EXPECT_NE(nullptr, transaction.table(u"L.Book")->FindColumn(u"__next_Pages"));
    sagleme::AbandonColumnChange(transaction, u"L.Item", u"Pages");
    transaction.Commit();
  }
  ExpectValues(context_, kObjects);
  EXPECT_THROW(sagleme::RunChangeColumnType(context_, u"L.Book", wanted, options), CutOff);
  {
    Transaction transaction(context_);
    sagleme::ChangeColumnType(transaction, u"L.Book", wanted);
    sagleme::ChangeColumnType(transaction, u"L.Book", {u"Pages", Type::kLong});
    transaction.Commit();
  }
  ExpectValues(context_, kObjects);
}

// A type change that is stopped after a batch.
bool StopAfterABatch(Context const& context) {
  sagleme::JobControl control;
  ColumnChangeOptions options;
  options.batch = 20;
  options.control = &control;
  options.report = [&](ColumnChangeProgress const&) {
    control.Stop();
    return true;
  };
  return sagleme::RunChangeColumnType(context, u"L.Book", {u"Pages", Type::kString}, options);
}

TEST_F(ColumnJobsTest, Stopped_IsListedAndResumed) {
  EXPECT_FALSE(StopAfterABatch(context_));
  std::vector<sagleme::Job> const jobs = sagleme::Jobs(context_);
  ASSERT_EQ(1u, jobs.size());
  EXPECT_EQ(sagleme::JobKind::kColumnChange, jobs[0].kind);
  EXPECT_EQ("change column Pages of L.Book to string", jobs[0].description);
  EXPECT_EQ(sagleme::JobState::kCutOff, jobs[0].state);
  EXPECT_EQ(20u, jobs[0].progress.done);
  EXPECT_TRUE(sagleme::ResumeJob(context_, jobs[0].id));
  EXPECT_TRUE(sagleme::Jobs(context_).empty());
  ExpectType(context_, Type::kString);
}

TEST_F(ColumnJobsTest, Stopped_IsContinuedByTheSameCallAndAbandoned) {
  EXPECT_FALSE(StopAfterABatch(context_));
  EXPECT_FALSE(StopAfterABatch(context_));
  ASSERT_EQ(1u, sagleme::Jobs(context_).size());
  sagleme::AbandonJob(context_, sagleme::Jobs(context_)[0].id);
  EXPECT_TRUE(sagleme::Jobs(context_).empty());
  ExpectValues(context_, kObjects);
  ExpectType(context_, Type::kLong);
}

TEST_F(ColumnJobsTest, EveryKind_IsResumed) {
  sagleme::JobControl stopped;
  stopped.Stop();
  ColumnChangeOptions options;
  options.batch = 20;
  options.control = &stopped;
  EXPECT_FALSE(sagleme::RunPullUpColumn(context_, u"L.Book", u"Pages", u"L.Item", options));
  ASSERT_EQ(1u, sagleme::Jobs(context_).size());
  EXPECT_TRUE(sagleme::ResumeJob(context_, sagleme::Jobs(context_)[0].id));
  ExpectValues(context_, kObjects);
  EXPECT_FALSE(sagleme::RunPushDownColumn(context_, u"L.Item", u"Pages", kDown, options));
  ASSERT_EQ(1u, sagleme::Jobs(context_).size());
  EXPECT_EQ("push column Pages of L.Item down to L.Film, L.Book",
            sagleme::Jobs(context_)[0].description);
  EXPECT_TRUE(sagleme::ResumeJob(context_, sagleme::Jobs(context_)[0].id));
  ExpectValues(context_, kObjects);
}

TEST(ColumnJobsKillTest, KilledAfterEachBatch_GoesOnAndEnds) {
  std::string directory = (std::filesystem::temp_directory_path() / "sagleme-jobs-XXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(directory.data()));
  std::string const place = directory + "/db";
  {
    Database const database = Database::Create(place);
    MakeTables(Context(database));
  }
  std::uint64_t kills = 0;
  for (bool ended = false; !ended;) {
    pid_t const child = fork();
    if (child == 0) {
      Database const database = Database::Open(place);
      Context const context(database);
      int batches = 0;
      ColumnChangeOptions options;
      options.batch = 60;
      options.report = [&](ColumnChangeProgress const&) {
        if (++batches == 2) raise(SIGKILL);
        return true;
      };
      bool const made = sagleme::RunPullUpColumn(context, u"L.Book", u"Pages", u"L.Item", options);
      _exit(made ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ended = WIFEXITED(status);
    if (ended) {
      EXPECT_EQ(0, WEXITSTATUS(status));
    }
    kills += ended ? 0 : 1;
    ASSERT_LT(kills, 20u);
  }
  EXPECT_LT(2u, kills);
  {
    Database const database = Database::Open(place);
    ExpectValues(Context(database), kObjects);
  }
  std::filesystem::remove_all(directory);
}

}  // namespace
