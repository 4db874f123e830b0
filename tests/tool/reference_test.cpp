#include <nlohmann/json.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

class ReferencesTest : public ToolTest {
 protected:
  void SetUp() override {
    Create();
    Apply(kLibrary);
    person_ = Insert({"Person", "Name=Ada"});
    book_ = Insert({"Book", "Title=One", "Isbn=1", "Price=1", "Owner=" + person_});
  }
  std::string Insert(Arguments const& arguments) {
    std::string id = On("insert", arguments).out;
    id.pop_back();
    return id;
  }

  std::string person_;
  std::string book_;
};

TEST_F(ReferencesTest, Insert_ReferenceToNoObject_IsRefusedAndLeavesNothing) {
  Result const refused = On("insert", {"Book", "Title=Two", "Isbn=2", "Price=1", "Owner=999"}, 4);
  EXPECT_NE(std::string::npos,
            refused.err.find("Column Owner of App.Book cannot refer to object 999, which does not "
                             "exist."))
      << refused.err;
  EXPECT_EQ("1\n", On("count", {"Book"}).out);
}

TEST_F(ReferencesTest, Set_ReferenceToAnotherTable_IsRefused) {
  Result const refused = On("set", {book_, "Owner=" + book_}, 4);
  EXPECT_NE(std::string::npos,
            refused.err.find("Column Owner of App.Book refers to objects of App.Person, and "
                             "object " +
                             book_ + " belongs to App.Book."))
      << refused.err;
  On("check");
}

TEST_F(ReferencesTest, Import_ReferenceToNoObject_IsABadRow) {
  std::string const rows = "Title,Isbn,Price,Owner\nTwo,2,1," + person_ + "\nThree,3,1,999\n";
  Result const refused = On("import", {"Book", "-"}, 1, rows);
  EXPECT_NE(std::string::npos, refused.err.find("999")) << refused.err;
  EXPECT_EQ("1\n", On("count", {"Book"}).out);
  On("check");
}

TEST_F(ReferencesTest, Check_AfterADelete_NamesTheReferencesThatAreLeft) {
  On("delete", {person_});
  Result const found = On("check", {"--format", "json"}, 1);
  EXPECT_NE(std::string::npos,
            found.out.find("column Owner refers to object " + person_ + ", which does not exist"))
      << found.out;
}

}  // namespace
}  // namespace tool_test
