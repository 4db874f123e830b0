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

TEST_F(PromptTest, StatementThatFails_LeavesNothingAndTheTransactionGoesOn) {
  std::string const good = Write("good.csv", "Name\nAda\n");
  std::string const bad = Write("bad.csv", "Name,Height\nBob,1\nCleo,tall\n");
  Result const result =
      RunOnTerminal({"shell", database()},
                    "begin\nimport Person " + good + "\nimport Person " + bad + "\ncommit\nquit\n",
                    {"HOME=" + Path("")});
  EXPECT_NE(std::string::npos, result.out.find("Nothing was imported")) << result.out;
  EXPECT_EQ(1u, People());
}

TEST_F(PromptTest, LineThatFails_EndsAScriptWithItsStatus) {
  On("shell", {}, 4, "describe Nothing\ntables\n");
  On("shell", {}, 2, "nonsense\n");
  On("shell", {}, 2, "tables 'open\n");
  On("shell", {}, 4, "commit\n");
  On("shell", {}, 4, "begin\nbegin\n");
  On("shell", {}, 4, "begin\nvacuum\n");
}

TEST_F(PromptTest, OnATerminal_FailureIsReportedAndTheNextLineIsTaken) {
  Result const result = RunOnTerminal({"shell", database()}, "describe Nothing\ntables\nquit\n",
                                      {"HOME=" + Path("")});
  EXPECT_EQ(0, result.status) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("there is no table Nothing")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("with descendants")) << result.out;
  EXPECT_NE(std::string::npos, ReadText(Path(".sagleme_history")).find("tables")) << result.out;
}

TEST_F(PromptTest, OnATerminal_TabCompletesNames) {
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
  EXPECT_EQ((Words{"Item"}), tool::Completions(session, "scan Ite")) << "no index, no column";
  EXPECT_EQ((Words{}), tool::Completions(session, "scan Person --where Ti")) << "of that table";
  EXPECT_EQ((Words{"Title="}), tool::Completions(session, "insert Book Isbn=1 Ti"));
  EXPECT_EQ((Words{"json"}), tool::Completions(session, "scan Item --format j"));
  std::string const rows = Write("rows.csv", "");
  EXPECT_EQ((Words{rows}), tool::Completions(session, "import Person " + Path("ro")));
  EXPECT_EQ((Words{"auto"}), tool::Completions(session, "expanded a"));
  EXPECT_EQ((Words{"Title"}), tool::Completions(session, "scan Item --where Ti"));
  EXPECT_EQ((Words{"--system"}), tool::Completions(session, "tables --s"));
  EXPECT_EQ((Words{}), tool::Completions(session, "describe Zz"));
  EXPECT_EQ("ItemBy", tool::CommonBeginning({"ItemByPages", "ItemByTitle"}));
}

TEST_F(ToolTest, SplitLine_KnowsQuotesAndBackslashes) {
  using Words = std::vector<std::string>;
  EXPECT_EQ((Words{"a", "b c", "d\"e", "", "f g"}), tool::SplitLine("a 'b c' d\\\"e \"\" f\\ g"));
  EXPECT_EQ(Words{}, tool::SplitLine("  "));
  EXPECT_EQ((Words{"a", "b#c", "#d"}), tool::SplitLine("a b#c '#d' # a comment's end"));
}

// Wide enough for no terminal of 80 columns.
char const* const kWideRow =
    "Name,Height\nA name that takes up most of the line of a terminal and "
    "leaves no room for a number behind it,1\n";

TEST_F(PromptTest, OnATerminal_WideTableBecomesRecords) {
  On("import", {"Person", "-"}, 0, kWideRow);
  Arguments const plain{"NO_COLOR=1", "HOME=" + Path("")};
  Result const folded = RunOnTerminal({"scan", database(), "Person"}, "", plain);
  EXPECT_NE(std::string::npos, folded.out.find("[1]\r\n")) << folded.out;
  EXPECT_NE(std::string::npos, folded.out.find("Height  1\r\n")) << folded.out;
  Result const table =
      RunOnTerminal({"scan", database(), "Person", "--format", "table"}, "", plain);
  EXPECT_EQ(std::string::npos, table.out.find("[1]")) << table.out;
}

TEST_F(PromptTest, Settings_ChangeTheFormOfLists) {
  On("import", {"Person", "-"}, 0, "Name\nAda\n");
  std::string const shown =
      On("shell", {}, 0, "expanded on\nscan Person\nexpanded off\nscan Person\nwidth\n").out;
  EXPECT_NE(std::string::npos, shown.find("expanded on\n[1]\n")) << shown;
  EXPECT_NE(std::string::npos, shown.find("expanded off\n_oid,_table,Name")) << shown;
  EXPECT_NE(std::string::npos, shown.find("width auto\n")) << shown;
  EXPECT_NE(std::string::npos, On("shell", {}, 0, "timing on\ntables\n").err.find(" s\n"));
  EXPECT_NE(std::string::npos, On("shell", {}, 2, "paging maybe\n").err.find("takes on or off"));
}

TEST_F(PromptTest, Comments_AreNoCommands) {
  EXPECT_EQ("width auto\n", On("shell", {}, 0, "# a comment's line\nwidth # behind one\n").out);
}

TEST_F(PromptTest, OnATerminal_LongListsGoThroughThePager) {
  std::string rows = "Name\n";
  for (int i = 0; i < 100; ++i) rows += "Person number " + std::to_string(i) + "\n";
  On("import", {"Person", "-"}, 0, rows);
  std::string const pager = "PAGER=sed 's/Person number/paged/'";
  Result const result = RunOnTerminal({"shell", database()},
                                      "scan Person --limit 3\nscan Person\npaging off\n"
                                      "scan Person\nquit\n",
                                      {"HOME=" + Path(""), pager});
  EXPECT_NE(std::string::npos, result.out.find("Person number 2")) << "a short list is not paged";
  EXPECT_NE(std::string::npos, result.out.find("paged 99")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("Person number 99")) << "paging is off";
}

TEST_F(PromptTest, PagerThatIsLeftEarly_EndsTheListOnly) {
  std::string rows = "Name\n";
  for (int i = 0; i < 5000; ++i) rows += "Person number " + std::to_string(i) + "\n";
  On("import", {"Person", "-"}, 0, rows);
  Result const result = RunOnTerminal({"shell", database()}, "begin\nscan Person\ncommit\nquit\n",
                                      {"HOME=" + Path(""), "PAGER=head -1"});
  EXPECT_EQ(0, result.status) << result.out;
  EXPECT_EQ(std::string::npos, result.out.find("sagleme: ")) << result.out;
}

TEST_F(PromptTest, SystemTablesAndHiddenColumns_AreShownOnRequestOnly) {
  for (std::string const format : {"csv", "json", "table", "markdown"}) {
    Arguments const form{"--format", format};
    std::string shown = On("tables", form).out + On("tables", {"--tree", "--format", format}).out +
                        On("describe", {"Item", "--format", format}).out + On("schema").out +
                        On("diagram").out;
    EXPECT_EQ(std::string::npos, shown.find("MotherOfAllLayouts")) << shown;
    EXPECT_EQ(std::string::npos, shown.find("__")) << shown;
  }
  std::string const all = On("describe", {"Item", "--system"}).out;
  EXPECT_NE(std::string::npos, all.find("MotherOfAllLayouts")) << all;
  EXPECT_NE(std::string::npos, all.find("__")) << all;
}

TEST_F(PromptTest, BashCompletion_KnowsNamesOfTheDatabase) {
  Write("completion", RunTool({"--bash-completion"}).out);
  auto const complete = [&](std::string const& words, int place) {
    return OutputOf(
        "bash -c \"source '" + Path("completion") + "'; COMP_WORDS=('" SAGLEME_TOOL "' " + words +
        "); COMP_CWORD=" + std::to_string(place) + "; _sagleme; echo \\${COMPREPLY[@]}\"");
  };
  std::string const db = " '" + database() + "' ";
  EXPECT_EQ("App.Book App.Film App.Item App.Person\n", complete("scan" + db + "App.", 3));
  EXPECT_EQ("ItemByPages ItemByTitle\n", complete("find" + db + "ItemBy", 3));
  EXPECT_EQ("Title\n", complete("scan" + db + "Item --where Ti", 5));
  EXPECT_EQ("Pages=\n", complete("insert" + db + "Item Pa", 4));
  EXPECT_EQ("--all-columns\n", complete("scan" + db + "Item --all", 4));
  EXPECT_EQ("markdown\n", complete("scan" + db + "Item --format m", 5));
  EXPECT_EQ("tables\n", complete("help ta", 2));
}

}  // namespace
}  // namespace tool_test
