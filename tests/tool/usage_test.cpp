#include "run_tool.h"

namespace tool_test {
namespace {

bool Contains(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

class UsageTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
  }
  static std::string Refused(Arguments const& arguments, int status = 2) {
    Result const result = RunTool(arguments);
    EXPECT_EQ(status, result.status) << result.err;
    EXPECT_EQ("", result.out);
    return result.err;
  }
};

TEST_F(UsageTest, Version_IsOneLine) {
  Result const result = RunTool({"--version"});
  EXPECT_EQ(0, result.status);
  EXPECT_TRUE(result.out.starts_with("sagleme 0.")) << result.out;
}

TEST_F(UsageTest, HelpOfACommand_IsTheSameInEveryWay) {
  std::string const help = RunTool({"scan", "--help"}).out;
  EXPECT_EQ(help, RunTool({"help", "scan"}).out);
  EXPECT_EQ(help, RunTool({"scan", "-h"}).out);
  EXPECT_TRUE(help.starts_with("Usage: sagleme scan DB TABLE [OPTIONS]\n")) << help;
  EXPECT_EQ(RunTool({"help"}).out, RunTool({"--help"}).out);
  std::string const prompt = On("shell", {}, 0, "help scan\n").out;
  EXPECT_TRUE(prompt.starts_with("Usage: scan TABLE [OPTIONS]\n")) << prompt;
  EXPECT_TRUE(Contains(prompt, "\n  scan Customer\n")) << prompt;
}

TEST_F(UsageTest, MisspeltNames_AreAnsweredWithNearOnes) {
  EXPECT_TRUE(Contains(Refused({"scna", database()}), "unknown command \"scna\"\n  Did you"));
  EXPECT_TRUE(Contains(Refused({"help", "tabels"}), "Did you mean tables?"));
  EXPECT_TRUE(
      Contains(Refused({"scan", database(), "Item", "--lmit=1"}), "unknown option --lmit\n"));
  EXPECT_TRUE(Contains(Refused({"scan", database(), "Item", "--lmit=1"}), "mean --limit?"));
  EXPECT_TRUE(Contains(Refused({"scan", database(), "Bok"}, 4), "Did you mean Book?"));
  EXPECT_TRUE(Contains(Refused({"scan", database(), "App.book"}, 4), "Did you mean App.Book?"));
  EXPECT_TRUE(Contains(Refused({"find", database(), "ItemByTitel"}, 4), "mean ItemByTitle?"));
  EXPECT_TRUE(Contains(On("shell", {}, 2, "begn\n").err, "unknown command \"begn\""));
}

TEST_F(UsageTest, WrongWords_AreReportedInTheCommandsOwn) {
  EXPECT_TRUE(Contains(Refused({}), "no command was given"));
  EXPECT_TRUE(Contains(Refused({"scan", database()}), "the argument TABLE is missing\n  Usage: "));
  EXPECT_TRUE(Contains(Refused({"info", database(), "x"}), "unexpected argument \"x\""));
  EXPECT_TRUE(Contains(Refused({"scan", database(), "Item", "--limit"}), "needs a value, COUNT"));
  EXPECT_TRUE(Contains(Refused({"scan", database(), "Item", "--limit", "-1"}), "whole number"));
  EXPECT_TRUE(Contains(Refused({"scan", database(), "Item", "--format", "xml"}),
                       "table, records, json, csv, markdown"));
  EXPECT_TRUE(Contains(Refused({"--nonsense"}), "unknown option --nonsense"));
}

TEST_F(UsageTest, TablesOfTheCatalogue_AreFoundByTheirFullNamesOnly) {
  EXPECT_TRUE(Contains(Refused({"scan", database(), "Configuration"}, 4),
                       "there is no table Configuration"));
  On("scan", {"Lorvenstack.Internal.Metadata.Configuration", "--limit", "1"});
}

}  // namespace
}  // namespace tool_test
