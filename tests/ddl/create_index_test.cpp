#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::Index;
using metalayer::IndexedColumn;
using metalayer::RawView;
using ::testing::KilledBySignal;

char16_t const* ColumnName(int i) {
  static std::vector<std::u16string> const names = [] {
    std::vector<std::u16string> all;
    for (int n = 0; n < 20; ++n) all.push_back(u"c" + Utf16(std::to_string(n)));
    return all;
  }();
  return names[static_cast<std::size_t>(i)].c_str();
}

class CreateIndexTest : public CatalogueTest {
 protected:
  // T has the long columns c0 to c19 at the ordinals 3 to 22.
  void CreateWideTable() {
    Columns columns;
    for (int i = 0; i < 20; ++i) columns.Long(ColumnName(i));
    Create(u"T", columns);
  }
  uint32_t ByNames(char16_t const* name, char16_t const* table,
                   std::vector<LORV_INDEXED_COLUMN> columns, bool unique = false) {
    columns.push_back({nullptr, 0});
    return lorv_create_index_by_names(context(), name, table, columns.data(), unique);
  }
  uint32_t ByOrdinals(char16_t const* name, uint16_t sort_mask, std::vector<int16_t> columns,
                      uint32_t flags = 0) {
    columns.push_back(-1);
    RawView const table = View(u"T");
    return lorv_create_index(context(), table.oid, table.addr, name, sort_mask, columns.data(),
                             flags);
  }
  static std::vector<LORV_INDEXED_COLUMN> Names(int count) {
    std::vector<LORV_INDEXED_COLUMN> list;
    for (int i = 0; i < count; ++i) list.push_back({ColumnName(i), 1});
    return list;
  }
  static std::vector<int16_t> Ordinals(int count) {
    std::vector<int16_t> list;
    for (int i = 0; i < count; ++i) list.push_back(static_cast<int16_t>(3 + i));
    return list;
  }
  LORVI_INDEX_INFO KernelIndex(char16_t const* name) {
    LORVI_INDEX_INFO info = {};
    uint32_t count = 1;
    EXPECT_EQ(0u, lorvi_context_get_index_infos_by_token(context(), TokenOf(name), &count, &info));
    EXPECT_EQ(1u, count);
    return info;
  }
  bool KernelHasIndex(char16_t const* name) {
    LORVI_INDEX_INFO info = {};
    return metalayer::get_index_info_by_token(TokenOf(name), &info) == 0;
  }
};

TEST_F(CreateIndexTest, ByNames_WritesRowsAndKernelIndex) {
  Create(u"a.T", Columns().Long(u"a").String(u"b"));
  uint64_t const generation = Generation();
  ExpectOk(ByNames(u"I", u"a.T", {{u"b", 0}, {u"a", 1}}, true));
  EXPECT_EQ(generation + 1, Generation());
  EXPECT_EQ((std::vector<std::string>{"I(b-, a+) unique"}), IndexesOf(u"a.T"));
  LORVI_INDEX_INFO const info = KernelIndex(u"I");
  EXPECT_EQ(2u, info.attribute_count);
  EXPECT_EQ(1u, info.flags);
  Index const row = Index::ByIndexPK(u"I");
  EXPECT_EQ(info.index_id, metalayer::GetULong(row, Index::kIndexHandle));
  EXPECT_EQ(View(u"a.T").oid, row.get_ref(Index::kTable).oid);
  EXPECT_EQ(1u, metalayer::GetULong(row, Index::kUnique));
  char16_t const* setspec = nullptr;
  ASSERT_EQ(0u, lorvi_context_get_index_setspec(context(), info.index_id, &setspec));
  EXPECT_EQ(SetspecOfTable(View(u"a.T")), Utf8(setspec));
}

TEST_F(CreateIndexTest, ByOrdinals_MaskBitMeansDescending) {
  CreateWideTable();
  uint64_t const generation = Generation();
  ExpectOk(ByOrdinals(u"I", 1, {4, 3, 5}));
  EXPECT_EQ(generation + 1, Generation());
  EXPECT_EQ((std::vector<std::string>{"I(c1-, c0+, c2+)"}), IndexesOf(u"T"));
}

TEST_F(CreateIndexTest, Flags_CatalogueKeepsTheLowestBitKernelGetsAll) {
  CreateWideTable();
  ExpectOk(ByOrdinals(u"Two", 0, {3}, 2));
  ExpectOk(ByOrdinals(u"Three", 0, {4}, 3));
  EXPECT_EQ((std::vector<std::string>{"Three(c1+) unique", "Two(c0+)"}), IndexesOf(u"T"));
  EXPECT_EQ(2u, KernelIndex(u"Two").flags);
  EXPECT_EQ(3u, KernelIndex(u"Three").flags);
}

TEST_F(CreateIndexTest, ByLayoutId_FindsTheTable) {
  uint16_t const layout = Create(u"T", Columns().Long(u"a"));
  int16_t const columns[] = {3, -1};
  ExpectOk(lorv_create_index_ids(context(), layout, u"I", 0, columns, 0));
  EXPECT_EQ((std::vector<std::string>{"I(a+)"}), IndexesOf(u"T"));
}

TEST_F(CreateIndexTest, ByLayoutId_SupersededLayout_IsNotFound) {
  uint16_t const layout = Create(u"T", Columns().Long(u"a"));
  AddColumns(u"T", Columns().Long(u"b"));
  int16_t const columns[] = {3, -1};
  ExpectRefusedUntouched(
      SAGLEME_TABLE_NOT_FOUND,
      u"Table wit layout id " + Utf16(std::to_string(layout)) + u" not found.",
      [&] { return lorv_create_index_ids(context(), layout, u"I", 0, columns, 0); });
}

TEST_F(CreateIndexTest, FifteenColumns_Fit) {
  CreateWideTable();
  ExpectOk(ByNames(u"Names", u"T", Names(15)));
  ExpectOk(ByOrdinals(u"Ordinals", 0x4000, Ordinals(15)));
  std::string const list =
      "(c0+, c1+, c2+, c3+, c4+, c5+, c6+, c7+, c8+, c9+, c10+, c11+, c12+, c13+, c14";
  EXPECT_EQ((std::vector<std::string>{"Names" + list + "+)", "Ordinals" + list + "-)"}),
            IndexesOf(u"T"));
}

TEST_F(CreateIndexTest, SixteenColumnsByNames_AreRefusedBeforeTheKernel) {
  CreateWideTable();
  ExpectRefusedUntouched(
      SAGLEME_BROKEN_CATALOGUE,
      u"Number of columns in index I for table T doesn't fit into 16 bit sort mask.",
      [&] { return ByNames(u"I", u"T", Names(16)); });
  EXPECT_EQ(0u, TokenOf(u"I"));
}

TEST_F(CreateIndexTest, SixteenTo114ColumnsByOrdinals_AreRefusedAfterTheKernelTookThem) {
  CreateWideTable();
  uint64_t const generation = Generation();
  struct Wide {
    std::u16string name;
    int count;
  };
  std::size_t rows = 0;
  for (auto const& [name, count] : {Wide{u"I16", 16}, {u"I17", 17}, {u"I20", 20}, {u"I114", 114}}) {
    SCOPED_TRACE(count);
    std::vector<int16_t> ordinals = Ordinals(count < 20 ? count : 20);
    ordinals.resize(static_cast<std::size_t>(count), 3);
    ExpectRefused(SAGLEME_BROKEN_CATALOGUE,
                  u"Number of columns in index " + name + u" doesn't fit into 16 bit sort mask.",
                  ByOrdinals(name.c_str(), 0, ordinals));
    EXPECT_TRUE(KernelHasIndex(name.c_str()));
    EXPECT_EQ(count, KernelIndex(name.c_str()).attribute_count);
    EXPECT_EQ(++rows, IndexesOf(u"T").size());
  }
  EXPECT_EQ(generation, Generation());
}

TEST_F(CreateIndexTest, Ordinals115_AreRefusedWithoutText) {
  CreateWideTable();
  ExpectRefusedUntouched(SAGLEME_TOO_MANY_RECORDS, u"",
                         [&] { return ByOrdinals(u"I", 0, std::vector<int16_t>(115, 3)); });
}

TEST_F(CreateIndexTest, NoColumns_LeavesAnIndexRowAlone) {
  CreateWideTable();
  ExpectOk(ByNames(u"Names", u"T", {}));
  ExpectOk(ByOrdinals(u"Ordinals", 0, {}));
  EXPECT_EQ((std::vector<std::string>{"Names()", "Ordinals()"}), IndexesOf(u"T"));
  EXPECT_EQ(0u, KernelIndex(u"Names").attribute_count);
}

TEST_F(CreateIndexTest, NameInUse_IsRefusedOnAnyTable) {
  Create(u"T", Columns().Long(u"a"));
  Create(u"Other", Columns().Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  for (char16_t const* table : {u"T", u"Other"}) {
    ExpectRefusedUntouched(SAGLEME_INDEX_EXISTS, u"Index I already exists.", [&] {
      return ByNames(u"I", table, {{u"a", 1}});
    });
  }
  ExpectRefusedUntouched(SAGLEME_INDEX_EXISTS, u"Index I already exists.",
                         [&] { return ByOrdinals(u"I", 0, {3}); });
}

TEST_F(CreateIndexTest, InheritedColumn_PointsAtTheTablesOwnRow) {
  Create(u"Base", Columns().Long(u"a"));
  Create(u"T", {}, u"Base");
  CreateIndex(u"I", u"T", {u"a"});
  alignas(8) unsigned char key[1024];
  metalayer::Key(key).Ref(Index::ByIndexPK(u"I")).Ref(ColumnRow(u"T", u"a"));
  EXPECT_NE(0u, metalayer::LookupByKey(IndexedColumn::index_id_IndexedColumnPK(), key).oid);
  EXPECT_TRUE(IndexesOf(u"Base").empty());
}

TEST_F(CreateIndexTest, ChildTables_GetNoIndexRows) {
  Create(u"Base", Columns().Long(u"a"));
  Create(u"Child", {}, u"Base");
  CreateIndex(u"I", u"Base", {u"a"});
  EXPECT_TRUE(IndexesOf(u"Child").empty());
}

TEST_F(CreateIndexTest, UnknownTable_IsRefused) {
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.", [&] {
    return ByNames(u"I", u"Nobody", {{u"a", 1}});
  });
}

TEST_F(CreateIndexTest, UnknownColumn_IsRefused) {
  Create(u"a.T", Columns().Long(u"a"));
  ExpectRefusedUntouched(SAGLEME_COLUMN_NOT_FOUND,
                         u"Column b isn't found in table a.T and ancestor tables.", [&] {
                           return ByNames(u"I", u"a.T", {{u"a", 1}, {u"b", 1}});
                         });
}

TEST_F(CreateIndexTest, UnknownOrdinal_IsRefused) {
  Create(u"T", Columns().Long(u"a"));
  ExpectRefusedUntouched(SAGLEME_BROKEN_CATALOGUE, u"Raw column 4 doesn't exist for index I.", [&] {
    return ByOrdinals(u"I", 0, {3, 4});
  });
}

TEST_F(CreateIndexTest, DeferredReferenceColumn_EndsTheProcess) {
  Create(u"T", Columns().Ref(u"r", u"Later"));
  EXPECT_EXIT(ByNames(u"I", u"T", {{u"r", 1}}), KilledBySignal(SIGABRT), "");
}

TEST_F(CreateIndexTest, TableWithoutSetSpecifier_EndsTheProcess) {
  Create(u"T", Columns().Long(u"a"));
  metalayer::DeleteRow(metalayer::SetSpecifier::ByType(View(u"T")));
  EXPECT_EXIT(ByOrdinals(u"I", 0, {3}), KilledBySignal(SIGABRT), "");
}

TEST_F(CreateIndexTest, ExistingDuplicates_AreTheKernelsRefusal) {
  Create(u"T", Columns().Long(u"a"));
  WriteLong(u"T", u"a", CreateObject(u"T"), 5);
  WriteLong(u"T", u"a", CreateObject(u"T"), 5);
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, ByNames(u"I", u"T", {{u"a", 1}}, true));
}

TEST_F(CreateIndexTest, KernelIndex_CoversObjectsOfTheSubtree) {
  Create(u"Base", Columns().Long(u"a"));
  Create(u"Child", {}, u"Base");
  uint64_t const before = CreateObject(u"Child");
  WriteLong(u"Child", u"a", before, 7);
  CreateIndex(u"I", u"Base", {u"a"});
  uint64_t const after = CreateObject(u"Base");
  WriteLong(u"Base", u"a", after, 3);
  db_util::db_iter_with_keys scan;
  metalayer::Key(scan.first_key).Null();
  metalayer::Key(scan.last_key).Long(100);
  scan.open(KernelIndex(u"I").index_id, metalayer::kForward);
  ASSERT_TRUE(scan.next());
  EXPECT_EQ(after, scan.current.oid);
  ASSERT_TRUE(scan.next());
  EXPECT_EQ(before, scan.current.oid);
  EXPECT_FALSE(scan.next());
}

TEST_F(CreateIndexTest, OrdinalsBelowTheEndMark_AreUnknownOnes) {
  Create(u"T", Columns().Long(u"a"));
  ExpectRefusedUntouched(SAGLEME_BROKEN_CATALOGUE, u"Raw column -2 doesn't exist for index I.",
                         [&] {
                           return ByOrdinals(u"I", 0, {3, -2});
                         });
}

TEST_F(CreateIndexTest, RowThatIsNoTable_HasNoColumns) {
  Create(u"T", Columns().Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  Index const no_table = Index::ByIndexPK(u"I");
  int16_t const columns[] = {3, -1};
  for (LS_OBJ_REF const& row : {db_util::null_obj_ref, static_cast<LS_OBJ_REF>(no_table)}) {
    ExpectRefusedUntouched(
        SAGLEME_BROKEN_CATALOGUE, u"Raw column 3 doesn't exist for index J.",
        [&] { return lorv_create_index(context(), row.oid, row.addr, u"J", 0, columns, 0); });
  }
}

TEST_F(CreateIndexTest, RowThatIsNoTableAndNoColumns_EndsTheProcess) {
  int16_t const none[] = {-1};
  EXPECT_EXIT(lorv_create_index(context(), 0, 0, u"I", 0, none, 0), KilledBySignal(SIGABRT), "");
}

TEST_F(CreateIndexTest, UnknownLayout_IsRefused) {
  int16_t const columns[] = {3, -1};
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table wit layout id 65000 not found.", [&] {
    return lorv_create_index_ids(context(), 65000, u"I", 0, columns, 0);
  });
}

TEST_F(CreateIndexTest, NameInUse_IsFoundBeforeColumnsAre) {
  Create(u"T", Columns().Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  ExpectRefusedUntouched(SAGLEME_INDEX_EXISTS, u"Index I already exists.",
                         [&] { return ByOrdinals(u"I", 0, {77}); });
  ExpectRefusedUntouched(SAGLEME_COLUMN_NOT_FOUND,
                         u"Column b isn't found in table T and ancestor tables.", [&] {
                           return ByNames(u"I", u"T", {{u"b", 1}});
                         });
}

TEST_F(CreateIndexTest, TypeWithoutKernelType_Is4226) {
  Create(u"T", Columns().Long(u"a"));
  metalayer::PutULong(metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3),
                      metalayer::DbPrimitiveType::kPrimitiveType, 11);
  ExpectRefusedUntouched(SAGLEME_INVALID_TYPE, u"", [&] { return ByOrdinals(u"I", 0, {3}); });
}

TEST_F(CreateIndexTest, SpecifierWithoutText_CoversEveryObject) {
  Create(u"T", Columns().Long(u"a"));
  metalayer::PutText(metalayer::SetSpecifier::ByType(View(u"T")), metalayer::SetSpecifier::kTypeId,
                     nullptr);
  ExpectOk(ByOrdinals(u"I", 0, {3}));
  char16_t const* setspec = nullptr;
  ASSERT_EQ(0u, lorvi_context_get_index_setspec(context(), KernelIndex(u"I").index_id, &setspec));
  EXPECT_EQ("", Utf8(setspec));
}

TEST_F(CreateIndexTest, RolledBack_LeavesNothingAndCanBeRepeated) {
  Create(u"T", Columns().Long(u"a"));
  Commit();
  Begin();
  std::string const before = DumpDatabase();
  CreateIndex(u"I", u"T", {u"a"}, true);
  Rollback();
  Begin();
  EXPECT_EQ(before, DumpDatabase());
  CreateIndex(u"I", u"T", {u"a"});
  EXPECT_EQ((std::vector<std::string>{"I(a+)"}), IndexesOf(u"T"));
}

}  // namespace
}  // namespace sagleme_test
