// The failure of a column name that is taken, whose text is completed from the catalogue. The
// catalogue here is a script: column n belongs to table 100 + n, and tables have names.

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <array>
#include <cstring>
#include <sagleme/metalayer/errors.hpp>
#include <string>

#include "support/recording_kernel.h"

namespace {

using namespace metalayer::exceptions;
using recording_kernel::Answer;

constexpr unsigned long kContext = 65;
constexpr uint64_t kColumnOfNoTable = 9;

class ConflictingNameTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    *metalayer::TlsMetalayerContext::Current() = kContext;
    metalayer::clean_errbuf_by_ctx(kContext);
    Answer<&lorv_context_get_reference>(&TableOf);
    Answer<&lorv_context_get_string>(
        [this](uint64_t, uint64_t oid, uint64_t, uint32_t column, LORV_STRING** out) {
          return NameOf(oid, column, out);
        });
  }
  void TearDown() override {
    recording_kernel::Reset();
    *metalayer::TlsMetalayerContext::Current() = 0;
  }

  static uint32_t TableOf(uint64_t, uint64_t oid, uint64_t, uint32_t column, LORV_REFERENCE* out) {
    EXPECT_EQ(3u, column);
    if (oid == kColumnOfNoTable) return LORV_STATUS_NULL;
    *out = {100 + oid, 0, 1};
    return 0;
  }

  uint32_t NameOf(uint64_t oid, uint32_t column, LORV_STRING** out) {
    EXPECT_EQ(6u, column);
    if (oid == 0) return LORV_STATUS_NO_OBJECT;
    std::u16string const name =
        u"Table" + std::u16string(1, static_cast<char16_t>(u'0' + oid % 10));
    auto* const record = reinterpret_cast<LORV_STRING*>(memory_.data());
    record->length = static_cast<uint32_t>(name.size());
    std::memcpy(record->units, name.data(), name.size() * sizeof(char16_t));
    *out = record;
    return 0;
  }

  // The code of the failure; its text stands in the buffer.
  unsigned int Raise(int kind, std::vector<LS_OBJ_REF> columns, bool exact = false) {
    try {
      ThrowNewColumnNameIsConflicting(u"T", u"C", {kind, std::move(columns), exact});
    } catch (BadNewColumnArg const& failure) {
      EXPECT_EQ(u"T", failure.table);
      EXPECT_EQ(u"C", failure.column);
      return failure.code();
    } catch (db_util::db_exception const& failure) {
      return failure.code();
    }
  }

  static std::u16string Text() {
    char16_t const* const text = lorv_metalayer_errbuf(kContext);
    return text == nullptr ? u"" : text;
  }

  std::array<uint32_t, 32> memory_{};
};

TEST_F(ConflictingNameTest, NameInAnAncestor_NamesTheFirstColumnsTable) {
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN, Raise(1, {{1, 0}, {2, 0}}));
  EXPECT_EQ(u"New column name C conflicts with existing column in ancestor table Table1.", Text());
}

TEST_F(ConflictingNameTest, NameInTheTableItself_ReadsNothing) {
  recording_kernel::Record();
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN, Raise(2, {{1, 0}}));
  EXPECT_EQ(u"New column name C conflicts with existing column in the table T.", Text());
  EXPECT_TRUE(recording_kernel::Calls().empty());
}

TEST_F(ConflictingNameTest, NameInOneDescendant_HasNoPlural) {
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN, Raise(3, {{1, 0}}, true));
  EXPECT_EQ(
      u"New column name C conflicts with existing column in exactly 1 descendant table: Table1.",
      Text());
}

TEST_F(ConflictingNameTest, NameInSeveralDescendants_NamesThemInOrder) {
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN, Raise(3, {{2, 0}, {1, 0}, {3, 0}}));
  EXPECT_EQ(
      u"New column name C conflicts with existing column in at least 3 descendant tables: Table2, "
      u"Table1, Table3.",
      Text());
}

TEST_F(ConflictingNameTest, NameOfAnotherKind_AddsNothing) {
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN, Raise(0, {}));
  EXPECT_EQ(u"New column name C conflicts with existing column.", Text());
}

TEST_F(ConflictingNameTest, TableWithoutAName_IsNamedByNothing) {
  Answer<&lorv_context_get_string>(
      [this](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING** out) {
        NameOf(1, 6, out);
        return LORV_STATUS_NULL;
      });
  EXPECT_EQ(SAGLEME_COLUMN_NAME_TAKEN, Raise(1, {{1, 0}}));
  EXPECT_EQ(u"New column name C conflicts with existing column in ancestor table .", Text());
}

// A kernel may leave anything in the output of a read that it answers with null.
TEST_F(ConflictingNameTest, ColumnOfNoTable_AsksForTheNameOfTheNullReference) {
  Answer<&lorv_context_get_reference>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_REFERENCE* out) {
        *out = {5, 6, 7};
        return LORV_STATUS_NULL;
      });
  recording_kernel::Record();
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, Raise(1, {{1, 2}}));
  auto const& calls = recording_kernel::Calls();
  EXPECT_EQ((std::vector<uint64_t>{kContext, 1, 2, 3}), calls.at(0).numbers);
  EXPECT_EQ((std::vector<uint64_t>{kContext, 0, 0, 6}), calls.at(1).numbers);
}

TEST_F(ConflictingNameTest, KernelFailureInBetween_TakesItsPlace) {
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, Raise(3, {{1, 0}, {kColumnOfNoTable, 0}}, true));
  EXPECT_EQ(
      u"New column name C conflicts with existing column in exactly 2 descendant tables: Table1, ",
      Text());
}

TEST_F(ConflictingNameTest, FailedReadOfTheTable_TakesItsPlace) {
  recording_kernel::FailNthOf("lorv_context_get_reference", 1, LORV_STATUS_UNREACHABLE);
  EXPECT_EQ(LORV_STATUS_UNREACHABLE, Raise(1, {{1, 0}}));
  EXPECT_EQ(u"New column name C conflicts with existing column in ancestor table ", Text());
}

}  // namespace
