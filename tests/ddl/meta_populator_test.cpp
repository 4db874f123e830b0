#include <sagleme/metalayer/metaschema.hpp>
#include <stdexcept>

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::MetaPopul8r;
using metalayer::RawColumn;
using metalayer::RawView;
using metalayer::ReferenceRawColumn;
using ::testing::KilledBySignal;

class MetaPopulatorTest : public CatalogueTest {
 protected:
  // A table that has a row and no columns.
  RawView BareTable(char16_t const* name) {
    return metalayer::PopulateRawView(name, 9999, View(kRootTable), true);
  }
  LS_OBJ_REF Primitive(uint8_t type) {
    return metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(type);
  }
  uint32_t UpdateRefTypes() { return lorv_update_reference_columns_types(context()); }
  // An object of a new table below a system table.
  LS_OBJ_REF ObjectBelow(char16_t const* system_table, char16_t const* table) {
    uint16_t const layout = Create(table, {}, system_table);
    uint64_t oid = 0;
    EXPECT_EQ(0u, lorv_context_insert(context(), layout, &oid));
    std::u16string const setspec = Utf16(SetspecOfTable(View(table)));
    EXPECT_EQ(0u, lorv_context_put_setspec(context(), oid, layout, setspec.c_str()));
    return {oid, layout};
  }
  // A failure that has left every row as it was.
  template <typename Call>
  void ExpectThrownUntouched(uint32_t status, std::u16string const& text, Call&& call) {
    ExpectUntouched([&] { ExpectThrown(status, text, call); });
  }
  // The text is there, and empty.
  void ExpectEmptyText(LS_OBJ_REF const& row, unsigned int column) {
    char16_t const* const text = metalayer::db_record(row).get_string(column);
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(u"", std::u16string(text));
  }
};

TEST_F(MetaPopulatorTest, ChildOfTheRoot_GetsTheThreeHiddenColumns) {
  Create(u"T");
  EXPECT_EQ(WithRootColumns({}), ColumnsOf(u"T"));
}

TEST_F(MetaPopulatorTest, CopyFromNoParent_WritesNothing) {
  RawView const table = BareTable(u"Bare");
  ExpectUntouched(
      [&] { EXPECT_EQ(0, MetaPopul8r(true).CopyParentColumns(table, db_util::null_obj_ref)); });
}

TEST_F(MetaPopulatorTest, CopyFromParentWithoutColumns_WritesNothing) {
  RawView const parent = BareTable(u"Parent");
  Create(u"Other");
  EXPECT_EQ(0, MetaPopul8r(true).CopyParentColumns(View(u"Other"), parent));
}

TEST_F(MetaPopulatorTest, SecondCopy_WritesNothingAndCountsTheParent) {
  Create(u"Parent", Columns().Long(u"a").Long(u"b"));
  Create(u"Child", Columns().Long(u"c"), u"Parent");
  ExpectUntouched([&] {
    EXPECT_EQ(5, MetaPopul8r(true).CopyParentColumns(View(u"Child"), View(u"Parent")));
    EXPECT_EQ(0, MetaPopul8r(true).CopyParentColumns(View(u"Child"), db_util::null_obj_ref));
  });
}

TEST_F(MetaPopulatorTest, Copy_KeepsTypesNullabilityAndTargets) {
  Create(u"Target");
  Create(u"Parent",
         Columns().String(u"s").Long(u"l", true).Bool(u"b").Ref(u"r", u"Target").Ref(u"d", u"No"));
  Create(u"Child", {}, u"Parent");
  EXPECT_EQ(WithRootColumns({"3 s string null inherited", "4 l long null inherited",
                             "5 b bool inherited", "6 r reference(Target) null inherited",
                             "7 d reference(No?) null inherited"}),
            ColumnsOf(u"Child"));
}

TEST_F(MetaPopulatorTest, AlwaysUnique_IsFalseEverywhere) {
  Create(u"Parent", Columns().Long(u"a"));
  metalayer::PutBool(ColumnRow(u"Parent", u"a"), RawColumn::kAlwaysUnique, true);
  Create(u"Child", Columns().Long(u"b"), u"Parent");
  EXPECT_FALSE(metalayer::GetBool(ColumnRow(u"Child", u"a"), RawColumn::kAlwaysUnique));
  EXPECT_FALSE(metalayer::GetBool(ColumnRow(u"Child", u"b"), RawColumn::kAlwaysUnique));
}

TEST_F(MetaPopulatorTest, TypeAsRow_TakesTheTargetsFullNameAsItsName) {
  Create(u"a.Target");
  RawView const table = BareTable(u"Bare");
  MetaPopul8r populator(true);
  populator.PopulateColumnMeta(table, LORV_COLUMN_DEFINITION{View(u"a.Target"), 1, u"r"}, 0, false);
  populator.PopulateColumnMeta(table, LORV_COLUMN_DEFINITION{Primitive(1), 0, u"s"}, 1, true);
  EXPECT_EQ((std::vector<std::string>{"0 r reference(a.Target) null", "1 s string inherited"}),
            ColumnsOf(table));
}

TEST_F(MetaPopulatorTest, Ordinal_IsCutToSixteenBits) {
  RawView const table = BareTable(u"Bare");
  MetaPopul8r(true).PopulateColumnMeta(table, LORV_COLUMN_DEFINITION{Primitive(3), 0, u"x"},
                                       0x10005, false);
  EXPECT_EQ(5, metalayer::GetLong(ColumnRow(table, u"x"), RawColumn::kColumnIndex));
}

TEST_F(MetaPopulatorTest, MissingTarget_IsDeferredUnlessStrict) {
  ExpectOk(lorv_create_table_by_names(context(), u"Lax", nullptr, Columns().Ref(u"r", u"Later"),
                                      nullptr));
  EXPECT_EQ(WithRootColumns({"3 r reference(Later?) null"}), ColumnsOf(u"Lax"));
  ExpectRefused(SAGLEME_TARGET_NOT_FOUND, u"Reference type Later not found for column r.",
                lorv_create_table_high_check_types(context(), u"Strict", nullptr,
                                                   Columns().Ref(u"r", u"Later"), nullptr));
}

TEST_F(MetaPopulatorTest, UpdateRefTypes_ResolvesParentAndChild) {
  Create(u"Parent", Columns().Ref(u"r", u"Later"));
  Create(u"Child", {}, u"Parent");
  EXPECT_EQ(WithRootColumns({"3 r reference(Later?) null inherited"}), ColumnsOf(u"Child"));
  Create(u"Later");
  uint64_t const generation = Generation();
  ExpectOk(UpdateRefTypes());
  EXPECT_EQ(WithRootColumns({"3 r reference(Later) null"}), ColumnsOf(u"Parent"));
  EXPECT_EQ(WithRootColumns({"3 r reference(Later) null inherited"}), ColumnsOf(u"Child"));
  EXPECT_EQ(generation, Generation());
}

TEST_F(MetaPopulatorTest, UpdateRefTypes_WithoutDeferredColumns_WritesNothing) {
  Create(u"Target");
  Create(u"T", Columns().Ref(u"r", u"Target"));
  ExpectUntouched([&] { ExpectOk(UpdateRefTypes()); });
}

TEST_F(MetaPopulatorTest, UpdateRefTypes_UnknownTarget_KeepsWhatWasDone) {
  Create(u"First", Columns().Ref(u"a", u"Here"));
  Create(u"Second", Columns().Ref(u"b", u"Nowhere"));
  Create(u"Here");
  ExpectRefused(SAGLEME_TARGET_NOT_FOUND, u"Column b refers to an unknown type Nowhere.",
                UpdateRefTypes());
  EXPECT_EQ(WithRootColumns({"3 a reference(Here) null"}), ColumnsOf(u"First"));
  EXPECT_EQ(WithRootColumns({"3 b reference(Nowhere?) null"}), ColumnsOf(u"Second"));
}

TEST_F(MetaPopulatorTest, TypeRowOfAnotherTable_IsRefused) {
  LS_OBJ_REF const type =
      metalayer::ClrPrimitiveType::Insert(u"Int32", Primitive(3), false, false, 9);
  LORV_COLUMN_DEFINITION const columns[] = {{type, 0, u"c"}, {db_util::null_obj_ref, 0, nullptr}};
  ExpectRefused(SAGLEME_TARGET_NOT_FOUND, u"Refernce type for column c is not one of RawView.",
                lorv_create_table(context(), u"T", 0, 0, columns, nullptr, nullptr));
}

// Tables below the two that types come from are no types either.
TEST_F(MetaPopulatorTest, TypeRowOfAnyOtherTable_IsRefused) {
  RawView const table = BareTable(u"Bare");
  MetaPopul8r populator(false);
  for (LS_OBJ_REF const& type : {ObjectBelow(u"Lorvenstack.Metadata.RawView", u"Views"),
                                 ObjectBelow(u"Lorvenstack.Metadata.DbPrimitiveType", u"Types"),
                                 LS_OBJ_REF(InsertClass(u"Class", View(u"Views"))),
                                 LS_OBJ_REF(ColumnRow(u"Views", u"Name")), db_util::null_obj_ref}) {
    ExpectThrownUntouched(
        SAGLEME_TARGET_NOT_FOUND, u"Refernce type for column c is not one of RawView.", [&] {
          populator.PopulateColumnMeta(table, LORV_COLUMN_DEFINITION{type, 1, u"c"}, 0, false);
        });
  }
}

TEST_F(MetaPopulatorTest, ReferenceWithoutTypeName_IsRefused) {
  ExpectRefused(
      SAGLEME_TARGET_NOT_FOUND, u"Reference type name missing in column c.",
      lorv_create_table_by_names(context(), u"T", nullptr, Columns().Ref(u"c", nullptr), nullptr));
}

TEST_F(MetaPopulatorTest, UnknownPrimitiveType_IsRefused) {
  ExpectRefused(
      SAGLEME_TARGET_NOT_FOUND, u"Primitive type 77 not found for column c.",
      lorv_create_table_by_names(context(), u"T", nullptr, Columns().Add(77, u"c", true), nullptr));
}

TEST_F(MetaPopulatorTest, TypeThatMustBeNullable_IsRefused) {
  for (uint8_t const type : {uint8_t{1}, uint8_t{2}, uint8_t{8}}) {
    ExpectRefused(SAGLEME_COLUMN_NOT_NULLABLE, u"Column c must be nullable.",
                  lorv_create_table_by_names(context(), u"T", nullptr,
                                             Columns().Add(type, u"c", false), nullptr));
    Rollback();
    Begin();
  }
}

TEST_F(MetaPopulatorTest, TypeThatMustBeNullable_CarriesTheTable) {
  RawView const table = BareTable(u"a.Bare");
  try {
    MetaPopul8r(false).PopulateColumnMeta(
        table, LORV_COLUMN_DEFINITION_NAMES{SAGLEME_TYPE_TEXT, nullptr, 0, u"c"}, 0, false);
    ADD_FAILURE();
  } catch (metalayer::exceptions::BadNewColumnArg const& failure) {
    EXPECT_EQ(u"a.Bare", failure.table);
    EXPECT_EQ(u"c", failure.column);
  }
}

TEST_F(MetaPopulatorTest, KeyThatIsNotNullable_PassesOutAsOutOfRange) {
  EXPECT_THROW(lorv_create_table_by_names(context(), u"T", nullptr,
                                          Columns().Add(LORV_TYPE_KEY, u"k", false), nullptr),
               std::out_of_range);
}

TEST_F(MetaPopulatorTest, MissingReferencePrimitive_EndsTheProcess) {
  metalayer::DeleteRow(Primitive(8));
  EXPECT_EXIT(MetaPopul8r(false), KilledBySignal(SIGABRT), "");
}

TEST_F(MetaPopulatorTest, MissingSystemTable_EndsTheProcess) {
  for (char16_t const* table :
       {u"Lorvenstack.Metadata.DbPrimitiveType", u"Lorvenstack.Internal.Metadata.RawColumn",
        u"Lorvenstack.Internal.Metadata.ReferenceRawColumn", u"Lorvenstack.Metadata.RawView"}) {
    metalayer::DeleteRow(View(table));
    EXPECT_EXIT(MetaPopul8r(false), KilledBySignal(SIGABRT), "");
    Rollback();
    Begin();
  }
}

TEST_F(MetaPopulatorTest, GapInTheParentsOrdinals_EndsTheProcess) {
  Create(u"Parent", Columns().Long(u"a").Long(u"b").Long(u"c"));
  metalayer::DeleteRow(ColumnRow(u"Parent", u"b"));
  RawView const child = BareTable(u"Child");
  EXPECT_EXIT(MetaPopul8r(false).CopyParentColumns(child, View(u"Parent")), KilledBySignal(SIGABRT),
              "");
}

TEST_F(MetaPopulatorTest, ColumnRowOfAnotherTable_EndsTheProcess) {
  Create(u"Parent");
  LS_OBJ_REF const row = ObjectBelow(u"Lorvenstack.Internal.Metadata.RawColumn", u"Odd");
  metalayer::PutRef(row, RawColumn::kTable, View(u"Parent"));
  metalayer::PutText(row, RawColumn::kName, u"odd");
  metalayer::PutLong(row, RawColumn::kColumnIndex, 3);
  RawView const child = BareTable(u"Child");
  EXPECT_EXIT(MetaPopul8r(false).CopyParentColumns(child, View(u"Parent")), KilledBySignal(SIGABRT),
              "");
}

TEST_F(MetaPopulatorTest, OrdinalThatIsTaken_IsTheKernelsRefusal) {
  RawView const table = BareTable(u"Bare");
  MetaPopul8r populator(true);
  LORV_COLUMN_DEFINITION_NAMES const a{SAGLEME_TYPE_SIGNED, nullptr, 0, u"a"};
  LORV_COLUMN_DEFINITION_NAMES const b{SAGLEME_TYPE_SIGNED, nullptr, 0, u"b"};
  populator.PopulateColumnMeta(table, a, 0, false);
  ExpectThrown(LSCOREDB_DUPLICATE_KEY, u"",
               [&] { populator.PopulateColumnMeta(table, b, 0, false); });
}

// ---- values that are not there ----------------------------------------------------------------

TEST_F(MetaPopulatorTest, CopyOfAColumnWithoutTexts_HasEmptyOnes) {
  Create(u"Target");
  Create(u"Parent", Columns().Long(u"a").Ref(u"r", u"Target"));
  metalayer::PutText(ColumnRow(u"Parent", u"a"), RawColumn::kName, nullptr);
  metalayer::PutText(ColumnRow(u"Parent", u"r"), ReferenceRawColumn::kDataTypeName, nullptr);
  RawView const child = BareTable(u"Child");
  EXPECT_EQ(5, MetaPopul8r(true).CopyParentColumns(child, View(u"Parent")));
  ExpectEmptyText(RawColumn::ByRawColumnPK(child, 3), RawColumn::kName);
  RawColumn const reference = RawColumn::ByRawColumnPK(child, 4);
  ExpectEmptyText(reference, ReferenceRawColumn::kDataTypeName);
  EXPECT_EQ(View(u"Target").oid, reference.get_ref(RawColumn::kDataType).oid);
}

TEST_F(MetaPopulatorTest, TargetWithoutFullName_GivesAnEmptyOne) {
  Create(u"Target");
  RawView const target = View(u"Target");
  metalayer::PutText(target, RawView::kFullName, nullptr);
  RawView const table = BareTable(u"Bare");
  MetaPopul8r(true).PopulateColumnMeta(table, LORV_COLUMN_DEFINITION{target, 1, u"r"}, 0, false);
  RawColumn const column = ColumnRow(table, u"r");
  ExpectEmptyText(column, ReferenceRawColumn::kDataTypeName);
  EXPECT_EQ(target.oid, column.get_ref(RawColumn::kDataType).oid);
}

TEST_F(MetaPopulatorTest, UpdateRefTypes_ColumnWithoutTexts_IsRefusedWithEmptyOnes) {
  Create(u"T", Columns().Ref(u"r", u"Later"));
  RawColumn const column = ColumnRow(u"T", u"r");
  metalayer::PutText(column, ReferenceRawColumn::kDataTypeName, nullptr);
  ExpectRefusedUntouched(SAGLEME_TARGET_NOT_FOUND, u"Column r refers to an unknown type .",
                         [&] { return UpdateRefTypes(); });
  metalayer::PutText(column, RawColumn::kName, nullptr);
  ExpectRefusedUntouched(SAGLEME_TARGET_NOT_FOUND, u"Column  refers to an unknown type .",
                         [&] { return UpdateRefTypes(); });
}

TEST_F(MetaPopulatorTest, UpdateRefTypes_ReachesRowsOfDerivedTables) {
  LS_OBJ_REF const row = ObjectBelow(u"Lorvenstack.Internal.Metadata.ReferenceRawColumn", u"Odd");
  metalayer::PutText(row, ReferenceRawColumn::kDataTypeName, u"Odd");
  ExpectOk(UpdateRefTypes());
  EXPECT_EQ(View(u"Odd").oid, metalayer::db_record(row).get_ref(RawColumn::kDataType).oid);
}

// ---- columns of system tables -----------------------------------------------------------------

class SystemColumnTest : public MetaPopulatorTest {
 protected:
  static metalayer::COLUMN_INFO Column(uint8_t type, char16_t const* target = nullptr) {
    metalayer::COLUMN_INFO column;
    column.name = u"c";
    column.type = type;
    column.ref_table = target;
    column.nullable = type == metalayer::kLogicalReference;
    return column;
  }
  void Populate(bool strict, RawView const& table, metalayer::COLUMN_INFO const& column) {
    MetaPopul8r(strict).PopulateColumnMeta(table, column, 0, false);
  }
  void ExpectRefusedColumn(std::u16string const& text, metalayer::COLUMN_INFO const& column) {
    RawView const table = BareTable(u"Bare");
    ExpectThrownUntouched(SAGLEME_TARGET_NOT_FOUND, text, [&] { Populate(true, table, column); });
  }
};

TEST_F(SystemColumnTest, ReferenceWithoutTypeName_IsRefused) {
  ExpectRefusedColumn(u"Reference type name missing in column c.", Column(8));
}

TEST_F(SystemColumnTest, UnknownPrimitiveType_IsRefused) {
  ExpectRefusedColumn(u"Primitive type 77 not found for column c.", Column(77));
}

TEST_F(SystemColumnTest, UnknownTarget_IsRefused) {
  metalayer::MetaschemaInit const metaschema;
  ExpectRefusedColumn(u"Reference type Nothing not found for column c.", Column(8, u"Nothing"));
}

// The target is found by its layout, not by its name.
TEST_F(SystemColumnTest, TargetWithoutLayout_IsRefused) {
  metalayer::MetaschemaInit const metaschema;
  ExpectRefusedColumn(u"Reference type Index not found for column c.", Column(8, u"Index"));
}

TEST_F(SystemColumnTest, MissingTarget_IsDeferredUnlessStrict) {
  metalayer::MetaschemaInit const metaschema;
  RawView const table = BareTable(u"Bare");
  Populate(false, table, Column(8, u"Nothing"));
  EXPECT_EQ((std::vector<std::string>{"0 c reference(Nothing?) null"}), ColumnsOf(table));
}

TEST_F(SystemColumnTest, Nullability_IsTakenAsItIs) {
  RawView const table = BareTable(u"Bare");
  Populate(true, table, Column(1));
  EXPECT_EQ((std::vector<std::string>{"0 c string"}), ColumnsOf(table));
}

}  // namespace
}  // namespace sagleme_test
