// The classes of the system tables.

#include <csignal>
#include <sagleme/metalayer/metaschema.hpp>

#include "support/catalogue_definition.h"
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

// ---- before any database ------------------------------------------------------------------------

TEST(FreshProcessTest, Classes_KnowNothing) {
  Database const database;
  *TlsMetalayerContext::Current() = database.context();
  EXPECT_TRUE(RawView::setspec().empty());
  EXPECT_EQ(0u, RawView::g_type_id());
  EXPECT_EQ(0, RawView::metaclass_layout_handle());
  EXPECT_EQ(0u, RawView::index_id_RawViewPK());
}

TEST(FreshProcessTest, InitWithoutTables_IsRefusedUntilTheyExist) {
  Database database;
  database.Begin();
  *TlsMetalayerContext::Current() = database.context();
  EXPECT_EQ(SAGLEME_LAYOUT_NOT_FOUND, CodeOf([] { TokenMain::Init(); }));
  database.Rollback();
  ASSERT_EQ(0u, database.Bootstrap());
  database.Begin();
  EXPECT_EQ(0u, CodeOf([] { TokenMain::Init(); }));
}

TEST(FreshProcessTest, ClassOfATableThatComesLater_IsReadiedOnceItExists) {
  constexpr int kYieldOfTokens = 5;
  Database database;
  ASSERT_EQ(0u, database.BootstrapUpTo(kYieldOfTokens));
  database.Begin();
  *TlsMetalayerContext::Current() = database.context();
  EXPECT_EQ(SAGLEME_LAYOUT_NOT_FOUND, CodeOf([] { Vacuum::Init(u"", 0); }));
  database.Rollback();
  ASSERT_EQ(0u, database.Bootstrap());
  database.Begin();
  EXPECT_NE(0, Vacuum::Init(u"", 0));
  EXPECT_EQ(u"d~", Vacuum::setspec());
}

// ---- statics ------------------------------------------------------------------------------------

class MetaclassesTest : public DatabaseTest {};

TEST_F(MetaclassesTest, Init_IsAdditive) {
  unsigned short const table_id = RawView::metaclass_layout_handle();
  unsigned long const index_id = RawView::index_id_RawViewPK();
  EXPECT_EQ(table_id, RawView::Init(u"", 0));
  EXPECT_EQ(u"b~~~", RawView::setspec());
  EXPECT_EQ(4u, RawView::g_type_id());
  EXPECT_EQ(table_id, RawView::Init(u"other~", 77));
  EXPECT_EQ(u"other~", RawView::setspec());
  EXPECT_EQ(77u, RawView::g_type_id());
  EXPECT_EQ(index_id, RawView::index_id_RawViewPK());
}

TEST_F(MetaclassesTest, Init_LoadsWhatIsNotKnown) {
  unsigned short const table_id = Vacuum::metaclass_layout_handle();
  unsigned long const index_id = Vacuum::index_id_VacuumTypeId();
  *Vacuum::slots().table_id = 0;
  *Vacuum::slots().index_ids[0] = 0;
  EXPECT_EQ(table_id, Vacuum::Init(u"", 0));
  EXPECT_EQ(index_id, Vacuum::index_id_VacuumTypeId());
}

TEST_F(MetaclassesTest, InitWithAMissingIndex_IsRefused) {
  ASSERT_EQ(0u, lorvi_context_drop_index(context(), Vacuum::index_id_VacuumTypeId()));
  *Vacuum::slots().index_ids[0] = 0;
  EXPECT_EQ(SAGLEME_INDEX_NOT_FOUND, CodeOf([] { Vacuum::Init(u"", 0); }));
}

TEST_F(MetaclassesTest, OldSpecifierIndex_IsNeverLoaded) {
  SetSpecifier::Init(u"", 0);
  EXPECT_EQ(0u, SetSpecifier::index_id_TypeId());
  EXPECT_NE(0u, SetSpecifier::index_id_Type());
}

TEST_F(MetaclassesTest, InitsInTableOrder_GiveTheTableIds) {
  for (std::size_t i = 0; i < DefinedTables().size(); ++i) {
    LORVI_LAYOUT_INFO info{};
    uint32_t count = 1;
    unsigned long const token = assure_token(Utf16(DefinedTables()[i].full_name).c_str());
    ASSERT_EQ(0u, lorvi_context_get_layout_infos_by_token(context(), token, &count, &info));
    EXPECT_EQ(info.layout_handle, LoadTableId(Utf16(DefinedTables()[i].full_name).c_str()));
  }
}

// ---- kernel ids ---------------------------------------------------------------------------------

TEST_F(MetaclassesTest, IndexOfAnUnknownToken_IsNoFailure) {
  LORVI_INDEX_INFO info{};
  EXPECT_EQ(SAGLEME_INDEX_NOT_FOUND, get_index_info_by_token(999999, &info));
}

TEST_F(MetaclassesTest, KernelIds_AreFoundByNameAndToken) {
  EXPECT_EQ(RawView::metaclass_layout_handle(), LoadTableId(8));
  EXPECT_EQ(RawView::metaclass_layout_handle(), LoadTableId(u"Lorvenstack.Metadata.RawView"));
  EXPECT_EQ(RawView::index_id_RawViewPK(), LoadIndexId(10));
  EXPECT_EQ(RawView::index_id_RawViewPK(), LoadIndexId(u"RawViewPK"));
}

TEST_F(MetaclassesTest, UnknownNames_AreRefusedAndGetTheirToken) {
  EXPECT_EQ(SAGLEME_LAYOUT_NOT_FOUND, CodeOf([] { LoadTableId(u"No.Such.Table"); }));
  EXPECT_EQ(SAGLEME_INDEX_NOT_FOUND, CodeOf([] { LoadIndexId(u"NoSuchIndex"); }));
  EXPECT_FALSE(Token::ByInvariantName(u"No.Such.Table").is_null());
  EXPECT_FALSE(Token::ByInvariantName(u"NoSuchIndex").is_null());
}

TEST_F(MetaclassesTest, TwoIndexesOfOneToken_EndTheProcess) {
  LORVI_COLUMN_DEFINITION const columns[] = {{LORV_TYPE_STRING, 1, assure_token(u"TypeId")}, {}};
  unsigned long const token = assure_token(u"Twins");
  for (int i = 0; i < 2; ++i) {
    unsigned long id = 0;
    ASSERT_EQ(0u, lorvi_context_create_index(context(), token, u"d~", columns, 0, 0, &id));
  }
  LORVI_INDEX_INFO info{};
  EXPECT_EXIT(get_index_info_by_token(token, &info), ::testing::KilledBySignal(SIGABRT), "");
}

// ---- rows ---------------------------------------------------------------------------------------

TEST_F(MetaclassesTest, Insert_FillsEveryColumn) {
  LS_OBJ_REF const target{RawView::ByRawViewPK(RawView::metaclass_layout_handle())};
  LS_OBJ_REF const row =
      ReferenceRawColumn::Insert(target, u"Mine", target, true, false, true, 77, u"Target");
  EXPECT_EQ(ReferenceRawColumn::metaclass_layout_handle(), row.addr);
  EXPECT_EQ(target.oid, db_record(row).get_ref(ReferenceRawColumn::kTable).oid);
  EXPECT_EQ(u"Mine", GetText(row, ReferenceRawColumn::kName));
  EXPECT_EQ(target.oid, db_record(row).get_ref(ReferenceRawColumn::kDataType).oid);
  EXPECT_TRUE(GetBool(row, ReferenceRawColumn::kInherited));
  EXPECT_FALSE(GetBool(row, ReferenceRawColumn::kNullable));
  EXPECT_TRUE(GetBool(row, ReferenceRawColumn::kAlwaysUnique));
  EXPECT_EQ(77, GetLong(row, ReferenceRawColumn::kColumnIndex));
  EXPECT_EQ(u"Target", GetText(row, ReferenceRawColumn::kDataTypeName));
  LORV_STRING* setspec = nullptr;
  ASSERT_EQ(0u, lorv_context_get_setspec(context(), row.oid, row.addr, &setspec));
  EXPECT_EQ(u"e~~~~", std::u16string(setspec->units, setspec->length));
}

TEST_F(MetaclassesTest, NarrowParameters_AreWidened) {
  LS_OBJ_REF const view =
      RawView::Insert(u"N", db_util::null_obj_ref, false, u"F", u"R", u"U", 0xFFFF);
  EXPECT_EQ(0xFFFFu, GetULong(view, RawView::kLayoutHandle));
  LS_OBJ_REF const column =
      RawColumn::Insert(view, u"C", db_util::null_obj_ref, false, false, false, -1);
  EXPECT_EQ(-1, GetLong(column, RawColumn::kColumnIndex));
  EXPECT_EQ(column.oid, RawColumn::ByRawColumnPK(view, -1).oid);
}

TEST_F(MetaclassesTest, NullTextsAndReferences_StayNull) {
  LS_OBJ_REF const row = Index::Insert(nullptr, db_util::null_obj_ref, 0, 0);
  EXPECT_EQ(nullptr, db_record(row).get_string(Index::kName));
  EXPECT_EQ(0u, db_record(row).get_ref(Index::kTable).oid);
}

TEST_F(MetaclassesTest, InsertsWithoutCallers_Work) {
  EXPECT_NE(0u, MotherOfAllLayouts::Insert().oid);
  EXPECT_NE(0u, MetaData::Insert().oid);
  EXPECT_NE(0u, DataType::Insert(u"D").oid);
  LS_OBJ_REF const map = MapPrimitiveType::Insert(u"M", db_util::null_obj_ref, true, false);
  EXPECT_TRUE(GetBool(map, MapPrimitiveType::kWriteLoss));
  EXPECT_EQ(7u, GetULong(ClrPrimitiveType::Insert(u"C", map, false, true, 7),
                         ClrPrimitiveType::kDbTypeCode));
  LS_OBJ_REF const clr = ClrClass::Insert(u"N", db_util::null_obj_ref, false, u"F1", u"R1", u"U1",
                                          db_util::null_obj_ref, u"A", u"D", u"Full");
  EXPECT_EQ(u"Full", GetText(clr, ClrClass::kFullClassName));
  LS_OBJ_REF const code =
      CodeProperty::Insert(clr, u"P", db_util::null_obj_ref, false, true, false, 3);
  EXPECT_EQ(3u, GetULong(code, CodeProperty::kPolymorphic));
  LS_OBJ_REF const mapped =
      MappedProperty::Insert(clr, u"Q", db_util::null_obj_ref, false, true, true, map);
  EXPECT_EQ(map.oid, db_record(mapped).get_ref(MappedProperty::kColumn).oid);
}

TEST_F(MetaclassesTest, InsertInAReadOnlyTransaction_IsTheKernelsFailure) {
  Rollback();
  ASSERT_EQ(0u, lscoredb_begin(context(), LSCOREDB_READ_ONLY_TRANSACTION));
  EXPECT_EQ(LSCOREDB_WRITE_REFUSED, CodeOf([] { Configuration::Insert(u"Some", 1); }));
}

// ---- lookups ------------------------------------------------------------------------------------

TEST_F(MetaclassesTest, LookupsThatFindNothing_AreNoFailure) {
  EXPECT_TRUE(RawView::ByRawViewPK(0).is_null());
  EXPECT_TRUE(RawView::ByRawViewPK2fullname(nullptr).is_null());
  EXPECT_TRUE(RawView::ByRawViewPK2fullname(u"").is_null());
  EXPECT_TRUE(Index::ByIndexPK(u"NoSuchIndex").is_null());
  EXPECT_TRUE(Configuration::ByConfigurationParameter(u"metaschemaversion").is_null());
}

TEST_F(MetaclassesTest, InheritedColumn_IsFoundAsAMemberOfTheTable) {
  RawView const view = RawView::ByRawViewPK2fullname(u"Lorvenstack.Metadata.RawView");
  Member const member = Member::ByMemberPK(view, u"FullName");
  ASSERT_FALSE(member.is_null());
  EXPECT_EQ(RawColumn::metaclass_layout_handle(), LayoutOf(member));
  EXPECT_TRUE(GetBool(member, Member::kInherited));
  EXPECT_EQ(member.oid, RawColumn::ByRawColumnPK(view, 6).oid);
  EXPECT_TRUE(Member::ByMemberPK(view, u"fullname").is_null());
}

TEST_F(MetaclassesTest, EveryLookup_FindsItsRow) {
  RawView const view = RawView::ByRawViewPK(Index::metaclass_layout_handle());
  EXPECT_EQ(view.oid, RawView::ByRawViewPK2fullname(u"Lorvenstack.Metadata.Index").oid);
  EXPECT_EQ(view.oid, Table::ByTablePK(u"Index.Metadata.Lorvenstack.Raw.Lorvenstack").oid);
  EXPECT_EQ(u"f~", GetText(SetSpecifier::ByType(view), SetSpecifier::kTypeId));
  EXPECT_EQ(SetSpecifier::ByType(view).oid, SetSpecifier::ByTypeId_postV2_3(u"f~").oid);
  TypeIdsMeta const type = TypeIdsMeta::ByTypeIdsMeta_Type(view);
  EXPECT_EQ(type.oid, TypeIdsMeta::ByTypeIdsMeta_PK(Index::g_type_id()).oid);
  EXPECT_EQ(u"bool",
            GetText(DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(10), DbPrimitiveType::kName));
  EXPECT_EQ(view.oid, Index::ByIndexPK(u"IndexPK").get_ref(Index::kTable).oid);
}

TEST_F(MetaclassesTest, KeyThatDoesNotFit_IsRefused) {
  std::u16string const name(2000, u'n');
  EXPECT_EQ(SAGLEME_NAME_TOO_LONG,
            CodeOf([&name] { RawView::ByRawViewPK2fullname(name.c_str()); }));
}

}  // namespace
}  // namespace sagleme_test
