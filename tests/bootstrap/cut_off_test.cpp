// A creation that ends at any of its yields is taken up by the next process.

#include "bootstrap/bootstrap_test.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

constexpr int kYields = 19;
constexpr int kYieldOfTokens = 5;

class CutOffTest : public BootstrapTest, public ::testing::WithParamInterface<int> {};

TEST_P(CutOffTest, CutOffBootstrap_IsResumedAndEndsInTheSameCatalogue) {
  BootstrapUpTo(GetParam());
  ExpectRepaired(GetParam() < kYieldOfTokens ? kYields : kYields - 1);
}

// The rows behind the last table come with the second half; before them the database is no
// database.
TEST_P(CutOffTest, CutOffBootstrap_IsRefusedByStartUpUntilItIsWhole) {
  constexpr int kYieldOfAllRows = 14;
  BootstrapUpTo(GetParam());
  Lines const status = Ask([](Database& database) {
    database.Begin();
    return Lines{std::to_string(lorv_init_metalayer(database.context()))};
  });
  std::string const expected =
      GetParam() < kYieldOfAllRows ? std::to_string(SAGLEME_NOT_PREPARED) : "0";
  EXPECT_EQ(Lines{expected}, status);
}

INSTANTIATE_TEST_SUITE_P(AtYield, CutOffTest, ::testing::Range(1, kYields + 1));

TEST_F(BootstrapTest, CutOffAtEveryYieldInTurn_EndsInTheSameCatalogue) {
  for (int yields = 1; yields <= kYields - 1; ++yields) BootstrapUpTo(yields);
  ExpectRepaired(kYields - 1);
}

TEST_F(BootstrapTest, CutOffAfterStartUpTookTheTokens_KeepsOneRowForEachText) {
  BootstrapUpTo(kYieldOfTokens);
  EXPECT_EQ(0, Run([](Database& database) {
              database.Begin();
              EXPECT_EQ(SAGLEME_NOT_PREPARED, lorv_init_metalayer(database.context()));
              database.Commit();
            }));
  ExpectRepaired(kYields - 1);
}

TEST_F(BootstrapTest, EmptyDatabase_IsRefusedByStartUp) {
  Outcome const outcome = StartUp();
  EXPECT_EQ(SAGLEME_NOT_PREPARED, outcome.status);
  EXPECT_EQ("", outcome.text);
}

TEST_F(BootstrapTest, DictionaryWithoutRows_IsRefusedByStartUp) {
  BootstrapUpTo(kYieldOfTokens - 1);
  Outcome const outcome = StartUp();
  EXPECT_EQ(SAGLEME_NOT_PREPARED, outcome.status);
  EXPECT_EQ("", outcome.text);
}

}  // namespace
}  // namespace sagleme_test
