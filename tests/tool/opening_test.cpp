#include <filesystem>

#include "run_tool.h"

namespace tool_test {
namespace {

TEST_F(ToolTest, UnopenableDatabase_IsReportedWithFileAndReason) {
  Create();
  std::string const lock = database() + "/layouts.lock";
  std::filesystem::remove(lock);
  std::filesystem::create_directory(lock);
  std::string const text = "sagleme: Cannot open " + lock + ": Is a directory\n";
  for (char const* const command : {"info", "tables", "check", "shell", "vacuum"}) {
    EXPECT_EQ(text, On(command, {}, 3).err) << command;
  }
}

TEST_F(ToolTest, MissingDatabase_IsReportedWithHowToCreateIt) {
  EXPECT_EQ("sagleme: There is no database in " + database() +
                ".\n  Create one with: sagleme create " + database() + "\n",
            On("info", {}, 3).err);
}

TEST_F(ToolTest, UnwritableCopy_IsReportedWithItsLocation) {
  Create();
  Write("file", "");
  Result const refused = On("copy", {Path("file/copy")}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("Not a directory")) << refused.err;
}

}  // namespace
}  // namespace tool_test
