#include "run_tool.h"

namespace tool_test {
namespace {

class PicturesTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
  }
  std::string Draw(std::string const& form) { return On("diagram", {"--as", form}).out; }
};

bool Has(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(PicturesTest, Dot_HasInheritanceAndReferences) {
  std::string const dot = Draw("dot");
  EXPECT_TRUE(Has(dot, "\"App.Book\" -> \"App.Item\" [arrowhead=onormal];")) << dot;
  EXPECT_TRUE(Has(dot, "\"App.Item\" -> \"App.Person\" [style=dashed")) << dot;
}

TEST_F(PicturesTest, Mermaid_HasInheritanceAndReferences) {
  std::string const text = Draw("mermaid");
  EXPECT_TRUE(Has(text, "App_Item <|-- App_Book")) << text;
  EXPECT_TRUE(Has(text, "App_Item ..> App_Person : Owner")) << text;
}

TEST_F(PicturesTest, Diagram_OneTable_HasItsDescendantsAndNoOthers) {
  std::string const dot = On("diagram", {"Item"}).out;
  EXPECT_TRUE(Has(dot, "\"App.Book\" -> \"App.Item\"")) << dot;
  EXPECT_FALSE(Has(dot, "\"App.Person\"")) << dot;
  Result const top = On("diagram", {"Item", "--depth", "0", "--as", "mermaid"});
  EXPECT_TRUE(Has(top.out, "class App_Item")) << top.out;
  EXPECT_FALSE(Has(top.out, "App_Book")) << top.out;
  EXPECT_TRUE(Has(top.err, "2 tables left out")) << top.err;
  On("diagram", {"Itm"}, 4);
}

TEST_F(PicturesTest, Diagram_ManyTables_IsCutToAPage) {
  std::string schema = R"({"schema": 1, "tables": [{"name": "Top"})";
  for (int i = 0; i < 150; ++i) {
    schema += ", {\"name\": \"T" + std::to_string(i) + "\", \"base\": \"Top\"}";
  }
  Apply(schema + "]}", {"--allow-destructive"});
  Result const cut = On("diagram");
  EXPECT_TRUE(Has(cut.err, "51 tables left out")) << cut.err;
  EXPECT_TRUE(Has(cut.out, "\"Top\" ["));
  EXPECT_TRUE(Has(On("diagram", {"--limit", "2"}).err, "149 tables left out"));
  EXPECT_EQ("", On("diagram", {"--limit", "0"}).err);
  EXPECT_EQ("", On("diagram", {"--as", "html"}).err);
}

TEST_F(PicturesTest, Diagram_InAnUnknownForm_IsUsage) { On("diagram", {"--as", "png"}, 2); }

TEST_F(PicturesTest, Html_WithATableNamedLikeMarkup_StaysOnePage) {
  Apply(R"({"schema": 1, "tables": [{"name": "</script><b>"}]})", {"--allow-destructive"});
  EXPECT_FALSE(Has(Draw("html"), "</script><b>"));
}

TEST_F(PicturesTest, Copy_IsADatabaseByItselfThatCanBeWrittenOn) {
  On("import", {"Book", "-"}, 0, "Title,Isbn,Price\na,1,1\n");
  std::string const dump = On("dump").out;
  ASSERT_EQ(0, RunTool({"copy", database(), Path("copy")}).status);
  EXPECT_EQ(dump, RunTool({"dump", Path("copy")}).out);
  EXPECT_EQ(0, RunTool({"check", Path("copy")}).status);
  EXPECT_EQ(0, RunTool({"import", Path("copy"), "Book", "-"}, "Title,Isbn,Price\nb,2,2\n").status);
  EXPECT_EQ(dump, On("dump").out);
  EXPECT_EQ(4, RunTool({"copy", database(), Path("copy")}).status);
  EXPECT_EQ(4, RunTool({"copy", database(), Path("no/such/place")}).status);
}

TEST_F(PicturesTest, Copy_WhileAnotherWrites_IsWhole) {
  std::string rows = "Title,Isbn,Price\n";
  for (int i = 0; i < 3000; ++i) rows += std::to_string(i) + ",1,1\n";
  pid_t const writer = StartTool({"import", database(), "Book", Write("rows.csv", rows)});
  for (int i = 0; i < 3; ++i) {
    std::string const target = Path("copy" + std::to_string(i));
    EXPECT_EQ(0, RunTool({"copy", database(), target}).status);
    EXPECT_EQ(0, RunTool({"check", target}).status);
  }
  EXPECT_EQ(0, WaitFor(writer));
}

TEST_F(ToolTest, Manual_HasEveryCommandAndCompletionIsBash) {
  std::string const page = RunTool({"--man-page"}).out;
  std::string const completion = RunTool({"--bash-completion"}).out;
  for (char const* const command : {"create", "apply", "vacuum", "shell"}) {
    EXPECT_TRUE(Has(page, std::string(".SS ") + command + "\n")) << page;
  }
  EXPECT_TRUE(Has(completion, "complete -o filenames -F _sagleme sagleme"));
  Write("completion", completion);
  std::string const words = OutputOf("bash -c \"source '" + Path("completion") +
                                     "'; COMP_WORDS=(sagleme ap); COMP_CWORD=1; _sagleme; "
                                     "echo \\${COMPREPLY[@]}\"");
  EXPECT_EQ("apply\n", words);
}

}  // namespace
}  // namespace tool_test
