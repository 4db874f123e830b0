// Annotations in schema documents, plans and dumps.

#include <filesystem>
#include <sagleme/host/dump.hpp>
#include <sagleme/schema_plan.hpp>
#include <sstream>

#include "annotations_test.h"

namespace {

using namespace sagleme;

char const* const kDocument = R"({
  "schema": 1,
  "tables": [
    {"name": "Person", "abstract": true, "comment": "who",
     "columns": [
       {"name": "Name", "type": "string", "default": "Nobody", "comment": "as \"registered\""},
       {"name": "Age", "type": "long", "default": 18},
       {"name": "City", "type": "string"}],
     "indexes": [
       {"name": "PersonByName", "comment": "for the list", "columns": ["Name"]}]},
    {"name": "Child", "base": "Person",
     "columns": [
       {"name": "School", "type": "string"}]},
    {"name": "Thing",
     "columns": [
       {"name": "Owner", "type": "reference", "target": "Person", "on_delete": "refuse"},
       {"name": "Next", "type": "reference", "target": "Thing", "on_delete": "cascade"}],
     "indexes": [
       {"name": "Thing.Next.Referrers", "columns": ["Next"]},
       {"name": "Thing.Owner.Referrers", "columns": ["Owner"]}]}]
}
)";

void ApplyDocument(Context const& context, std::string const& json) {
  SchemaDoc const wanted = ParseSchema(json, "x.json");
  ValidateSchema(wanted, "x.json");
  Transaction transaction(context);
  ApplyPlan(transaction, CompareSchemas(ReadSchema(transaction, true), wanted));
  transaction.Commit();
}

std::string DocumentOf(Context const& context) {
  Transaction transaction(context, Access::kReadOnly);
  return SchemaJson(ReadSchema(transaction, false));
}

Plan PlanFor(Context const& context, std::string const& json) {
  Transaction transaction(context, Access::kReadOnly);
  return CompareSchemas(ReadSchema(transaction, true), ParseSchema(json, "x.json"));
}

TEST_F(AnnotationsTest, Document_IsAppliedAndReadBackByteForByte) {
  std::string const plain = DocumentOf(context_);
  ApplyDocument(context_, kDocument);
  EXPECT_EQ(kDocument, DocumentOf(context_));
  EXPECT_TRUE(PlanFor(context_, kDocument).empty());
  ApplyDocument(context_, plain);
  EXPECT_EQ(plain, DocumentOf(context_));
}

TEST_F(AnnotationsTest, Plan_SaysWhatAnnotationsChangeAndWhatItCosts) {
  std::vector<std::string> lines;
  for (Change const& change : PlanFor(context_, kDocument)) {
    lines.push_back(std::string(LabelName(LabelOf(change))) + " " + DescribeChange(change));
  }
  std::vector<std::string> const expected{
      "background create index Thing.Next.Referrers on Thing",
      "background create index Thing.Owner.Referrers on Thing",
      "instant comment on table Person: \"who\"",
      "instant make table Person abstract, provided that it has no objects",
      "instant comment on column Name of Person: \"as \\\"registered\\\"\"",
      "instant let column Name of Person default to \"Nobody\"",
      "instant let column Age of Person default to 18",
      "instant comment on index PersonByName: \"for the list\"",
      "background on deletion of the target of column Owner of Thing: refuse; its references are "
      "verified",
      "background on deletion of the target of column Next of Thing: cascade; its references are "
      "verified"};
  EXPECT_EQ(expected, lines);
}

TEST_F(AnnotationsTest, DocumentWithARuleAndNoIndex_IsAppliedOnce) {
  std::string json = kDocument;
  auto const from = json.find(",\n     \"indexes\": [\n       {\"name\": \"Thing.Next");
  json = json.substr(0, from) + "}]\n}\n";
  ApplyDocument(context_, json);
  EXPECT_EQ(kDocument, DocumentOf(context_));
  EXPECT_TRUE(PlanFor(context_, json).empty());
}

TEST_F(AnnotationsTest, ReferenceWithARule_BecomesANumber) {
  ApplyDocument(context_, kDocument);
  std::string json = kDocument;
  std::string const reference = R"("type": "reference", "target": "Person", "on_delete": "refuse")";
  json.replace(json.find(reference), reference.size(), R"("type": "long", "nullable": true)");
  ApplyDocument(context_, json);
  EXPECT_EQ(json, DocumentOf(context_));
  Transaction transaction(context_, Access::kReadOnly);
  EXPECT_EQ(std::vector<std::string>(), FindingsOf(transaction));
}

TEST_F(AnnotationsTest, BadAnnotationsOfADocument_AreRefusedWithTheirPlace) {
  auto const refused = [](std::string const& column) -> std::string {
    try {
      ParseSchema(R"({"schema": 1, "tables": [{"name": "T", "columns": [)" + column + "]}]}", "x");
    } catch (Failure const& failure) {
      return failure.what();
    }
    return "nothing";
  };
  EXPECT_EQ(
      "column A of table T has the wrong \"default\" \"x\" for type long: \"x\" is not a number",
      refused(R"({"name": "A", "type": "long", "default": "x"})"));
  EXPECT_EQ("column A of table T is a reference, which has no \"default\"",
            refused(R"({"name": "A", "type": "reference", "target": "T", "default": 1})"));
  EXPECT_EQ("column A of table T has an \"on_delete\" but is not a reference",
            refused(R"({"name": "A", "type": "long", "on_delete": "refuse"})"));
  EXPECT_EQ(
      "column A of table T has an unknown \"on_delete\" \"explode\"; it is keep, refuse, set_null, "
      "cascade or last",
      refused(R"({"name": "A", "type": "reference", "target": "T", "on_delete": "explode"})"));
  EXPECT_EQ("column A of table T is wrong: \"comment\" must be a string",
            refused(R"({"name": "A", "type": "long", "comment": 7})"));
  EXPECT_EQ("nothing", refused(R"({"name": "A", "type": "long", "default": null})"));
}

// A bare number is read digit by digit, not by way of a double.
TEST_F(AnnotationsTest, DefaultOfADocument_KeepsEveryDigit) {
  auto const read = [](std::string const& type, std::string const& number) -> Value {
    SchemaDoc const schema = ParseSchema(
        R"({"schema": 1, "tables": [{"name": "T", "columns": [{"name": "A", "type": ")" + type +
            R"(", "default": )" + number + "}]}]}",
        "x");
    return schema.tables[0].columns[0].fallback;
  };
  EXPECT_EQ(Value(Decimal{9223372036854775807}), read("decimal", "9223372036854.775807"));
  EXPECT_EQ(Value(Decimal{-9007199254740993}), read("decimal", "-9007199254.740993"));
  EXPECT_EQ(Value(Decimal{1500000000}), read("decimal", "1.5e3"));
  EXPECT_EQ(Value(0.1), read("double", "0.1"));
  EXPECT_EQ(Value(1e300), read("double", "1e300"));
  EXPECT_THROW(read("decimal", "0.1234567"), Failure);
  EXPECT_THROW(read("decimal", "9.223372036854775807e12"), Failure);
  EXPECT_THROW(read("long", "1.5"), Failure);
  EXPECT_THROW(read("string", "1.5"), Failure);
}

TEST_F(AnnotationsTest, DocumentNestedWithoutEnd_IsRefused) {
  std::string const deep =
      R"({"schema": 1, "tables": [{"name": "T", "columns": [{"name": "A", "type": "long",)"
      R"( "default": )" +
      std::string(300000, '[') + std::string(300000, ']') + "}]}]}";
  try {
    ParseSchema(deep, "x");
    ADD_FAILURE() << "nothing was refused";
  } catch (Failure const& failure) {
    EXPECT_EQ("x: arrays and objects are nested deeper than 20, which no schema document is",
              std::string(failure.what()));
  }
}

std::string DumpOf(Context const& context) {
  std::string text;
  Transaction transaction(context, Access::kReadOnly);
  Dump(transaction, [&](std::string_view part) { text += part; });
  return text;
}

TEST_F(AnnotationsTest, DumpLoadDump_IsEqualToTheByte) {
  ApplyDocument(context_, kDocument);
  {
    Transaction transaction(context_);
    DropIndex(transaction, u"Thing.Next.Referrers");
    Object const child = Make(transaction, u"Child");
    MakeThing(transaction, child.id());
    // What went past the rules comes back as well.
    TablePtr const person = transaction.table(u"Person");
    std::uint64_t oid = 0;
    ASSERT_EQ(0u, lorv_context_insert(transaction.context(), person->layout, &oid));
    ASSERT_EQ(0u, lorv_context_put_setspec(transaction.context(), oid, person->layout,
                                           person->setspec.c_str()));
    transaction.Commit();
  }
  std::string const dumped = DumpOf(context_);
  std::string directory = std::filesystem::temp_directory_path() / "annotationsXXXXXX";
  ASSERT_NE(nullptr, mkdtemp(directory.data()));
  std::istringstream input(dumped);
  Load(directory, input, "dump");
  {
    Database const loaded = Database::Open(directory);
    Context const context(loaded);
    EXPECT_EQ(dumped, DumpOf(context));
    Transaction transaction(context);
    Refused(SAGLEME_ABSTRACT_TABLE, [&] { Make(transaction, u"Person"); });
  }
  {
    Database const reopened = Database::Open(directory);
    Context const context(reopened);
    Transaction transaction(context);
    EXPECT_EQ(Value("Nobody"), Make(transaction, u"Child").Get(u"Name"));
    Range all = Range::Only(transaction, *transaction.table(u"Child"));
    Refused(SAGLEME_OBJECT_REFERENCED, [&] { all.Next()->Delete(); });
  }
  std::filesystem::remove_all(directory);
}

}  // namespace
