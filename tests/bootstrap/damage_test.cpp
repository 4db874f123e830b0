// Catalogues that contradict their definition: nobody could go on with them, so the process ends.

#include "bootstrap/bootstrap_test.h"
#include "bootstrap/old_database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

class DamageTest : public BootstrapTest {
 protected:
  void SetUp() override { ASSERT_EQ(0u, Bootstrap().status); }

  void ExpectBootstrapTraps() {
    EXPECT_EQ(kTrapped, Run([](Database& database) { database.Bootstrap(); }));
  }
  void ExpectStartUp(uint32_t status) {
    Outcome const outcome = StartUp();
    EXPECT_EQ(status, outcome.status) << outcome.text;
    EXPECT_EQ("", outcome.text);
  }
};

constexpr char16_t const* kIndexTable = u"Lorvenstack.Metadata.Index";

TEST_F(DamageTest, MissingTypeIdOfASystemTable_EndsTheProcess) {
  Change([] { DeleteRow(TypeIdsMeta::ByTypeIdsMeta_Type(TableRow(kIndexTable))); });
  ExpectStartUp(SAGLEME_NOT_PREPARED);
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, MissingViewOfASystemTable_EndsTheProcess) {
  Change([] { DeleteRow(TableRow(kIndexTable)); });
  ExpectStartUp(SAGLEME_NOT_PREPARED);
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, MissingViewOfTheLastTable_IsRefusedByStartUp) {
  Change([] { DeleteRow(TableRow(u"Lorvenstack.Internal.Metadata.UserSchemaGeneration")); });
  ExpectStartUp(SAGLEME_NOT_PREPARED);
}

TEST_F(DamageTest, MissingSetSpecifierOfATable_IsRefusedByStartUp) {
  Change([] { DeleteRow(SetSpecifier::ByType(TableRow(kIndexTable))); });
  ExpectStartUp(SAGLEME_NOT_PREPARED);
}

TEST_F(DamageTest, WrongPredefinedTypeId_EndsTheProcess) {
  Change([] {
    LS_OBJ_REF const row =
        TypeIdsMeta::ByTypeIdsMeta_Type(TableRow(u"Lorvenstack.Internal.Metadata.Configuration"));
    PutULong(row, TypeIdsMeta::kTypeIdsMeta_Id, 77);
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, TypeIdZeroOfATable_EndsTheProcess) {
  Change([] {
    DeleteRow(TypeIdsMeta::ByTypeIdsMeta_PK(0));
    PutULong(TypeIdsMeta::ByTypeIdsMeta_Type(TableRow(kIndexTable)), TypeIdsMeta::kTypeIdsMeta_Id,
             0);
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, SetSpecifierThatDiffersFromThatOfTheIndexes_EndsTheProcess) {
  Change([] {
    LS_OBJ_REF const row = SetSpecifier::ByType(TableRow(kIndexTable));
    PutText(row, SetSpecifier::kTypeId, u"fa~");
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, SetSpecifierWithoutText_EndsTheProcess) {
  Change([] {
    LS_OBJ_REF const row = SetSpecifier::ByType(TableRow(kIndexTable));
    PutText(row, SetSpecifier::kTypeId, nullptr);
  });
  ExpectBootstrapTraps();
}

// A table without an index has its set specifier from its row alone.
TEST_F(DamageTest, SetSpecifierWithoutTextOfATableWithoutIndexes_IsALengthFailure) {
  Change([] {
    LS_OBJ_REF const row =
        SetSpecifier::ByType(TableRow(u"Lorvenstack.Internal.Metadata.UserSchemaGeneration"));
    PutText(row, SetSpecifier::kTypeId, nullptr);
  });
  EXPECT_EQ(0,
            Run([](Database& database) { EXPECT_THROW(database.Bootstrap(), std::length_error); }));
}

TEST_F(DamageTest, SpecifierOwnedByAnotherTable_EndsTheProcess) {
  Change([] {
    LS_OBJ_REF const row = SetSpecifier::ByType(TableRow(u"Lorvenstack.Internal.Metadata.Token"));
    PutRef(row, SetSpecifier::kType, SetSpecifier(row));
    PutRef(row, SetSpecifier::kType, VersionRow());
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, IndexWithOtherFlags_EndsTheProcess) {
  Change([] {
    DropKernelIndex(u"ClrClassByMapper");
    CreateKernelIndex(u"ClrClassByMapper", u"b~~a~~", u"Mapper", LORV_TYPE_REFERENCE, 1);
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, IndexOverAnotherSet_EndsTheProcess) {
  Change([] {
    DropKernelIndex(u"IndexByTable");
    CreateKernelIndex(u"IndexByTable", u"g~", u"Table", LORV_TYPE_REFERENCE, 0);
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, LayoutWithTheWrongColumns_EndsTheProcess) {
  // A second layout under the table's token is newer than the table's own.
  Change([] {
    LORVI_COLUMN_DEFINITION const columns[] = {{LORV_TYPE_LONG, 0, assure_token(u"Other")}, {}};
    unsigned short layout = 0;
    Check(lorvi_context_create_layout(TlsContextHandle::context(), assure_token(kIndexTable),
                                      MotherOfAllLayouts::metaclass_layout_handle(), columns, 0,
                                      &layout));
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, MissingPredefinedTokenFive_IsMadeAnew) {
  Change([] { DeleteRow(Token::ByNameToken(5)); });
  Outcome const outcome = Bootstrap();
  EXPECT_EQ(0u, outcome.status) << outcome.text;
  EXPECT_EQ(19, outcome.yields);
  ExpectCurrent();
}

TEST_F(DamageTest, PredefinedTokenOfAnotherText_EndsTheProcess) {
  Change([] {
    DeleteRow(Token::ByNameToken(5));
    PutText(Token::ByNameToken(3), Token::kInvariantName, u"__other");
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, PredefinedTextOfAnotherToken_EndsTheProcess) {
  Change([] {
    DeleteRow(Token::ByNameToken(5));
    PutULong(Token::ByNameToken(3), Token::kNameToken, 4000);
  });
  ExpectBootstrapTraps();
}

TEST_F(DamageTest, TwoGenerations_EndTheProcess) {
  Change([] { UserSchemaGeneration::Insert(0); });
  EXPECT_EQ(kTrapped, Run([](Database& database) {
              database.Begin();
              lorv_init_metalayer(database.context());
            }));
}

TEST_F(DamageTest, MissingGeneration_IsRefusedByStartUp) {
  Change([] { DeleteObjects(UserSchemaGeneration::setspec()); });
  ExpectStartUp(SAGLEME_NOT_PREPARED);
}

TEST_F(DamageTest, MissingVersion_IsRefusedByStartUp) {
  Change([] { DeleteRow(VersionRow()); });
  ExpectStartUp(SAGLEME_NOT_PREPARED);
}

TEST_F(DamageTest, MissingIndex_IsRefusedByStartUp) {
  Change([] { DropKernelIndex(u"VacuumTypeId"); });
  ExpectStartUp(SAGLEME_NOT_PREPARED);
}

}  // namespace
}  // namespace sagleme_test
