#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

bool Contains(std::string const& text, std::string const& part) {
  return text.find(part) != std::string::npos;
}

class QueryTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    On("import", {"Person", "-"}, 0, "Name,Height\nAda,1.5\nBob,\nCleo,-0.0\n");
    On("import", {"Book", "-"}, 0,
       "Title,Pages,Owner,Isbn,Price\n"
       "The End,10,Name=Ada,1,1.5\nThe Beginning,20,Name=Bob,2,-0.25\nMiddle,,,3,7\n"
       "Sand and Foam,30,,4,100\n");
    On("import", {"Film", "-"}, 0, "Title,Pages,Rating,Colour\nThe Film,25,0.5,true\n");
  }
  // The titles that a scan shows, each behind a blank.
  std::string Titles(std::string const& table, Arguments rest) {
    rest.insert(rest.begin(), table);
    rest.insert(rest.end(), {"--format", "json"});
    std::string titles;
    for (Json const& each : Json::parse(On("scan", rest).out)) {
      titles += " " + each.value("Title", each.value("Name", "")) + ",";
    }
    return titles;
  }
  std::string Path(std::string const& table, Arguments rest) {
    rest.insert(rest.begin(), table);
    rest.push_back("--explain");
    return On("scan", rest).err;
  }
  std::string Refused(Arguments rest, int status) {
    rest.insert(rest.begin(), "Book");
    return On("scan", rest, status).err;
  }
  std::string Insert(Arguments const& rest) {
    std::string const id = On("insert", rest).out;
    return id.substr(0, id.find('\n'));
  }
};

TEST_F(QueryTest, Where_KnowsOperatorsAndRanges) {
  auto const where = [&](char const* condition) {
    return Titles("Item", {"--where", condition, "--order", "Title"});
  };
  EXPECT_EQ(" The End,", where("Pages=10"));
  EXPECT_EQ(" Middle, Sand and Foam, The Beginning, The Film,", where("Pages!=10"));
  EXPECT_EQ(" The End,", where("Pages<20"));
  EXPECT_EQ(" The Beginning, The End,", where("Pages<=20"));
  EXPECT_EQ(" Sand and Foam, The Film,", where("Pages>20"));
  EXPECT_EQ(" Sand and Foam, The Beginning, The Film,", where("Pages>=20"));
  EXPECT_EQ(" The Beginning, The Film,", where("Pages=20..25"));
  EXPECT_EQ("", where("Pages=25..20"));
  EXPECT_EQ(" Middle,", where("Pages="));
  EXPECT_EQ(" Sand and Foam, The Beginning, The End, The Film,", where("Pages!="));
  EXPECT_EQ(" The Beginning, The End, The Film,", where("Title^=The"));
  EXPECT_EQ(" Sand and Foam,", where("Title*=and"));
  EXPECT_EQ(" Middle, Sand and Foam,", where("Title<The"));
  EXPECT_EQ(" The Beginning,", where("Owner=Name=Bob"));
}

TEST_F(QueryTest, Where_OnColumnsOfOtherTypes_ComparesTheirValues) {
  EXPECT_EQ(" Middle, Sand and Foam,",
            Titles("Book", {"--where", "Price>=1.6", "--order", "Title"}));
  EXPECT_EQ(" The Beginning,", Titles("Book", {"--where", "Price<0"}));
  EXPECT_EQ(" The Film,", Titles("Film", {"--where", "Rating=0.25..0.75"}));
  EXPECT_EQ(" The Film,", Titles("Film", {"--where", "Colour=true"}));
  EXPECT_EQ(" Cleo,", Titles("Person", {"--where", "Height=0"})) << "the two zeros are equal";
}

TEST_F(QueryTest, Where_WithAnIndexThatFits_GivesTheSameObjects) {
  EXPECT_EQ("index ItemByPages\n", Path("Item", {"--where", "Pages>=20"}));
  EXPECT_EQ("index ItemByTitle\n", Path("Book", {"--where", "Title^=The"}));
  EXPECT_EQ("index ItemByTitle\n", Path("Item", {"--where", "Title=Middle", "--where", "Pages="}));
  EXPECT_EQ("every object of App.Item\n", Path("Item", {"--where", "Pages="}));
  EXPECT_EQ("every object of App.Book\n", Path("Book", {"--where", "Isbn=1"}));
  EXPECT_EQ(" The End, The Beginning,",
            Titles("Book", {"--where", "Title^=The", "--order", "Isbn"}))
      << "the film is in the index too";
  EXPECT_EQ("", Titles("Item", {"--where", "Title^=The", "--only"}));
}

TEST_F(QueryTest, Order_WithAndWithoutAnIndex_IsTheSame) {
  std::string const by_pages = " The End, The Beginning, Sand and Foam,";
  Arguments const plain{"--where", "Pages>0", "--order", "Pages"};
  EXPECT_EQ(" The End, The Beginning, The Film, Sand and Foam,", Titles("Item", plain));
  EXPECT_EQ(by_pages, Titles("Book", plain));
  EXPECT_EQ("index ItemByPages\n", Path("Item", {"--order", "Pages"}));
  EXPECT_EQ("every object of App.Book\n", Path("Book", {"--order", "Price"}));
  EXPECT_EQ(" Middle, The End,", Titles("Item", {"--order", "Pages", "--limit", "2"}));
  EXPECT_EQ(" Sand and Foam, The Film,", Titles("Item", {"--order", "Pages:desc", "--limit", "2"}));
  EXPECT_EQ(" Sand and Foam, Middle,", Titles("Book", {"--order", "Price:desc", "--limit", "2"}));
  EXPECT_EQ("", Titles("Book", {"--order", "Price", "--limit", "0"}));
}

TEST_F(QueryTest, Where_Nonsense_IsExplained) {
  EXPECT_TRUE(Contains(Refused({"--where", "Pages"}, 2), "as in Pages>=10"));
  EXPECT_TRUE(Contains(Refused({"--where", "Pages>"}, 2), "a value is missing"));
  EXPECT_TRUE(Contains(Refused({"--where", "Pages^=1"}, 2), "^= and *= are for texts"));
  EXPECT_TRUE(Contains(Refused({"--where", "Owner<7"}, 2), "knows = and != only"));
  EXPECT_TRUE(Contains(Refused({"--where", "Pages=1..x"}, 2), "\"x\" is not a number"));
  EXPECT_TRUE(Contains(Refused({"--where", "Titel=a"}, 4), "Did you mean Title?"));
  EXPECT_TRUE(Contains(Refused({"--order", "Titel:desc"}, 4), "Did you mean Title?"));
}

TEST_F(QueryTest, Count_CountsTablesAndMatchingObjects) {
  EXPECT_EQ("5\n", On("count", {"Item"}).out);
  EXPECT_EQ("0\n", On("count", {"Item", "--only"}).out);
  EXPECT_EQ("2\n", On("count", {"Book", "--where", "Title^=The"}).out);
}

TEST_F(QueryTest, AllColumns_ShowsThoseOfDerivedTables) {
  Json const items = Json::parse(
      On("scan", {"Item", "--all-columns", "--order", "Title", "--format", "json"}).out);
  EXPECT_EQ("100", items[1]["Price"]);
  EXPECT_TRUE(items[1]["Rating"].is_null());
  EXPECT_EQ(0.5, items[4]["Rating"]);
  Json const found =
      Json::parse(On("find", {"ItemByTitle", "The Film", "--all-columns", "--format", "json"}).out);
  EXPECT_EQ(true, found[0]["Colour"]);
  EXPECT_FALSE(Contains(On("scan", {"Item"}).out, "Price"));
}

TEST_F(QueryTest, InsertSetDelete_OneObject_Succeeds) {
  std::string const id = Insert({"Book", "Title=New", "Isbn=9", "Price=1", "Owner=Name=Ada"});
  On("set", {id, "Title=Newer", "--null", "Owner"});
  Json const book = Json::parse(On("get", {id, "--format", "json"}).out);
  EXPECT_EQ("Newer", book["Title"]);
  EXPECT_TRUE(book["Owner"].is_null());
  EXPECT_EQ(9, book["Isbn"]);
  EXPECT_EQ("deleted 1 object\n", On("delete", {id}).err);
  On("get", {id}, 1);
  On("check");
}

TEST_F(QueryTest, Edits_Impossible_AreRefusedAndChangeNothing) {
  std::string const before = On("dump").out;
  std::string const id = Insert({"Person", "Name=Eve"});
  auto const refused = [&](std::string const& command, Arguments const& rest, int status) {
    return On(command, rest, status).err;
  };
  EXPECT_TRUE(Contains(refused("insert", {"Book", "Title=x"}, 4), "column Isbn of App.Book needs"));
  EXPECT_TRUE(Contains(refused("insert", {"Person", "Name"}, 2), "is not COLUMN=VALUE"));
  EXPECT_TRUE(Contains(refused("insert", {"Person", "Nmae=x"}, 4), "Did you mean Name?"));
  EXPECT_TRUE(Contains(refused("insert", {"Person", "Name=a", "Name=b"}, 2), "given twice"));
  EXPECT_TRUE(Contains(refused("insert", {"Person", "__oid=1"}, 4), "no column"));
  EXPECT_TRUE(Contains(refused("set", {id, "Height=tall"}, 2), "\"tall\" is not a number"));
  EXPECT_TRUE(Contains(refused("set", {id}, 2), "no value was given"));
  EXPECT_TRUE(Contains(refused("set", {"7777777", "Name=x"}, 1), "there is no object 7777777"));
  EXPECT_TRUE(Contains(refused("delete", {id, "7777777"}, 1), "there is no object 7777777"));
  EXPECT_TRUE(Contains(refused("insert", {"Lorvenstack.Internal.Metadata.Configuration"}, 4),
                       "a table of the catalogue itself"));
  On("delete", {id});
  EXPECT_EQ(before, On("dump").out);
}

TEST_F(QueryTest, DuplicateKey_IsReportedWithKeyIndexAndHolder) {
  std::string const id = Insert({"Person", "Name=Eve"});
  std::string const message =
      "duplicate key \"Eve\" in unique index PersonByName (object " + id + ")";
  EXPECT_TRUE(Contains(On("insert", {"Person", "Name=Eve"}, 4).err, message));
  std::string const other = Insert({"Person", "Name=Zoe"});
  EXPECT_TRUE(Contains(On("set", {other, "Name=Eve"}, 4).err, message));
  EXPECT_TRUE(Contains(On("import", {"Person", "-"}, 1, "Name\nEve\n").err, "-:2:1: " + message));
}

TEST_F(QueryTest, MalformedId_IsReportedInWords) {
  EXPECT_TRUE(Contains(On("get", {"abc"}, 2).err, "\"abc\" is not the id of an object"));
  EXPECT_TRUE(Contains(On("get", {"0"}, 2).err, "\"0\" is not the id of an object"));
  EXPECT_TRUE(Contains(On("get", {"-5"}, 2).err, "-5"));
  EXPECT_TRUE(Contains(On("get", {"99999999999999999999"}, 2).err,
                       "99999999999999999999 is too large for the id of an object"));
}

}  // namespace
}  // namespace tool_test
