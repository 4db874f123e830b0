// A control over long work that is no job: checks and loads.

#include <gtest/gtest.h>
#include <lscoredb/watch.h>
#include <sagleme/jobs.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sagleme/check.hpp>
#include <sagleme/host.hpp>
#include <sagleme/host/dump.hpp>
#include <sstream>

#include "work_in_thread.h"

namespace {

using namespace sagleme;

constexpr int kObjects = 3000;

class ControlTest : public testing::Test {
 protected:
  ControlTest() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "sagleme-control-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
    Database const database = Database::Create(Path("db"));
    Context const context(database);
    Transaction transaction(context);
    CreateTable(transaction, "Thing", "", {{"Number", Type::kLong}});
    TablePtr const table = transaction.table("Thing");
    for (std::int64_t i = 0; i < kObjects; ++i) {
      Object::Create(transaction, *table).Set("Number", i);
    }
    transaction.Commit();
    Transaction reading(context, Access::kReadOnly);
    Dump(reading, [this](std::string_view text) { dump_ += text; });
    std::ofstream(Path("dump")) << dump_;
  }
  ~ControlTest() override { std::filesystem::remove_all(path_); }

  std::string Path(std::string const& name) const { return path_ + "/" + name; }

  template <typename Work>
  static std::uint32_t StatusOf(Work&& work) {
    try {
      work();
    } catch (Error const& error) {
      return error.status();
    }
    return 0;
  }

  JobControl control_;
  std::string path_;
  std::string dump_;
};

TEST_F(ControlTest, StoppedCheck_EndsWithItsStatus) {
  CheckOptions options;
  options.control = &control_;
  int reports = 0;
  options.progress = [&](std::uint64_t, std::uint64_t) { ++reports; };
  int findings = 0;
  auto const check = [&] {
    CheckDatabase(Path("db"), options, [&](Finding const&) { ++findings; });
  };
  EXPECT_EQ(0u, StatusOf(check));
  EXPECT_GT(reports, 0);
  control_.Stop();
  EXPECT_EQ(LSCOREDB_STOPPED, StatusOf(check));
  EXPECT_EQ(0, findings);
  Database const database = Database::Open(Path("db"));
  Context const context(database);
  Transaction transaction(context, Access::kReadOnly);
  EXPECT_EQ(LSCOREDB_STOPPED,
            StatusOf([&] { CheckCatalogue(transaction, options, [](Finding const&) {}); }));
}

// An hour's pause ends with the stop.
TEST_F(ControlTest, PausedCheck_EndsWhenItIsStopped) {
  control_.SetPause(std::chrono::hours(1));
  CheckOptions options;
  options.control = &control_;
  std::atomic<bool> begun{false};
  options.progress = [&](std::uint64_t, std::uint64_t) { begun = true; };
  sagleme_test::WorkInThread check(
      [&] { CheckDatabase(Path("db"), options, [](Finding const&) {}); });
  ASSERT_TRUE(check.Until([&] { return begun.load(); }));
  control_.Stop();
  EXPECT_EQ(LSCOREDB_STOPPED, check.Status());
}

TEST_F(ControlTest, StoppedLoad_LeavesNothing) {
  LoadOptions options;
  options.control = &control_;
  options.report = [&](TransferProgress const& progress) {
    if (progress.objects == kObjects / 2) control_.Stop();
  };
  std::istringstream input(dump_);
  EXPECT_EQ(LSCOREDB_STOPPED, StatusOf([&] { Load(Path("loaded"), input, "dump", options); }));
  EXPECT_FALSE(std::filesystem::exists(Path("loaded")));
  EXPECT_FALSE(std::filesystem::exists(Path("loaded.loading")));
  JobControl unused;
  options = {};
  options.control = &unused;
  std::istringstream again(dump_);
  EXPECT_EQ(static_cast<std::uint64_t>(kObjects),
            Load(Path("loaded"), again, "dump", options).objects);
}

std::uint32_t CountFindings(void* user, sagleme_finding const*) {
  ++*static_cast<int*>(user);
  return 0;
}

TEST_F(ControlTest, FunctionsForC_CheckAndLoad) {
  int findings = 0;
  std::uint64_t objects = 0;
  EXPECT_EQ(0u, sagleme_load(Path("c").c_str(), Path("dump").c_str(), nullptr, &objects));
  EXPECT_EQ(static_cast<std::uint64_t>(kObjects), objects);
  EXPECT_EQ(0u, sagleme_check(Path("c").c_str(), 1, CountFindings, &findings, nullptr));
  EXPECT_EQ(0, findings);

  sagleme_job_control* const control = sagleme_job_control_new();
  sagleme_job_options options{};
  options.size = sizeof options;
  options.control = control;
  sagleme_job_control_stop(control);
  EXPECT_EQ(LSCOREDB_STOPPED,
            sagleme_check(Path("c").c_str(), 1, CountFindings, &findings, &options));
  EXPECT_EQ(LSCOREDB_STOPPED,
            sagleme_load(Path("d").c_str(), Path("dump").c_str(), &options, nullptr));
  EXPECT_FALSE(std::filesystem::exists(Path("d")));
  sagleme_job_control_free(control);

  options = {};
  options.size = sizeof options;
  options.report = [](void*, std::uint64_t, std::uint64_t, std::uint64_t) { return 1u; };
  EXPECT_EQ(LSCOREDB_STOPPED,
            sagleme_check(Path("c").c_str(), 1, CountFindings, &findings, &options));
  EXPECT_EQ(LSCOREDB_STOPPED,
            sagleme_load(Path("d").c_str(), Path("dump").c_str(), &options, nullptr));
}

TEST_F(ControlTest, FunctionsForC_RefuseBadCalls) {
  std::string const db = Path("db");
  std::string const dump = Path("dump");
  EXPECT_EQ(LSCOREDB_NULL_ARGUMENT, sagleme_check(nullptr, 0, CountFindings, nullptr, nullptr));
  EXPECT_EQ(LSCOREDB_NULL_ARGUMENT, sagleme_check(db.c_str(), 0, nullptr, nullptr, nullptr));
  EXPECT_EQ(LSCOREDB_NOT_A_DATABASE,
            sagleme_check(Path("none").c_str(), 0, CountFindings, nullptr, nullptr));
  EXPECT_EQ(LSCOREDB_NULL_ARGUMENT, sagleme_load(nullptr, dump.c_str(), nullptr, nullptr));
  EXPECT_EQ(LSCOREDB_NULL_ARGUMENT, sagleme_load(db.c_str(), nullptr, nullptr, nullptr));
  EXPECT_EQ(LSCOREDB_CANNOT_OPEN,
            sagleme_load(Path("x").c_str(), Path("none").c_str(), nullptr, nullptr));
  EXPECT_EQ(LSCOREDB_INVALID_ARGUMENT, sagleme_load(db.c_str(), dump.c_str(), nullptr, nullptr));
  EXPECT_NE(std::string::npos, std::string(sagleme_error(0, LSCOREDB_INVALID_ARGUMENT)).find("db"));
}

}  // namespace
