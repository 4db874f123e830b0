// Which directories have a log.

#include <filesystem>
#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

class LogTest : public ToolTest {
 protected:
  std::string Log() const {
    return nlohmann::json::parse(On("info", {"--format", "json"}).out)["log"];
  }
};

TEST_F(LogTest, Create_MakesALogOrRemembersThatThereIsNone) {
  On("create");
  EXPECT_EQ("yes", Log());
  for (std::string const option : {"--no-log", "--log"}) {
    std::string const expected = option == "--log" ? "yes" : "no";
    std::filesystem::remove_all(database());
    On("create", {option});
    EXPECT_EQ(expected, Log());
    Apply(kLibrary);
    EXPECT_EQ(expected, Log());
  }
}

TEST_F(LogTest, Create_RefusesBothAndAServer) {
  On("create", {"--log", "--no-log"}, 2);
  EXPECT_FALSE(std::filesystem::exists(database()));
  for (std::string const option : {"--no-log", "--log"}) {
    Result const refused = RunTool({"create", "postgresql://host/shop", option});
    EXPECT_EQ(2, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find(option)) << refused.err;
  }
}

// A copy has none yet.
TEST_F(LogTest, Directory_GetsALogByACommandThatWritesAndByNoOther) {
  On("create");
  Apply(kLibrary);
  ASSERT_EQ(0, RunTool({"copy", database(), Path("copy")}).status);
  std::filesystem::remove_all(database());
  std::filesystem::rename(Path("copy"), database());
  for (char const* const command : {"check", "tables", "dump", "schema"}) On(command);
  EXPECT_EQ("not yet", Log());
  On("import", {"Person", "-"}, 0, "Name\nAda\n");
  EXPECT_EQ("yes", Log());
}

}  // namespace
}  // namespace tool_test
