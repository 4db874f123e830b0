// The command "changes": lines of JSON, following, switching on and off.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

// The tool with its output in a pipe that the test reads line by line.
class Follower {
 public:
  explicit Follower(Arguments arguments) {
    int out[2];
    if (pipe(out) != 0) throw std::runtime_error("no pipe");
    arguments.insert(arguments.begin(), SAGLEME_TOOL);
    child_ = fork();
    if (child_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      close(out[0]);
      close(out[1]);
      std::vector<char*> words;
      for (std::string& word : arguments) words.push_back(word.data());
      words.push_back(nullptr);
      execv(SAGLEME_TOOL, words.data());
      _exit(127);
    }
    close(out[1]);
    lines_ = fdopen(out[0], "r");
  }
  ~Follower() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    StopReading();
  }
  Json Next() {
    char* line = nullptr;
    std::size_t room = 0;
    bool const some = getline(&line, &room, lines_) > 0;
    Json parsed = some ? Json::parse(line) : Json();
    std::free(line);
    return parsed;
  }
  void Interrupt() const { kill(child_, SIGINT); }
  void StopReading() {
    if (lines_ != nullptr) std::fclose(lines_);
    lines_ = nullptr;
  }
  // The signal that ended it; 0: none.
  int EndedBy() {
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = -1;
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

 private:
  pid_t child_ = -1;
  std::FILE* lines_ = nullptr;
};

class ChangesTest : public ToolTest {
 protected:
  void SetUp() override {
    On("create", {"--log"});
    On("changes", {"--keep", "64M,7d"});
    Apply(kLibrary);
    On("insert", {"Person", "Name=Ann"});
  }
  std::vector<Json> Lines(Arguments const& more = {}) const {
    std::istringstream text(On("changes", more).out);
    std::vector<Json> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(Json::parse(line));
    return lines;
  }
};

TEST_F(ChangesTest, Lines_TellTheSchemaAndTheObject) {
  std::vector<Json> const lines = Lines();
  ASSERT_LE(2u, lines.size());
  EXPECT_EQ("schema", lines.front()["kind"]);
  Json const& last = lines.back();
  EXPECT_EQ("created", last["kind"]);
  EXPECT_TRUE(std::string(last["table"]).ends_with("Person"));
  EXPECT_EQ(true, last["last"]);
  EXPECT_TRUE(std::string(last["time"]).ends_with("Z"));
  std::string const commit = std::to_string(last["commit"].get<std::uint64_t>());
  EXPECT_TRUE(Lines({"--since", commit}).empty());
  std::string const before = std::to_string(last["commit"].get<std::uint64_t>() - 1);
  EXPECT_EQ(1u, Lines({"--since", before}).size());
}

TEST_F(ChangesTest, ChangedColumns_AreNamed) {
  std::string const object = std::to_string(Lines().back()["object"].get<std::uint64_t>());
  On("set", {object, "Name=Eve"});
  On("delete", {object});
  std::vector<Json> const lines = Lines();
  ASSERT_LE(3u, lines.size());
  EXPECT_EQ("deleted", lines.back()["kind"]);
  Json const& changed = lines[lines.size() - 2];
  EXPECT_EQ("changed", changed["kind"]);
  EXPECT_EQ((Json{"Name"}), changed["columns"]);
}

TEST_F(ChangesTest, Follow_PrintsWhatComesUntilInterrupted) {
  std::uint64_t const since = Lines().back()["commit"];
  Follower follower({"changes", database(), "--since", std::to_string(since), "--follow"});
  for (int i = 0; i < 3; ++i) {
    On("insert", {"Person", "Name=p" + std::to_string(i)});
    EXPECT_EQ("created", follower.Next()["kind"]);
  }
  follower.Interrupt();
  EXPECT_EQ(SIGINT, follower.EndedBy());
}

TEST_F(ChangesTest, Follow_EndsWhenNobodyReads) {
  Follower follower({"changes", database(), "--follow"});
  EXPECT_EQ("schema", follower.Next()["kind"]);
  follower.StopReading();
  EXPECT_EQ(SIGPIPE, follower.EndedBy());
}

TEST_F(ChangesTest, FullOutput_IsReported) {
  EXPECT_EQ(4, RunToolInto("/dev/full", {"changes", database()}).status);
}

TEST_F(ChangesTest, SwitchedOff_NamesTheCommandThatSwitchesOn) {
  On("changes", {"--keep", "off"});
  Result const result = On("changes", {}, 4);
  EXPECT_NE(std::string::npos, result.err.find("--keep 256M")) << result.err;
  On("changes", {"--keep", "1M"});
  EXPECT_TRUE(Lines().empty());
}

TEST_F(ChangesTest, WithoutALog_NamesTheCommandThatGivesOne) {
  std::string const plain = Path("plain");
  ASSERT_EQ(0, RunTool({"create", plain, "--no-log"}).status);
  for (Arguments const& arguments :
       {Arguments{"changes", plain}, Arguments{"changes", plain, "--keep", "1M"}}) {
    Result const result = RunTool(arguments);
    EXPECT_EQ(4, result.status);
    EXPECT_NE(std::string::npos, result.err.find("--keep 256M --log")) << result.err;
  }
  EXPECT_EQ(0, RunTool({"changes", plain, "--keep", "1M", "--log"}).status);
  EXPECT_EQ(0, RunTool({"changes", plain}).status);
}

TEST_F(ChangesTest, Info_TellsWhatIsKept) {
  auto const info = [&] { return Json::parse(On("info", {"--format", "json"}).out); };
  Json const kept = info();
  EXPECT_EQ("yes", kept["keeps changes"]);
  EXPECT_EQ(64 << 20, kept["most bytes of changes"]);
  EXPECT_EQ(7 * 86400, kept["most seconds of changes"]);
  On("insert", {"Person", "Name=Eve"});
  Json const more = info();
  EXPECT_EQ(kept["oldest commit with changes"], more["oldest commit with changes"]);
  EXPECT_LT(kept["commits with changes"].get<int>(), more["commits with changes"].get<int>());
  EXPECT_EQ(more["newest commit"].get<int>() + 1 - more["oldest commit with changes"].get<int>(),
            more["commits with changes"]);
  EXPECT_NE(std::string::npos, On("info").out.find("oldest commit with changes"));
  On("changes", {"--keep", "off"});
  EXPECT_EQ("no", info()["keeps changes"]);
  EXPECT_FALSE(info().contains("commits with changes"));
  On("changes", {"--keep", "3h"});
  Json const begun = info();
  EXPECT_TRUE(begun["most bytes of changes"].is_null());
  EXPECT_EQ(3 * 3600, begun["most seconds of changes"]);
  EXPECT_EQ(0, begun["commits with changes"]);
  EXPECT_TRUE(begun["oldest commit with changes"].is_null());
}

// Neither can keep any.
TEST_F(ChangesTest, Info_WithoutALog_TellsThatNoneAreKept) {
  std::string const plain = Path("plain");
  ASSERT_EQ(0, RunTool({"create", plain, "--no-log"}).status);
  std::string const copy = Path("copy");
  ASSERT_EQ(0, RunTool({"copy", database(), copy}).status);
  for (std::string const& place : {plain, copy}) {
    Json const info = Json::parse(RunTool({"info", place, "--format", "json"}).out);
    EXPECT_EQ("no", info["keeps changes"]);
    EXPECT_FALSE(info.contains("most bytes of changes"));
  }
}

TEST_F(ChangesTest, BadOptions_AreRefused) {
  for (char const* const keep : {"", "0", "M", "5x", "1M,2M", "7d,", "99999999999999999T", "-1"}) {
    EXPECT_EQ(2, RunTool({"changes", database(), std::string("--keep=") + keep}).status) << keep;
  }
  On("changes", {"--since", "999999999"}, 2);
  On("changes", {"--keep", "1M", "--follow"}, 2);
  On("changes", {"--log"}, 2);
}

}  // namespace
}  // namespace tool_test
