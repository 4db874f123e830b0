// How deep inheritance goes, and what is said at its end.

#include <gtest/gtest.h>

#include <sagleme/host.hpp>

#include "new_database.h"

namespace {

std::u16string Level(int depth) { return u"App.T" + sagleme::ToUtf16(std::to_string(depth)); }

TEST(DepthTest, TooDeepTree_EndsWithItsOwnStatusAndLeavesTheRest) {
  sagleme::Database const database = sagleme_test::NewDatabase();
  sagleme::Context const context(database);
  int depth = 0;
  std::string text;
  for (std::uint32_t status = 0; status == 0 && depth < 2000;) {
    sagleme::Transaction transaction(context);
    try {
      sagleme::CreateTable(transaction, Level(depth), depth == 0 ? u"" : Level(depth - 1), {});
      transaction.Commit();
      ++depth;
    } catch (sagleme::Error const& error) {
      status = error.status();
      text = error.what();
      EXPECT_EQ(SAGLEME_TOO_DEEP, status) << text;
    }
  }
  EXPECT_LT(900, depth);
  EXPECT_GT(1000, depth);
  EXPECT_NE(std::string::npos, text.find(sagleme::ToUtf8(Level(depth)))) << text;
  EXPECT_NE(std::string::npos, text.find(sagleme::ToUtf8(Level(depth - 1)))) << text;
  sagleme::Transaction transaction(context);
  auto const deepest = transaction.table(Level(depth - 1));
  sagleme::Object::Create(transaction, *deepest);
  sagleme::CreateTable(transaction, u"App.Other", Level(0), {});
  transaction.Commit();
}

// Of a name that is too long nothing else is said.
TEST(DepthTest, LongName_IsNotTakenForDepth) {
  sagleme::Database const database = sagleme_test::NewDatabase();
  sagleme::Context const context(database);
  sagleme::Transaction transaction(context);
  try {
    sagleme::CreateTable(transaction, std::u16string(5000, u'n'), u"", {});
    ADD_FAILURE() << "the name was taken";
  } catch (sagleme::Error const& error) {
    EXPECT_EQ(SAGLEME_NAME_TOO_LONG, error.status()) << error.what();
  }
}

}  // namespace
