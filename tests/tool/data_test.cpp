#include <filesystem>
#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

class DataTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
  }
  std::size_t Count(std::string const& table) {
    return Json::parse(On("scan", {table, "--format", "json"}).out).size();
  }
};

char const* const kEveryType = R"({"schema": 1, "tables": [{"name": "T", "columns": [
  {"name": "s", "type": "string"}, {"name": "b", "type": "binary"},
  {"name": "l", "type": "long", "nullable": true}, {"name": "u", "type": "ulong", "nullable": true},
  {"name": "d", "type": "decimal", "nullable": true},
  {"name": "f", "type": "float", "nullable": true},
  {"name": "g", "type": "double", "nullable": true},
  {"name": "r", "type": "reference", "target": "T"},
  {"name": "o", "type": "bool", "nullable": true}]}]})";

char const* const kEveryValue =
    "s,b,l,u,d,f,g,r,o\n"
    "\"a,\"\"b\"\"\nc\",AAEC/"
    "w==,-9223372036854775808,18446744073709551615,-9223372036854.775808,0.1,"
    "1e-300,,true\n"
    "\"\",,,,,,,,\n"
    ",AA==,9223372036854775807,0,0.000001,nan,-inf,,false\n"
    "漢字 🙂,,0,1,12,3.4028235e+38,0.1,,\n";

TEST_F(DataTest, Import_EveryType_ComesBackFromExportInBothForms) {
  Apply(kEveryType, {"--allow-destructive"});
  On("import", {"T", "-"}, 0, kEveryValue);
  std::string const csv = On("export", {"T", "--only"}).out;
  std::string const lines = On("export", {"T", "--only", "--jsonl"}).out;
  EXPECT_NE(std::string::npos, csv.find("-9223372036854.775808,0.1,1e-300,,true\n")) << csv;
  EXPECT_NE(std::string::npos, csv.find(",\"\",,,,,,,,\n")) << csv;
  EXPECT_NE(std::string::npos, lines.find("\"g\": \"-inf\"")) << lines;

  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"create", other}).status);
  ASSERT_EQ(0, RunTool({"apply", other, Write("every.json", kEveryType)}).status);
  ASSERT_EQ(0, RunTool({"import", other, "T", "-", "--keep-ids"}, csv).status);
  EXPECT_EQ(csv, RunTool({"export", other, "T", "--only"}).out);
  EXPECT_EQ(lines, RunTool({"export", other, "T", "--only", "--jsonl"}).out);
}

TEST_F(DataTest, Import_JsonLines_TakesReferencesByIdAndByUniqueIndex) {
  On("import", {"Person", "-", "--jsonl"}, 0, "{\"Name\": \"Ada\"}\n\n{\"Name\": \"Bob\"}\n");
  Json const people = Json::parse(On("scan", {"Person", "--format", "json"}).out);
  std::string const id = people[0]["_oid"].dump();
  On("import", {"Book", "-", "--jsonl"}, 0,
     "{\"Title\": \"a\", \"Isbn\": 1, \"Price\": 1, \"Owner\": " + id +
         "}\n{\"Title\": \"b\", \"Isbn\": 2, \"Price\": 1, \"Owner\": \"Name=Bob\"}\n");
  Json const books = Json::parse(On("scan", {"Book", "--format", "json"}).out);
  EXPECT_EQ(people[0]["_oid"], books[0]["Owner"]);
  EXPECT_EQ(people[1]["_oid"], books[1]["Owner"]);
}

TEST_F(DataTest, Export_Subtree_CanBeImportedIntoIt) {
  On("import", {"Book", "-"}, 0, "Title,Isbn,Price\na,1,1\n");
  On("import", {"Film", "-"}, 0, "Title,Rating,Colour\nb,2,true\n");
  std::string const lines = On("export", {"Item", "--jsonl"}).out;
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"create", other}).status);
  ASSERT_EQ(0, RunTool({"apply", other, Write("library.json", kLibrary)}).status);
  ASSERT_EQ(0, RunTool({"import", other, "Item", "-", "--jsonl", "--keep-ids"}, lines).status);
  EXPECT_EQ(lines, RunTool({"export", other, "Item", "--jsonl"}).out);
}

TEST_F(DataTest, Import_BadRow_KeepsNothingAndReportsItsLocation) {
  std::string const file = Write("bad.csv", "Title,Isbn,Price\nOne,1,1\nTwo,many,1\nThree,3,1\n");
  Result const result = On("import", {"Book", file}, 1);
  EXPECT_NE(std::string::npos,
            result.err.find("bad.csv:3:5: column Isbn: \"many\" is not a number"))
      << result.err;
  EXPECT_EQ(0u, Count("Book"));
}

TEST_F(DataTest, Import_WithReject_TakesTheGoodRowsAndCollectsTheBad) {
  std::string const file =
      Write("mixed.csv",
            "Title,Isbn,Price\nOne,1,1\nTwo,many,1\nOne,2,1\nFour,4,5,6\n\"x\"y,1,1\nFive,5,1\n");
  Result const result = On("import", {"Book", file, "--reject", Path("rejected.csv")}, 1);
  EXPECT_EQ(2u, Count("Book")) << result.err;
  EXPECT_EQ("Title,Isbn,Price\nTwo,many,1\nOne,2,1\nFour,4,5,6\n\"x\"y,1,1\n",
            ReadText(Path("rejected.csv")));
  On("check");
}

TEST_F(DataTest, Import_BadFiles_AreReportedWithTheirLocation) {
  EXPECT_NE(std::string::npos, On("import", {"Book", "-"}, 1, "").err.find("no heading line"));
  EXPECT_NE(std::string::npos, On("import", {"Book", "-"}, 1, "A\nb\n").err.find("no column A"));
  EXPECT_NE(std::string::npos, On("import", {"Book", "-"}, 1, "Title,Title\n").err.find("twice"));
  EXPECT_NE(std::string::npos,
            On("import", {"Book", "-"}, 1, "Title,Isbn,Price\n\"a\n").err.find("never closed"));
  EXPECT_NE(std::string::npos,
            On("import", {"Book", "-"}, 1, "Title,Isbn,Price\n\xff,1,1\n").err.find("not UTF-8"));
  EXPECT_NE(std::string::npos,
            On("import", {"Book", "-"}, 1, "Isbn,Price\n\n-1,1\n").err.find("-:3:1"));
  EXPECT_NE(std::string::npos,
            On("import", {"Book", "-", "--jsonl"}, 1, "[1]\n").err.find("not a JSON object"));
  On("import", {"Book", Path("nothing")}, 2);
  On("import", {"Nothing", "-"}, 4, "a\n1\n");
  EXPECT_EQ(0u, Count("Book"));
}

TEST_F(DataTest, Import_UnknownHeading_IsReportedOnceWithItsLocation) {
  std::string const file = Write("heading.csv", "Title,Isbm\nOne,1\nTwo,2\nThree,3\n");
  Result const result = On("import", {"Book", file, "--reject", Path("rejected.csv")}, 1);
  std::string const message = "heading.csv:1:7: table App.Book has no column Isbm\n";
  EXPECT_NE(std::string::npos, result.err.find(message)) << result.err;
  EXPECT_EQ(result.err.find("Isbm"), result.err.rfind("Isbm")) << result.err;
  EXPECT_EQ("", ReadText(Path("rejected.csv")));
}

TEST_F(DataTest, Import_DanglingReference_IsABadRow) {
  Result const result =
      On("import", {"Book", "-"}, 1, "Title,Owner,Isbn,Price\na,Name=Nobody,1,1\n");
  EXPECT_NE(std::string::npos, result.err.find("there is no App.Person with Name = Nobody"));
  On("import", {"Book", "-"}, 1, "Title,Owner,Isbn,Price\na,Height=1,1,1\n");
}

TEST_F(DataTest, Import_NullInARequiredColumn_IsABadRow) {
  EXPECT_NE(std::string::npos,
            On("import", {"Book", "-"}, 1, "Isbn,Price\n\"\",1\n").err.find("is not a number"));
  EXPECT_NE(std::string::npos,
            On("import", {"Book", "-"}, 1, "Title,Isbn,Price\na,,1\n").err.find("takes no null"));
}

TEST_F(DataTest, Import_WithoutAColumnThatTakesNoNull_IsRefusedBeforeTheFirstRow) {
  Result const csv = On("import", {"Book", "-"}, 1, "Title,Price\na,1\n");
  EXPECT_NE(std::string::npos,
            csv.err.find("-:1:1: column Isbn of table App.Book is missing, but takes no null"))
      << csv.err;
  Result const json =
      On("import", {"Book", "-", "--jsonl"}, 1, "{\"Title\": \"a\", \"Isbn\": 1}\n");
  EXPECT_NE(std::string::npos, json.err.find("column Price of table App.Book is missing"))
      << json.err;
  EXPECT_EQ(0u, Count("Book"));
}

TEST_F(DataTest, Import_OnATerminal_ReportsHowLongItTook) {
  Result const result =
      RunOnTerminal({"import", database(), "Book", Write("one.csv", "Title,Isbn,Price\na,1,1\n")});
  EXPECT_NE(std::string::npos, result.out.find("1 object in 0:0")) << result.out;
}

TEST_F(DataTest, Dump_LoadedAndDumpedAgain_IsTheSameByteForByte) {
  On("import", {"Person", "-"}, 0, "Name,Height\nAda,1.5\nBob,\n");
  On("import", {"Book", "-"}, 0, "Title,Pages,Owner,Isbn,Price\na,1,Name=Bob,1,0.5\nb,,,2,1\n");
  On("import", {"Film", "-"}, 0, "Title,Rating,Poster,Colour\nc,nan,AAEC,false\n");
  std::string const dump = On("dump").out;
  std::string const other = Path("other");
  Result const load = RunTool({"load", other, Write("dump", dump)});
  ASSERT_EQ(0, load.status) << load.err;
  EXPECT_EQ(dump, RunTool({"dump", other}).out);
  EXPECT_EQ(0, RunTool({"check", other}).status);
}

TEST_F(DataTest, Load_HostsFirstObjects_KeepsTheirLowIds) {
  std::string const dump =
      "{\"schema\": 1, \"tables\": [{\"name\": \"T\"}]}\n{\"t\": 0, \"id\": 470, \"v\": []}\n"
      "{\"end\": {\"objects\": 1, \"tables\": [1]}}\n";
  std::string const other = Path("other");
  Result const load = RunTool({"load", other, "-"}, dump);
  ASSERT_EQ(0, load.status) << load.err;
  EXPECT_EQ(0, RunTool({"get", other, "470"}).status);
}

TEST_F(DataTest, Load_BadDump_CreatesNoDatabase) {
  std::string const other = Path("other");
  std::string const schema = "{\"schema\": 1, \"tables\": [{\"name\": \"T\"}]}\n";
  EXPECT_EQ(1, RunTool({"load", other, "-"}, "").status);
  std::string const end = "{\"end\": {\"objects\": 1, \"tables\": [1]}}\n";
  auto const refused = [&](std::string const& objects, std::string const& text) {
    Result const load = RunTool({"load", other, "-"}, schema + objects);
    EXPECT_EQ(1, load.status) << objects;
    EXPECT_NE(std::string::npos, load.err.find(text)) << load.err;
  };
  refused("nonsense\n" + end, "not an object of the dump");
  refused("{\"t\": 1, \"id\": 500, \"v\": []}\n" + end, "not an object of the dump");
  refused("{\"t\": 0, \"id\": 500, \"v\": [1]}\n" + end, "the number of values differs");
  refused(end, "its last line counts other objects");
  EXPECT_EQ(3, RunTool({"info", other}).status);
}

TEST_F(DataTest, Load_DumpCutAtAnyLineEnd_CreatesNoDatabase) {
  On("import", {"Person", "-"}, 0, "Name\nAda\nBob\nCleo\n");
  std::string const dump = On("dump").out;
  std::string const other = Path("other");
  std::size_t cuts = 0;
  for (std::size_t end = dump.find('\n'); end + 1 < dump.size(); end = dump.find('\n', end + 1)) {
    Result const load = RunTool({"load", other, "-"}, dump.substr(0, end + 1));
    EXPECT_EQ(1, load.status);
    EXPECT_NE(std::string::npos, load.err.find("the dump is cut")) << load.err;
    EXPECT_FALSE(std::filesystem::exists(other));
    ++cuts;
  }
  EXPECT_EQ(4u, cuts);
}

TEST_F(DataTest, Load_OntoADatabase_IsRefused) {
  std::string const dump = On("dump").out;
  On("load", {"-"}, 4, dump);
  EXPECT_EQ(dump, On("dump").out);
}

TEST_F(DataTest, Dump_NegativeZero_KeepsItsSign) {
  Apply(kEveryType, {"--allow-destructive"});
  On("import", {"T", "-"}, 0, "f,g\n-0,-0.0\n0,0\n");
  std::string const dump = On("dump").out;
  EXPECT_NE(std::string::npos, dump.find("-0.0, -0.0")) << dump;
  ASSERT_EQ(0, RunTool({"load", Path("loaded"), "-"}, dump).status);
  EXPECT_EQ(dump, RunTool({"dump", Path("loaded")}).out);
}

TEST_F(DataTest, Dump_LoneSurrogates_ComeBack) {
  On("import", {"Person", "-", "--jsonl"}, 0, "{\"Name\": {\"utf16\": [55357, 97]}}\n");
  std::string const dump = On("dump").out;
  EXPECT_NE(std::string::npos, dump.find("{\"utf16\": [55357, 97]}")) << dump;
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"load", other, "-"}, dump).status);
  EXPECT_EQ(dump, RunTool({"dump", other}).out);
}

}  // namespace
}  // namespace tool_test
