#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "run_tool.h"

namespace tool_test {
namespace {

bool Contains(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

class OutputTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    std::string rows = "Name\n";
    for (int i = 0; i < 3000; ++i) rows += "Person number " + std::to_string(i) + "\n";
    On("import", {"Person", "-"}, 0, rows);
  }
  // Every command that writes to the standard output, with what it needs.
  std::vector<Arguments> Writing() {
    std::string const schema = Write("more.json", R"({"schema": 1, "tables": [{"name": "New"}]})");
    return {{"info", database()},
            {"tables", database()},
            {"describe", database(), "Person"},
            {"schema", database()},
            {"apply", database(), schema, "--allow-destructive"},
            {"export", database(), "Person"},
            {"dump", database()},
            {"find", database(), "PersonByName"},
            {"scan", database(), "Person"},
            {"scan", database(), "Person", "--format", "json"},
            {"diagram", database()},
            {"--help"},
            {"scan", "--help"},
            {"help", "scan"},
            {"--version"},
            {"--man-page"},
            {"--bash-completion"}};
  }
};

TEST_F(OutputTest, OntoAFullDevice_EveryCommandFailsAndSaysWhy) {
  for (Arguments const& arguments : Writing()) {
    Result const result = RunToolInto("/dev/full", arguments);
    EXPECT_EQ(4, result.status) << arguments[0];
    EXPECT_TRUE(Contains(result.err, "cannot write standard output: No space left on device"))
        << arguments[0] << ": " << result.err;
  }
  Result const tables = On("tables", {"--format", "json"});
  EXPECT_FALSE(Contains(tables.out, "\"New\"")) << "a plan that nobody saw is not carried out";
}

TEST_F(OutputTest, IntoAClosedPipe_EveryCommandEndsInSilence) {
  for (Arguments const& arguments : Writing()) {
    int out[2];
    ASSERT_EQ(0, pipe(out));
    close(out[0]);
    std::string const place = "/dev/fd/" + std::to_string(out[1]);
    Result const result = RunToolInto(place, arguments);
    close(out[1]);
    EXPECT_EQ("", result.err) << arguments[0];
    EXPECT_EQ(128 + SIGPIPE, result.status) << arguments[0];
  }
}

TEST_F(OutputTest, WithStandardStreamsClosed_DatabaseIsNotWrittenOver) {
  std::string const shell = "'" SAGLEME_TOOL "' dump '" + database() + "' <&- >&- 2>&-; echo $?";
  EXPECT_EQ("4\n", OutputOf(shell));
  On("check");
}

TEST_F(OutputTest, InputThatCannotBeRead_IsNoEndOfTheInput) {
  for (std::string const command : {"sql", "shell", "import", "apply"}) {
    std::string shell = "'" SAGLEME_TOOL "' " + command + " '" + database() + "'";
    if (command == "import") shell += " Person";
    if (command == "import" || command == "apply") shell += " -";
    EXPECT_EQ("sagleme: cannot read standard input: Is a directory\n4\n",
              OutputOf(shell + " 2>&1 < '" + Path("") + "'; echo $?"))
        << command;
  }
}

TEST_F(OutputTest, ExportToAFullDevice_IsAFailure) {
  Result const result = RunTool({"export", database(), "Person", "--output", "/dev/full"});
  EXPECT_EQ(4, result.status);
  EXPECT_TRUE(Contains(result.err, "cannot write /dev/full: No space left on device"))
      << result.err;
}

TEST_F(OutputTest, CtrlC_DuringAScan_StopsTheScanAndKeepsTheTransaction) {
  Terminal terminal({"shell", database()}, {"HOME=" + Path("")});
  terminal.Type("begin\nimport Person " + Write("one.csv", "Name\nAda\n") + "\n");
  terminal.Until("1 object in");
  terminal.Type("scan Person\n");
  terminal.Until("Person number 7");
  terminal.Type("\x03");
  terminal.Until("interrupted");
  terminal.Type("commit\nfind PersonByName Ada\n");
  terminal.Until("App.Person");
  terminal.Type("quit\n");
  EXPECT_EQ(0, terminal.Finish().status);
  EXPECT_TRUE(Contains(ReadText(Path(".sagleme_history")), "commit"));
}

TEST_F(OutputTest, CtrlC_AtThePrompt_DropsTheLineAndLeavesTheSecondTime) {
  Terminal terminal({"shell", database()}, {"HOME=" + Path("")});
  terminal.Until("db> ");
  terminal.Type("nonsense\x03");
  terminal.Until("^C");
  terminal.Type("tables\n");
  std::string const shown = terminal.Until("with descendants");
  EXPECT_FALSE(Contains(shown, "no command")) << shown;
  terminal.Until("db> ");
  terminal.Type("\x03");
  terminal.Until("again to leave");
  terminal.Type("\x03");
  EXPECT_EQ(0, terminal.Finish().status);
  EXPECT_TRUE(Contains(ReadText(Path(".sagleme_history")), "tables"));
}

TEST(TerminalTest, WithoutTerminals_TestIsSkippedButNotInCi) {
  unsetenv("CI");
  EXPECT_EXIT(SkipWithoutTerminal("no ptmx"), ::testing::ExitedWithCode(kSkipped), "skipped");
  setenv("CI", "true", 1);
  EXPECT_EXIT(SkipWithoutTerminal("no ptmx"), ::testing::ExitedWithCode(1), "failed: .*no ptmx");
}

}  // namespace
}  // namespace tool_test
