#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <random>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

class VacuumTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
  }
  std::string Rows(int from, int to) {
    std::string rows = "Title,Pages,Isbn,Price\n";
    for (int i = from; i < to; ++i) {
      rows += "t" + std::to_string(i) + "," + std::to_string(i) + "," + std::to_string(i) + ",1\n";
    }
    return rows;
  }
  // Gives every table of the subtree a new layout.
  void AddColumn(std::string const& name) {
    std::string schema = On("schema").out;
    schema.replace(schema.find("{\"name\": \"Pages\""), 0,
                   "{\"name\": \"" + name + "\", \"type\": \"long\", \"nullable\": true}, ");
    Apply(schema);
  }
  Json Info() { return Json::parse(On("info", {"--format", "json"}).out); }
};

TEST_F(VacuumTest, Vacuum_MovesObjectsAndKeepsTheirValues) {
  On("import", {"Book", "-"}, 0, Rows(0, 250));
  AddColumn("First");
  AddColumn("Second");
  std::string const before = On("scan", {"Book"}).out;
  EXPECT_EQ(3, Info()["tables to move"]);
  Result const vacuum = On("vacuum", {"--batch", "100"});
  EXPECT_NE(std::string::npos,
            vacuum.err.find("moved 250 objects, removed 0 objects, finished 3 of 3 requests"))
      << vacuum.err;
  EXPECT_EQ(before, On("scan", {"Book"}).out);
  EXPECT_EQ(0, Info()["tables to move"]);
  On("check");
  EXPECT_NE(std::string::npos,
            On("vacuum").err.find("moved 0 objects, removed 0 objects, finished 0 of 0 requests"));
}

TEST_F(VacuumTest, Vacuum_StoppedByCtrlC_KeepsItsWorkAndResumesTheNextTime) {
  On("import", {"Book", "-"}, 0, Rows(0, 250));
  AddColumn("First");
  std::string const before = On("scan", {"Book"}).out;
  {
    Terminal terminal({"vacuum", database(), "--batch", "1", "--pause", "150"});
    terminal.Until("a second, ");
    std::string const shown = terminal.Until(" left");
    EXPECT_NE(std::string::npos, shown.find(" %, ")) << shown;
    terminal.Type("\x03");
    terminal.Until("interrupted: what was done is kept; run vacuum again to go on");
    EXPECT_EQ(1, terminal.Finish().status);
  }
  EXPECT_EQ(before, On("scan", {"Book"}).out);
  EXPECT_EQ(std::string::npos, On("vacuum").err.find("\nmoved 0 objects"));
  EXPECT_EQ(0, Info()["tables to move"]);
  EXPECT_EQ(before, On("scan", {"Book"}).out);
}

TEST_F(VacuumTest, Vacuum_RemovesObjectsOfDroppedTablesAndOfNoOthers) {
  On("import", {"Book", "-"}, 0, Rows(0, 30));
  On("import", {"Film", "-"}, 0, "Title,Rating,Colour\na,1,true\nb,2,true\n");
  std::uint64_t const objects = Info()["catalogue rows and objects"];
  std::string schema = kLibrary;
  std::size_t const book = schema.find("    {\"name\": \"App.Book\"");
  schema.erase(book, schema.find("    {\"name\": \"App.Film\"") - book);
  Apply(schema, {"--allow-destructive"});
  EXPECT_EQ(1, Info()["tables to clear"]);
  On("check");
  Result const vacuum = On("vacuum");
  EXPECT_NE(std::string::npos, vacuum.err.find("removed 30 objects, finished 1 of 1 request,"))
      << vacuum.err;
  EXPECT_EQ(0, Info()["tables to clear"]);
  EXPECT_GT(objects - 30, Info()["catalogue rows and objects"].get<std::uint64_t>());
  EXPECT_EQ(2u, Json::parse(On("scan", {"Film", "--format", "json"}).out).size());
  On("check");
}

TEST_F(VacuumTest, Vacuum_KilledAtRandomMomentsBesideAnotherWriter_EndsInTheRightState) {
  constexpr int kObjects = 1500;
  constexpr int kRounds = 12;
  On("import", {"Book", "-"}, 0, Rows(0, kObjects));
  AddColumn("First");
  std::mt19937 random(20);
  int written = kObjects;
  for (int round = 0; round < kRounds; ++round) {
    pid_t const vacuum = StartTool({"vacuum", database(), "--batch", "15"});
    On("import", {"Book", "-"}, 0, Rows(written, written + 20));
    written += 20;
    usleep(static_cast<useconds_t>(random() % 20000));
    kill(vacuum, SIGKILL);
    WaitFor(vacuum);
    On("check");
  }
  AddColumn("Second");
  On("vacuum");
  EXPECT_EQ(0, Info()["tables to move"]);
  Json const books = Json::parse(On("find", {"ItemByPages", "--reverse", "--format", "json"}).out);
  ASSERT_EQ(static_cast<std::size_t>(written), books.size());
  for (int i = 0; i < written; ++i) {
    EXPECT_EQ(i, books[static_cast<std::size_t>(i)]["Pages"]);
    EXPECT_EQ("t" + std::to_string(i), books[static_cast<std::size_t>(i)]["Title"]);
  }
  On("check");
}

}  // namespace
}  // namespace tool_test
