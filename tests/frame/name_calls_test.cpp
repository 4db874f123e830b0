// The exported functions that answer for names: tokens, set specifiers, table references.

#include <gtest/gtest.h>

#include <string>

#include "support/database.h"
#include "support/recording_kernel.h"

namespace {

using metalayer::RawView;
using metalayer::Token;
using sagleme_test::Columns;

class NameCallsTest : public sagleme_test::DatabaseTest {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    DatabaseTest::SetUp();
  }

  uint64_t Assured(char16_t const* name) {
    uint64_t token = 0;
    ExpectOk(lorv_assure_token(context(), name, &token));
    return token;
  }

  uint16_t MakeTable(char16_t const* name) {
    Columns columns;
    columns.String(u"Name");
    uint16_t layout = 0;
    ExpectOk(lorv_create_table_by_names(context(), name, nullptr, columns, &layout));
    return layout;
  }

  static std::u16string Text(char16_t const* text) { return text == nullptr ? u"(null)" : text; }
};

// ---- tokens
// --------------------------------------------------------------------------------------

TEST_F(NameCallsTest, AssureToken_GivesOneNumberAndKeepsOneRow) {
  uint64_t const token = Assured(u"word");
  recording_kernel::Record();
  EXPECT_EQ(token, Assured(u"word"));
  EXPECT_TRUE(recording_kernel::CallsOf("lorv_context_insert_system").empty());
}

TEST_F(NameCallsTest, AssureToken_CountsUpByOne) {
  uint64_t const first = Assured(u"first word");
  EXPECT_EQ(first + 1, Assured(u"second word"));
}

TEST_F(NameCallsTest, AssureToken_NameTooLongForAKey_IsRefused) {
  std::u16string const name(2000, u'n');
  uint64_t token = 7;
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"", lorv_assure_token(context(), name.c_str(), &token));
  EXPECT_EQ(7u, token);
}

TEST_F(NameCallsTest, GetToken_Word_IsItsNumber) {
  uint64_t const token = Assured(u"word");
  uint64_t found = 0;
  ExpectOk(lorv_get_token(context(), u"word", &found));
  EXPECT_EQ(token, found);
}

TEST_F(NameCallsTest, GetToken_Table_IsItsLayoutsToken) {
  MakeTable(u"App.Old");
  uint64_t const token = Assured(u"App.Old");
  ExpectOk(lorv_rename_table(context(), u"App.Old", u"App.New"));
  uint64_t const other = Assured(u"App.New");
  ASSERT_NE(token, other);
  uint64_t found = 0;
  ExpectOk(lorv_get_token(context(), u"App.New", &found));
  EXPECT_EQ(token, found);
}

TEST_F(NameCallsTest, GetToken_UnknownName_CreatesNone) {
  uint64_t token = 7;
  recording_kernel::Record();
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for name nobody not found.",
                lorv_get_token(context(), u"nobody", &token));
  EXPECT_EQ(7u, token);
  EXPECT_TRUE(recording_kernel::CallsOf("lorv_context_insert_system").empty());
}

TEST_F(NameCallsTest, GetToken_NoName_IsNotFound) {
  uint64_t token = 7;
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for name  not found.",
                lorv_get_token(context(), nullptr, &token));
}

// 990 bytes in chunks of 31 with their counts, the end of the text and the end mark: 1024 bytes.
TEST_F(NameCallsTest, GetToken_LongestNameThatFitsAKey_IsLookedUp) {
  std::u16string const name(990, u'n');
  uint64_t const token = Assured(name.c_str());
  uint64_t found = 0;
  ExpectOk(lorv_get_token(context(), name.c_str(), &found));
  EXPECT_EQ(token, found);
}

TEST_F(NameCallsTest, GetToken_NameOneByteTooLong_IsRefusedBeforeTheKernelIsAsked) {
  std::u16string const name(991, u'n');
  uint64_t token = 7;
  recording_kernel::Record();
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"", lorv_get_token(context(), name.c_str(), &token));
  EXPECT_EQ(7u, token);
  EXPECT_TRUE(recording_kernel::Names().empty());
}

using NameCallsDeathTest = NameCallsTest;

TEST_F(NameCallsDeathTest, GetToken_TableWithoutALayout_EndsTheProcess) {
  MakeTable(u"App.T");
  EXPECT_EXIT(
      {
        recording_kernel::FailNthOf("lorvi_context_get_layout_info", 1, LSCOREDB_UNKNOWN_LAYOUT);
        uint64_t token = 0;
        lorv_get_token(context(), u"App.T", &token);
      },
      ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(NameCallsTest, GetTokenName_ReadsTheTextBack) {
  char16_t const* name = nullptr;
  ExpectOk(lorv_get_token_name(context(), Assured(u"word"), &name));
  EXPECT_EQ(u"word", Text(name));
}

TEST_F(NameCallsTest, GetTokenName_Zero_IsNotFound) {
  char16_t const* name = u"untouched";
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for id 0 not found.",
                lorv_get_token_name(context(), 0, &name));
  EXPECT_EQ(u"untouched", Text(name));
}

TEST_F(NameCallsTest, GetTokenName_RowWithoutAText_IsNull) {
  Token::Insert(999999, nullptr);
  char16_t const* name = u"";
  ExpectOk(lorv_get_token_name(context(), 999999, &name));
  EXPECT_EQ(nullptr, name);
}

TEST_F(NameCallsTest, NamesOfTokens_Unreadable_AreTheKernelsStatus) {
  uint64_t const token = Assured(u"word");
  char16_t const* name = u"untouched";
  for (auto const call :
       {&lorv_get_token_name, &lorv_get_table_name_by_token, &lorv_get_column_name_by_token}) {
    recording_kernel::FailNthOf("lorv_context_get_string", 1, LSCOREDB_IO_ERROR);
    ExpectRefused(LSCOREDB_IO_ERROR, u"", call(context(), token, &name));
    EXPECT_EQ(u"untouched", Text(name));
  }
}

TEST_F(NameCallsTest, NameByToken_PlainWord_IsTheWord) {
  char16_t const* name = nullptr;
  ExpectOk(lorv_get_table_name_by_token(context(), Assured(u"word"), &name));
  EXPECT_EQ(u"word", Text(name));
  ExpectOk(lorv_get_column_name_by_token(context(), Assured(u"word"), &name));
  EXPECT_EQ(u"word", Text(name));
}

TEST_F(NameCallsTest, NameByToken_RowsIdentity_IsTheNameOfTheRow) {
  MakeTable(u"App.T");
  RawView const view(RawView::ByRawViewPK2fullname(u"App.T"));
  std::u16string const id = sagleme_test::Utf16(std::to_string(view.oid));
  char16_t const* name = nullptr;
  ExpectOk(lorv_get_table_name_by_token(context(), Assured(id.c_str()), &name));
  EXPECT_EQ(u"App.T", Text(name));
}

TEST_F(NameCallsTest, NameByToken_DeletedRow_IsTheDecimalText) {
  LS_OBJ_REF const row = Token::Insert(999999, u"to be deleted");
  std::u16string const id = sagleme_test::Utf16(std::to_string(row.oid));
  uint64_t const token = Assured(id.c_str());
  metalayer::DeleteRow(row);
  Commit();
  Begin();
  char16_t const* name = nullptr;
  ExpectOk(lorv_get_table_name_by_token(context(), token, &name));
  EXPECT_EQ(id, Text(name));
}

TEST_F(NameCallsTest, NameByToken_RowWithoutAText_IsNull) {
  Token::Insert(999999, nullptr);
  char16_t const* name = u"";
  ExpectOk(lorv_get_column_name_by_token(context(), 999999, &name));
  EXPECT_EQ(nullptr, name);
}

TEST_F(NameCallsTest, NameByToken_UnknownToken_IsNotFound) {
  char16_t const* name = nullptr;
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for id 88888888 not found.",
                lorv_get_column_name_by_token(context(), 88888888, &name));
}

TEST_F(NameCallsTest, NameByToken_LookupFails_PassesTheStatusOut) {
  uint64_t const token = Assured(u"word");
  recording_kernel::FailNthOf("lorv_context_lookup", 1, LSCOREDB_IO_ERROR);
  char16_t const* name = nullptr;
  ExpectRefused(LSCOREDB_IO_ERROR, u"", lorv_get_table_name_by_token(context(), token, &name));
}

// ---- set specifiers, table references
// ------------------------------------------------------------

TEST_F(NameCallsTest, SetspecOfATable_IsFoundByItsRowAndByItsName) {
  MakeTable(u"App.Sales.Order");
  RawView const view(RawView::ByRawViewPK2fullname(u"App.Sales.Order"));
  uint64_t oid = 0;
  uint64_t addr = 0;
  ExpectOk(lorv_setspec_ref_by_table_ref(context(), view.oid, view.addr, &oid, &addr));
  ASSERT_NE(0u, oid);
  char16_t const* by_row = nullptr;
  ExpectOk(lorv_setspec_name_by_setspec_ref(context(), oid, addr, &by_row));
  EXPECT_EQ(u'~', Text(by_row).back());
  char16_t const* by_name = nullptr;
  ExpectOk(lorv_setspec_name_by_table_incomplete_reverse_uid(context(), u"Order.Sales", &by_name));
  EXPECT_EQ(Text(by_row), Text(by_name));
}

TEST_F(NameCallsTest, SetspecOfNoTable_IsTheNullReference) {
  LS_OBJ_REF const word = Token::Insert(999999, u"word");
  uint64_t oid = 7;
  uint64_t addr = 7;
  ExpectOk(lorv_setspec_ref_by_table_ref(context(), word.oid, word.addr, &oid, &addr));
  EXPECT_EQ(0u, oid);
  EXPECT_EQ(0u, addr);
}

TEST_F(NameCallsTest, TableByReversedName_IsItsRow) {
  MakeTable(u"App.Sales.Order");
  RawView const view(RawView::ByRawViewPK2fullname(u"App.Sales.Order"));
  uint64_t oid = 0;
  uint64_t addr = 0;
  ExpectOk(lorv_table_ref_by_incomplete_reverse_uid(context(), u"Order", &oid, &addr));
  EXPECT_EQ(view.oid, oid);
  ExpectRefused(SAGLEME_TABLE_NOT_FOUND, u"Table not found by incomplete reverse id Nothing.",
                lorv_table_ref_by_incomplete_reverse_uid(context(), u"Nothing", &oid, &addr));
  EXPECT_EQ(view.oid, oid);
}

TEST_F(NameCallsTest, TableByLayout_IsFoundByTheCurrentOneAlone) {
  uint16_t const layout = MakeTable(u"App.T");
  RawView const view(RawView::ByRawViewPK2fullname(u"App.T"));
  uint64_t oid = 0;
  uint64_t addr = 0;
  ExpectOk(lorv_table_ref_by_layout_id(context(), layout, &oid, &addr));
  EXPECT_EQ(view.oid, oid);
  Columns more;
  more.Long(u"More");
  ExpectOk(lorv_alter_table_add_columns(context(), u"App.T", more, nullptr));
  ExpectRefused(SAGLEME_LAYOUT_NOT_FOUND,
                u"No table is associated with layout id " +
                    sagleme_test::Utf16(std::to_string(layout)) + u".",
                lorv_table_ref_by_layout_id(context(), layout, &oid, &addr));
}

// ---- booleans
// -----------------------------------------------------------------------------------

TEST_F(NameCallsTest, PutBool_Two_StoresOne) {
  MakeTable(u"App.T");
  RawView const view(RawView::ByRawViewPK2fullname(u"App.T"));
  for (auto const& [given, stored] : {std::pair{0, 0u}, std::pair{2, 1u}, std::pair{1, 1u}}) {
    uint64_t value = 77;
    EXPECT_EQ(0u, lorv_meta_put_bool(context(), view.oid, view.addr, RawView::kUpdatable,
                                     static_cast<uint64_t>(given)));
    EXPECT_EQ(0u, lorv_meta_get_bool(context(), view.oid, view.addr, RawView::kUpdatable, &value));
    EXPECT_EQ(stored, value);
  }
}

}  // namespace
