// The text, the number and the class of every failure.

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <optional>
#include <sagleme/metalayer/errors.hpp>
#include <string>

namespace {

using namespace metalayer::exceptions;
using std::u16string;

constexpr unsigned long kContext = 64;

class ExceptionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    *metalayer::TlsMetalayerContext::Current() = kContext;
    metalayer::clean_errbuf_by_ctx(kContext);
    metalayer::is_errbuf_clear_requested();
  }
  void TearDown() override { *metalayer::TlsMetalayerContext::Current() = 0; }

  static u16string Text() {
    char16_t const* const text = lorv_metalayer_errbuf(kContext);
    return text == nullptr ? u"" : text;
  }

  // Runs `raise`, checks number, text and exact class, and returns the failure for a look at its
  // names.
  template <typename Failure, typename Raise>
  static std::optional<Failure> Expect(unsigned int code, u16string const& text,
                                       Raise const& raise) {
    metalayer::clean_errbuf_by_ctx(kContext);
    try {
      raise();
    } catch (Failure const& failure) {
      EXPECT_TRUE(typeid(Failure) == *abi::__cxa_current_exception_type());
      EXPECT_EQ(code, failure.code());
      EXPECT_EQ(text, Text());
      return failure;
    }
    ADD_FAILURE() << "nothing was thrown";
    return std::nullopt;
  }

  template <typename Raise>
  static void ExpectTable(unsigned int code, u16string const& text, Raise const& raise) {
    EXPECT_EQ(u"T", Expect<BadTableArg>(code, text, raise).value().table);
  }

  template <typename Failure, typename Raise>
  static void ExpectColumn(unsigned int code, u16string const& text, Raise const& raise) {
    auto const failure = Expect<Failure>(code, text, raise);
    EXPECT_EQ(u"T", failure.value().table);
    EXPECT_EQ(u"C", failure.value().column);
  }
};

TEST_F(ExceptionsTest, Check_ThrowsTheCodeWithoutAText) {
  Expect<db_util::db_exception>(4711, u"", [] { db_util::db_exception::check(4711); });
  Expect<db_util::db_exception>(SAGLEME_NOT_PREPARED, u"",
                                [] { metalayer::Throw(SAGLEME_NOT_PREPARED); });
}

TEST_F(ExceptionsTest, Arguments_HaveTheirTexts) {
  Expect<BadArg>(SAGLEME_BAD_ARGUMENT, u"Argument name is null.",
                 [] { CheckPtrArg(nullptr, u"name"); });
  Expect<BadArg>(SAGLEME_BAD_ARGUMENT, u"Argument name is null.",
                 [] { CheckNonEmptyStringArg(nullptr, u"name"); });
  Expect<BadArg>(SAGLEME_BAD_ARGUMENT, u"Argument name is empty.",
                 [] { CheckNonEmptyStringArg(u"", u"name"); });
  Expect<BadArg>(SAGLEME_BAD_ARGUMENT, u"The argument setspec_oid is zero.",
                 [] { ThrowInvalidSetspec(); });
  Expect<BadArg>(SAGLEME_BAD_ARGUMENT, u"No column definitions provided.",
                 [] { ThrowNoColumnDefinitions(); });
  Expect<BadArg>(SAGLEME_BAD_ARGUMENT, u"Number of columns for table T exceeds the limit of 112.",
                 [] { ThrowTooManyColumns(u"T"); });
}

TEST_F(ExceptionsTest, Tokens_HaveTheirTexts) {
  Expect<BadArg>(SAGLEME_TOKEN_NOT_FOUND, u"Token for name N not found.",
                 [] { ThrowTokenNotFound(u"N"); });
  Expect<BadArg>(SAGLEME_TOKEN_NOT_FOUND, u"Token for id 18446744073709551615 not found.",
                 [] { ThrowTokenNotFound(~0ul); });
  Expect<BadArg>(SAGLEME_TOKEN_NOT_FOUND, u"Token for name  not found.",
                 [] { ThrowTokenNotFound(static_cast<char16_t const*>(nullptr)); });
}

TEST_F(ExceptionsTest, LayoutId_HasItsText) {
  Expect<BadArg>(SAGLEME_LAYOUT_NOT_FOUND, u"No table is associated with layout id 65535.",
                 [] { ThrowTableNotFound(65535); });
}

TEST_F(ExceptionsTest, MissingAndExistingTables_HaveTheirTexts) {
  ExpectTable(SAGLEME_TABLE_NOT_FOUND, u"Table T not found.", [] { ThrowNonexistentTable(u"T"); });
  EXPECT_EQ(u"T", Expect<BadNewTableArg>(SAGLEME_TABLE_EXISTS, u"Table T already exists.", [] {
                    ThrowNamedTableAlreadyExists(u"T");
                  })->table);
  EXPECT_EQ(u"T", Expect<BadBaseTableArg>(SAGLEME_BASE_NOT_FOUND, u"Base table T not found.", [] {
                    ThrowNonexistentBaseTable(u"T");
                  })->table);
}

TEST_F(ExceptionsTest, TablesInUse_HaveTheirTexts) {
  ExpectTable(SAGLEME_TABLE_NOT_EMPTY, u"Table T still contains data.",
              [] { ThrowTableContainsData(u"T"); });
  ExpectTable(SAGLEME_TABLE_NOT_EMPTY, u"Table T still has index I.",
              [] { ThrowTableHasIndex(u"T", u"I", false); });
  ExpectTable(SAGLEME_TABLE_NOT_EMPTY, u"Table T still has index I and more.",
              [] { ThrowTableHasIndex(u"T", u"I", true); });
  ExpectTable(SAGLEME_TABLE_REFERENCED,
              u"Table T is still referenced at least by column C from table R.",
              [] { ThrowTableIsReferenced(u"T", u"C", u"R"); });
}

TEST_F(ExceptionsTest, Children_AreCountedInWords) {
  ExpectTable(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table T still has child X.",
              [] { ThrowTableHasChildren(u"T", u"X", 1); });
  ExpectTable(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table T still has child X and another.",
              [] { ThrowTableHasChildren(u"T", u"X", 2); });
  ExpectTable(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table T still has child X and others.",
              [] { ThrowTableHasChildren(u"T", u"X", 5); });
  ExpectTable(SAGLEME_TABLE_HAS_DESCENDANTS, u"Table T still has child X.",
              [] { ThrowTableHasChildren(u"T", u"X", 0); });
}

TEST_F(ExceptionsTest, SchemasThatDiffer_HaveTheirTexts) {
  ExpectTable(SAGLEME_SCHEMA_MISMATCH,
              u"The existing base type of 'T' is different than the given base type.",
              [] { ThrowBaseTypeMismatch(u"T"); });
  ExpectTable(SAGLEME_SCHEMA_MISMATCH,
              u"Schema of the input type does not match schema of existing type: T fewer input "
              u"columns than existing.",
              [] { ThrowIncorrectNumberOfColumns(u"T", true); });
  ExpectTable(SAGLEME_SCHEMA_MISMATCH,
              u"Schema of the input type does not match schema of existing type: T more input "
              u"columns than existing.",
              [] { ThrowIncorrectNumberOfColumns(u"T", false); });
  ExpectTable(SAGLEME_SCHEMA_MISMATCH,
              u"Schema of the input type does not match schema of existing type: T for column C.",
              [] { ThrowColumnDoesNotMatch(u"T", u"C"); });
}

TEST_F(ExceptionsTest, AmbiguousNames_HaveTheirTexts) {
  ExpectTable(SAGLEME_AMBIGUOUS_NAME, u"Incomplete table name T matches more than one table: A, B.",
              [] { ThrowSqlAmbiguousType(u"T", u"A", u"B", false); });
  ExpectTable(SAGLEME_AMBIGUOUS_NAME,
              u"Incomplete table name T matches more than one table: A, B, and more.",
              [] { ThrowSqlAmbiguousType(u"T", u"A", u"B", true); });
  auto const failure = Expect<AmbiguousIncompleteReverseUid>(
      SAGLEME_AMBIGUOUS_NAME,
      u"Incomplete reverse uid U matches more than one raw view: A, B, and more.",
      [] { ThrowAmbiguousIncompleteReverseUid(u"U", u"A", u"B", true); });
  EXPECT_EQ(u"U", failure.value().uid);
  EXPECT_EQ(u"A", failure.value().first);
  EXPECT_EQ(u"B", failure.value().second);
  EXPECT_TRUE(failure.value().more);
  Expect<AmbiguousIncompleteReverseUid>(
      SAGLEME_AMBIGUOUS_NAME, u"Incomplete reverse uid U matches more than one raw view: A, B.",
      [] { ThrowAmbiguousIncompleteReverseUid(u"U", u"A", u"B", false); });
}

TEST_F(ExceptionsTest, Columns_HaveTheirTexts) {
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_NOT_FOUND,
                             u"Column C isn't found in table T and ancestor tables.",
                             [] { ThrowColumnNotFound(u"T", u"C"); });
  ExpectColumn<BadColumnArg>(SAGLEME_NO_SUCH_COLUMN, u"Column C isn't found in table T.",
                             [] { ThrowNonexistentColumn(u"T", u"C"); });
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_INHERITED, u"Column C is inherited by table T.",
                             [] { ThrowColumnIsInherited(u"T", u"C"); });
}

TEST_F(ExceptionsTest, ColumnThatMustBeNullable_IsReportedWithoutItsTable) {
  ExpectColumn<BadNewColumnArg>(SAGLEME_COLUMN_NOT_NULLABLE, u"Column C must be nullable.",
                                [] { ThrowColumnTypeMustBeNullable(u"T", u"C"); });
}

TEST_F(ExceptionsTest, ColumnHeldByIndexes_IsCountedInWords) {
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_INDEXED, u"Column C is a part of index I on table X.",
                             [] { ThrowIndexExistsOnColumn(u"T", u"C", u"I", u"X", 1); });
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_INDEXED,
                             u"Column C is a part of index I on table X and one other.",
                             [] { ThrowIndexExistsOnColumn(u"T", u"C", u"I", u"X", 2); });
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_INDEXED,
                             u"Column C is a part of index I on table X and others.",
                             [] { ThrowIndexExistsOnColumn(u"T", u"C", u"I", u"X", 3); });
}

TEST_F(ExceptionsTest, ColumnHeldByMappings_IsCountedInWords) {
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_MAPPED, u"Column C is mapped by M on table X.",
                             [] { ThrowColumnIsMapped(u"T", u"C", u"M", u"X", 1); });
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_MAPPED,
                             u"Column C is mapped by M on table X and one other.",
                             [] { ThrowColumnIsMapped(u"T", u"C", u"M", u"X", 2); });
  ExpectColumn<BadColumnArg>(SAGLEME_COLUMN_MAPPED,
                             u"Column C is mapped by M on table X and others.",
                             [] { ThrowColumnIsMapped(u"T", u"C", u"M", u"X", 9); });
}

TEST_F(ExceptionsTest, Indexes_HaveTheirTexts) {
  auto const index_of = [](unsigned int code, u16string const& text, auto const& raise) {
    return Expect<BadIndexArg>(code, text, raise).value().index;
  };
  EXPECT_EQ(u"I", index_of(SAGLEME_INDEX_NOT_FOUND, u"Index I not found.",
                           [] { ThrowIndexNotFound(u"I"); }));
  EXPECT_EQ(u"I", index_of(SAGLEME_INDEX_EXISTS, u"Index I already exists.",
                           [] { ThrowIndexAlreadyExists(u"I"); }));
  EXPECT_EQ(u"I",
            index_of(SAGLEME_INDEX_OF_ANOTHER_TABLE, u"Index I doesn't belong to the table T.",
                     [] { ThrowIndexNotFoundInType(u"I", u"T"); }));
}

// ---- how texts are written ----------------------------------------------------------------------

TEST_F(ExceptionsTest, PendingClearRequest_LeavesTheNewTextAlone) {
  EXPECT_THROW(ThrowNonexistentTable(u"first"), BadTableArg);
  metalayer::request_clear_errbuf();
  EXPECT_THROW(ThrowNonexistentTable(u16string(400, u'n')), BadTableArg);
  EXPECT_EQ(u"Table " + u16string(400, u'n') + u" not found.", Text());
}

TEST_F(ExceptionsTest, WithoutARequest_TextsRunTogether) {
  EXPECT_THROW(ThrowNonexistentTable(u"A"), BadTableArg);
  EXPECT_THROW(ThrowNonexistentTable(u"B"), BadTableArg);
  EXPECT_EQ(u"Table A not found.Table B not found.", Text());
}

TEST_F(ExceptionsTest, NamePastTheEndOfTheBuffer_IsCutAndTheFailureStands) {
  u16string const name(10000, u'n');
  try {
    ThrowNonexistentTable(name);
  } catch (BadTableArg const& failure) {
    EXPECT_EQ(SAGLEME_TABLE_NOT_FOUND, failure.code());
    EXPECT_EQ(name, failure.table);
  }
  EXPECT_EQ(7168u, Text().size());
  EXPECT_EQ(u"Table nnn", Text().substr(0, 9));
}

// ---- added columns ------------------------------------------------------------------------------

TEST_F(ExceptionsTest, AddedColumns_AreListedByKind) {
  ExpectColumn<BadNewColumnArg>(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"Table T: added column a conflicts with existing column; added column b conflicts with "
      u"inherited column; added column a conflicts with column from descendant table X; added "
      u"column z conflicts with other added column; added column y conflicts with other added "
      u"column.",
      [] {
        ThrowColumnNameNotUnique(u"T", u"C", {{u"b", true}, {u"a", false}}, {{u"a", u"X"}},
                                 {u"z", u"y"});
      });
}

TEST_F(ExceptionsTest, AddedColumns_AreSortedAndThinnedOut) {
  ExpectColumn<BadNewColumnArg>(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"Table T: added column a conflicts with existing column; added column a conflicts with "
      u"inherited column; added column ab conflicts with existing column.",
      [] {
        ThrowColumnNameNotUnique(
            u"T", u"C", {{u"ab", false}, {u"a", true}, {u"a", true}, {u"a", false}}, {}, {});
      });
  ExpectColumn<BadNewColumnArg>(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"Table T: added column a conflicts with column from descendant table X; added column a "
      u"conflicts with column from descendant table Y; added column b conflicts with column from "
      u"descendant table A.",
      [] {
        ThrowColumnNameNotUnique(u"T", u"C", {},
                                 {{u"b", u"A"}, {u"a", u"Y"}, {u"a", u"X"}, {u"a", u"Y"}}, {});
      });
}

TEST_F(ExceptionsTest, AddedColumns_SortByUnsignedCodeUnit) {
  ExpectColumn<BadNewColumnArg>(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"Table T: added column z conflicts with existing column; added column \xE000 conflicts with "
      u"existing column.",
      [] {
        ThrowColumnNameNotUnique(u"T", u"C", {{u"\xE000", false}, {u"z", false}}, {}, {});
      });
}

TEST_F(ExceptionsTest, AddedColumnsThatRepeatAlone_HaveNoSeparator) {
  ExpectColumn<BadNewColumnArg>(
      SAGLEME_COLUMN_NAME_TAKEN,
      u"Table T: added column y conflicts with other added columnadded column x conflicts with "
      u"other added column.",
      [] {
        ThrowColumnNameNotUnique(u"T", u"C", {}, {}, {u"y", u"x"});
      });
}

}  // namespace
