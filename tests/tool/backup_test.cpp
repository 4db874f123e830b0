// The commands "backup" and "restore".

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

class BackupTest : public ToolTest {
 protected:
  void SetUp() override {
    On("create", {"--log"});
    On("changes", {"--keep", "64M,7d"});
    Apply(kLibrary);
    Insert("Ann");
  }

  void Insert(std::string const& name) const { On("insert", {"Person", "Name=" + name}); }
  std::string backup() const { return Path("backup"); }
  Result Backup(Arguments const& options = {}, int status = 0) const {
    Arguments arguments{backup()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return On("backup", arguments, status);
  }
  Json Parts() const {
    Result const result = RunTool({"backup", backup(), "--list", "--format", "json"});
    EXPECT_EQ(0, result.status) << result.err;
    return Json::parse(result.out);
  }
  static Result Restore(Arguments arguments, int status = 0) {
    arguments.insert(arguments.begin(), "restore");
    Result result = RunTool(arguments);
    EXPECT_EQ(status, result.status) << result.err;
    return result;
  }
  // The persons in a database, as the tool lists them.
  static std::string PersonsIn(std::string const& database) {
    return RunTool({"scan", database, "Person", "--format", "json"}).out;
  }
  static bool Contains(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
  }
};

TEST_F(BackupTest, FullAndIncrement_RestoreEachState) {
  EXPECT_TRUE(Contains(Backup().err, "full part 1: up to commit "));
  std::string const first = PersonsIn(database());
  Insert("Eve");
  EXPECT_TRUE(Contains(Backup().err, "increment 2: commits "));
  EXPECT_TRUE(Contains(Backup().err, "nothing was committed"));
  std::string const second = PersonsIn(database());
  Json const parts = Parts();
  ASSERT_EQ(2u, parts.size());
  EXPECT_EQ("full", parts[0]["kind"]);
  EXPECT_EQ("increment", parts[1]["kind"]);
  std::string const commit = std::to_string(parts[0]["last"].get<std::uint64_t>());
  Restore({backup(), Path("newest")});
  EXPECT_EQ(second, PersonsIn(Path("newest")));
  EXPECT_EQ(0, RunTool({"check", Path("newest")}).status);
  Restore({backup(), Path("old"), "--until", commit});
  EXPECT_EQ(first, PersonsIn(Path("old")));
  Restore({backup(), Path("then"), "--until", parts[0]["time"]});
  EXPECT_EQ(first, PersonsIn(Path("then")));
  Restore({backup(), Path("last"), "--until", parts[1]["time"], "--no-check"});
  EXPECT_EQ(second, PersonsIn(Path("last")));
}

TEST_F(BackupTest, Times_MayHaveAZone) {
  Backup();
  Backup();
  std::string const time = Parts()[0]["time"];  // ...Z
  std::string const same = time.substr(0, time.size() - 1) + "+00:00";
  std::string const blank = std::string(same).replace(10, 1, " ");
  std::string const west = time.substr(0, 11) + "00:00:00-23:59";
  EXPECT_TRUE(Contains(Restore({backup(), Path("a"), "--until", same}).err, "restored"));
  EXPECT_TRUE(Contains(Restore({backup(), Path("b"), "--until", blank}).err, "restored"));
  EXPECT_TRUE(Contains(Restore({backup(), Path("c"), "--until", west}, 4).err, "in it is"));
  // The test's processes have no zone of their own unless it is set.
  ASSERT_EQ(0, setenv("TZ", "UTC", 1));
  std::string const local = time.substr(0, time.size() - 1);
  EXPECT_TRUE(Contains(Restore({backup(), Path("d"), "--until", local}).err, "restored"));
  unsetenv("TZ");
}

TEST_F(BackupTest, BadLimits_AreRefused) {
  Backup();
  for (char const* const until :
       {"0", "x", "-1", "2026-01-01", "2026-13-01T00:00Z", "2026-02-30T00:00Z", "2026-01-01T25:00Z",
        "2026-01-01T00:00X", "2026-01-01T00:00:00.Z", "2026-01-01T00:00+1",
        "99999999999999999999"}) {
    Result const result = Restore({backup(), Path("to"), std::string("--until=") + until}, 2);
    EXPECT_TRUE(Contains(result.err, "--until does not take")) << result.err;
  }
  Result const result = Restore({backup(), Path("to"), "--until", "999999999"}, 4);
  EXPECT_TRUE(Contains(result.err, "newest state in it is that of commit ")) << result.err;
  EXPECT_TRUE(Contains(result.err, "--list")) << result.err;
  EXPECT_FALSE(fs::exists(Path("to")));
}

TEST_F(BackupTest, WithoutKeptChanges_TheWayOutIsNamed) {
  Backup();
  On("changes", {"--keep", "off"});
  Insert("Eve");
  Result const result = Backup({}, 4);
  EXPECT_TRUE(Contains(result.err, "keeps no changes")) << result.err;
  EXPECT_TRUE(Contains(result.err, "--full")) << result.err;
  EXPECT_TRUE(Contains(result.err, "--keep")) << result.err;
  EXPECT_EQ(1u, Parts().size());
  EXPECT_TRUE(Contains(Backup({"--full", "--prune"}).err, "full part 2"));
  EXPECT_EQ(1u, Parts().size());
}

TEST_F(BackupTest, List_HasEveryForm_AndReportsAFullDisk) {
  Backup();
  std::string const csv = RunTool({"backup", backup(), "--list", "--format", "csv"}).out;
  EXPECT_TRUE(csv.starts_with("part,kind,first,last,time,bytes\n1,full,")) << csv;
  EXPECT_EQ(csv, On("backup", {backup(), "--list", "--format", "csv"}).out);
  EXPECT_EQ(csv, On("shell", {}, 0, "backup " + backup() + " --list --format csv\n").out);
  EXPECT_EQ(4, RunToolInto("/dev/full", {"backup", backup(), "--list"}).status);
}

TEST_F(BackupTest, Verify_FindsFlippedBytes) {
  Backup();
  EXPECT_EQ(0, RunTool({"backup", backup(), "--verify"}).status);
  std::string const part = backup() + "/part-00000001.full";
  std::fstream file(part, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(5000);
  file.put('\x5a');
  file.put('\xa5');
  file.close();
  Result const verified = RunTool({"backup", backup(), "--verify"});
  EXPECT_EQ(1, verified.status);
  EXPECT_TRUE(Contains(verified.err, "part-00000001.full")) << verified.err;
  Restore({backup(), Path("to")}, 4);
  EXPECT_FALSE(fs::exists(Path("to")));
}

TEST_F(BackupTest, WrongPlaces_AreRefused) {
  EXPECT_EQ(2, On("backup", {}, 2).status);
  EXPECT_EQ(2, Backup({"--list", "--full"}, 2).status);
  EXPECT_EQ(3, RunTool({"backup", database(), "--list"}).status);
  EXPECT_EQ(3, RunTool({"backup", Path("missing"), "--verify"}).status);
  Result const own = On("backup", {database()}, 4);
  EXPECT_TRUE(Contains(own.err, "no manifest")) << own.err;
  Backup();
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"create", other}).status);
  Result const foreign = RunTool({"backup", other, backup()});
  EXPECT_EQ(4, foreign.status);
  EXPECT_TRUE(Contains(foreign.err, "Name another directory")) << foreign.err;
  EXPECT_EQ(3, Restore({database(), Path("to")}, 3).status);
  Result const there = Restore({backup(), other}, 4);
  EXPECT_TRUE(Contains(there.err, "does not exist")) << there.err;
  std::string const url = "postgresql://app:hidden@db/shop";
  EXPECT_EQ(2, Restore({backup(), url}, 2).status);
  for (Result const& refused : {On("backup", {url}, 4), RunTool({"backup", url, "--list"}),
                                Restore({url, Path("to")}, 4)}) {
    EXPECT_TRUE(Contains(refused.err, "postgresql://app:***@db/shop: a backup lies in a directory"))
        << refused.err;
  }
  int const held = open((backup() + "/lock").c_str(), O_RDWR);
  ASSERT_EQ(0, flock(held, LOCK_EX));
  Insert("Eve");
  EXPECT_TRUE(Contains(Backup({}, 4).err, "Try again"));
  close(held);
}

}  // namespace
}  // namespace tool_test
