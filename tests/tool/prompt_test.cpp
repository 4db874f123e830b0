#include <nlohmann/json.hpp>

#include "run_tool.h"
#include "shell/words.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

class PromptTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
  }
  std::size_t People() {
    return Json::parse(On("scan", {"Person", "--format", "json"}).out).size();
  }
};

TEST_F(PromptTest, Lines_AreCommandsWithoutTheDatabase) {
  Result const result = On("shell", {}, 0, "tables\n\ndescribe Book --format json\n");
  EXPECT_NE(std::string::npos, result.out.find("App.Book,App.Item,")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("\"table\": \"App.Book\"")) << result.out;
}

TEST_F(PromptTest, Transactions_AreKeptOrUndoneAsAWhole) {
  std::string const rows = Write("rows.csv", "Name\nAda\n");
  On("shell", {}, 0, "begin\nimport Person " + rows + "\nrollback\n");
  EXPECT_EQ(0u, People());
  On("shell", {}, 0, "begin\nimport Person " + rows + "\n");
  EXPECT_EQ(0u, People()) << "an open transaction is undone at the end";
  Result const kept =
      On("shell", {}, 0, "begin\nimport Person " + rows + "\nfind PersonByName Ada\ncommit\n");
  EXPECT_NE(std::string::npos, kept.out.find(",Ada,")) << "a transaction sees its own writes";
  EXPECT_EQ(1u, People());
}

TEST_F(PromptTest, ALineThatFails_EndsAScriptWithItsStatus) {
  On("shell", {}, 4, "describe Nothing\ntables\n");
  On("shell", {}, 2, "nonsense\n");
  On("shell", {}, 2, "tables 'open\n");
  On("shell", {}, 4, "commit\n");
  On("shell", {}, 4, "begin\nbegin\n");
  On("shell", {}, 4, "begin\nvacuum\n");
}

TEST_F(PromptTest, OnATerminal_AFailureIsToldAndTheNextLineIsTaken) {
  Result const result = RunOnTerminal({"shell", database()}, "describe Nothing\ntables\nquit\n",
                                      {"HOME=" + Path("")});
  EXPECT_EQ(0, result.status) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("there is no table Nothing")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("with descendants")) << result.out;
  EXPECT_NE(std::string::npos, ReadText(Path(".sagleme_history")).find("tables")) << result.out;
}

TEST_F(PromptTest, OnATerminal_ATabCompletesNames) {
  Result const result =
      RunOnTerminal({"shell", database()}, "desc\tApp.Bo\t\nquit\n", {"HOME=" + Path("")});
  EXPECT_EQ(0, result.status) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("App.Book, derived from App.Item")) << result.out;
}

TEST_F(PromptTest, Completions_AreCommandsThenOptionsAndNames) {
  tool::Session session(database());
  using Words = std::vector<std::string>;
  EXPECT_EQ((Words{"begin"}), tool::Completions(session, "beg"));
  EXPECT_EQ((Words{"ItemByPages", "ItemByTitle"}), tool::Completions(session, "find ItemBy"));
  EXPECT_EQ((Words{"Title"}), tool::Completions(session, "scan Item --where Ti"));
  EXPECT_EQ((Words{"--system"}), tool::Completions(session, "tables --s"));
  EXPECT_EQ((Words{}), tool::Completions(session, "describe Zz"));
  EXPECT_EQ("ItemBy", tool::CommonBeginning({"ItemByPages", "ItemByTitle"}));
}

TEST_F(ToolTest, SplitLine_KnowsQuotesAndBackslashes) {
  using Words = std::vector<std::string>;
  EXPECT_EQ((Words{"a", "b c", "d\"e", "", "f g"}), tool::SplitLine("a 'b c' d\\\"e \"\" f\\ g"));
  EXPECT_EQ(Words{}, tool::SplitLine("  "));
}

}  // namespace
}  // namespace tool_test
