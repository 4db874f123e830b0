// What the descriptors of the system tables ask of a kernel, and answers of it that cannot be.

#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <sagleme/metalayer/metaschema.hpp>
#include <vector>

#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using namespace metalayer;
using recording_kernel::Call;

auto const kTrap = ::testing::KilledBySignal(SIGABRT);
constexpr unsigned long kTokenOfRoot = 11;
constexpr unsigned long kTokenOfTypeId = 4;
constexpr unsigned long kTokenOfViews = 8;

// The kernel gives a root its identity and its set specifier itself.
TEST(RootCallsTest, Layout_IsMadeWithTheHiddenTypeIdAlone) {
  recording_kernel::Reset();
  sagleme_test::Database database;
  recording_kernel::Record();
  ASSERT_EQ(0u, database.BootstrapUpTo(1));
  std::vector<Call> const made = recording_kernel::CallsOf("lorvi_context_create_layout");
  ASSERT_FALSE(made.empty());
  EXPECT_EQ((std::vector<uint64_t>{database.context(), kTokenOfRoot, 0, 0}), made[0].numbers);
  ASSERT_EQ(1u, made[0].columns.size());
  EXPECT_EQ(LORV_TYPE_ULONG, made[0].columns[0].type);
  EXPECT_EQ(0, made[0].columns[0].is_nullable);
  EXPECT_EQ(kTokenOfTypeId, made[0].columns[0].token);
}

class DescriptorCallsTest : public sagleme_test::DatabaseTest {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    DatabaseTest::SetUp();
    metaschema_.emplace();
  }
  static TABLE_INFO& Views() { return *MetaschemaInit::find_table(u"RawView"); }
  // From now on the kernel knows that many layouts of any token, each with the token `reported`.
  static void AnswerLayouts(uint32_t known, unsigned long reported) {
    recording_kernel::Answer<&lorvi_context_get_layout_infos_by_token>(
        [known, reported](uint64_t, uint64_t, uint32_t* count, LORVI_LAYOUT_INFO* out) {
          *count = known;
          out->token = reported;
          out->layout_handle = 77;
          return 0u;
        });
  }
  // From now on every column is a number with that token.
  static void AnswerColumns(unsigned long token) {
    recording_kernel::Answer<&lorvi_context_get_column_info>(
        [token](uint64_t, uint16_t, uint16_t, LORVI_COLUMN_INFO* out) {
          out->token = token;
          out->type = LORV_TYPE_ULONG;
          return 0u;
        });
  }
  template <typename Call>
  static unsigned int CodeOf(Call const& call) {
    try {
      call();
    } catch (db_util::db_exception const& failure) {
      return failure.code();
    }
    return 0;
  }

  std::optional<MetaschemaInit> metaschema_;
};

TEST_F(DescriptorCallsTest, Layout_IsTheOneOfTheToken) {
  AnswerLayouts(1, kTokenOfViews);
  EXPECT_EQ(77, Views().get_layout());
  AnswerLayouts(0, kTokenOfViews);
  EXPECT_EQ(0, Views().get_layout());
}

using DescriptorCallsDeathTest = DescriptorCallsTest;

TEST_F(DescriptorCallsDeathTest, SeveralLayoutsWhereOneWasAskedFor_EndTheProcess) {
  AnswerLayouts(2, kTokenOfViews);
  EXPECT_EXIT(Views().get_layout(), kTrap, "");
  EXPECT_EXIT(Views().verify(), kTrap, "");
}

TEST_F(DescriptorCallsDeathTest, LayoutOfAnotherToken_EndsTheProcess) {
  AnswerLayouts(1, kTokenOfViews + 1);
  EXPECT_EXIT(Views().get_layout(), kTrap, "");
}

// Ordinals count too: a kernel that answered the same for every column would not do.
TEST_F(DescriptorCallsDeathTest, ColumnOfAnotherOrdinal_EndsTheProcess) {
  COLUMN_INFO const& column = *Views().find_column(u"LayoutHandle");
  AnswerColumns(column.token);
  EXPECT_NO_THROW(column.verify(9));
  EXPECT_EXIT(column.verify(8), kTrap, "");
}

TEST_F(DescriptorCallsDeathTest, ColumnWithoutToken_EndsTheProcessEvenIfTheKernelsHasNone) {
  COLUMN_INFO column = *Views().find_column(u"LayoutHandle");
  column.token = 0;
  AnswerColumns(0);
  EXPECT_EXIT(column.verify(9), kTrap, "");
}

TEST_F(DescriptorCallsTest, LayoutThatIsRefused_IsTheKernelsFailure) {
  recording_kernel::FailNthOf("lorvi_context_get_layout_infos_by_token", 1, LSCOREDB_IO_ERROR);
  EXPECT_EQ(LSCOREDB_IO_ERROR, CodeOf([] { Views().get_layout(); }));
  recording_kernel::FailNthOf("lorvi_context_get_layout_infos_by_token", 1, LSCOREDB_IO_ERROR);
  EXPECT_EQ(LSCOREDB_IO_ERROR, CodeOf([] { Views().verify(); }));
}

TEST_F(DescriptorCallsTest, IndexThatIsRefused_IsTheKernelsFailure) {
  for (char const* const function :
       {"lorvi_context_get_index_infos_by_token", "lorvi_context_get_index_setspec"}) {
    INDEX_INFO& index = Views().indexes[0];
    index.index_id = 0;
    std::u16string setspec;
    recording_kernel::FailNthOf(function, 1, LSCOREDB_IO_ERROR);
    EXPECT_EQ(LSCOREDB_IO_ERROR, CodeOf([&] { index.load_metatable_index(&setspec); })) << function;
    EXPECT_EQ(u"", setspec);
  }
}

// Only what is missing is passed over.
TEST_F(DescriptorCallsTest, ReadyingClasses_SkipsOnlyWhatIsMissing) {
  for (unsigned int const missing : {SAGLEME_LAYOUT_NOT_FOUND, unsigned{LORV_STATUS_NO_INDEX}}) {
    recording_kernel::FailNthOf("lorvi_context_get_index_infos_by_token", 1, missing);
    EXPECT_EQ(0u, CodeOf([] { PrepareGeneratedMetaClassesForReading(); })) << missing;
    EXPECT_TRUE(recording_kernel::Failed());
  }
  recording_kernel::FailNthOf("lorvi_context_get_layout_infos_by_token", 2, LSCOREDB_IO_ERROR);
  EXPECT_EQ(LSCOREDB_IO_ERROR, CodeOf([] { PrepareGeneratedMetaClassesForReading(); }));
}

}  // namespace
