#include "run_tool.h"

namespace tool_test {
namespace {

class SqlTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    On("sql", {"CREATE TABLE Lib.Person (Name text, Boss REF(Lib.Person)); "
               "CREATE TABLE Lib.Item (Title text, Year bigint NOT NULL, Cover binary); "
               "CREATE TABLE Lib.Book (Pages uint) UNDER Lib.Item; "
               "CREATE UNIQUE INDEX PersonByName ON Person (Name); "
               "CREATE INDEX ItemByYear ON Item (Year DESC, Title);"});
  }
};

TEST_F(SqlTest, Statements_PrintTheirRowsInTheFormWanted) {
  On("sql",
     {"INSERT INTO Book(Title, Year, Cover) VALUES('Dune', 1965, x'00ff'), (NULL, 1, NULL)"});
  EXPECT_EQ(On("sql", {"SELECT Title, Year FROM Item ORDER BY Year; SELECT 1.5 AS x"}).out,
            "Title,Year\n,1\nDune,1965\nx\n1.5\n");
  EXPECT_EQ(On("sql", {"SELECT Title, Year FROM Item WHERE Year > 1", "--format", "json"}).out,
            "[\n  {\"Title\": \"Dune\", \"Year\": 1965}\n]\n");
  EXPECT_EQ(On("sql", {"-- nothing but a comment"}).out, "");
}

TEST_F(SqlTest, Failure_SaysWhereAndEndsTheRest) {
  Result const unknown = On("sql", {"SELECT Title,\n Missing FROM Item"}, 2);
  EXPECT_EQ(unknown.err, "sagleme: no such column: Missing (line 2, column 2)\n");
  Result const definition = On("sql", {"CREATE TABLE X (a nonsense)"}, 2);
  EXPECT_EQ(definition.err,
            "sagleme: line 1, column 19: expected a type, or REF(table), found nonsense\n");
  Result const twice =
      On("sql",
         {"INSERT INTO Person(Name) VALUES('a'); INSERT INTO Person(Name) VALUES('a'); "
          "INSERT INTO Person(Name) VALUES('b')"},
         1);
  EXPECT_NE(std::string::npos, twice.err.find("UNIQUE constraint failed")) << twice.err;
  EXPECT_EQ(On("sql", {"SELECT count(*) AS n FROM Person"}).out, "n\n1\n");
  EXPECT_EQ(RunTool({"sql", Path("nowhere"), "SELECT 1"}).status, 3);
  EXPECT_EQ(On("sql", {"SELECT 1", "--file", "x"}, 2).out, "");
}

TEST_F(SqlTest, File_IsRun_AndItsLinesAreCounted) {
  std::string const file = Write("all.sql", "SELECT 1 AS a;\n\nSELECT b;\n");
  Result const result = On("sql", {"--file", file}, 2);
  EXPECT_EQ(result.out, "a\n1\n");
  EXPECT_EQ(result.err, "sagleme: no such column: b (line 3, column 8)\n");
  EXPECT_EQ(On("sql", {"--file", "-"}, 0, "SELECT 2 AS c").out, "c\n2\n");
}

TEST_F(SqlTest, ZeroByte_IsRefused) {
  std::string const text("SELECT 1 AS a;\n\0SELECT 2;\n", 26);
  std::string const error =
      "sagleme: there is a zero byte in the statements (line 2, column 1)\n"
      "  The input must be text in UTF-8.\n";
  Result const lines = On("sql", {}, 2, text);
  EXPECT_EQ("a\n1\n", lines.out);
  EXPECT_EQ(error, lines.err);
  Result const file = On("sql", {"--file", Write("zero.sql", text)}, 2);
  EXPECT_EQ("", file.out) << "a file is looked at before it is run";
  EXPECT_EQ(error, file.err);
}

TEST_F(SqlTest, Lines_AreStatementsAndDotCommands) {
  Result const result =
      On("sql", {}, 0,
         ".tables\nBEGIN;\nINSERT INTO Item(Title, Year)\n  VALUES('Map', 1800);\n"
         ".format json\nSELECT Year FROM Item;\n.indexes Person\n");
  EXPECT_EQ(result.out,
            "Table\nBook\nItem\nPerson\n[\n  {\"Year\": 1800}\n]\n"
            "[\n  {\"Index\": \"PersonByName\", \"Table\": \"Lib.Person\", \"Columns\": \"Name\", "
            "\"Unique\": true}\n]\n");
  EXPECT_EQ(result.err, "the open transaction is undone\n");
  EXPECT_EQ(On("sql", {"SELECT count(*) AS n FROM Item"}).out, "n\n0\n");
  EXPECT_EQ(On("sql", {}, 2, ".nothing\nSELECT 1;\n").out, "");
}

TEST_F(SqlTest, SchemaAsSql_MakesTheSameSchemaAgain) {
  std::string const text = On("schema", {"--format", "sql"}).out;
  std::string const file = Write("schema.sql", text);
  std::string const again = Path("again");
  EXPECT_EQ(RunTool({"create", again}).status, 0);
  EXPECT_EQ(RunTool({"sql", again, "--file", file}).status, 0);
  EXPECT_EQ(RunTool({"schema", again, "--format", "sql"}).out, text);
  EXPECT_EQ(RunTool({"schema", again, "--portable"}).out, On("schema", {"--portable"}).out);
  EXPECT_EQ(On("schema", {"Book", "--format", "sql"}).out,
            "CREATE TABLE \"Lib.Book\" (\n  \"Pages\" uint) UNDER \"Lib.Item\";\n");
}

TEST_F(SqlTest, Wrapper_NamesTheDatabase_AndIsNotOverwritten) {
  EXPECT_EQ(On("sql", {"--wrapper", Path("db.sqlite")}).err, "");
  EXPECT_EQ(On("sql", {"--wrapper", Path("db.sqlite")}, 2).out, "");
}

TEST_F(SqlTest, Terminal_ShowsThePromptAndTables) {
  Result const result =
      RunOnTerminal({"sql", database()}, "SELECT 7\nAS seven;\n.quit\n", {"HOME=" + Path("")});
  EXPECT_NE(std::string::npos, result.out.find("db> ")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("seven")) << result.out;
}

}  // namespace
}  // namespace tool_test
