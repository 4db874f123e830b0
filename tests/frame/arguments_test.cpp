// What the exported functions check before they work: names, pointers, the length of column lists.
// The stand-in answers no call, so anything that went further would end the process.

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <sagleme/metalayer/errors.hpp>
#include <string>
#include <vector>

#include "support/recording_kernel.h"

namespace {

constexpr uint64_t kContext = 12;

void ExpectRefused(char16_t const* text, uint32_t status) {
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, status);
  char16_t const* const written = lorv_metalayer_errbuf(kContext);
  ASSERT_NE(nullptr, written);
  EXPECT_EQ(std::u16string(text), std::u16string(written));
}

std::vector<LORV_COLUMN_DEFINITION_NAMES> ByNames(std::size_t count) {
  std::vector<LORV_COLUMN_DEFINITION_NAMES> list(count,
                                                 {SAGLEME_TYPE_SIGNED, nullptr, 0, u"column"});
  list.push_back({0, nullptr, 0, nullptr});
  return list;
}

std::vector<LORV_COLUMN_DEFINITION> ByReference(std::size_t count) {
  std::vector<LORV_COLUMN_DEFINITION> list(count, {{1, 0}, 0, u"column"});
  list.push_back({{0, 0}, 0, nullptr});
  return list;
}

class ArgumentsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    recording_kernel::Record();
  }
  void TearDown() override {
    EXPECT_TRUE(recording_kernel::Names().empty());
    recording_kernel::Reset();
  }
};

TEST_F(ArgumentsTest, CreateTable_NeedsANameAndDefinitions) {
  auto const none = ByReference(0);
  ExpectRefused(u"Argument name is null.",
                lorv_create_table(kContext, nullptr, 0, 0, none.data(), nullptr, nullptr));
  ExpectRefused(u"Argument name is empty.",
                lorv_create_table(kContext, u"", 0, 0, none.data(), nullptr, nullptr));
  ExpectRefused(u"Argument column_definitions is null.",
                lorv_create_table(kContext, u"t", 0, 0, nullptr, nullptr, nullptr));
}

using CreateByNames = uint32_t (*)(uint64_t, char16_t const*, char16_t const*,
                                   LORV_COLUMN_DEFINITION_NAMES const*, uint16_t*);

void ExpectArgumentsChecked(CreateByNames create) {
  auto const none = ByNames(0);
  ExpectRefused(u"Argument name is null.",
                create(kContext, nullptr, nullptr, none.data(), nullptr));
  ExpectRefused(u"Argument name is empty.", create(kContext, u"", u"", nullptr, nullptr));
  ExpectRefused(u"Argument column_definitions is null.",
                create(kContext, u"t", u"", nullptr, nullptr));
  ExpectRefused(u"Argument base_table_name is empty.",
                create(kContext, u"t", u"", none.data(), nullptr));
  auto const many = ByNames(113);
  ExpectRefused(u"Number of columns for table t exceeds the limit of 112.",
                create(kContext, u"t", u"base", many.data(), nullptr));
}

TEST_F(ArgumentsTest, CreateTableByNames_ChecksThemInOrder) {
  ExpectArgumentsChecked(&lorv_create_table_by_names);
}

TEST_F(ArgumentsTest, CreateTableHighCheckTypes_ChecksThemInOrder) {
  ExpectArgumentsChecked(&lorv_create_table_high_check_types);
}

TEST_F(ArgumentsTest, CreateTable_TakesNoMoreThan112Definitions) {
  auto const many = ByReference(113);
  ExpectRefused(u"Number of columns for table t exceeds the limit of 112.",
                lorv_create_table(kContext, u"t", 0, 0, many.data(), nullptr, nullptr));
}

TEST_F(ArgumentsTest, AddColumns_ChecksThemInOrder) {
  auto const none = ByNames(0);
  ExpectRefused(u"Argument full_table_name is null.",
                lorv_alter_table_add_columns(kContext, nullptr, none.data(), nullptr));
  ExpectRefused(u"Argument full_table_name is empty.",
                lorv_alter_table_add_columns(kContext, u"", nullptr, nullptr));
  ExpectRefused(u"Argument added_columns is null.",
                lorv_alter_table_add_columns(kContext, u"t", nullptr, nullptr));
  auto const many = ByNames(113);
  ExpectRefused(u"Number of columns for table t exceeds the limit of 112.",
                lorv_alter_table_add_columns(kContext, u"t", many.data(), nullptr));
}

// Nothing behind the 113th entry is looked at.
TEST_F(ArgumentsTest, ListsWithoutAnEnd_AreReadNoFurtherThan113Entries) {
  auto by_reference = ByReference(113);
  by_reference.pop_back();
  by_reference.shrink_to_fit();
  ExpectRefused(u"Number of columns for table t exceeds the limit of 112.",
                lorv_create_table(kContext, u"t", 0, 0, by_reference.data(), nullptr, nullptr));
  auto by_names = ByNames(113);
  by_names.pop_back();
  by_names.shrink_to_fit();
  ExpectRefused(u"Number of columns for table t exceeds the limit of 112.",
                lorv_alter_table_add_columns(kContext, u"t", by_names.data(), nullptr));
}

TEST_F(ArgumentsTest, RefusedCalls_LeaveTheirOutputsAlone) {
  uint64_t oid = 7;
  uint64_t addr = 8;
  uint16_t layout = 9;
  auto const by_reference = ByReference(113);
  auto const by_names = ByNames(113);
  for (char16_t const* const name : {static_cast<char16_t const*>(nullptr), u"", u"t"}) {
    EXPECT_EQ(SAGLEME_BAD_ARGUMENT,
              lorv_create_table(kContext, name, 0, 0, by_reference.data(), &oid, &addr));
    EXPECT_EQ(SAGLEME_BAD_ARGUMENT,
              lorv_create_table_by_names(kContext, name, nullptr, by_names.data(), &layout));
    EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_create_table_high_check_types(kContext, name, nullptr,
                                                                       by_names.data(), &layout));
    EXPECT_EQ(SAGLEME_BAD_ARGUMENT,
              lorv_alter_table_add_columns(kContext, name, by_names.data(), &oid));
  }
  EXPECT_EQ(7u, oid);
  EXPECT_EQ(8u, addr);
  EXPECT_EQ(9u, layout);
}

TEST_F(ArgumentsTest, SetspecName_NeedsARow) {
  char16_t const* name = nullptr;
  ExpectRefused(u"The argument setspec_oid is zero.",
                lorv_setspec_name_by_setspec_ref(kContext, 0, 5, &name));
}

// The kernel refuses the first thing that it is asked, so this status says that the list was
// accepted.
constexpr uint32_t kReachedTheKernel = 4711;

TEST(ColumnListsTest, ListsOf112DefinitionsAndOfNone_AreAccepted) {
  for (std::size_t const count : {0u, 112u}) {
    auto const by_names = ByNames(count);
    auto const by_reference = ByReference(count);
    recording_kernel::Reset();
    recording_kernel::FailNth(1, kReachedTheKernel);
    EXPECT_EQ(kReachedTheKernel,
              lorv_create_table_by_names(kContext, u"t", nullptr, by_names.data(), nullptr));
    recording_kernel::FailNth(1, kReachedTheKernel);
    EXPECT_EQ(kReachedTheKernel,
              lorv_create_table(kContext, u"t", 0, 0, by_reference.data(), nullptr, nullptr));
    recording_kernel::FailNth(1, kReachedTheKernel);
    EXPECT_EQ(kReachedTheKernel,
              lorv_alter_table_add_columns(kContext, u"t", by_names.data(), nullptr));
  }
}

TEST_F(ArgumentsTest, CheckPtrArg_LetsAPointerPass) {
  int value = 0;
  metalayer::exceptions::CheckPtrArg(&value, u"value");
  metalayer::exceptions::CheckNonEmptyStringArg(u"x", u"value");
}

}  // namespace
