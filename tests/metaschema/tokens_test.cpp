// The name dictionary.

#include <csignal>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

auto const kTrap = ::testing::KilledBySignal(SIGABRT);

class TokensTest : public DatabaseTest {
 protected:
  unsigned long Assure(char16_t const* name) {
    unsigned long token = 0;
    ExpectOk(lorv_assure_token(context(), name, &token));
    return token;
  }
  unsigned long Get(char16_t const* name) {
    unsigned long token = 0;
    ExpectOk(lorv_get_token(context(), name, &token));
    return token;
  }
  // A token for the decimal text of an object's identity.
  unsigned long TokenOfObject(unsigned long oid) {
    return Assure(Utf16(std::to_string(oid)).c_str());
  }
  std::u16string TableNameBy(unsigned long token) {
    char16_t const* name = nullptr;
    ExpectOk(lorv_get_table_name_by_token(context(), token, &name));
    return name == nullptr ? u"(null)" : name;
  }
  std::u16string ColumnNameBy(unsigned long token) {
    char16_t const* name = nullptr;
    ExpectOk(lorv_get_column_name_by_token(context(), token, &name));
    return name == nullptr ? u"(null)" : name;
  }
};

TEST_F(TokensTest, OneName_HasOneTokenAndOneRow) {
  unsigned long const token = Assure(u"Some");
  std::vector<std::string> const before = DumpObjects();
  EXPECT_EQ(token, Assure(u"Some"));
  EXPECT_EQ("", Differences(before, DumpObjects()));
  EXPECT_EQ(token, Get(u"Some"));
}

TEST_F(TokensTest, NewNames_GetTheNextNumbers) {
  unsigned long const first = Assure(u"First");
  EXPECT_EQ(first + 1, Assure(u"Second"));
  EXPECT_EQ(first + 2, TokenMain::get_next_token());
}

TEST_F(TokensTest, Case_Counts) { EXPECT_NE(Assure(u"Some"), Assure(u"some")); }

TEST_F(TokensTest, DeletedNumber_ComesBackOnlyIfItWasTheHighest) {
  unsigned long const first = Assure(u"First");
  Assure(u"Second");
  DeleteRow(Token::ByNameToken(first));
  EXPECT_EQ(first + 2, Assure(u"Third"));
  DeleteRow(Token::ByNameToken(first + 2));
  EXPECT_EQ(first + 2, Assure(u"Fourth"));
}

TEST_F(TokensTest, KeyBounds_AreThoseOfOneUnsignedColumn) {
  unsigned char const highest[16] = {0x28, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xC0};
  unsigned char const lowest[16] = {0x28, 0, 0, 0, 0, 0, 0, 0, 0, 0xC0};
  EXPECT_TRUE(std::equal(std::begin(highest), std::end(highest), TokenMain::ukf_u64_max));
  EXPECT_TRUE(std::equal(std::begin(lowest), std::end(lowest), TokenMain::ukf_u64_min));
}

TEST_F(TokensTest, InitAgain_ChangesNothing) {
  unsigned short const table = Token::metaclass_layout_handle();
  TokenMain::Init();
  EXPECT_EQ(table, Token::metaclass_layout_handle());
  EXPECT_EQ(u"~", Token::setspec());
  EXPECT_EQ(2u, Token::g_type_id());
}

TEST_F(TokensTest, EmptyDictionary_EndsTheProcess) {
  db_util::db_iter_with_keys rows;
  RangeGlobalSetspecIndex(u"~", &rows);
  for (; rows.current.oid != 0; rows.next()) DeleteRow(rows.current);
  EXPECT_EXIT(TokenMain::get_next_token(), kTrap, "");
}

// A new database knows the predefined names alone until the first other one is needed.
TEST(FirstTokensTest, AllocatedTokens_FollowThePredefinedOnes) {
  TemporaryDirectory const directory;
  Database database(NewPlace(directory.path()));
  constexpr int kYieldOfTokens = 5;
  ASSERT_EQ(0u, database.BootstrapUpTo(kYieldOfTokens));
  database.Begin();
  *TlsMetalayerContext::Current() = database.context();
  EXPECT_EQ(13u, assure_token(u"First"));
  EXPECT_EQ(14u, assure_token(u"Second"));
  EXPECT_EQ(13u, assure_token(u"First"));
}

// ---- predefined ---------------------------------------------------------------------------------

TEST_F(TokensTest, PredefinedTokenThatStands_IsLeftAlone) {
  std::vector<std::string> const before = DumpObjects();
  assure_predefined_token(3, u"__auto");
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

TEST_F(TokensTest, PredefinedTokenThatIsMissing_IsInserted) {
  assure_predefined_token(70000, u"Mine");
  EXPECT_EQ(70000u, Get(u"Mine"));
  EXPECT_EQ(70001u, Assure(u"Next"));
}

TEST_F(TokensTest, PredefinedNumberOfAnotherText_EndsTheProcess) {
  EXPECT_EXIT(assure_predefined_token(3, u"__other"), kTrap, "");
}

TEST_F(TokensTest, PredefinedTextOfAnotherNumber_EndsTheProcess) {
  EXPECT_EXIT(assure_predefined_token(99999, u"__auto"), kTrap, "");
}

// ---- by name ------------------------------------------------------------------------------------

TEST_F(TokensTest, TableName_GivesTheTokenOfTheTablesLayout) {
  EXPECT_EQ(8u, Get(u"Lorvenstack.Metadata.RawView"));
  unsigned short layout = 0;
  Columns columns;
  columns.Long(u"Number");
  ExpectOk(lorv_create_table_by_names(context(), u"App.Old", nullptr, columns, &layout));
  unsigned long const token = Get(u"App.Old");
  ExpectOk(lorv_rename_table(context(), u"App.Old", u"App.New"));
  Assure(u"App.New");
  // The table keeps the token that its layout was made with.
  EXPECT_EQ(token, Get(u"App.New"));
}

TEST_F(TokensTest, UnknownName_IsRefusedAndGetsNoRow) {
  std::vector<std::string> const before = DumpObjects();
  unsigned long token = 77;
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for name Nothing not found.",
                lorv_get_token(context(), u"Nothing", &token));
  EXPECT_EQ(77u, token);
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

TEST_F(TokensTest, TableWhoseLayoutIsGone_EndsTheProcess) {
  RawView const view = RawView::ByRawViewPK2fullname(u"Lorvenstack.Metadata.Property");
  PutULong(view, RawView::kLayoutHandle, 0xFFF0);
  unsigned long token = 0;
  EXPECT_EXIT(lorv_get_token(context(), u"Lorvenstack.Metadata.Property", &token), kTrap, "");
}

TEST_F(TokensTest, NameTooLongForAKey_IsRefused) {
  std::u16string const name(2000, u'n');
  unsigned long token = 77;
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"", lorv_assure_token(context(), name.c_str(), &token));
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"", lorv_get_token(context(), name.c_str(), &token));
  EXPECT_EQ(77u, token);
}

// ---- by number ----------------------------------------------------------------------------------

TEST_F(TokensTest, TokenName_IsItsText) {
  char16_t const* name = nullptr;
  ExpectOk(lorv_get_token_name(context(), 3, &name));
  EXPECT_EQ(u"__auto", std::u16string(name));
}

TEST_F(TokensTest, TokenWithoutText_HasANullName) {
  unsigned long const token = Token::Insert(5000, nullptr).oid == 0 ? 0 : 5000;
  char16_t const* name = u"before";
  ExpectOk(lorv_get_token_name(context(), token, &name));
  EXPECT_EQ(nullptr, name);
}

TEST_F(TokensTest, UnknownNumber_IsRefused) {
  char16_t const* name = u"before";
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for id 0 not found.",
                lorv_get_token_name(context(), 0, &name));
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for id 99999 not found.",
                lorv_get_column_name_by_token(context(), 99999, &name));
  ExpectRefused(SAGLEME_TOKEN_NOT_FOUND, u"Token for id 99999 not found.",
                lorv_get_table_name_by_token(context(), 99999, &name));
  EXPECT_EQ(u"before", std::u16string(name));
}

TEST_F(TokensTest, PlainWord_IsItsOwnTableAndColumnName) {
  unsigned long const token = Assure(u"Word");
  EXPECT_EQ(u"Word", TableNameBy(token));
  EXPECT_EQ(u"Word", ColumnNameBy(token));
}

TEST_F(TokensTest, TokenOfAnObject_GivesTheObjectsNameOfToday) {
  RawView const view = RawView::ByRawViewPK2fullname(u"Lorvenstack.Metadata.Index");
  EXPECT_EQ(u"Lorvenstack.Metadata.Index", TableNameBy(TokenOfObject(view.oid)));
  RawColumn const column = RawColumn::ByRawColumnPK(view, 6);
  EXPECT_EQ(u"IndexHandle", ColumnNameBy(TokenOfObject(column.oid)));
}

TEST_F(TokensTest, TokenOfADeletedObject_IsTheDecimalText) {
  LS_OBJ_REF const row = Configuration::Insert(u"Some", 1);
  std::u16string const text = Utf16(std::to_string(row.oid));
  unsigned long const token = TokenOfObject(row.oid);
  DeleteRow(row);
  EXPECT_EQ(text, TableNameBy(token));
  EXPECT_EQ(text, ColumnNameBy(token));
}

TEST_F(TokensTest, TokenOfAnObjectWithoutName_IsNull) {
  LS_OBJ_REF const row = RawColumn::Insert(db_util::null_obj_ref, nullptr, db_util::null_obj_ref,
                                           false, false, false, 0);
  EXPECT_EQ(u"(null)", ColumnNameBy(TokenOfObject(row.oid)));
}

}  // namespace
}  // namespace sagleme_test
