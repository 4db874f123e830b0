#include <nlohmann/json.hpp>
#include <sagleme/hierarchy.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using Json = nlohmann::json;

class RetypeCommandTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    On("import", {"App.Book", "-"}, 0,
       "Title,Pages,Isbn,Price\nOne,10,1,1.5\nTwo,20,2,2\nThree,30,3,3\n");
  }
  Json Scan(std::string const& table) {
    return Json::parse(On("scan", {table, "--format", "json"}).out);
  }
  std::string IdOf(std::string const& title) {
    for (Json const& row : Scan("Item")) {
      if (row["Title"] == title) return row["_oid"].dump();
    }
    return "";
  }
};

TEST_F(RetypeCommandTest, Retype_OfOneObject_KeepsSharedValues) {
  std::string const id = IdOf("One");
  Result const refused = On("retype", {"Film", id}, 4);
  EXPECT_NE(std::string::npos, refused.out.find("column Isbn of App.Book is lost, with 1 value"))
      << refused.out;
  EXPECT_NE(std::string::npos, refused.err.find("values would be lost; nothing was changed"));
  EXPECT_NE(std::string::npos,
            On("retype", {"Film", id, "--allow-destructive"}).err.find("changed 1 object"));
  ASSERT_EQ(1u, Scan("Film").size());
  EXPECT_EQ(10, Scan("Film")[0]["Pages"]);
  EXPECT_EQ(id, IdOf("One"));
  On("check");
}

TEST_F(RetypeCommandTest, Retype_ByAConditionInBatches_ChangesWhatMeetsIt) {
  Result const plan = On("retype", {"Film", "--from", "Book", "--where", "Pages>=20", "--plan"}, 5);
  EXPECT_EQ(
      "2 objects to change\ncolumn Isbn of App.Book is lost, with 2 values\ncolumn Price of "
      "App.Book is lost, with 2 values\n",
      plan.out);
  EXPECT_EQ("", plan.err);
  EXPECT_EQ(3u, Scan("Book").size());
  Arguments const all{"Film",      "--from",  "Book", "--where",
                      "Pages>=20", "--batch", "1",    "--allow-destructive"};
  EXPECT_NE(std::string::npos, On("retype", all).err.find("changed 2 objects"));
  EXPECT_EQ(1u, Scan("Book").size());
  EXPECT_EQ(2u, Scan("Film").size());
  EXPECT_NE(std::string::npos, On("retype", all).err.find("changed 0 objects"));
  On("retype", {"Film", "--from", "Book", "--where", "Pages>=20", "--plan"}, 0);
  On("check");
}

TEST_F(RetypeCommandTest, Retype_InBatches_CountsWhatItHasChanged) {
  std::string const first = IdOf("One");
  On("retype", {"Film", first, "--allow-destructive"});
  Result const rest =
      On("retype", {"Film", first, IdOf("Two"), "--batch", "1", "--allow-destructive"});
  EXPECT_EQ("1 object\nchanged 1 object\n", rest.err);
}

// Leaves a change of three magazines to items after the first one, and writes what the others lose.
void LeaveLossyRetype(std::string const& place) {
  sagleme::Database opened = sagleme::Database::Open(place);
  sagleme::Context const context(opened);
  std::vector<sagleme::ObjectId> magazines;
  {
    sagleme::Transaction transaction(context);
    sagleme::CreateTable(transaction, "App.Magazine", "App.Item", {{"Issue"}});
    sagleme::TablePtr const table = transaction.table("App.Magazine");
    for (int i = 0; i < 3; ++i) {
      sagleme::Object magazine = sagleme::Object::Create(transaction, *table);
      magazine.Set("Title", std::to_string(i));
      magazines.push_back(magazine.id());
    }
    transaction.Commit();
  }
  sagleme::RetypeJob job;
  job.batch = 1;
  job.report = [](std::uint64_t done, std::uint64_t) { return done < 1; };
  RetypeInBatches(context, magazines, "App.Item", {.loss = sagleme::Loss::kRefuse}, job);
  sagleme::Transaction transaction(context);
  sagleme::Object::Find(transaction, magazines[2])->Set("Issue", "May");
  transaction.Commit();
}

TEST_F(RetypeCommandTest, Resume_OfALossyRetype_NeedsToBeAllowed) {
  LeaveLossyRetype(database());
  Result const refused = On("jobs", {"resume"}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("has a value in column Issue of App.Magazine"))
      << refused.err;
  EXPECT_EQ(1u, Scan("Magazine").size());
  On("jobs", {"resume", "--allow-destructive"});
  EXPECT_EQ(0u, Scan("Magazine").size());
  EXPECT_EQ("[]\n", On("jobs", {"--format", "json"}).out);
  On("check");
}

// References to books, of more shelves than are listed.
class RetypeOfReferredTest : public RetypeCommandTest {
 protected:
  void SetUp() override {
    RetypeCommandTest::SetUp();
    std::string wanted = kLibrary;
    std::string const first = R"("tables": [)";
    wanted.insert(wanted.find(first) + first.size(), R"({"name": "App.Shelf", "columns": [
        {"name": "Book", "type": "reference", "target": "App.Book"}]},)");
    Apply(wanted);
    std::string rows = "Book\n";
    for (int i = 0; i < 23; ++i) rows += IdOf("Three") + "\n";
    On("import", {"Shelf", "-"}, 0, rows);
  }
};

TEST_F(RetypeOfReferredTest, ReferenceThatWouldNotHold_RefusesBeforeTheFirstBatch) {
  Result const refused =
      On("retype", {"Film", "--from", "Book", "--batch", "1", "--allow-destructive"}, 4);
  EXPECT_NE(std::string::npos, refused.err.find("nothing was changed")) << refused.err;
  EXPECT_NE(std::string::npos, refused.err.find("--references null")) << refused.err;
  EXPECT_EQ(3u, Scan("Book").size());
  On("retype",
     {"Film", "--from", "Book", "--batch", "1", "--allow-destructive", "--references", "null"});
  EXPECT_EQ(0u, Scan("Book").size());
  EXPECT_TRUE(Scan("Shelf")[22]["Book"].is_null());
  On("check");
}

TEST_F(RetypeOfReferredTest, Plan_ListsTheFirstReferences) {
  std::string const plan = On("retype", {"Film", IdOf("Three"), "--plan"}, 5).out;
  EXPECT_NE(std::string::npos, plan.find("refers to object " + IdOf("Three") +
                                         " by Book of App.Shelf\nand 3 more references\n"))
      << plan;
}

TEST_F(RetypeCommandTest, Retype_WithBadArguments_SaysWhatIsWrong) {
  auto const error = [&](Arguments const& arguments, int status) {
    return On("retype", arguments, status).err;
  };
  EXPECT_NE(std::string::npos, error({"Film"}, 2).find("either the ids of objects or --from"));
  EXPECT_NE(std::string::npos, error({"Film", "1", "--from", "Book"}, 2).find("either"));
  EXPECT_NE(std::string::npos,
            error({"Film", IdOf("One"), "--where", "Pages=1"}, 2).find("need --from TABLE"));
  EXPECT_NE(std::string::npos,
            error({"Film", IdOf("One"), "--batch", "0"}, 2).find("a number of at least 1, not 0"));
  error({"Film", "12345678"}, 1);
  error({"Nothing", IdOf("One")}, 4);
  error({"Film", IdOf("One"), "--references", "drop"}, 2);
  EXPECT_EQ(3u, Scan("Book").size());
}

}  // namespace
}  // namespace tool_test
