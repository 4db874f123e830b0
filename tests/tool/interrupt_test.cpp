// Ctrl-C during long work of the database itself. The signal comes before the work begins, which is
// the only moment that does not depend on how fast it is.

#include "base/interrupt.h"

#include <lscoredb/watch.h>

#include <csignal>
#include <filesystem>
#include <sagleme/check.hpp>
#include <sagleme/host.hpp>
#include <sagleme/host/dump.hpp>
#include <sagleme/index_build.hpp>
#include <sstream>
#include <vector>

#include "cli/parser.h"
#include "cli/run.h"
#include "cli/session.h"
#include "run_tool.h"

namespace tool_test {
namespace {

class InterruptTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    std::string rows = "Name\n";
    for (int i = 0; i < 2000; ++i) rows += "Person " + std::to_string(i) + "\n";
    On("import", {"Person", "-"}, 0, rows);
  }
  void TearDown() override { tool::TakeInterrupt(); }

  // Runs a line as the prompt does, with Ctrl-C pressed before it.
  static void ExpectInterrupted(tool::Session& session, std::vector<std::string> const& words) {
    tool::Output output = tool::StandardOutput();
    tool::Parser parser(output, nullptr);
    tool::Command* const command = parser.Parse(words);
    std::raise(SIGINT);
    EXPECT_THROW(tool::Guarded(output, [&] { return command->Run(session, output); }),
                 tool::Interrupted);
    EXPECT_TRUE(tool::TakeInterrupt());
  }

  static void IndexByHeight(sagleme::Transaction& transaction) {
    std::vector<sagleme::IndexColumnSpec> const columns{{u"Height"}};
    CreateIndex(transaction, u"ByHeight", u"App.Person", columns);
  }

  tool::InterruptGuard guard_;
};

TEST_F(InterruptTest, Check_IsStopped) {
  tool::Session session(database());
  ExpectInterrupted(session, {"check"});
  session.Begin();
  ExpectInterrupted(session, {"check"});
  session.Rollback();
  EXPECT_EQ("no problems found\n", On("check").err);
}

TEST_F(InterruptTest, Copy_LeavesNothing) {
  tool::Session session(database());
  ExpectInterrupted(session, {"copy", Path("other")});
  EXPECT_FALSE(std::filesystem::exists(Path("other")));
  EXPECT_FALSE(std::filesystem::exists(Path("other.copying")));
  On("copy", {Path("other")});
  EXPECT_EQ("2000\n", RunTool({"count", Path("other"), "Person"}).out);
}

TEST_F(InterruptTest, Apply_LeavesTheSchemaAsItWas) {
  std::string wanted = kLibrary;
  std::string const first = R"("indexes": [)";
  wanted.insert(wanted.rfind(first) + first.size(),
                R"({"name": "ByHeight", "columns": ["Height"]},)");
  std::string const file = Write("wanted.json", wanted);
  std::string const before = On("schema").out;
  tool::Session session(database());
  ExpectInterrupted(session, {"apply", file});
  EXPECT_EQ(before, On("schema").out);
  On("apply", {file});
  EXPECT_NE(std::string::npos, On("schema").out.find("ByHeight"));
}

TEST_F(InterruptTest, IndexBuild_IsKept) {
  tool::Session session(database());
  sagleme::IndexSpec const index{"ByHeight", "App.Person", {{"Height"}}, sagleme::Uniqueness::kAny};
  sagleme::IndexBuildOptions options;
  options.report = [](sagleme::IndexBuildProgress const&) { return false; };
  {
    tool::Session first(database());
    EXPECT_FALSE(BuildIndex(first.context(), index, options));
  }
  ExpectInterrupted(session, {"jobs", "resume"});
  std::string const jobs = On("jobs").out;
  EXPECT_NE(std::string::npos,
            jobs.find(",index build,index ByHeight on App.Person (Height),cut off,building,"))
      << jobs;
  EXPECT_EQ(std::string::npos, On("schema").out.find("ByHeight"));
  On("jobs", {"resume"});
  EXPECT_NE(std::string::npos, On("schema").out.find("ByHeight"));
}

// The kernel asks its watch while it builds the indexes, and at no other time of a load.
TEST_F(InterruptTest, LoadThatBuildsIndexes_LeavesNothing) {
  std::istringstream dump(On("dump").out);
  lscoredb_watch([](void*, std::uint64_t, std::uint64_t) { return std::uint32_t{1}; }, nullptr);
  try {
    sagleme::Load(Path("other"), dump, "a dump", {});
    ADD_FAILURE() << "was not stopped";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(LSCOREDB_STOPPED, error.status());
  }
  lscoredb_watch(nullptr, nullptr);
  EXPECT_FALSE(std::filesystem::exists(Path("other")));
  EXPECT_FALSE(std::filesystem::exists(Path("other.loading")));
}

TEST_F(InterruptTest, IndexBuildInsideATransaction_IsUndoneAlone) {
  tool::Session session(database());
  session.Begin();
  session.Write([](sagleme::Transaction& transaction) {
    sagleme::Object::Create(transaction, *transaction.table(u"App.Person"));
  });
  std::raise(SIGINT);
  EXPECT_THROW(session.Write(IndexByHeight), sagleme::Error);
  EXPECT_TRUE(tool::TakeInterrupt());
  session.Read([](sagleme::Transaction& transaction) {
    EXPECT_FALSE(transaction.FindIndex(u"ByHeight").has_value());
  });
  session.Commit();
  EXPECT_EQ("2001\n", On("count", {"Person"}).out);
  On("check");
}

TEST_F(InterruptTest, Check_IsStoppedByWhatItsProgressThrows) {
  sagleme::CheckOptions options;
  std::uint64_t last = 0;
  options.progress = [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(last, done);
    EXPECT_LE(done, total);
    last = done;
  };
  sagleme::CheckDatabase(database(), options, [](sagleme::Finding const&) {});
  EXPECT_GT(last, 3500u);
  for (std::uint64_t const part : {0u, 1500u, 2500u, 3500u}) {
    options.progress = [&](std::uint64_t done, std::uint64_t) {
      if (done >= part) throw sagleme::Error(4711, "enough");
    };
    EXPECT_THROW(sagleme::CheckDatabase(database(), options, [](sagleme::Finding const&) {}),
                 sagleme::Error);
  }
}

// Outside of the prompt too a copy is whole or not there, and one that was stopped ends by the
// signal.
TEST_F(InterruptTest, CopyOfItsOwn_IsWholeOrNotThere) {
  for (int round = 0; round < 20; ++round) {
    pid_t const copy = StartTool({"copy", database(), Path("other")});
    usleep(static_cast<useconds_t>(round * 1500));
    kill(copy, SIGINT);
    int const status = WaitFor(copy);
    bool const whole = std::filesystem::exists(Path("other"));
    EXPECT_TRUE(status == 128 + SIGINT || (status == 0 && whole)) << round << ' ' << status;
    if (whole) {
      EXPECT_EQ("2000\n", RunTool({"count", Path("other"), "Person"}).out);
    }
    EXPECT_FALSE(std::filesystem::exists(Path("other.copying"))) << round;
    std::filesystem::remove_all(Path("other"));
  }
}

}  // namespace
}  // namespace tool_test
