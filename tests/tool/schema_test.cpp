#include <array>
#include <nlohmann/json.hpp>
#include <sagleme/host.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

class SchemaTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    On("import", {"App.Book", "-"}, 0, "Title,Pages,Isbn,Price\nOne,10,1,1.5\nTwo,20,2,2\n");
  }
  Json Document() { return Json::parse(On("schema").out); }
  std::string Plan(Json const& document, int status = 0, Arguments rest = {"--plan"}) {
    rest.insert(rest.begin(), Write("wanted.json", document.dump()));
    return On("apply", rest, status).out;
  }
  std::string ApplyDocument(Json const& document, int status = 0) {
    return Plan(document, status, {"--allow-destructive"});
  }
  // The library's schema with another entry in the place of the column Isbn.
  static std::string Renamed(std::string const& entry) {
    std::string schema = kLibrary;
    return schema.replace(schema.find("\"name\": \"Isbn\""), 14, entry);
  }
  static Json& Table(Json& document, std::string const& name) {
    for (Json& table : document["tables"]) {
      if (table["name"] == name) return table;
    }
    throw std::runtime_error(name);
  }
};

TEST_F(SchemaTest, Schema_AppliedToAnEmptyDatabase_ComesBackByteForByte) {
  std::string const portable = On("schema", {"--portable"}).out;
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"create", other}).status);
  Write("portable.json", portable);
  ASSERT_EQ(0, RunTool({"apply", other, Path("portable.json")}).status);
  EXPECT_EQ(portable, RunTool({"schema", other, "--portable"}).out);
}

TEST_F(SchemaTest, Schema_AppliedToItsOwnDatabase_ChangesNothing) {
  std::string const schema = On("schema").out;
  Write("same.json", schema);
  EXPECT_EQ("nothing to do\n", On("apply", {Path("same.json")}).out);
  EXPECT_EQ(schema, On("schema").out);
}

TEST_F(SchemaTest, Apply_Twice_DoesNothingTheSecondTime) {
  EXPECT_EQ("nothing to do\n", On("apply", {Write("again.json", kLibrary)}).out);
}

TEST_F(SchemaTest, Apply_WithPlanAlone_ChangesNothing) {
  std::string const before = On("schema").out;
  Json document = Document();
  Table(document, "App.Book")["columns"].push_back({{"name", "Weight"}, {"type", "double"}});
  EXPECT_EQ("background   add Weight to App.Book\n", Plan(document, 5));
  EXPECT_EQ(before, On("schema").out);
}

TEST_F(SchemaTest, Apply_RenamesByIdentity) {
  Json document = Document();
  Table(document, "App.Book")["columns"][0]["name"] = "Number";
  Table(document, "App.Book")["name"] = "App.Volume";
  EXPECT_EQ(
      "instant      rename table App.Book to App.Volume\n"
      "instant      rename column Isbn of App.Volume to Number\n",
      ApplyDocument(document));
  EXPECT_EQ(2u, Json::parse(On("scan", {"Volume", "--format", "json"}).out).size());
}

TEST_F(SchemaTest, Apply_RenamesByWas_AndOnlyOnce) {
  std::string schema = kLibrary;
  schema.replace(schema.find("\"name\": \"Isbn\""), 14, "\"name\": \"Number\", \"was\": \"Isbn\"");
  std::string const file = Write("was.json", schema);
  EXPECT_EQ("instant      rename column Isbn of App.Book to Number\n", On("apply", {file}).out);
  EXPECT_EQ("nothing to do\n", On("apply", {file}).out);
}

TEST_F(SchemaTest, Apply_WasNull_IsNoRename) {
  std::string const file = Write("new.json", Renamed("\"name\": \"Number\", \"was\": null"));
  EXPECT_EQ(
      "destructive  drop column Isbn of App.Book with its values\n"
      "background   add Number to App.Book\n",
      On("apply", {file, "--plan"}, 5).out);
  On("apply", {file}, 4);
  On("apply", {file, "--allow-destructive"});
  EXPECT_EQ("nothing to do\n", On("apply", {file}).out);
}

TEST_F(SchemaTest, Apply_UnexplainedNewName_IsRefusedWithBothReadings) {
  std::string const before = On("schema").out;
  std::string const file = Write("new.json", Renamed("\"name\": \"Number\""));
  for (Arguments const& rest :
       {Arguments{}, Arguments{"--plan"}, Arguments{"--allow-destructive"}}) {
    Arguments arguments{file};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    Result const refused = On("apply", arguments, 4);
    EXPECT_EQ("", refused.out);
    EXPECT_EQ("sagleme: " + file +
                  ": column Isbn of App.Book is gone and column Number is new in its place; it "
                  "may be Isbn under a new name, or another column\n"
                  "  If it was renamed, write \"was\": \"Isbn\" in the entry of Number; if it is "
                  "new, \"was\": null.\n",
              refused.err);
  }
  EXPECT_EQ(before, On("schema").out);
}

TEST_F(SchemaTest, Apply_NewNameOnATerminal_IsAskedAbout) {
  std::string const file = Write("new.json", Renamed("\"name\": \"Number\""));
  auto const answer = [&](std::string const& typed, Arguments rest = {}) {
    rest.insert(rest.begin(), {"apply", database(), file});
    return RunOnTerminal(rest, typed);
  };
  Result const stopped = answer("\n");
  EXPECT_EQ(4, stopped.status);
  EXPECT_NE(std::string::npos, stopped.out.find("Type r if Number is its new name")) << stopped.out;
  EXPECT_NE(std::string::npos, stopped.out.find("\"was\": null")) << stopped.out;
  EXPECT_EQ(4, answer("n\n").status) << "values would be lost";
  Result const renamed = answer("what\nr\n");
  EXPECT_EQ(0, renamed.status) << renamed.out;
  EXPECT_NE(std::string::npos, renamed.out.find("rename column Isbn of App.Book to Number"));
  EXPECT_EQ(2, Json::parse(On("scan", {"Book", "--format", "json"}).out)[1]["Number"]);
  EXPECT_EQ("nothing to do\n", On("apply", {file}).out);
}

TEST_F(SchemaTest, Apply_AnswerThatLosesValues_IsTakenWithTheFlag) {
  std::string const file = Write("new.json", Renamed("\"name\": \"Number\""));
  Result const dropped = RunOnTerminal({"apply", database(), file, "--allow-destructive"}, "n\n");
  EXPECT_EQ(0, dropped.status) << dropped.out;
  EXPECT_EQ(0, Json::parse(On("scan", {"Book", "--format", "json"}).out)[1]["Number"]);
}

TEST_F(SchemaTest, Apply_ColumnAtAnotherPositionOrOfAnotherType_IsNoRename) {
  Json document = Json::parse(On("schema", {"--portable"}).out);
  Json& columns = Table(document, "App.Book")["columns"];
  columns.erase(0);
  columns.push_back({{"name", "Number"}, {"type", "ulong"}});
  EXPECT_EQ(
      "destructive  drop column Isbn of App.Book with its values\n"
      "background   add Number to App.Book\n",
      Plan(document, 5));
  columns.erase(columns.size() - 1);
  columns.insert(columns.begin(), Json{{"name", "Number"}, {"type", "long"}});
  EXPECT_EQ(
      "destructive  drop column Isbn of App.Book with its values\n"
      "background   add Number to App.Book\n",
      Plan(document, 5));
}

TEST_F(SchemaTest, Apply_UnexplainedNewTableName_IsRefusedUntilItIsSaid) {
  Json document = Json::parse(On("schema", {"--portable"}).out);
  Table(document, "App.Person")["name"] = "App.Human";
  Table(document, "App.Item")["columns"][2]["target"] = "App.Human";
  std::string const file = Write("table.json", document.dump());
  Result const refused = On("apply", {file, "--allow-destructive"}, 4);
  EXPECT_NE(std::string::npos,
            refused.err.find("table App.Person is gone and table App.Human is new in its place; "
                             "it may be App.Person under a new name, or another table"))
      << refused.err;
  Table(document, "App.Human")["was"] = "App.Person";
  EXPECT_EQ("instant      rename table App.Person to App.Human\n", ApplyDocument(document));
}

// The ids of a document tell what stays; an entry without one may be what has gone.
TEST_F(SchemaTest, Apply_EntryThatLostItsId_IsInDoubt) {
  Json document = Document();
  Table(document, "App.Book")["columns"][0] = {{"name", "Number"}, {"type", "ulong"}};
  std::string const file = Write("noid.json", document.dump());
  EXPECT_NE(std::string::npos, On("apply", {file}, 4).err.find("column Isbn of App.Book is gone"));
}

TEST_F(SchemaTest, Schema_DatabaseCreatedByTheLibrary_HasIdentities) {
  std::string const made = Path("made");
  {
    auto const database = sagleme::Database::Create(made);
    sagleme::Context const context(database);
    sagleme::Transaction transaction(context);
    std::array const columns{sagleme::ColumnSpec{u"Code"}};
    CreateTable(transaction, u"Thing", u"", columns);
    transaction.Commit();
  }
  Json document = Json::parse(RunTool({"schema", made}).out);
  EXPECT_TRUE(document["database"].is_number_unsigned());
  document["tables"][0]["columns"][0]["name"] = "Number";
  std::string const file = Write("made.json", document.dump());
  EXPECT_EQ("instant      rename column Code of Thing to Number\n",
            RunTool({"apply", made, file}).out);
}

TEST_F(SchemaTest, Identity_IsKeptByACopyAndNotByALoadedDump) {
  std::string const own = Document()["database"].dump();
  On("copy", {Path("copy")});
  EXPECT_EQ(own, Json::parse(RunTool({"schema", Path("copy")}).out)["database"].dump());
  Write("dump.jsonl", On("dump").out);
  ASSERT_EQ(0, RunTool({"load", Path("loaded"), Path("dump.jsonl")}).status);
  EXPECT_NE(own, Json::parse(RunTool({"schema", Path("loaded")}).out)["database"].dump());
}

TEST_F(SchemaTest, Apply_SwappedNames_KeepTheirValues) {
  Json document = Document();
  Table(document, "App.Item")["columns"][0]["name"] = "Pages";
  Table(document, "App.Item")["columns"][1]["name"] = "Title";
  for (Json& index : Table(document, "App.Item")["indexes"]) {
    Json& column = index["columns"][0];
    if (column.is_object()) {
      column["name"] = "Title";
    } else {
      column = "Pages";
    }
  }
  ApplyDocument(document);
  Json const books = Json::parse(On("scan", {"Book", "--format", "json"}).out);
  EXPECT_EQ("One", books[0]["Pages"]);
  EXPECT_EQ(10, books[0]["Title"]);
}

TEST_F(SchemaTest, Apply_DestructiveWithoutTheFlag_IsRefusedAndChangesNothing) {
  std::string const before = On("schema").out;
  Json document = Document();
  Table(document, "App.Book")["columns"].erase(0);
  Plan(document, 4, {});
  EXPECT_EQ(before, On("schema").out);
  ApplyDocument(document);
  EXPECT_NE(before, On("schema").out);
}

TEST_F(SchemaTest, Apply_AnotherBase_MovesTheTableWithItsObjects) {
  On("insert", {"Film", "Title=Alien", "Rating=2", "Colour=true"});
  Json document = Document();
  Json& film = Table(document, "App.Film");
  film.erase("base");
  for (Json const& column : Table(document, "App.Item")["columns"]) {
    if (column["name"] == "Title") film["columns"].push_back(column);
  }
  std::string const plan = ApplyDocument(document);
  EXPECT_NE(std::string::npos, plan.find("background   move table App.Film to the root")) << plan;
  EXPECT_EQ(std::string::npos, plan.find("drop table")) << plan;
  EXPECT_NE(std::string::npos, plan.find("drop column Pages of App.Film")) << plan;
  EXPECT_EQ("nothing to do\n", Plan(Document()));
  EXPECT_EQ("Alien", Json::parse(On("scan", {"Film", "--format", "json"}).out)[0]["Title"]);
  On("check");
}

TEST_F(SchemaTest, Apply_EmptySchema_DropsEverything) {
  ApplyDocument({{"schema", 1}, {"tables", Json::array()}});
  EXPECT_EQ("[]\n", On("tables", {"--format", "json"}).out);
  On("check");
}

TEST_F(SchemaTest, Apply_OneTable_LeavesTheOthers) {
  std::string const part = On("schema", {"Item"}).out;
  EXPECT_EQ("nothing to do\n", On("apply", {Write("part.json", part)}).out);
  Json document = Json::parse(part);
  Table(document, "App.Item")["columns"][1]["name"] = "Sheets";
  for (Json& index : Table(document, "App.Item")["indexes"]) {
    if (index["columns"][0].is_object()) index["columns"][0]["name"] = "Sheets";
  }
  EXPECT_EQ("instant      rename column Pages of App.Item to Sheets\n", ApplyDocument(document));
}

TEST_F(SchemaTest, Apply_OfMoreColumnsThanATableHas_IsRefusedBeforeItIsCompared) {
  Json columns = Json::array();
  for (int i = 0; i < 20000; ++i) {
    columns.push_back({{"name", "c" + std::to_string(i)}, {"type", "long"}});
  }
  Json const wide{{"schema", 1}, {"tables", {{{"name", "Wide"}, {"columns", columns}}}}};
  std::string const file = Write("wide.json", wide.dump());
  EXPECT_NE(std::string::npos,
            On("apply", {file, "--plan"}, 2)
                .err.find("wide.json: table Wide would have 20000 columns, and a table "
                          "has at most 112, inherited ones included"));
}

TEST_F(SchemaTest, Apply_BadDocuments_AreUsageAndSayWhere) {
  auto const refused = [&](std::string const& text) {
    return On("apply", {Write("bad.json", text)}, 2).err;
  };
  auto const tables = [](std::string const& list) {
    return "{\"schema\": 1, \"tables\": [" + list + "]}";
  };
  EXPECT_NE(std::string::npos, refused("{\n\n]").find("bad.json:3: not valid JSON"));
  EXPECT_NE(std::string::npos,
            refused("{\"schema\":\n 1e999}").find("bad.json:2: the number 1e999 is too large"));
  EXPECT_NE(std::string::npos,
            refused("{\"schema\": 2}").find("not a schema document of version 1"));
  EXPECT_NE(std::string::npos, refused(tables("{}")).find("has no \"name\""));
  EXPECT_NE(std::string::npos, refused(tables(R"({"name": "A", "was": 1})"))
                                   .find("\"was\" must be a string, or null for what is new"));
  EXPECT_NE(std::string::npos, refused(tables(R"({"name": "A", "colour": 1})")).find("\"colour\""));
  EXPECT_NE(std::string::npos,
            refused(tables(R"({"name": "A"}, {"name": "A"})")).find("table A is defined twice"));
  EXPECT_NE(std::string::npos, refused(tables(R"({"name": "A", "base": "B"})")).find("the base B"));
  EXPECT_NE(std::string::npos,
            refused(tables(R"({"name": "A", "base": "B"}, {"name": "B", "base": "A"})"))
                .find("derives from itself"));
  EXPECT_NE(std::string::npos,
            refused(tables(R"({"name": "A", "columns": [{"name": "x", "type": "text"}]})"))
                .find("unknown type \"text\""));
  EXPECT_NE(std::string::npos,
            refused(tables(R"({"name": "A", "columns": [{"name": "x", "type": "reference"}]})"))
                .find("without a \"target\""));
  EXPECT_NE(std::string::npos,
            refused(tables(R"({"name": "A", "indexes": [{"name": "I", "columns": ["x"]}]})"))
                .find("has no column x"));
  EXPECT_NE(std::string::npos,
            refused(tables(R"({"name": "A", "columns": [{"name": "x", "type": "key"}]})"))
                .find("column x of table A is of type key and must be \"nullable\""));
}

TEST_F(SchemaTest, ColumnOfTypeKey_SurvivesADumpAndALoad) {
  Json document = Document();
  Json& isbn = Table(document, "App.Book")["columns"][0];
  isbn["type"] = "key";
  std::string const file = Write("key.json", document.dump());
  EXPECT_NE(std::string::npos, On("apply", {file}, 2).err.find("must be \"nullable\""));
  isbn["nullable"] = true;
  ApplyDocument(document);
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"load", other, "-"}, On("dump").out).status);
  EXPECT_EQ(On("scan", {"Book", "--format", "json"}).out,
            RunTool({"scan", other, "Book", "--format", "json"}).out);
}

TEST_F(SchemaTest, Apply_DocumentOfAnotherDatabase_SaysSoBeforeAnythingIsLost) {
  std::string const other = Path("other");
  ASSERT_EQ(0, RunTool({"create", other}).status);
  std::string const file = Write("other.json", RunTool({"schema", other}).out);
  Result const plan = On("apply", {file, "--plan"}, 5);
  EXPECT_NE(std::string::npos, plan.err.find("other.json was written by another database"))
      << plan.err;
  Result const refused = On("apply", {file}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("other.json describes another database, and the "
                                                "plan would lose values or objects"))
      << refused.err;
  EXPECT_NE(std::string::npos, refused.err.find("Use --allow-destructive if you mean it."));
  EXPECT_EQ(plan.out, refused.out);
  std::string const own = Write("own.json", On("schema").out);
  EXPECT_EQ("", On("apply", {own}).err);
}

TEST_F(SchemaTest, Names_TooLong_AreReportedInASentence) {
  std::string const name(5000, 'x');
  for (Arguments const& arguments : {Arguments{"scan", name}, Arguments{"find", name}}) {
    Result const result = On(arguments[0], {name}, 4);
    EXPECT_NE(std::string::npos, result.err.find("A name is too long")) << result.err;
  }
  Json document = Document();
  document["tables"].push_back({{"name", name}});
  std::string const file = Write("long.json", document.dump());
  EXPECT_NE(std::string::npos, On("apply", {file}, 4).err.find("A name is too long"));
}

TEST_F(ToolTest, DocumentOnItsPage_IsApplied) {
  std::string const page = ReadText(SAGLEME_DOCS "/schema.md");
  auto const begin = page.find("```json\n") + 8;
  Json const document = Json::parse(page.substr(begin, page.find("```", begin) - begin));
  Create();
  On("apply", {Write("page.json", document.dump())});
  Json written = Json::parse(On("schema", {"--portable"}).out);
  EXPECT_EQ(document["tables"].size(), written["tables"].size());
  EXPECT_EQ("nothing to do\n", On("apply", {Path("page.json")}).out);
}

TEST_F(SchemaTest, Apply_WithoutAFile_IsUsage) { On("apply", {Path("nothing.json")}, 2); }

}  // namespace
}  // namespace tool_test
