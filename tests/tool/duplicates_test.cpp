#include <sagleme/host/duplicates.hpp>

#include "cli/session.h"
#include "run_tool.h"

namespace tool_test {
namespace {

char const* const kPlaces = R"({"schema": 1, "tables": [{"name": "Place", "columns": [
  {"name": "City", "type": "string"}, {"name": "Floor", "type": "long"},
  {"name": "Area", "type": "double"}, {"name": "Rent", "type": "decimal"},
  {"name": "Width", "type": "float"}, {"name": "Number", "type": "ulong"},
  {"name": "Open", "type": "bool"}, {"name": "Code", "type": "binary"},
  {"name": "Next", "type": "reference", "target": "Place"}],
  "indexes": [{"name": "PlaceByAll", "unique": true, "columns": ["City",
    {"name": "Floor", "descending": true}, "Area", {"name": "Rent", "descending": true}, "Width",
    "Number", "Open", {"name": "Code", "descending": true}, "Next"]}]}]})";

class DuplicatesTest : public ToolTest {
 protected:
  void SetUp() override { Create(); }

  std::string InsertByTool(Arguments arguments) {
    std::string const id = On("insert", arguments).out;
    return id.substr(0, id.find('\n'));
  }
  // What a commit of the session says that is refused.
  static std::string Refusal(tool::Session& session) {
    try {
      session.Commit();
    } catch (sagleme::Error const& error) {
      EXPECT_EQ(error.status(), std::uint32_t{LSCOREDB_DUPLICATE_KEY});
      return error.what();
    }
    return "the commit was not refused";
  }
};

TEST_F(DuplicatesTest, DuplicateThatOnlyTheCommitRefuses_IsReportedWithKeyIndexAndHolder) {
  Apply(kLibrary);
  tool::Session session(database());
  session.Begin();
  session.Write([](sagleme::Transaction& transaction) {
    sagleme::TablePtr const person = transaction.table(u"App.Person");
    sagleme::Object::Create(transaction, *person).Set(*person, person->GetColumn(u"Name"), u"Eve");
  });
  std::string const id = InsertByTool({"Person", "Name=Eve"});
  EXPECT_EQ(Refusal(session),
            "duplicate key \"Eve\" in unique index PersonByName (object " + id + ")");
  session.Begin();  // the refused transaction is over
  session.Commit();
}

TEST_F(DuplicatesTest, KeyOfManyTypes_IsReportedValueByValue) {
  Apply(kPlaces);
  std::string const city = "K\xC3\xB6ln \xE2\x82\xAC \xF0\x9F\x98\x80 by the river, all of it";
  std::string const next =
      InsertByTool({"Place", "Floor=1", "Area=1", "Rent=1", "Width=1", "Number=1", "Open=false"});
  tool::Session session(database());
  session.Begin();
  session.Write([&](sagleme::Transaction& transaction) {
    sagleme::TablePtr const place = transaction.table(u"Place");
    sagleme::Object object = sagleme::Object::Create(transaction, *place);
    auto const set = [&](char16_t const* column, sagleme::Value const& value) {
      object.Set(*place, place->GetColumn(column), value);
    };
    set(u"City", city);
    set(u"Floor", std::int64_t{-3});
    set(u"Area", -2.5);
    set(u"Rent", sagleme::Decimal{12500000});
    set(u"Width", 0.5F);
    set(u"Number", std::uint64_t{18446744073709551615U});
    set(u"Open", true);
    set(u"Code", sagleme::Bytes{0, 1, 2, 255});
    set(u"Next", sagleme::ObjectId{std::stoull(next)});
  });
  std::string const id =
      InsertByTool({"Place", "City=" + city, "Floor=-3", "Area=-2.5", "Rent=12.5", "Width=0.5",
                    "Number=18446744073709551615", "Open=true", "Code=AAEC/w==", "Next=" + next});
  EXPECT_EQ(Refusal(session),
            "duplicate key \"" + city +
                "\", -3, -2.5, 12.5, 0.5, 18446744073709551615, true, AAEC/w==, " + next +
                " in unique index PlaceByAll (object " + id + ")");
}

TEST_F(DuplicatesTest, KeyOfBytes_IsRefusedAndNotLookedUp) {
  Apply(R"({"schema": 1, "tables": [{"name": "Cover", "columns": [
    {"name": "Image", "type": "binary"}], "indexes": [
    {"name": "CoverByImage", "unique": true, "columns": ["Image"]}]}]})");
  std::string const id = InsertByTool({"Cover", "Image=AAEC/w=="});
  Result const refused = On("insert", {"Cover", "Image=AAEC/w=="}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("A unique index already holds this key"))
      << refused.err;
  EXPECT_EQ(On("scan", {"Cover", "--where", "Image=AAEC/w==", "--format", "csv"}).out,
            "_oid,_table,Image\n" + id + ",Cover,AAEC/w==\n");
}

}  // namespace
}  // namespace tool_test
