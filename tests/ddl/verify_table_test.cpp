#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawColumn;
using metalayer::RawView;
using ::testing::KilledBySignal;

// Creating a table that exists holds it against the definition.
class VerifyTableTest : public CatalogueTest {
 protected:
  uint32_t Verify(char16_t const* name, Columns columns, char16_t const* base = nullptr) {
    return lorv_create_table_by_names(context(), name, base, columns, nullptr);
  }
  void ExpectSame(char16_t const* name, Columns columns, char16_t const* base = nullptr) {
    ExpectUntouched([&] { ExpectOk(Verify(name, columns, base)); });
  }
  void ExpectColumnDiffers(char16_t const* column, Columns columns) {
    ExpectRefusedUntouched(
        SAGLEME_SCHEMA_MISMATCH,
        std::u16string(u"Schema of the input type does not match schema of existing type: a.T for "
                       u"column ") +
            column + u".",
        [&] { return Verify(u"a.T", columns); });
  }
  LS_OBJ_REF Primitive(uint8_t type) {
    return metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(type);
  }
  uint32_t VerifyByReference(char16_t const* name, std::vector<LORV_COLUMN_DEFINITION> columns,
                             LS_OBJ_REF base = db_util::null_obj_ref) {
    columns.push_back({db_util::null_obj_ref, 0, nullptr});
    return lorv_create_table(context(), name, base.oid, base.addr, columns.data(), nullptr,
                             nullptr);
  }
};

TEST_F(VerifyTableTest, SameDefinition_WritesNothingAndGivesTheLayout) {
  uint16_t const layout = Create(u"T", Columns().Long(u"a").String(u"b"));
  ExpectUntouched([&] { EXPECT_EQ(layout, Create(u"T", Columns().Long(u"a").String(u"b"))); });
}

TEST_F(VerifyTableTest, SameDefinitionByReference_WritesNothing) {
  Create(u"Target");
  Create(u"T", Columns().Long(u"a").Ref(u"r", u"Target"));
  ExpectUntouched([&] {
    ExpectOk(VerifyByReference(u"T", {{Primitive(3), 0, u"a"}, {View(u"Target"), 1, u"r"}}));
  });
}

TEST_F(VerifyTableTest, SystemTable_CanBeVerified) {
  ExpectSame(u"Lorvenstack.Internal.Metadata.Vacuum",
             Columns().String(u"TypeId").ULong(u"ExpectedLayout").ULong(u"RequestKind"));
}

TEST_F(VerifyTableTest, Mismatch_StillGivesTheLayout) {
  uint16_t const layout = Create(u"T", Columns().Long(u"a"));
  uint16_t returned = 0;
  EXPECT_EQ(SAGLEME_SCHEMA_MISMATCH, lorv_create_table_by_names(context(), u"T", nullptr,
                                                                Columns().Double(u"a"), &returned));
  EXPECT_EQ(layout, returned);
}

TEST_F(VerifyTableTest, Nullability_Differs) {
  Create(u"a.T", Columns().Long(u"x").Long(u"y"));
  ExpectColumnDiffers(u"y", Columns().Long(u"x").Long(u"y", true));
}

TEST_F(VerifyTableTest, Type_Differs) {
  Create(u"a.T", Columns().Long(u"x").Long(u"y"));
  ExpectColumnDiffers(u"x", Columns().ULong(u"x").Long(u"y"));
}

TEST_F(VerifyTableTest, CaseOfTheName_Differs) {
  Create(u"a.T", Columns().Long(u"x"));
  ExpectColumnDiffers(u"x", Columns().Long(u"X"));
}

TEST_F(VerifyTableTest, BaseColumnsInTheDefinition_AreHeldAgainstOwnOnes) {
  Create(u"Base", Columns().Long(u"b"));
  Create(u"T", Columns().Long(u"x"), u"Base");
  ExpectRefusedUntouched(
      SAGLEME_SCHEMA_MISMATCH,
      u"Schema of the input type does not match schema of existing type: T for column x.",
      [&] { return Verify(u"T", Columns().Long(u"b").Long(u"x"), u"Base"); });
  ExpectSame(u"T", Columns().Long(u"x"), u"Base");
}

TEST_F(VerifyTableTest, NumberOfColumns_Differs) {
  Create(u"a.T", Columns().Long(u"x").Long(u"y"));
  std::u16string const text =
      u"Schema of the input type does not match schema of existing type: a.T ";
  ExpectRefusedUntouched(SAGLEME_SCHEMA_MISMATCH, text + u"fewer input columns than existing.",
                         [&] { return Verify(u"a.T", Columns().Long(u"x")); });
  ExpectRefusedUntouched(SAGLEME_SCHEMA_MISMATCH, text + u"more input columns than existing.", [&] {
    return Verify(u"a.T", Columns().Long(u"x").Long(u"y").Long(u"z"));
  });
}

TEST_F(VerifyTableTest, Base_Differs) {
  Create(u"Base");
  Create(u"Derived", {}, u"Base");
  Create(u"Direct");
  std::u16string const differs = u"' is different than the given base type.";
  ExpectRefusedUntouched(SAGLEME_SCHEMA_MISMATCH, u"The existing base type of 'Derived" + differs,
                         [&] { return Verify(u"Derived", {}); });
  ExpectRefusedUntouched(SAGLEME_SCHEMA_MISMATCH, u"The existing base type of 'Direct" + differs,
                         [&] { return Verify(u"Direct", {}, u"Base"); });
  ExpectRefusedUntouched(SAGLEME_SCHEMA_MISMATCH, u"The existing base type of 'Derived" + differs,
                         [&] { return Verify(u"Derived", {}, kRootTable); });
}

TEST_F(VerifyTableTest, RootAsBase_IsTheSameAsNone) {
  Create(u"Implicit");
  Create(u"Explicit", {}, kRootTable);
  ExpectSame(u"Implicit", {}, kRootTable);
  ExpectSame(u"Implicit", {});
  ExpectSame(u"Explicit", {}, kRootTable);
  ExpectSame(u"Explicit", {});
}

TEST_F(VerifyTableTest, TableWithoutBase_MatchesNoBaseOnly) {
  Columns const own = Columns().ULong(u"__id").String(u"__setspecifier").ULong(u"__type_id");
  ExpectSame(kRootTable, own);
  ExpectRefused(SAGLEME_SCHEMA_MISMATCH,
                std::u16string(u"The existing base type of '") + kRootTable +
                    u"' is different than the given base type.",
                Verify(kRootTable, own, kRootTable));
}

TEST_F(VerifyTableTest, Target_MayBeGivenShort) {
  Create(u"App.Model.Target");
  Create(u"T", Columns().Ref(u"r", u"App.Model.Target"));
  ExpectSame(u"T", Columns().Ref(u"r", u"App.Model.Target"));
  ExpectSame(u"T", Columns().Ref(u"r", u"Model.Target"));
  ExpectSame(u"T", Columns().Ref(u"r", u"Target"));
}

TEST_F(VerifyTableTest, Target_Differs) {
  Create(u"One");
  Create(u"Two");
  Create(u"a.T", Columns().Ref(u"r", u"One"));
  ExpectColumnDiffers(u"r", Columns().Ref(u"r", u"Two"));
  EXPECT_EQ(SAGLEME_SCHEMA_MISMATCH, VerifyByReference(u"a.T", {{View(u"Two"), 1, u"r"}}));
}

TEST_F(VerifyTableTest, UnknownOrAmbiguousTarget_IsAColumnMismatch) {
  Create(u"One.Target");
  Create(u"Two.Target");
  Create(u"a.T", Columns().Ref(u"r", u"One.Target"));
  ExpectColumnDiffers(u"r", Columns().Ref(u"r", u"Nobody"));
  ExpectColumnDiffers(u"r", Columns().Ref(u"r", u"Target"));
  ExpectColumnDiffers(u"r", Columns().Ref(u"r", u""));
}

TEST_F(VerifyTableTest, UntypedReference_MatchesTheReferencePrimitiveAlone) {
  Create(u"Target");
  Create(u"a.T", Columns().Ref(u"r", u"Target"));
  ExpectColumnDiffers(u"r", Columns().Ref(u"r", nullptr));
  metalayer::PutRef(ColumnRow(u"a.T", u"r"), RawColumn::kDataType, Primitive(8));
  ExpectSame(u"a.T", Columns().Ref(u"r", nullptr));
}

TEST_F(VerifyTableTest, DeferredReference_EndsTheProcess) {
  Create(u"T", Columns().Ref(u"r", u"Later"));
  EXPECT_EXIT(Verify(u"T", Columns().Ref(u"r", u"Later")), KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(VerifyByReference(u"T", {{Primitive(3), 1, u"r"}}), KilledBySignal(SIGABRT), "");
}

TEST_F(VerifyTableTest, OrdinalOutOfStep_EndsTheProcess) {
  Create(u"T", Columns().Long(u"a").Long(u"b"));
  metalayer::PutLong(ColumnRow(u"T", u"b"), RawColumn::kColumnIndex, 9);
  EXPECT_EXIT(Verify(u"T", Columns().Long(u"a").Long(u"b")), KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace sagleme_test
