// Index builds: by apply beside writers, and what jobs shows and does with one that was cut off.

#include <lscoredb/index_build.h>
#include <signal.h>

#include <nlohmann/json.hpp>
#include <sagleme/index_build.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

constexpr int kMany = 12000;  // apply builds indexes of as many objects beside writers

class JobsTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
  }
  static std::string Rows(int rows, int distinct) {
    std::string text = "Title,Pages,Isbn,Price\n";
    for (int i = 0; i < rows; ++i) {
      std::string const number = std::to_string(i);
      text += "t" + number + "," + std::to_string(i % distinct) + "," + number + ",1\n";
    }
    return text;
  }
  void Import(int rows, int distinct) const {
    On("import", {"Book", "-"}, 0, Rows(rows, distinct));
  }
  // The schema with an index of Book more.
  std::string With(bool unique) const {
    Json schema = Json::parse(On("schema").out);
    for (Json& table : schema["tables"]) {
      std::string const name = table["name"];
      if (!name.ends_with("Book")) continue;
      Json index{{"name", "ByPages"}, {"columns", {"Pages"}}};
      if (unique) index["unique"] = true;
      table["indexes"].push_back(index);
    }
    return schema.dump();
  }
  // The schema with another type of a column of Item.
  std::string Retyped(std::string const& column, std::string const& type) const {
    Json schema = Json::parse(On("schema").out);
    for (Json& table : schema["tables"]) {
      std::string const name = table["name"];
      if (!name.ends_with("Item")) continue;
      for (Json& each : table["columns"]) {
        if (each["name"] == column) each["type"] = type;
      }
    }
    return schema.dump();
  }
  // Of Book, those included that nobody else shows.
  std::size_t CountColumns() const {
    sagleme::Database opened = sagleme::Database::Open(database());
    sagleme::Context const context(opened);
    sagleme::Transaction transaction(context, sagleme::Access::kReadOnly);
    return transaction.Resolve("Book")->columns.size();
  }
  static std::string IdOf(Json const& job) {
    return std::to_string(job["id"].get<std::uint64_t>());
  }
  std::size_t CountBooks() const {
    return Json::parse(On("scan", {"Book", "--format", "json"}).out).size();
  }
  Json Jobs() const { return Json::parse(On("jobs", {"--format", "json"}).out); }
  Json Indexes() const {
    Json const schema = Json::parse(On("schema").out);
    for (Json const& table : schema["tables"]) {
      std::string const name = table["name"];
      if (name.ends_with("Book")) return table.value("indexes", Json::array());
    }
    return {};
  }
  bool HasIndex() const { return Indexes().dump().find("ByPages") != std::string::npos; }
  // The number of the only build.
  std::uint64_t BuildUnderWay() const {
    sagleme::Database opened = sagleme::Database::Open(database());
    sagleme::Context const context(opened);
    return IndexBuilds(context).at(0).id;
  }
  // What the kernel knows an index by: the number of the build that it was.
  std::uint64_t HandleOf(std::string const& index) const {
    sagleme::Database opened = sagleme::Database::Open(database());
    sagleme::Context const context(opened);
    sagleme::Transaction transaction(context, sagleme::Access::kReadOnly);
    return transaction.FindIndex(index)->handle;
  }
  // Leaves a build after so many steps.
  void CutOff(int steps, bool unique = false) const {
    sagleme::Database opened = sagleme::Database::Open(database());
    sagleme::Context const context(opened);
    sagleme::IndexSpec spec{"ByPages", "", {{"Pages"}}, sagleme::Uniqueness::kAny};
    if (unique) spec.uniqueness = sagleme::Uniqueness::kUnique;
    {
      sagleme::Transaction transaction(context, sagleme::Access::kReadOnly);
      spec.table = transaction.Resolve("Book")->name;
    }
    sagleme::IndexBuildOptions options;
    options.batch = 10;
    options.report = [&](sagleme::IndexBuildProgress const&) { return --steps > 0; };
    EXPECT_FALSE(BuildIndex(context, spec, options));
  }
};

TEST_F(JobsTest, NoBuild_IsAnEmptyList) {
  EXPECT_EQ(Json::array(), Jobs());
  EXPECT_EQ("id,job,description,state,step,done,total,rate,by,reason\n", On("jobs").out);
}

TEST_F(JobsTest, Apply_BuildsIndexesOfManyObjectsBesideWriters) {
  Import(kMany, kMany);
  Result const applied = On("apply", {"-"}, 0, With(true));
  EXPECT_EQ("background   create unique index ByPages on App.Book\n", applied.out);
  EXPECT_TRUE(HasIndex());
  EXPECT_EQ(Json::array(), Jobs());
  On("check");
  EXPECT_EQ("nothing to do\n", On("apply", {"-"}, 0, On("schema").out).out);
}

TEST_F(JobsTest, Apply_ConvertsValuesOfManyObjectsBesideWriters) {
  Import(kMany, kMany);
  std::size_t const columns = CountColumns();
  Result const applied = On("apply", {"-"}, 0, Retyped("Pages", "string"));
  EXPECT_EQ("background   change column Pages of App.Item from long to string\n", applied.out);
  EXPECT_EQ(columns, CountColumns());
  Json const found = Json::parse(On("find", {"ItemByTitle", "t11999", "--format", "json"}).out);
  EXPECT_EQ("11999", found.at(0)["Pages"]);
  On("check");
  On("vacuum");
  On("check");
}

TEST_F(JobsTest, Apply_OfValuesThatDoNotConvert_LeavesNothing) {
  Import(kMany, kMany);
  std::size_t const columns = CountColumns();
  Result const refused = On("apply", {"-"}, 4, Retyped("Title", "long"));
  EXPECT_NE(std::string::npos, refused.err.find("12000 values of column Title of App.Item do not"))
      << refused.err;
  EXPECT_EQ(columns, CountColumns());
  On("check");
}

TEST_F(JobsTest, CutOffBuild_IsListedAndFinishedByApply) {
  Import(kMany, kMany);
  std::string const file = Write("with.json", With(false));
  CutOff(3);
  Json const job = Jobs().at(0);
  EXPECT_EQ("index build", job["job"]);
  EXPECT_EQ("index ByPages on App.Book (Pages)", job["description"]);
  EXPECT_EQ("cut off", job["state"]);
  EXPECT_EQ("stopped", job["reason"]);
  EXPECT_EQ("building", job["step"]);
  EXPECT_EQ(20, job["done"]);
  EXPECT_EQ(kMany, job["total"]);
  On("check");
  On("apply", {file});
  EXPECT_EQ(Json::array(), Jobs());
  EXPECT_TRUE(HasIndex());
  On("check");
}

// What drops or renames prepares nothing, but the build that is there already is not begun anew.
TEST_F(JobsTest, CutOffBuild_IsFinishedByAnApplyThatAlsoDropsAndRenames) {
  Import(kMany, kMany);
  CutOff(3);
  std::uint64_t const build = BuildUnderWay();
  Json schema = Json::parse(With(false));
  for (Json& table : schema["tables"]) {
    std::string const name = table["name"];
    if (!name.ends_with("Book")) continue;
    table["columns"].erase(1);
    table["name"] = "App.Volume";
  }
  std::string const file = Write("with.json", schema.dump());
  EXPECT_NE(std::string::npos, On("apply", {file}, 4).err.find("would lose values"));
  EXPECT_EQ(build, BuildUnderWay()) << "refused before it was gone on with";
  Result const applied = On("apply", {file, "--allow-destructive"});
  EXPECT_NE(std::string::npos, applied.out.find("rename table App.Book to App.Volume\n"))
      << applied.out;
  EXPECT_NE(std::string::npos, applied.out.find("drop column ")) << applied.out;
  EXPECT_EQ(Json::array(), Jobs());
  EXPECT_EQ(build, HandleOf("ByPages"));
  On("check");
}

TEST_F(JobsTest, Resume_FinishesBuilds) {
  Import(100, 100);
  for (int steps = 1; steps < 15; steps += 4) {
    CutOff(steps, true);
    Json const job = Jobs().at(0);
    EXPECT_EQ("unique index ByPages on App.Book (Pages)", job["description"]);
    EXPECT_FALSE(HasIndex());
    Arguments arguments{"resume"};
    if (steps > 5) arguments.push_back(std::to_string(job["id"].get<std::uint64_t>()));
    EXPECT_EQ("created unique index ByPages on App.Book (Pages)\n", On("jobs", arguments).err);
    EXPECT_TRUE(HasIndex());
    EXPECT_EQ(Json::array(), Jobs());
    On("check");
    Json schema = Json::parse(On("schema").out);
    for (Json& table : schema["tables"]) table.erase("indexes");
    Apply(schema.dump());
  }
}

TEST_F(JobsTest, CtrlC_KeepsTheBuildAndSaysSo) {
  Import(1000, 1000);
  CutOff(1);
  {
    Terminal terminal({"jobs", database(), "resume", "--batch", "1", "--pause", "150"});
    terminal.Until("a second, ");
    terminal.Type("\x03");
    Result const stopped = terminal.Finish();
    EXPECT_NE(0, stopped.status);
    EXPECT_NE(
        std::string::npos,
        stopped.out.find("interrupted: the build of index ByPages on App.Book (Pages) is kept"))
        << stopped.out;
  }
  EXPECT_GT(Jobs().at(0)["done"], 0);
  On("jobs", {"resume", "--batch", "5000", "--pause", "0"});
  EXPECT_TRUE(HasIndex());
}

TEST_F(JobsTest, Abandon_RemovesABuild) {
  Import(50, 50);
  CutOff(2);
  std::string const id = std::to_string(Jobs().at(0)["id"].get<std::uint64_t>());
  On("jobs", {"abandon", id});
  EXPECT_EQ(Json::array(), Jobs());
  EXPECT_FALSE(HasIndex());
  EXPECT_NE(std::string::npos, On("jobs", {"abandon", id}, 4).err.find("no job " + id));
  EXPECT_NE(std::string::npos, On("jobs", {"resume", id}, 4).err.find("no job " + id));
  EXPECT_NE(std::string::npos, On("jobs", {"duplicates", id}, 4).err.find("no index build " + id));
  On("check");
}

TEST_F(JobsTest, Duplicates_AreListedAndCanBeMended) {
  Import(40, 39);
  CutOff(3, true);
  std::string const id = std::to_string(Jobs().at(0)["id"].get<std::uint64_t>());
  Result const refused = On("jobs", {"resume"}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("duplicate key 0 in unique index ByPages (objects"))
      << refused.err;
  EXPECT_EQ("duplicates", Jobs().at(0)["step"]);
  EXPECT_NE(std::string::npos, Jobs().at(0)["reason"].dump().find("duplicate key 0")) << Jobs();
  Json const pairs = Json::parse(On("jobs", {"duplicates", id, "--format", "json"}).out);
  ASSERT_EQ(1u, pairs.size());
  On("delete", {std::to_string(pairs[0]["object"].get<std::uint64_t>())});
  On("jobs", {"resume"});
  EXPECT_TRUE(HasIndex());
  On("check");
}

// What cannot be made leaves nothing behind.
TEST_F(JobsTest, ApplyWithDuplicates_LeavesNothing) {
  Import(kMany, kMany - 1);
  Result const refused = On("apply", {"-"}, 4, With(true));
  EXPECT_NE(std::string::npos, refused.err.find("duplicate key 0 in unique index ByPages"))
      << refused.err;
  EXPECT_EQ(Json::array(), Jobs());
  EXPECT_FALSE(HasIndex());
  On("apply", {"-", "--atomic"}, 4, With(true));
  On("apply", {"-", "--atomic"}, 0, With(false));
  EXPECT_TRUE(HasIndex());
  On("check");
}

TEST_F(JobsTest, KilledBuild_IsResumed) {
  Import(kMany, kMany);
  for (int round = 0; round < 4; ++round) {
    CutOff(2);  // so that there is a build, whenever the kill comes
    Background resume({"jobs", database(), "resume", "--batch", "1", "--pause", "1"});
    auto const far_enough = [&] {
      Json const jobs = Jobs();
      return !jobs.empty() && jobs[0]["done"] >= 15 + 10 * round;
    };
    ASSERT_TRUE(resume.Until(far_enough));
    resume.Kill();
    EXPECT_EQ(128 + SIGKILL, resume.Finish());
    On("check");
  }
  On("jobs", {"resume"});
  EXPECT_TRUE(HasIndex());
  On("check");
}

// Each import ends in its first pause, which would last for an hour.
TEST_F(JobsTest, KilledOrStoppedImport_GoesOnBehindTheLastRow) {
  std::string const file = Write("books.csv", Rows(1000, 1000));
  for (std::size_t round = 1; round <= 3; ++round) {
    Background import({"import", database(), "Book", file, "--batch", "50", "--pause", "3600000"});
    ASSERT_TRUE(import.Until([&] { return CountBooks() >= 50 * round; }));
    Json const job = Jobs().at(0);
    EXPECT_EQ("running", job["state"]);
    EXPECT_EQ("process " + std::to_string(import.process()), job["by"]);
    EXPECT_NE(std::string::npos, On("import", {"Book", file}, 4).err.find("is running in process"));
    if (round < 3) {
      import.Kill();
      EXPECT_EQ(128 + SIGKILL, import.Finish());
    } else {
      On("jobs", {"stop", IdOf(job)});
      EXPECT_EQ(4, import.Finish());
    }
    EXPECT_EQ("cut off", Jobs().at(0)["state"]);
    EXPECT_EQ("books.csv into App.Book", Jobs().at(0)["description"]);
    EXPECT_EQ(50 * round, CountBooks());
  }
  EXPECT_EQ("finished the import of books.csv into App.Book\n",
            On("jobs", {"resume", IdOf(Jobs().at(0)), "--pause", "0"}).err);
  EXPECT_EQ(Json::array(), Jobs());
  EXPECT_EQ(1000u, CountBooks());
  On("check");
}

TEST_F(JobsTest, Stop_EndsTheJobOfAnotherProcess) {
  Import(500, 500);
  CutOff(1);
  std::string const id = IdOf(Jobs().at(0));
  Background resume({"jobs", database(), "resume", id, "--batch", "1", "--pause", "3600000"});
  ASSERT_TRUE(resume.Until([&] { return Jobs().at(0)["state"] == "running"; }));
  EXPECT_NE(std::string::npos, On("jobs", {"resume", id}, 4).err.find("is running in process"));
  On("jobs", {"stop", id});
  EXPECT_EQ(4, resume.Finish());
  EXPECT_EQ("cut off", Jobs().at(0)["state"]);
  On("jobs", {"stop", "12345678"}, 4);
  On("jobs", {"abandon", id});
  EXPECT_EQ(Json::array(), Jobs());
}

TEST_F(JobsTest, WrongUse_IsRefused) {
  EXPECT_NE(std::string::npos, On("jobs", {"mend"}, 2).err.find("unknown action \"mend\""));
  EXPECT_NE(std::string::npos, On("jobs", {"abandon"}, 2).err.find("needs the number"));
  EXPECT_NE(std::string::npos, On("jobs", {"abandon", "4x"}, 2).err.find("\"4x\" is not"));
  EXPECT_NE(std::string::npos, On("jobs", {"resume", "--batch", "0"}, 2).err.find("--batch"));
  On("jobs", {"resume"});
}

}  // namespace
}  // namespace tool_test
