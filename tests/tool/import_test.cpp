#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

constexpr int kBatch = 20000;

// Text in which each character is two bytes.
std::string Utf16(std::string const& ascii, bool big) {
  std::string bytes = big ? "\xFE\xFF" : "\xFF\xFE";
  for (char const each : ascii) {
    bytes += big ? std::string{'\0', each} : std::string{each, '\0'};
  }
  return bytes;
}

class ImportTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    // Rows of one name may come twice.
    std::string schema = kLibrary;
    std::string const unique = "\"PersonByName\", \"unique\": true";
    schema.replace(schema.find(unique), unique.size(), "\"PersonByName\"");
    Apply(schema);
  }
  int Count(std::string const& table) const { return std::stoi(On("count", {table}).out); }
  static std::string People(int first, int last) {
    std::string rows;
    for (int i = first; i < last; ++i) rows += "p" + std::to_string(i) + ",1\n";
    return rows;
  }
  void ExpectPeople(std::string const& file, Arguments const& options, int more) const {
    int const before = Count("Person");
    Arguments words{"Person", Path(file)};
    words.insert(words.end(), options.begin(), options.end());
    On("import", words);
    EXPECT_EQ(before + more, Count("Person"));
  }
  std::string Fifo() const {
    std::string const path = Path("fifo");
    EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
    return path;
  }
  // Waits until so many are committed.
  bool UntilCount(Background& import, int count) const {
    return import.Until([&] { return Count("Person") >= count; });
  }
};

TEST_F(ImportTest, BadRowInALaterBatch_KeepsTheBatchesBeforeItAndSaysWhereToGoOn) {
  std::string const file = Write("many.csv", "Name,Height\n" + People(0, 2 * kBatch + 1000) +
                                                 "bad,tall\n" + People(190000, 190010));
  Result const result = On("import", {"Person", file}, 1);
  EXPECT_NE(std::string::npos, result.err.find("many.csv:41002:5: column Height")) << result.err;
  EXPECT_NE(std::string::npos, result.err.find("40000 rows of the file are imported; continue "
                                               "with --skip 40000"))
      << result.err;
  EXPECT_EQ(2 * kBatch, Count("Person"));
  Write("many.csv",
        "Name,Height\n" + People(0, 2 * kBatch + 1000) + "bad,2\n" + People(190000, 190010));
  On("import", {"Person", file, "--skip", "40000"});
  EXPECT_EQ(2 * kBatch + 1011, Count("Person"));
  On("check");
}

TEST_F(ImportTest, Atomic_KeepsNothingOfAFileWithABadRow) {
  std::string const rows = "Name,Height\n" + People(0, kBatch + 10);
  Result const result = On("import", {"Person", "-", "--atomic"}, 1, rows + "bad,tall\n");
  EXPECT_NE(std::string::npos, result.err.find("Nothing was imported")) << result.err;
  EXPECT_EQ(0, Count("Person"));
  On("import", {"Person", "-", "--atomic"}, 0, rows);
  EXPECT_EQ(kBatch + 10, Count("Person"));
}

TEST_F(ImportTest, InsideATransaction_IsDoneWholeOrNotAtAll) {
  Write("bad.csv", "Name,Height\n" + People(0, kBatch + 10) + "bad,tall\n");
  Write("good.csv", "Name,Height\n" + People(0, 3));
  Result const shell = RunOnTerminal(
      {"shell", database()}, "begin\nimport Person " + Path("good.csv") + "\nimport Person " +
                                 Path("bad.csv") + "\ncommit\nquit\n");
  EXPECT_NE(std::string::npos, shell.out.find("Nothing was imported")) << shell.out;
  EXPECT_EQ(3, Count("Person"));
}

TEST_F(ImportTest, KilledInTheMiddle_KeepsWholeBatchesAndGoesOnBySkip) {
  std::string const fifo = Fifo();
  Background import({"import", database(), "Person", fifo});
  int const pipe = open(fifo.c_str(), O_WRONLY);
  std::string const begin = "Name,Height\n" + People(0, kBatch + 500);
  ASSERT_EQ(static_cast<ssize_t>(begin.size()), write(pipe, begin.data(), begin.size()));
  ASSERT_TRUE(UntilCount(import, kBatch));
  import.Kill();
  EXPECT_EQ(128 + SIGKILL, import.Finish());
  close(pipe);
  EXPECT_EQ(kBatch, Count("Person"));
  On("check");
  On("import", {"Person", "-", "--skip", std::to_string(kBatch)}, 0,
     "Name,Height\n" + People(0, kBatch + 700));
  EXPECT_EQ(kBatch + 700, Count("Person"));
}

TEST_F(ImportTest, StoppedByCtrlCAtAPipe_EndsAndKeepsWholeBatches) {
  std::string const fifo = Fifo();
  Background import({"import", database(), "Person", fifo});
  int const pipe = open(fifo.c_str(), O_WRONLY);
  std::string const begin = "Name,Height\n" + People(0, kBatch + 500);
  ASSERT_EQ(static_cast<ssize_t>(begin.size()), write(pipe, begin.data(), begin.size()));
  ASSERT_TRUE(UntilCount(import, kBatch));
  kill(import.process(), SIGINT);
  EXPECT_EQ(1, import.Finish());
  close(pipe);
  EXPECT_EQ(kBatch, Count("Person"));
}

TEST_F(ImportTest, ContinuedImport_AddsToTheRowsRejectedBefore) {
  std::string const rows = Write("people.csv", "Name,Height\na,x\nb,1\nc,y\nd,2\n");
  std::string const rest = Path("rest.csv");
  On("import", {"Person", rows, "--reject", rest}, 1);
  EXPECT_EQ("Name,Height\na,x\nc,y\n", ReadText(rest));
  On("import", {"Person", rows, "--skip", "2", "--reject", rest}, 1);
  EXPECT_EQ("Name,Height\na,x\nc,y\nc,y\n", ReadText(rest));
  On("import", {"Person", rows, "--skip", "2", "--reject", Path("new.csv")}, 1);
  EXPECT_EQ("Name,Height\nc,y\n", ReadText(Path("new.csv")));
  On("import", {"Person", rows, "--reject", rest}, 1);
  EXPECT_EQ("Name,Height\na,x\nc,y\n", ReadText(rest));
}

TEST_F(ImportTest, NumbersThatNoColumnHolds_AreReportedAsWrittenWithTheirLocation) {
  std::string const rows = Write("people.csv", "Name,Height\na,1e999\nb,1\nc,-1e999\n");
  Result const csv = On("import", {"Person", rows, "--reject", Path("rest.csv")}, 1);
  EXPECT_NE(std::string::npos, csv.err.find("people.csv:2:3: column Height: 1e999 is out of range"))
      << csv.err;
  EXPECT_NE(std::string::npos, csv.err.find(":4:3: column Height: -1e999 is out of range"));
  EXPECT_EQ("Name,Height\na,1e999\nc,-1e999\n", ReadText(Path("rest.csv")));
  std::string const bad = "{\"Name\": \"d\", \"Height\": 1e999}\n";
  std::string const lines =
      Write("people.jsonl", bad + "{\"Name\": \"e\", \"Height\": 1}\n{\"Name\": f}\n");
  Result const json = On("import", {"Person", lines, "--reject", Path("rest.jsonl")}, 1);
  EXPECT_NE(std::string::npos, json.err.find(":1:25: the number 1e999 is out of range"))
      << json.err;
  EXPECT_NE(std::string::npos, json.err.find(":3:11: the line is not valid JSON")) << json.err;
  EXPECT_EQ(bad + "{\"Name\": f}\n", ReadText(Path("rest.jsonl")));
  EXPECT_EQ(2, Count("Person"));
  Result const decimal = On("import", {"Book", "-"}, 1, "Title,Isbn,Price\nf,1,99999999999999\n");
  EXPECT_NE(std::string::npos,
            decimal.err.find("-:2:5: column Price: 99999999999999 is out of range"))
      << decimal.err;
}

TEST_F(ImportTest, RejectedRowsThatCannotBeWritten_SayWhichFileAndWhy) {
  std::string const rows = "Name,Height\n" + People(0, kBatch + 10) + "a,tall\nb,1\n";
  std::string const file = Write("people.csv", rows);
  Result const full = On("import", {"Person", file, "--reject", "/dev/full"}, 4);
  EXPECT_NE(std::string::npos, full.err.find("cannot write /dev/full: No space left on device"))
      << full.err;
  EXPECT_NE(std::string::npos, full.err.find("continue with --skip")) << full.err;
  EXPECT_EQ(kBatch, Count("Person"));
  Result const none = On("import", {"Person", file, "--reject", Path("no/such/place")}, 2);
  EXPECT_NE(std::string::npos, none.err.find("/no/such/place: No such file or directory"))
      << none.err;
}

TEST_F(ImportTest, KeptIds_GoThroughSeveralBatches) {
  constexpr int kFirst = 131100;  // just above those that the database has reserved
  std::string rows = "_oid,Name,Height\n";
  for (int i = 0; i < 2 * kBatch + 10; ++i) rows += std::to_string(kFirst + i) + ",p,1\n";
  On("import", {"Person", Write("ids.csv", rows), "--keep-ids"});
  EXPECT_EQ(2 * kBatch + 10, Count("Person"));
  On("import", {"Person", "-"}, 0, "Name,Height\nq,2\n");
  EXPECT_EQ(2 * kBatch + 11, Count("Person"));
}

TEST_F(ImportTest, Separators_AreFoundInTheHeadingOrNamed) {
  Write("semicolons.csv", "Name;Height\n\"a;b\";1.5\n\"c,d\";2\n");
  Write("tabs.csv", "Name\tHeight\ne,f\t1\n");
  Write("bars.csv", "Name|Height\ng|1\n");
  Write("one.csv", "Name\nh;i\n");
  Write("colons.csv", "Name:Height\nj:1\n");
  ExpectPeople("semicolons.csv", {}, 2);
  ExpectPeople("tabs.csv", {}, 1);
  ExpectPeople("bars.csv", {}, 1);
  ExpectPeople("one.csv", {}, 1);
  ExpectPeople("colons.csv", {"--separator", ":"}, 1);
  ExpectPeople("tabs.csv", {"--separator", "\\t"}, 1);
  On("import", {"Person", Path("colons.csv"), "--separator", "::"}, 2);
  std::string const names = On("scan", {"Person"}).out;
  EXPECT_NE(std::string::npos, names.find(",a;b,1.5\n")) << names;
  EXPECT_NE(std::string::npos, names.find(",h;i,\n")) << names;
}

TEST_F(ImportTest, Utf16WithAByteOrderMark_IsRead) {
  std::string const text = "Name,Height\nAda,1.5\nBob,2\n";
  Write("little.csv", Utf16(text, false));
  Write("big.csv", Utf16(text, true));
  Write("odd.csv", Utf16(text, true) + "x");
  Write("marked.csv", "\xEF\xBB\xBF" + text);
  ExpectPeople("little.csv", {}, 2);
  ExpectPeople("big.csv", {}, 2);
  ExpectPeople("marked.csv", {}, 2);
  Result const odd = On("import", {"Person", Path("odd.csv")}, 1);
  EXPECT_NE(std::string::npos, odd.err.find("in the middle of a character")) << odd.err;
}

TEST_F(ImportTest, OtherEncodings_AreNamedBeforeAnythingIsImported) {
  std::string const text = "Name,Height\nAda,1.5\n";
  std::string const little = Utf16(text, false);
  std::string wide{"\xFF\xFE\0\0", 4};
  for (char const letter : text) wide += std::string{letter, '\0', '\0', '\0'};
  Write("unmarked.csv", little.substr(2));
  Write("wide.csv", wide);
  for (std::string const name : {"unmarked.csv", "wide.csv"}) {
    Result const result = On("import", {"Person", Path(name)}, 1);
    EXPECT_NE(std::string::npos,
              result.err.find(name + ": the file is neither UTF-8 nor UTF-16 with a byte order"))
        << result.err;
  }
  Result const empty = On("import", {"Person", "/dev/null"}, 1);
  EXPECT_NE(std::string::npos, empty.err.find("Nothing was imported.")) << empty.err;
  EXPECT_EQ(0, Count("Person"));
}

TEST_F(ImportTest, CompressedFiles_AreUnpackedOrNamed) {
  std::string const text = "Name,Height\n" + People(0, 30000);
  std::string const file = Write("people.csv", text);
  OutputOf("gzip -k " + file + " && cat " + file + ".gz > " + Path("two.csv.gz") +
           " && tail -n 2 " + file + " | gzip >> " + Path("two.csv.gz"));
  ExpectPeople("people.csv.gz", {}, 30000);
  ExpectPeople("two.csv.gz", {}, 30002);
  OutputOf("head -c 1000 " + file + ".gz > " + Path("cut.csv.gz"));
  Result const cut = On("import", {"Person", Path("cut.csv.gz")}, 1);
  EXPECT_NE(std::string::npos, cut.err.find("the compressed data ends too early")) << cut.err;
  std::string const zstandard = Write("people.csv.zst", "\x28\xB5\x2F\xFD\x24\x01\x02\x03");
  Result const named = On("import", {"Person", zstandard}, 2);
  EXPECT_NE(std::string::npos, named.err.find("is compressed by Zstandard")) << named.err;
}

TEST_F(ImportTest, Pipes_AreReadLikeFiles) {
  std::string const tool = SAGLEME_TOOL;
  std::string const file = Write("people.csv", "Name,Height\nAda,1\nBob,2\n");
  OutputOf("cat " + file + " | " + tool + " import " + database() + " Person /dev/stdin");
  OutputOf("cat " + file + " | " + tool + " import " + database() + " Person -");
  OutputOf(tool + " import " + database() + " Person /dev/stdin < " + file);
  EXPECT_EQ(6, Count("Person"));
}

TEST_F(ImportTest, ReferenceToNothing_IsABadRow) {
  On("import", {"Person", "-"}, 0, "Name\nAda\n");
  On("import", {"Book", "-"}, 0, "Title,Isbn,Price\na,1,1\n");
  std::string const book =
      Json::parse(On("scan", {"Book", "--format", "json"}).out)[0]["_oid"].dump();
  std::string const heading = "Title,Isbn,Price,Owner\n";
  Result const missing = On("import", {"Book", "-"}, 1, heading + "b,1,1,999999\n");
  EXPECT_NE(std::string::npos, missing.err.find("column Owner: there is no object 999999"));
  Result const other = On("import", {"Book", "-"}, 1, heading + "b,1,1," + book + "\n");
  EXPECT_NE(std::string::npos, other.err.find("is neither of App.Person nor")) << other.err;
  EXPECT_EQ(1, Count("Book"));
}

TEST_F(ImportTest, WithKeptIds_ReferencesMayLeadToLaterRows) {
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"create", other}).status);
  ASSERT_EQ(0, RunTool({"apply", other, Write("node.json", R"({"schema": 1, "tables": [
      {"name": "Node", "columns": [{"name": "Next", "type": "reference", "target": "Node"}]}]})")})
                   .status);
  Result const whole = RunTool({"import", other, "Node", "-", "--keep-ids"},
                               "_oid,Next\n9000001,9000002\n9000002,9000002\n9000003,9000001\n");
  EXPECT_EQ(0, whole.status) << whole.err;
  Result const lost = RunTool({"import", other, "Node", "-", "--keep-ids"},
                              "_oid,Next\n9000004,9000005\n9000006,\n");
  EXPECT_EQ(1, lost.status);
  EXPECT_NE(std::string::npos, lost.err.find("-:2:9: there is no object 9000005")) << lost.err;
  EXPECT_EQ("3\n", RunTool({"count", other, "Node"}).out);
  EXPECT_EQ(0, RunTool({"check", other}).status);
}

TEST_F(ImportTest, WithIdsThatCannotBeKept_SaysWhy) {
  On("import", {"Person", "-"}, 0, "Name\nAda\n");
  std::string const taken =
      Json::parse(On("scan", {"Person", "--format", "json"}).out)[0]["_oid"].dump();
  for (std::string const& id : {taken, std::string("5"), std::string("0")}) {
    Result const result =
        On("import", {"Person", "-", "--keep-ids"}, 1, "_oid,Name\n" + id + ",Bob\n");
    EXPECT_NE(std::string::npos, result.err.find("-:2:1: ")) << result.err;
    EXPECT_NE(std::string::npos, result.err.find(id)) << result.err;
  }
  EXPECT_EQ(1, Count("Person"));
}

TEST_F(ImportTest, ColumnsNamedLikeTheToolsOwn_ComeBack) {
  Apply(R"({"schema": 1, "tables": [{"name": "T", "columns": [
      {"name": "id", "type": "long", "nullable": true},
      {"name": "table", "type": "string"},
      {"name": "_oid", "type": "string"},
      {"name": "_table", "type": "string"}]}]})",
        {"--allow-destructive"});
  On("import", {"T", "-"}, 0, "id,table,_oid,_table\n7,a,b,c\n,,,\n");
  std::string const csv = On("export", {"T"}).out;
  std::string const lines = On("export", {"T", "--jsonl"}).out;
  EXPECT_EQ(0u, csv.find("__oid,__table,id,table,_oid,_table\n")) << csv;
  std::string const listed = On("scan", {"T"}).out;
  EXPECT_EQ(0u, listed.find("__oid,__table,id,table,_oid,_table\n")) << listed;
  for (std::string const form : {"csv", "jsonl"}) {
    std::string const other = Path("other-" + form);
    ASSERT_EQ(0, RunTool({"create", other}).status);
    std::string const schema = Write("schema.json", On("schema").out);
    ASSERT_EQ(0, RunTool({"apply", other, schema, "--allow-destructive"}).status);
    std::string const file = Write("data." + form, form == "csv" ? csv : lines);
    Result const result = RunTool({"import", other, "T", file, "--keep-ids"});
    ASSERT_EQ(0, result.status) << result.err;
    EXPECT_EQ(csv, RunTool({"export", other, "T"}).out);
  }
}

TEST_F(ImportTest, ExportOfABaseTable_HasTheColumnsOfDerivedOnes) {
  On("import", {"Book", "-"}, 0, "Title,Isbn,Price\na,1,1\n");
  On("import", {"Film", "-"}, 0, "Title,Rating,Colour\nb,2,true\n");
  std::string const csv = On("export", {"Item"}).out;
  EXPECT_EQ(0u, csv.find("_oid,_table,Title,Pages,Owner,Isbn,Price,Rating,Poster,Colour\n")) << csv;
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"create", other}).status);
  ASSERT_EQ(0, RunTool({"apply", other, Write("library.json", kLibrary)}).status);
  Result const import = RunTool({"import", other, "Item", "-", "--keep-ids"}, csv);
  ASSERT_EQ(0, import.status) << import.err;
  EXPECT_EQ(csv, RunTool({"export", other, "Item"}).out);
  Result const only = On("export", {"Item", "--only"});
  EXPECT_EQ("_oid,Title,Pages,Owner\n", only.out);
  EXPECT_NE(std::string::npos, only.err.find("2 objects of derived tables left out")) << only.err;
}

}  // namespace
}  // namespace tool_test
