#include <filesystem>
#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

bool Contains(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

class CommandsTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    On("import", {"App.Person", "-"}, 0, "Name,Height\nAda,1.5\nJosé 日本,\n");
    On("import", {"App.Book", "-"}, 0,
       "Title,Pages,Owner,Isbn,Price\nOne,10,Name=Ada,1,1.5\nTwo,20,,2,-0.25\n");
    On("import", {"App.Film", "-"}, 0, "Title,Rating,Poster,Colour\nThree,0.5,AAEC,true\n");
  }

  Json List(std::string const& command, Arguments rest = {}) {
    rest.push_back("--format");
    rest.push_back("json");
    return Json::parse(On(command, rest).out);
  }
};

TEST_F(ToolTest, Create_OnAnExistingDatabase_IsRefused) {
  Create();
  Result const again = On("create", {}, 4);
  EXPECT_TRUE(Contains(again.err, "already holds a database")) << again.err;
  On("info");
}

TEST_F(ToolTest, Create_WhereAFileStands_CannotOpen) {
  Write("db", "a file");
  On("create", {}, 3);
}

TEST_F(ToolTest, Create_BesideForeignFiles_IsRefusedWithTheirName) {
  std::filesystem::create_directory(database());
  Write("db/notes.txt", "a file");
  Result const refused = On("create", {}, 4);
  EXPECT_TRUE(Contains(refused.err, "the directory holds notes.txt")) << refused.err;
  EXPECT_FALSE(std::filesystem::exists(Path("db/data.mdb")));
  std::filesystem::remove(Path("db/notes.txt"));
  On("create");
}

TEST_F(ToolTest, Create_OffATerminal_ReportsTheEndOnly) {
  Result const result = On("create");
  EXPECT_EQ("created " + database() + "\n", result.err);
  EXPECT_EQ("", result.out);
}

TEST_F(ToolTest, EveryCommand_WithoutADatabase_CannotOpen) {
  for (char const* const command : {"info", "tables", "check", "vacuum", "dump", "schema"}) {
    Result const result = On(command, {}, 3);
    EXPECT_TRUE(Contains(result.err, "There is no database in")) << result.err;
    EXPECT_EQ("", result.out);
  }
}

TEST_F(ToolTest, Usage_Wrong_ExitsWithTwo) {
  EXPECT_EQ(2, RunTool({}).status);
  EXPECT_EQ(2, RunTool({"nonsense"}).status);
  EXPECT_EQ(2, RunTool({"info"}).status);
  EXPECT_EQ(2, RunTool({"info", "x", "--nonsense"}).status);
  EXPECT_EQ(2, RunTool({"info", "x", "--format", "xml"}).status);
}

TEST_F(ToolTest, Help_EveryCommand_HasAnExample) {
  for (char const* const command :
       {"create", "info", "tables", "describe", "schema", "apply", "import", "export", "dump",
        "load", "get", "find", "scan", "check", "vacuum", "backup", "restore"}) {
    Result const help = RunTool({command, "--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_TRUE(Contains(help.out, std::string("  sagleme ") + command + " ")) << help.out;
  }
}

TEST_F(CommandsTest, Info_CountsTablesAndObjects) {
  Json const info = List("info");
  EXPECT_EQ(4, info["tables"]);
  EXPECT_EQ(3, info["indexes"]);
  EXPECT_EQ(5, info["objects"]);
  EXPECT_EQ(9, info["catalogue version"]);
  EXPECT_EQ(0, info["tables to move"]);
  EXPECT_EQ(info["newest commit"], info["oldest commit that is read"]);
  EXPECT_EQ(0, info["other open transactions"]);
}

TEST_F(CommandsTest, Tables_CountOwnObjectsAndThoseOfDescendants) {
  Json const tables = List("tables");
  ASSERT_EQ(4u, tables.size());
  EXPECT_EQ("App.Item", tables[2]["table"]);
  EXPECT_EQ(0, tables[2]["objects"]);
  EXPECT_EQ(3, tables[2]["with descendants"]);
}

TEST_F(CommandsTest, Tables_AfterAColumnWasAdded_AreCountedAsBefore) {
  std::string schema = kLibrary;
  schema.replace(schema.find("{\"name\": \"Pages\""), 0,
                 "{\"name\": \"Extra\", \"type\": \"long\"}, ");
  Apply(schema);
  Json const tables = List("tables");
  EXPECT_EQ(3, tables[2]["with descendants"]);
  EXPECT_EQ(4, List("info")["tables to move"].get<int>() + 1);
}

TEST_F(CommandsTest, Tables_AsTree_StandBelowTheirBase) {
  std::string const tree = On("tables", {"--tree", "--format", "csv"}).out;
  EXPECT_TRUE(Contains(tree, "App.Item,")) << tree;
  EXPECT_TRUE(Contains(tree, "  App.Book")) << tree;
}

TEST_F(CommandsTest, Describe_IncompleteName_ShowsOriginsAndIndexes) {
  Json const book = List("describe", {"Book"});
  EXPECT_EQ("App.Book", book["table"]);
  ASSERT_EQ(5u, book["columns"].size());
  EXPECT_EQ("Title", book["columns"][0]["column"]);
  EXPECT_EQ("App.Item", book["columns"][0]["from"]);
  EXPECT_EQ("App.Person", book["columns"][2]["target"]);
  EXPECT_EQ("App.Book", book["columns"][3]["from"]);
  EXPECT_EQ("Pages descending", book["indexes"][0]["columns"]);
}

TEST_F(CommandsTest, Describe_AmbiguousName_ListsTheCandidates) {
  std::string schema = kLibrary;
  schema.replace(schema.find("    {\"name\": \"App.Person\""), 0,
                 "    {\"name\": \"Other.Book\"},\n");
  Apply(schema);
  Result const result = On("describe", {"Book"}, 4);
  EXPECT_TRUE(Contains(result.err, "ambiguous")) << result.err;
  EXPECT_TRUE(Contains(result.err, "App.Book")) << result.err;
  EXPECT_TRUE(Contains(result.err, "Other.Book")) << result.err;
}

TEST_F(CommandsTest, Describe_UnknownName_IsRefused) { On("describe", {"Nothing"}, 4); }

TEST_F(CommandsTest, Get_FollowsReferencesOnRequest) {
  Json const books = List("scan", {"Book", "--where", "Title=One"});
  ASSERT_EQ(1u, books.size());
  std::string const id = std::to_string(books[0]["_oid"].get<int>());
  Json const book = List("get", {id, "--follow", "Owner"});
  EXPECT_EQ("One", book["Title"]);
  EXPECT_EQ("1.5", book["Price"]);
  EXPECT_EQ("App.Person", book["Owner._table"]);
  EXPECT_EQ("Ada", book["Owner.Name"]);
}

TEST_F(CommandsTest, Get_UnknownObject_IsAProblem) { On("get", {"99999999"}, 1); }

TEST_F(CommandsTest, Get_FollowingANonReference_IsUsage) {
  Json const books = List("scan", {"Book"});
  On("get", {std::to_string(books[0]["_oid"].get<int>()), "--follow", "Title"}, 2);
}

TEST_F(CommandsTest, Find_ByKeyPrefixAndInReverse_GivesTheObjects) {
  EXPECT_EQ(10, List("find", {"ItemByTitle", "One"})[0]["Pages"]);
  EXPECT_EQ(2u, List("find", {"ItemByTitle", "T", "--starting"}).size());
  Json const all = List("find", {"ItemByTitle"});
  ASSERT_EQ(3u, all.size());
  EXPECT_EQ("One", all[0]["Title"]);
  EXPECT_EQ("Two", List("find", {"ItemByTitle", "--reverse", "--limit", "1"})[0]["Title"]);
  Json const pages = List("find", {"ItemByPages"});
  EXPECT_EQ(20, pages[0]["Pages"]);
  EXPECT_TRUE(pages[2]["Pages"].is_null());
}

TEST_F(CommandsTest, Find_WithBadKeys_IsUsage) {
  On("find", {"ItemByPages", "many"}, 2);
  On("find", {"ItemByPages", "1", "2"}, 2);
  On("find", {"ItemByPages", "1", "--starting"}, 2);
  On("find", {"NoIndex"}, 4);
}

TEST_F(CommandsTest, Scan_WithConditions_TakesWhatMeetsAll) {
  EXPECT_EQ(3u, List("scan", {"Item"}).size());
  EXPECT_EQ(0u, List("scan", {"Item", "--only"}).size());
  EXPECT_EQ(1u, List("scan", {"Item", "--where", "Pages="}).size());
  EXPECT_EQ(0u, List("scan", {"Item", "--where", "Pages=10", "--where", "Title=Two"}).size());
  EXPECT_EQ(1u, List("scan", {"Film", "--where", "Colour=true"}).size());
  On("scan", {"Item", "--where", "Pages"}, 2);
  On("scan", {"Item", "--where", "Pages=x"}, 2);
  On("scan", {"Item", "--where", "Nothing=1"}, 4);
}

TEST_F(CommandsTest, Lists_ArePrintedInEveryForm) {
  Arguments const scan{"Person", "--format"};
  auto const in = [&](char const* form) { return On("scan", {"Person", "--format", form}).out; };
  EXPECT_TRUE(Contains(in("csv"), "_oid,_table,Name,Height\n")) << in("csv");
  EXPECT_TRUE(Contains(in("markdown"), "| Ada | 1.5 |")) << in("markdown");
  EXPECT_TRUE(Contains(in("table"), "Name       Height\n")) << in("table");
  EXPECT_TRUE(Contains(in("table"), "José 日本  -\n")) << in("table");
  EXPECT_EQ(in("csv"), On("scan", {"Person"}).out) << "values separated by commas off a terminal";
}

TEST_F(CommandsTest, Lists_OnATerminal_AreTablesAndColoursCanBeRefused) {
  Result const colored = RunOnTerminal({"scan", database(), "Person"});
  EXPECT_TRUE(Contains(colored.out, "\x1b[1m")) << colored.out;
  Result const plain = RunOnTerminal({"scan", database(), "Person"}, "", {"NO_COLOR=1"});
  EXPECT_FALSE(Contains(plain.out, "\x1b[")) << plain.out;
  EXPECT_TRUE(Contains(plain.out, "Name       Height")) << plain.out;
}

TEST_F(CommandsTest, ControlCharactersInData_DoNotReachATerminal) {
  On("import", {"App.Person", "-"}, 0, "Name\n\"a\x1b[31mb\"\n");
  Result const shown = RunOnTerminal({"scan", database(), "Person"}, "", {"NO_COLOR=1"});
  EXPECT_TRUE(Contains(shown.out, "a\\x1b[31mb")) << shown.out;
}

}  // namespace
}  // namespace tool_test
