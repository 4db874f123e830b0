// Comments, defaults, abstract tables and rules of references, as the tool keeps and shows them.

#include <sagleme/host.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

constexpr char const* kShop = R"({
  "schema": 1,
  "tables": [
    {"name": "Shop.Order",
     "columns": [
       {"name": "By", "type": "reference", "target": "Shop.Party", "on_delete": "refuse"}],
     "indexes": [
       {"name": "OrderBy", "comment": "to find references", "columns": ["By"]}]},
    {"name": "Shop.Party", "abstract": true, "comment": "whom we deal with",
     "columns": [
       {"name": "Name", "type": "string", "default": "Nobody", "comment": "as on the letter"}]},
    {"name": "Shop.Customer", "base": "Shop.Party",
     "columns": [
       {"name": "Points", "type": "long", "default": 5}]}]
}
)";

class AnnotationsTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kShop);
  }
  std::string Insert(Arguments const& arguments) {
    std::string id = On("insert", arguments).out;
    if (!id.empty()) id.pop_back();
    return id;
  }
};

TEST_F(AnnotationsTest, Schema_IsTheDocumentThatWasApplied) {
  EXPECT_EQ(kShop, On("schema", {"--portable"}).out);
}

TEST_F(AnnotationsTest, Tables_DoNotShowWhereAnnotationsAre) {
  EXPECT_EQ(std::string::npos, On("tables").out.find("Sagleme"));
  EXPECT_NE(std::string::npos, On("tables", {"--system"}).out.find("Sagleme.Internal.Annotation"));
}

TEST_F(AnnotationsTest, Describe_ShowsThem) {
  EXPECT_EQ(
      "Shop.Customer, derived from Shop.Party\n\n"
      "column  type    nullable  target  from           default  comment\n"
      "Name    string  true      -       Shop.Party     Nobody   as on the letter\n"
      "Points  long    false     -       Shop.Customer  5        -\n",
      On("describe", {"Customer", "--format", "table"}).out);
  EXPECT_EQ(
      "Shop.Party, abstract\n\nwhom we deal with\n\n"
      "column  type    nullable  target  from        default  comment\n"
      "Name    string  true      -       Shop.Party  Nobody   as on the letter\n",
      On("describe", {"Party", "--format", "table"}).out);
  std::string const order = On("describe", {"Order", "--format", "table"}).out;
  EXPECT_NE(std::string::npos, order.find("refuse")) << order;
  EXPECT_NE(std::string::npos, order.find("to find references")) << order;
  std::string const json = On("describe", {"Party", "--format", "json"}).out;
  EXPECT_NE(std::string::npos,
            json.find("\"abstract\": true,\n  \"comment\": \"whom we deal with\""))
      << json;
}

TEST_F(AnnotationsTest, Insert_TakesDefaultsAndRefusesAbstractTables) {
  std::string const id = Insert({"Customer"});
  std::string const got = On("get", {id, "--format", "json"}).out;
  EXPECT_NE(std::string::npos, got.find("\"Name\": \"Nobody\"")) << got;
  EXPECT_NE(std::string::npos, got.find("\"Points\": 5")) << got;
  Result const refused = On("insert", {"Party", "Name=x"}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("Table Shop.Party is abstract")) << refused.err;
}

TEST_F(AnnotationsTest, Delete_FollowsTheRule) {
  std::string const customer = Insert({"Customer"});
  std::string const order = Insert({"Order", "By=" + customer});
  Result const refused = On("delete", {customer}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("object " + order + " refers to it in column By"))
      << refused.err;
  EXPECT_NE(std::string::npos, On("delete", {customer, order}).err.find("deleted 2 objects"));
  On("check");
}

TEST_F(AnnotationsTest, Delete_AlongWithWhatRefers_CountsAll) {
  std::string document = kShop;
  document.replace(document.find("\"refuse\""), 8, "\"cascade\"");
  Apply(document);
  std::string const customer = Insert({"Customer"});
  Insert({"Order", "By=" + customer});
  Insert({"Order", "By=" + customer});
  EXPECT_NE(std::string::npos, On("delete", {customer}).err.find("deleted 3 objects"));
  EXPECT_EQ("0\n", On("count", {"Order"}).out);
}

TEST_F(AnnotationsTest, Import_GivesDefaultsToColumnsThatTheFileLacks) {
  On("import", {"Customer", "-"}, 0, "Name\nAda\n\"\"\n");
  EXPECT_EQ("2\n", On("count", {"Customer", "--where", "Points=5"}).out);
  EXPECT_EQ("1\n", On("count", {"Customer", "--where", "Name=Ada"}).out);
  EXPECT_EQ("0\n", On("count", {"Customer", "--where", "Name=Nobody"}).out);
  Result const refused = On("import", {"Party", "-"}, 1, "Name\nAda\n");
  EXPECT_NE(std::string::npos, refused.err.find("Table Shop.Party is abstract")) << refused.err;
}

TEST_F(AnnotationsTest, Apply_OfAnAbstractTableWithObjects_ChangesNothing) {
  std::string document = kShop;
  document.replace(document.find("\"base\": \"Shop.Party\","), 21,
                   "\"base\": \"Shop.Party\", \"abstract\": true,");
  Insert({"Customer"});
  std::string const file = Write("abstract.json", document);
  Result const refused = On("apply", {file}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("it has 1 object of its own")) << refused.err;
  EXPECT_EQ(kShop, On("schema", {"--portable"}).out);
}

// What this process has kept of the rules is no longer what they are.
TEST_F(AnnotationsTest, ChangeByAnotherProcess_IsSeenByTheNextTransaction) {
  using sagleme::Object;
  using sagleme::Transaction;
  sagleme::Database const here = sagleme::Database::Open(database());
  sagleme::Context const context(here);
  auto const make = [](Transaction& transaction) {
    return Object::Create(transaction, *transaction.table(u"Shop.Customer"));
  };
  {
    Transaction transaction(context);
    EXPECT_EQ(sagleme::Value(std::int64_t{5}), make(transaction).Get(u"Points"));
  }
  std::string document = kShop;
  document.replace(document.find("\"default\": 5"), 12, "\"default\": 6");
  Transaction open(context);
  make(open);
  Apply(document);
  EXPECT_THROW(open.Commit(), sagleme::Error);
  Transaction transaction(context);
  EXPECT_EQ(sagleme::Value(std::int64_t{6}), make(transaction).Get(u"Points"));
}

TEST_F(AnnotationsTest, SchemaAsSql_MakesTheSameSchema) {
  std::string const copy = Path("copy");
  EXPECT_EQ(0, RunTool({"create", copy}).status);
  Result const made = RunTool({"sql", copy}, On("schema", {"--format", "sql"}).out);
  EXPECT_EQ(0, made.status) << made.err;
  EXPECT_EQ(kShop, RunTool({"schema", copy, "--portable"}).out);
}

TEST_F(AnnotationsTest, DumpLoadDump_IsEqualToTheByte) {
  Insert({"Order", "By=" + Insert({"Customer"})});
  std::string const dumped = On("dump").out;
  std::string const copy = Path("copy");
  EXPECT_EQ(0, RunTool({"load", copy, "-"}, dumped).status);
  EXPECT_EQ(dumped, RunTool({"dump", copy}).out);
}

}  // namespace
}  // namespace tool_test
