// The vocabularies of column types.

#include <csignal>
#include <stdexcept>

#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

unsigned int CodeOf(std::function<void()> const& call) {
  try {
    call();
  } catch (db_util::db_exception const& failure) {
    return failure.code();
  }
  return 0;
}

struct SqlName {
  char16_t const* name;
  unsigned char code;
};

constexpr SqlName kSqlNames[] = {
    {u"boolean", 10}, {u"int", 3},     {u"integer", 3}, {u"smallint", 3}, {u"bigint", 3},
    {u"uint", 4},     {u"real", 6},    {u"float", 6},   {u"double", 7},   {u"dec", 5},
    {u"decimal", 5},  {u"numeric", 5}, {u"bit", 2},     {u"varbit", 2},   {u"binary", 2},
    {u"bpchar", 1},   {u"varchar", 1}, {u"text", 1},    {u"time", 4},     {u"timestamp", 4},
};

TEST(SqlTypesTest, EachName_HasItsCode) {
  for (SqlName const& expected : kSqlNames) {
    unsigned char code = 0;
    EXPECT_TRUE(MapSqlToDbType(expected.name, code)) << Utf8(expected.name);
    EXPECT_EQ(expected.code, code) << Utf8(expected.name);
  }
  EXPECT_EQ(std::size(kSqlNames), sql_db_type_map.size());
}

TEST(SqlTypesTest, Names_IgnoreCase) {
  for (char16_t const* const name : {u"varchar", u"VARCHAR", u"VarChar"}) {
    unsigned char code = 0;
    EXPECT_TRUE(MapSqlToDbType(name, code));
    EXPECT_EQ(1, code);
  }
}

TEST(SqlTypesTest, UnknownName_LeavesTheOutputAlone) {
  unsigned char code = 77;
  EXPECT_FALSE(MapSqlToDbType(u"money", code));
  EXPECT_FALSE(MapSqlToDbType(u"", code));
  EXPECT_FALSE(MapSqlToDbType(u"timetz", code));
  EXPECT_EQ(77, code);
}

TEST(SqlTypesTest, NullName_IsALogicError) {
  unsigned char code = 0;
  EXPECT_THROW(MapSqlToDbType(nullptr, code), std::logic_error);
  EXPECT_THROW(MapStr2Uint(sql_db_type_map, nullptr, code), std::logic_error);
  EXPECT_THROW(CheckUnsopportedSqlType(nullptr), std::logic_error);
}

TEST(SqlTypesTest, OtherMaps_AreSearchedAlike) {
  SqlTypeMap const map = {{u"point", static_cast<unsigned char>(2)}};
  unsigned char code = 0;
  EXPECT_TRUE(MapStr2Uint(map, u"Point", code));
  EXPECT_EQ(2, code);
  EXPECT_FALSE(MapStr2Uint(map, u"int", code));
}

TEST(SqlTypesTest, RefusedNames_AreKnownInLowerCaseOnly) {
  for (char16_t const* const name : {u"timetz", u"timestamptz", u"interval"}) {
    EXPECT_TRUE(CheckUnsopportedSqlType(name));
  }
  EXPECT_FALSE(CheckUnsopportedSqlType(u"TIMETZ"));
  EXPECT_FALSE(CheckUnsopportedSqlType(u"time"));
  EXPECT_EQ(3u, sql_unsupported_set.size());
}

TEST(LogicalTypesTest, ToKernelTypes_AreThemselvesButBool) {
  for (unsigned char code = 1; code <= 9; ++code) EXPECT_EQ(code, LogicalTypeToKernelType(code));
  EXPECT_EQ(LORV_TYPE_ULONG, LogicalTypeToKernelType(SAGLEME_TYPE_BOOL));
}

TEST(LogicalTypesTest, OutOfRange_AreRefused) {
  EXPECT_EQ(SAGLEME_INVALID_TYPE, CodeOf([] { LogicalTypeToKernelType(0); }));
  EXPECT_EQ(SAGLEME_INVALID_TYPE, CodeOf([] { LogicalTypeToKernelType(11); }));
  EXPECT_EQ(SAGLEME_INVALID_TYPE, CodeOf([] { LogicalTypeToKernelType(255); }));
}

TEST(LogicalTypesTest, StringBinaryAndReference_MustBeNullable) {
  for (unsigned char code = 1; code <= 10; ++code) {
    if (code == 9) continue;
    EXPECT_EQ(code == 1 || code == 2 || code == 8, IsDbTypeNullable(code)) << int{code};
  }
  EXPECT_EQ(9u, db_type_nullable.size());
}

TEST(LogicalTypesTest, WithoutNullability_AreOutOfRange) {
  EXPECT_THROW(IsDbTypeNullable(9), std::out_of_range);
  EXPECT_THROW(IsDbTypeNullable(0), std::out_of_range);
  EXPECT_THROW(IsDbTypeNullable(11), std::out_of_range);
}

// ---- by reference -------------------------------------------------------------------------------

class TypeReferenceTest : public DatabaseTest {
 protected:
  LS_OBJ_REF Primitive(unsigned char code) {
    return DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(code);
  }
};

TEST_F(TypeReferenceTest, PrimitiveRow_GivesItsCode) {
  for (unsigned char code = 1; code <= 10; ++code) {
    EXPECT_EQ(code, PrimTypeByTypeRef(Primitive(code)));
  }
}

TEST_F(TypeReferenceTest, TableRow_IsAReference) {
  EXPECT_EQ(SAGLEME_TYPE_REFERENCE,
            PrimTypeByTypeRef(RawView::ByRawViewPK2fullname(u"Lorvenstack.Metadata.Index")));
}

// The layout in a reference is only a hint: what the row's set says counts.
TEST_F(TypeReferenceTest, WithoutLayout_IsReportedByTheSet) {
  LS_OBJ_REF primitive = Primitive(7);
  primitive.addr = 0;
  EXPECT_EQ(SAGLEME_TYPE_DOUBLE, PrimTypeByTypeRef(primitive));
  LS_OBJ_REF table = RawView::ByRawViewPK2fullname(u"Lorvenstack.Metadata.Index");
  table.addr = 0;
  EXPECT_EQ(SAGLEME_TYPE_REFERENCE, PrimTypeByTypeRef(table));
}

TEST_F(TypeReferenceTest, RowOfAnotherTable_IsRefused) {
  LS_OBJ_REF const row = Token::ByNameToken(1);
  EXPECT_EQ(SAGLEME_INVALID_TYPE, CodeOf([&row] { PrimTypeByTypeRef(row); }));
}

TEST_F(TypeReferenceTest, RowThatThisTransactionDeleted_IsGone) {
  LS_OBJ_REF const row = DbPrimitiveType::Insert(u"mine", 11);
  DeleteRow(row);
  EXPECT_EQ(SAGLEME_TYPE_IS_GONE, CodeOf([&row] { PrimTypeByTypeRef(row); }));
}

TEST_F(TypeReferenceTest, RowThatNeverWas_IsTheKernelsFailure) {
  LS_OBJ_REF const row{0x7FFFFFFF, 0};
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, CodeOf([&row] { PrimTypeByTypeRef(row); }));
}

TEST_F(TypeReferenceTest, NullReference_EndsTheProcess) {
  EXPECT_EXIT(PrimTypeByTypeRef(db_util::null_obj_ref), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(TypeReferenceTest, ColumnDefinitions_GiveTheirLogicalType) {
  LORV_COLUMN_DEFINITION const by_row{Primitive(10), 0, u"Flag"};
  EXPECT_EQ(SAGLEME_TYPE_BOOL, ddl::LogicalTypeFromColDef(by_row));
  LORV_COLUMN_DEFINITION_NAMES const by_name{LORV_TYPE_KEY, nullptr, 0, u"Code"};
  EXPECT_EQ(LORV_TYPE_KEY, ddl::LogicalTypeFromColDef(by_name));
}

}  // namespace
}  // namespace sagleme_test
