#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

// Columns that a schema document declares in another table or with another type.
class MovesTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(R"({"schema": 1, "tables": [
      {"name": "L.Item", "columns": [{"name": "Title", "type": "string"}]},
      {"name": "L.Book", "base": "L.Item", "columns": [
        {"name": "Pages", "type": "long"}, {"name": "Code", "type": "string"}],
       "indexes": [{"name": "ByPages", "columns": ["Pages"]}]},
      {"name": "L.Film", "base": "L.Item", "columns": [{"name": "Pages", "type": "long"}]}]})");
    On("import", {"L.Book", "-"}, 0, "Title,Pages,Code\nOne,10,7\nTwo,20,x8\n");
    On("import", {"L.Film", "-"}, 0, "Title,Pages\nThree,30\n");
  }
  Json Document(Arguments const& rest = {}) { return Json::parse(On("schema", rest).out); }
  static Json& Columns(Json& document, std::string const& name) {
    for (Json& table : document["tables"]) {
      if (table["name"] == name) return table["columns"];
    }
    throw std::runtime_error(name);
  }
  static Json Take(Json& columns, std::string const& name) {
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (columns[i]["name"] != name) continue;
      Json const taken = columns[i];
      columns.erase(i);
      return taken;
    }
    throw std::runtime_error(name);
  }
  Result Run(Json const& document, Arguments rest, int status) {
    rest.insert(rest.begin(), Write("wanted.json", document.dump()));
    return On("apply", rest, status);
  }
  std::string Scan(std::string const& table) { return On("scan", {table, "--format", "csv"}).out; }
  static void ExpectHas(std::string const& part, std::string const& whole) {
    EXPECT_NE(std::string::npos, whole.find(part)) << whole;
  }
};

TEST_F(MovesTest, AColumnOfAnAncestor_IsPulledUpFromAllThatHaveIt) {
  for (Arguments const& form : {Arguments{}, Arguments{"--portable"}}) {
    Json document = Document(form);
    Columns(document, "L.Item").push_back(Take(Columns(document, "L.Film"), "Pages"));
    Take(Columns(document, "L.Book"), "Pages");
    EXPECT_EQ(form.empty() ? "background   pull column Pages of L.Film and L.Book up to L.Item\n"
                           : "background   pull column Pages of L.Book and L.Film up to L.Item\n",
              Run(document, {"--plan"}, 5).out);
  }
  Json document = Document({"--portable"});
  Columns(document, "L.Item").push_back(Take(Columns(document, "L.Book"), "Pages"));
  Take(Columns(document, "L.Film"), "Pages");
  Run(document, {}, 0);
  On("check");
  ExpectHas("One,10", Scan("L.Item"));
  ExpectHas("Three,30", Scan("L.Item"));
  ExpectHas("20", On("find", {"ByPages", "20"}).out);
  EXPECT_EQ("nothing to do\n", Run(document, {}, 0).out);
}

TEST_F(MovesTest, AColumnOfDescendants_IsPushedDownUnlessOthersHaveValues) {
  Json document = Document();
  Columns(document, "L.Book").push_back(Take(Columns(document, "L.Item"), "Title"));
  Result const plan = Run(document, {"--plan"}, 5);
  ExpectHas(
      "refused      push column Title of L.Item down to L.Book: Column Title of L.Item has 1 "
      "value in objects outside of the tables that it shall go down to: \"Three\" (object",
      plan.out);
  Result const refused = Run(document, {}, 4);
  ExpectHas("has 1 value in objects outside", refused.err);
  ExpectHas("Nothing was changed.\n  Use --allow-destructive to lose these values.", refused.err);
  ExpectHas("Three", Scan("L.Item"));
  ExpectHas(
      "destructive  push column Title of L.Item down to L.Book, losing the values of other "
      "objects\n",
      Run(document, {"--allow-destructive"}, 0).out);
  On("check");
  ExpectHas("One", Scan("L.Book"));
  EXPECT_EQ(std::string::npos, Scan("L.Film").find("Three"));
}

TEST_F(MovesTest, AColumnOfANewDescendantToo_IsPushedDownToIt) {
  Json document = Document({"--portable"});
  Json const title = Take(Columns(document, "L.Item"), "Title");
  Columns(document, "L.Book").push_back(title);
  Columns(document, "L.Film").push_back(title);
  document["tables"].push_back(
      {{"name", "L.Map"}, {"base", "L.Item"}, {"columns", Json::array({title})}});
  EXPECT_EQ(
      "instant      create table L.Map derived from L.Item\n"
      "background   push column Title of L.Item down to L.Book, L.Film and L.Map\n",
      Run(document, {}, 0).out);
  On("check");
  ExpectHas("Three", Scan("L.Film"));
  EXPECT_EQ("nothing to do\n", Run(document, {}, 0).out);
}

TEST_F(MovesTest, AColumnThatIsNew_IsNotMoved) {
  Json document = Document({"--portable"});
  Json title = Take(Columns(document, "L.Item"), "Title");
  title["was"] = nullptr;
  Columns(document, "L.Book").push_back(title);
  ExpectHas("destructive  drop column Title of L.Item", Run(document, {"--plan"}, 5).out);
}

TEST_F(MovesTest, AColumnUnderAnotherName_MovesByItsIdentity) {
  Json document = Document();
  Json code = Take(Columns(document, "L.Book"), "Code");
  code["name"] = "Shelf";
  Columns(document, "L.Item").push_back(code);
  EXPECT_EQ(
      "background   pull column Code of L.Book up to L.Item\n"
      "instant      rename column Code of L.Item to Shelf\n",
      Run(document, {}, 0).out);
  On("check");
  ExpectHas("x8", Scan("L.Item"));
}

TEST_F(MovesTest, AnotherType_ConvertsOrSaysWhatDoesNot) {
  Json document = Document();
  for (Json& column : Columns(document, "L.Book")) {
    column["type"] = column["name"] == "Code" ? "long" : "string";
    column["nullable"] = true;
  }
  Result const plan = Run(document, {"--plan"}, 5);
  ExpectHas("background   change column Pages of L.Book from long without null to string\n",
            plan.out);
  ExpectHas(
      "refused      change column Code of L.Book from string to long: 1 value of column Code "
      "of L.Book does not convert to long: \"x8\" (object ",
      plan.out);
  Run(document, {}, 4);
  ExpectHas("x8", Scan("L.Book"));
  ExpectHas(
      "destructive  change column Code of L.Book from string to long, losing values that do "
      "not convert\n",
      Run(document, {"--allow-destructive"}, 0).out);
  On("check");
  ExpectHas("10,7", Scan("L.Book"));
  ExpectHas("20", On("find", {"ByPages", "20"}).out);
}

TEST_F(MovesTest, ATypeThatNothingConvertsTo_IsDroppedAndAdded) {
  Json document = Document();
  for (Json& column : Columns(document, "L.Book")) {
    if (column["name"] == "Pages") column["type"] = "binary";
  }
  ExpectHas("destructive  drop column Pages of L.Book with its values\n",
            Run(document, {"--plan"}, 5).out);
}

}  // namespace
}  // namespace tool_test
