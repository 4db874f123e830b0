#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "run_tool.h"

namespace tool_test {
namespace {

namespace fs = std::filesystem;

char const* const kNumbers = R"({"schema": 1, "tables": [{"name": "T", "columns": [
  {"name": "d", "type": "decimal", "nullable": true},
  {"name": "f", "type": "float", "nullable": true},
  {"name": "g", "type": "double", "nullable": true},
  {"name": "s", "type": "string"}, {"name": "b", "type": "binary"}]}]})";

class LoadTest : public ToolTest {
 protected:
  void SetUp() override { Create(); }
  std::string other() const { return Path("other"); }
  void Load(std::string const& dump, Arguments const& rest = {}) const {
    Arguments words{"load", other(), "-"};
    words.insert(words.end(), rest.begin(), rest.end());
    Result const load = RunTool(words, dump);
    EXPECT_EQ(0, load.status) << load.err;
  }
  void ExpectNothingLeft() const {
    EXPECT_FALSE(fs::exists(other()));
    EXPECT_FALSE(fs::exists(other() + ".loading"));
  }
};

// Every value in CSV and in JSON Lines, through import, export, dump and load.
TEST_F(LoadTest, NumbersAndTexts_ComeBackToTheBit) {
  Apply(kNumbers);
  std::string const rows =
      "d,f,g,s,b\n"
      "-9223372036854.775808,1e-45,5e-324,\"\",\"\"\n"
      "9223372036854.775807,nan(7f800001),nan(7ff0000000000001),\xED\xA0\xBDx,AA==\n"
      "0.000001,nan(ffc00000),nan(fff8000000000000),x\xED\xB8\x80,\n"
      "-0.000001,-0.0,-0.0,\xF0\x9F\x98\x80,\n"
      "12.5,nan,nan,\xEF\xBF\xBF,\n"
      ",3.4028235e+38,1.7976931348623157e+308,,\n"
      "1,inf,-inf,a,\n";
  On("import", {"T", "-"}, 0, rows);
  std::string const csv = On("export", {"T", "--only"}).out;
  for (std::string const part :
       {"nan(7f800001),nan(7ff0000000000001)", "-0.0,-0.0", ",1e-45,5e-324,",
        "nan(ffc00000),nan(fff8000000000000)", ",12.5,nan,nan,"}) {
    EXPECT_NE(std::string::npos, csv.find(part)) << part << " in\n" << csv;
  }
  std::string const lines = On("export", {"T", "--only", "--jsonl"}).out;
  std::string const dump = On("dump").out;
  Load(dump);
  EXPECT_EQ(dump, RunTool({"dump", other()}).out);
  EXPECT_EQ(csv, RunTool({"export", other(), "T", "--only"}).out);
  std::string const third = Path("third");
  ASSERT_EQ(0, RunTool({"create", third}).status);
  ASSERT_EQ(0, RunTool({"apply", third, Write("numbers.json", kNumbers)}).status);
  Result const import = RunTool({"import", third, "T", "-", "--jsonl", "--keep-ids"}, lines);
  ASSERT_EQ(0, import.status) << import.err;
  EXPECT_EQ(csv, RunTool({"export", third, "T", "--only"}).out);
}

TEST_F(LoadTest, NewIds_FollowReferences) {
  Apply(R"({"schema": 1, "tables": [{"name": "Node", "columns": [
      {"name": "Name", "type": "string"},
      {"name": "Next", "type": "reference", "target": "Node"}]}]})");
  std::string const schema = On("dump").out;
  std::string const dump = schema.substr(0, schema.find('\n') + 1) +
                           "{\"t\": 0, \"id\": 700, \"v\": [\"a\", 9000000000000000000]}\n"
                           "{\"t\": 0, \"id\": 701, \"v\": [\"b\", 700]}\n"
                           "{\"t\": 0, \"id\": 900, \"v\": [\"c\", 699]}\n"
                           "{\"t\": 0, \"id\": 9000000000000000000, \"v\": [\"d\", 901]}\n"
                           "{\"end\": {\"objects\": 4, \"tables\": [4]}}\n";
  Result const load = RunTool({"load", other(), "-", "--new-ids"}, dump);
  ASSERT_EQ(0, load.status) << load.err;
  EXPECT_NE(std::string::npos, load.err.find("2 references to objects that the dump does not have"))
      << load.err;
  EXPECT_EQ("_oid,_table,Name,Next\n1,Node,a,4\n2,Node,b,1\n3,Node,c,\n4,Node,d,\n",
            RunTool({"scan", other(), "Node"}).out);
  EXPECT_EQ(0, RunTool({"check", other()}).status);
}

TEST_F(LoadTest, BlankLinesBehindTheLastOne_AreAccepted) {
  Apply(kLibrary);
  std::string const dump = On("dump").out;
  Load(dump + "\n  \r\n\n");
  Result const more = RunTool({"load", Path("more"), "-"}, dump + "\nmore\n");
  EXPECT_EQ(1, more.status);
  EXPECT_NE(std::string::npos, more.err.find("behind the line that counts the objects"))
      << more.err;
}

// Lines as dumps are written take a way of their own. Whatever the values are, a line with its
// members in another order must come to the same.
TEST_F(LoadTest, Lines_OfEveryForm_MeanTheSame) {
  Apply(R"({"schema": 1, "tables": [{"name": "T", "columns": [
      {"name": "s", "type": "string", "nullable": true},
      {"name": "g", "type": "double", "nullable": true},
      {"name": "b", "type": "bool", "nullable": true}]}]})");
  std::string const schema = On("dump").out;
  int accepted = 0;
  std::vector<std::string> const values{R"("a", 1, true)",
                                        "\"a\" ,\t1.5e3 , false ",
                                        R"("", -0, null)",
                                        R"("", -0.0, null)",
                                        R"("x\"y\\\n\u00e9", 1E-5, true)",
                                        R"(null, null, null)",
                                        R"("é漢😀", 0, true)",
                                        R"({"utf16": [55357]}, 0.5, true)",
                                        R"("a", 01, true)",
                                        R"("a", 5., true)",
                                        R"("a", .5, true)",
                                        R"("a", +1, true)",
                                        R"("a", 1e, true)",
                                        R"("a", -, true)",
                                        R"("a", 1e999, true)",
                                        R"("a", 1, tru)",
                                        R"("a", 1, true,)",
                                        R"("a", 1)",
                                        R"("a", 1, true, 2)",
                                        R"("a" 1, true)",
                                        R"("a, 1, true)",
                                        "\"a\x01\", 1, true",
                                        "\"\xED\xA0\xBD\", 1, true",
                                        "\"\xFF\", 1, true",
                                        R"("a", "b", true)",
                                        R"(1, 1, true)",
                                        "",
                                        R"("a", [1], true)",
                                        R"("a", {}, true)"};
  for (std::string const& row : values) {
    std::string const end = "\n{\"end\": {\"objects\": 1, \"tables\": [1]}}\n";
    std::string const usual = R"({"t": 0, "id": 700, "v": [)" + row + "]}" + end;
    std::string const other_order = R"({"id": 700, "t": 0, "v": [)" + row + "]}" + end;
    std::string const head = schema.substr(0, schema.find('\n') + 1);
    Result const first = RunTool({"load", Path("first"), "-"}, head + usual);
    Result const second = RunTool({"load", Path("second"), "-"}, head + other_order);
    EXPECT_EQ(second.status, first.status) << row << first.err << second.err;
    EXPECT_EQ(RunTool({"dump", Path("second")}).out, RunTool({"dump", Path("first")}).out) << row;
    accepted += first.status == 0 ? 1 : 0;
    fs::remove_all(Path("first"));
    fs::remove_all(Path("second"));
  }
  EXPECT_EQ(8, accepted);
}

TEST_F(LoadTest, CompressedDump_IsLoadedFromAFileAndAPipe) {
  Apply(kLibrary);
  On("import", {"Person", "-"}, 0, "Name\nAda\nBob\n");
  std::string const dump = On("dump").out;
  std::string const file = Write("dump", dump);
  OutputOf("gzip -k " + file);
  ASSERT_EQ(0, RunTool({"load", other(), file + ".gz"}).status);
  EXPECT_EQ(dump, RunTool({"dump", other()}).out);
  std::string const third = Path("third");
  OutputOf("cat " + file + ".gz | " + SAGLEME_TOOL + " load " + third + " -");
  EXPECT_EQ(dump, RunTool({"dump", third}).out);
}

TEST_F(LoadTest, KilledInTheMiddle_LeavesNoDatabaseAndIsTriedAgain) {
  Apply(kLibrary);
  On("import", {"Person", "-"}, 0, "Name\nAda\nBob\n");
  std::string const dump = On("dump").out;
  std::string const fifo = Path("fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  Background load({"load", other(), fifo});
  int const pipe = open(fifo.c_str(), O_WRONLY);
  std::size_t const part = dump.size() - 5;
  ASSERT_EQ(static_cast<ssize_t>(part), write(pipe, dump.data(), part));
  ASSERT_TRUE(load.Until([&] { return fs::exists(other() + ".loading/dump"); }));
  Result const second = RunTool({"load", other(), "-"}, dump);
  EXPECT_EQ(4, second.status);
  EXPECT_NE(std::string::npos, second.err.find("another process is loading")) << second.err;
  load.Kill();
  EXPECT_EQ(128 + SIGKILL, load.Finish());
  close(pipe);
  EXPECT_FALSE(fs::exists(other()));
  EXPECT_EQ(3, RunTool({"info", other()}).status);
  Load(dump);
  EXPECT_EQ(dump, RunTool({"dump", other()}).out);
  EXPECT_FALSE(fs::exists(other() + ".loading"));
}

TEST_F(LoadTest, StoppedByCtrlC_LeavesNothing) {
  std::string const fifo = Path("fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  Background load({"load", other(), fifo});
  int const pipe = open(fifo.c_str(), O_WRONLY);
  ASSERT_TRUE(load.Until([&] { return fs::exists(other() + ".loading/dump"); }));
  kill(load.process(), SIGINT);
  EXPECT_EQ(1, load.Finish());
  close(pipe);
  ExpectNothingLeft();
}

TEST_F(LoadTest, DumpWithAKeyTwice_IsRefusedWithKeyIndexAndLine) {
  Apply(kLibrary);
  On("import", {"Person", "-"}, 0, "Name\nAda\nBob\nCleo\n");
  std::string dump = On("dump").out;
  dump.replace(dump.find("\"Cleo\""), 6, "\"Ada\"");
  auto const before = dump.begin() + static_cast<std::ptrdiff_t>(dump.rfind("\"Ada\""));
  auto const line = 1 + std::count(dump.begin(), before, '\n');
  std::string const file = Write("twice.dump", dump);
  for (Arguments const& words : {Arguments{"load", other(), file}, Arguments{"load", other(), "-"},
                                 Arguments{"load", other(), file, "--new-ids"}}) {
    Result const load = RunTool(words, words[2] == "-" ? dump : "");
    EXPECT_EQ(1, load.status);
    std::string const place = ":" + std::to_string(line) + ": ";
    EXPECT_NE(std::string::npos, load.err.find(place)) << place << load.err;
    EXPECT_NE(std::string::npos,
              load.err.find("duplicate key \"Ada\" in unique index PersonByName (objects "))
        << load.err;
    EXPECT_NE(std::string::npos, load.err.find("No database was created.")) << load.err;
    ExpectNothingLeft();
  }
}

// Of so many objects the indexes are built before they are created.
std::string LargeDump(std::string const& schema, int objects) {
  std::string dump = schema.substr(0, schema.find('\n') + 1);
  for (int i = 0; i < objects; ++i) {
    auto const mixed = static_cast<unsigned>(i) * 2654435761U;
    dump.append("{\"t\": 0, \"id\": ").append(std::to_string(500000 + i));
    dump.append(", \"v\": [\"").append(std::to_string(mixed)).append("\", ");
    dump.append(std::to_string(mixed % 100)).append("]}\n");
  }
  std::string const count = std::to_string(objects);
  dump.append("{\"end\": {\"objects\": ").append(count);
  return dump.append(", \"tables\": [").append(count).append("]}}\n");
}

class LargeLoadTest : public LoadTest {
 protected:
  static constexpr int kObjects = 500001;

  void SetUp() override {
    LoadTest::SetUp();
    Apply(R"({"schema": 1, "tables": [{"name": "T", "columns": [
        {"name": "Name", "type": "string"}, {"name": "Kind", "type": "long"}],
        "indexes": [{"name": "ByKind", "columns": ["Kind"]},
                    {"name": "ByName", "unique": true, "columns": ["Name"]}]}]})");
    dump_ = LargeDump(On("dump").out, kObjects);
  }

  std::string dump_;
};

TEST_F(LargeLoadTest, Indexes_AreCompleteAndNoJobIsLeft) {
  Load(dump_);
  EXPECT_TRUE(RunTool({"dump", other()}).out == dump_);
  std::string const jobs = RunTool({"jobs", other()}).out;
  EXPECT_EQ(jobs.size() - 1, jobs.find('\n')) << jobs;  // the heading alone
  Result const check = RunTool({"check", other()});
  EXPECT_EQ(0, check.status) << check.out << check.err;
}

TEST_F(LargeLoadTest, KeyThatIsThereTwice_IsRefusedWithItsLine) {
  std::size_t const last = dump_.rfind("{\"t\"");
  std::size_t const name = dump_.find('[', last) + 1;
  dump_.replace(name, dump_.find(',', name) - name, "\"0\"");  // that of the first one
  Result const load = RunTool({"load", other(), "-"}, dump_);
  EXPECT_EQ(1, load.status);
  std::string const place = ":" + std::to_string(kObjects + 1) + ": ";
  EXPECT_NE(std::string::npos, load.err.find(place)) << load.err;
  EXPECT_NE(std::string::npos, load.err.find("cannot create unique index ByName on T: "
                                             "duplicate key \"0\" in unique index ByName "
                                             "(objects 500000 and 1000000)"))
      << load.err;
  ExpectNothingLeft();
}

}  // namespace
}  // namespace tool_test
