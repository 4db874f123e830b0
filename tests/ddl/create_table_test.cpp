#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawView;
using metalayer::SetSpecifier;
using metalayer::TypeIdsMeta;
using ::testing::KilledBySignal;

// Names live as long as the process.
char16_t const* ColumnName(int i) {
  static std::vector<std::u16string> const names = [] {
    std::vector<std::u16string> all;
    for (int n = 0; n < 200; ++n) all.push_back(u"c" + Utf16(std::to_string(n)));
    return all;
  }();
  return names[static_cast<std::size_t>(i)].c_str();
}

Columns LongColumns(int count) {
  Columns columns;
  for (int i = 0; i < count; ++i) columns.Long(ColumnName(i));
  return columns;
}

class CreateTableTest : public CatalogueTest {
 protected:
  uint32_t ByNames(char16_t const* name, Columns columns, char16_t const* base = nullptr) {
    return lorv_create_table_by_names(context(), name, base, columns, nullptr);
  }
  uint64_t ChildrenOf(char16_t const* table) {
    return metalayer::GetULong(SetSpecifier::ByType(View(table)), SetSpecifier::kNumberOfChildren);
  }
};

TEST_F(CreateTableTest, NewTable_WritesTheViewRow) {
  uint16_t const layout = Create(u"a.b.C", Columns().Long(u"x"));
  RawView const row = View(u"a.b.C");
  EXPECT_EQ("C", TextOf(row, RawView::kName));
  EXPECT_EQ("a.b.C", TextOf(row, RawView::kFullName));
  EXPECT_EQ("Lorvenstack.Raw.a.b.C", TextOf(row, RawView::kUniqueIdentifier));
  EXPECT_EQ("C.b.a.Raw.Lorvenstack", TextOf(row, RawView::kUniqueIdentifierReversed));
  EXPECT_EQ(View(kRootTable).oid, row.get_ref(RawView::kInherits).oid);
  EXPECT_TRUE(metalayer::GetBool(row, RawView::kUpdatable));
  EXPECT_EQ(layout, metalayer::GetULong(row, RawView::kLayoutHandle));
  EXPECT_NE(0, layout);
}

TEST_F(CreateTableTest, FirstTables_GetTheNextSpecifiersAndTypeIds) {
  uint64_t const children = ChildrenOf(kRootTable);
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  EXPECT_EQ(children + 1, ChildrenOf(kRootTable));
  EXPECT_EQ(1u, ChildrenOf(u"Parent"));
  EXPECT_EQ(0u, ChildrenOf(u"Child"));
  std::u16string const letters = metalayer::Setspec::i2spec(children);
  EXPECT_EQ(Utf8(letters) + "~", SetspecOfTable(View(u"Parent")));
  EXPECT_EQ(Utf8(letters) + "~~", SetspecOfTable(View(u"Child")));
  TypeIdsMeta const parent = TypeIdsMeta::ByTypeIdsMeta_Type(View(u"Parent"));
  TypeIdsMeta const child = TypeIdsMeta::ByTypeIdsMeta_Type(View(u"Child"));
  EXPECT_EQ(26u, metalayer::GetULong(parent, TypeIdsMeta::kTypeIdsMeta_Id));
  EXPECT_EQ(27u, metalayer::GetULong(child, TypeIdsMeta::kTypeIdsMeta_Id));
}

TEST_F(CreateTableTest, DerivedTable_HasInheritedColumnsFirst) {
  Create(u"Base", Columns().Long(u"a").String(u"b"));
  Create(u"Derived", Columns().Double(u"c").Bool(u"d", true), u"Base");
  EXPECT_EQ(WithRootColumns(
                {"3 a long inherited", "4 b string null inherited", "5 c double", "6 d bool null"}),
            ColumnsOf(u"Derived"));
  ExpectKernelAgrees(u"Base");
}

TEST_F(CreateTableTest, EveryType_ReachesTheKernel) {
  Columns columns;
  for (uint8_t type = 1; type <= 10; ++type) {
    if (type != 8) columns.Add(type, ColumnName(type), true);
  }
  columns.Ref(u"self", u"T");
  Create(u"T", columns);
  ExpectKernelAgrees(u"T");
}

TEST_F(CreateTableTest, Tokens_AreOfRowIdentitiesAndOfTheFullName) {
  Create(u"a.T", Columns().Long(u"tokenless"));
  EXPECT_EQ(0u, TokenOf(u"tokenless"));
  EXPECT_NE(0u, TokenOf(u"a.T"));
  EXPECT_NE(0u, TokenOf(Utf16(std::to_string(ColumnRow(u"a.T", u"tokenless").oid))));
}

TEST_F(CreateTableTest, Generation_AdvancesOnce) {
  uint64_t const generation = Generation();
  Create(u"T", Columns().Long(u"a"));
  EXPECT_EQ(generation + 1, Generation());
}

TEST_F(CreateTableTest, EmptyDefinition_LeavesTheInheritedColumns) {
  Create(u"Base", Columns().Long(u"a"));
  Create(u"T", {}, u"Base");
  EXPECT_EQ(WithRootColumns({"3 a long inherited"}), ColumnsOf(u"T"));
}

TEST_F(CreateTableTest, UnderTheRoot_112ColumnsFit) {
  Create(u"T", LongColumns(112));
  EXPECT_EQ(115u, ColumnsOf(u"T").size());
  ExpectKernelAgrees(u"T");
}

TEST_F(CreateTableTest, ListOf113_IsRefusedUnread) {
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT,
                         u"Number of columns for table T exceeds the limit of 112.",
                         [&] { return ByNames(u"T", LongColumns(113)); });
  ExpectRefusedUntouched(
      SAGLEME_BAD_ARGUMENT, u"Number of columns for table T exceeds the limit of 112.", [&] {
        std::vector<LORV_COLUMN_DEFINITION> columns(113, {{1, 1}, 0, u"c"});
        return lorv_create_table(context(), u"T", 0, 0, columns.data(), nullptr, nullptr);
      });
}

TEST_F(CreateTableTest, BaseOfTenColumns_Takes105More) {
  Create(u"Base", LongColumns(7));
  Columns columns;
  for (int i = 7; i < 112; ++i) columns.Long(ColumnName(i));
  Columns more = columns;
  more.Long(u"last");
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT,
                         u"Number of columns for table T exceeds the limit of 112.",
                         [&] { return ByNames(u"T", more, u"Base"); });
  Create(u"T", columns, u"Base");
  EXPECT_EQ(115u, ColumnsOf(u"T").size());
}

TEST_F(CreateTableTest, Arguments_AreCheckedFirst) {
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument name is null.",
                         [&] { return ByNames(nullptr, {}); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument name is empty.",
                         [&] { return ByNames(u"", {}); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument base_table_name is empty.",
                         [&] { return ByNames(u"T", {}, u""); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_definitions is null.", [&] {
    return lorv_create_table_by_names(context(), u"T", u"", nullptr, nullptr);
  });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument column_definitions is null.", [&] {
    return lorv_create_table(context(), u"T", 0, 0, nullptr, nullptr, nullptr);
  });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument name is empty.", [&] {
    return lorv_create_table(context(), u"", 0, 0, nullptr, nullptr, nullptr);
  });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument name is null.", [&] {
    return lorv_create_table_high_check_types(context(), nullptr, nullptr, nullptr, nullptr);
  });
}

TEST_F(CreateTableTest, UnknownBase_IsRefused) {
  ExpectRefusedUntouched(SAGLEME_BASE_NOT_FOUND, u"Base table Nobody not found.",
                         [&] { return ByNames(u"T", {}, u"Nobody"); });
}

// The base is looked up before the table.
TEST_F(CreateTableTest, UnknownBaseOfAnExistingTable_IsRefused) {
  Create(u"T");
  ExpectRefusedUntouched(SAGLEME_BASE_NOT_FOUND, u"Base table Nobody not found.",
                         [&] { return ByNames(u"T", {}, u"Nobody"); });
}

TEST_F(CreateTableTest, StrictFailure_LeavesTheViewRowToTheTransaction) {
  ExpectRefused(SAGLEME_TARGET_NOT_FOUND, u"Reference type Later not found for column r.",
                lorv_create_table_high_check_types(context(), u"T", nullptr,
                                                   Columns().Ref(u"r", u"Later"), nullptr));
  EXPECT_FALSE(View(u"T").is_null());
  EXPECT_EQ(0u, metalayer::GetULong(View(u"T"), RawView::kLayoutHandle));
  Rollback();
  Begin();
  EXPECT_TRUE(View(u"T").is_null());
}

TEST_F(CreateTableTest, StrictWithKnownTarget_Succeeds) {
  Create(u"Target");
  uint16_t layout = 0;
  ExpectOk(lorv_create_table_high_check_types(context(), u"T", nullptr,
                                              Columns().Ref(u"r", u"Target"), &layout));
  EXPECT_EQ(LayoutOfTable(u"T"), layout);
  EXPECT_EQ(WithRootColumns({"3 r reference(Target) null"}), ColumnsOf(u"T"));
}

TEST_F(CreateTableTest, ByReference_HandsBackTheNewRow) {
  LS_OBJ_REF const string = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(1);
  Create(u"Base", Columns().Long(u"a"));
  RawView const base = View(u"Base");
  LORV_COLUMN_DEFINITION const columns[] = {
      {string, 1, u"s"}, {base, 1, u"r"}, {db_util::null_obj_ref, 0, nullptr}};
  uint64_t oid = 0;
  uint64_t addr = 0;
  uint64_t const generation = Generation();
  ExpectOk(lorv_create_table(context(), u"T", base.oid, base.addr, columns, &oid, &addr));
  EXPECT_EQ(generation + 1, Generation());
  EXPECT_EQ(View(u"T").oid, oid);
  EXPECT_EQ("T", TextOf({oid, addr}, RawView::kFullName));
  EXPECT_EQ(WithRootColumns({"3 a long inherited", "4 s string null", "5 r reference(Base) null"}),
            ColumnsOf(u"T"));
  ExpectKernelAgrees(u"T");
}

TEST_F(CreateTableTest, ByReference_TypeThatIsGone_IsRefused) {
  LS_OBJ_REF const gone = metalayer::DbPrimitiveType::Insert(u"mine", 11);
  metalayer::DeleteRow(gone);
  LORV_COLUMN_DEFINITION const columns[] = {{gone, 0, u"c"}, {db_util::null_obj_ref, 0, nullptr}};
  uint64_t oid = 7;
  uint64_t addr = 8;
  ExpectRefused(SAGLEME_TYPE_IS_GONE, u"",
                lorv_create_table(context(), u"T", 0, 0, columns, &oid, &addr));
  EXPECT_EQ(7u, oid);
  EXPECT_EQ(8u, addr);
}

TEST_F(CreateTableTest, ByReference_TakesNullOutputs) {
  LORV_COLUMN_DEFINITION const end[] = {{db_util::null_obj_ref, 0, nullptr}};
  ExpectOk(lorv_create_table(context(), u"T", 0, 0, end, nullptr, nullptr));
  EXPECT_EQ(View(kRootTable).oid, View(u"T").get_ref(RawView::kInherits).oid);
}

TEST_F(CreateTableTest, BaseThatIsNoTable_EndsTheProcess) {
  LORV_COLUMN_DEFINITION const end[] = {{db_util::null_obj_ref, 0, nullptr}};
  LS_OBJ_REF const no_table = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(1);
  EXPECT_EXIT(
      lorv_create_table(context(), u"T", no_table.oid, no_table.addr, end, nullptr, nullptr),
      KilledBySignal(SIGABRT), "");
}

TEST_F(CreateTableTest, BaseWithoutSetSpecifier_EndsTheProcess) {
  Create(u"Base");
  metalayer::DeleteRow(SetSpecifier::ByType(View(u"Base")));
  EXPECT_EXIT(ByNames(u"T", {}, u"Base"), KilledBySignal(SIGABRT), "");
}

TEST_F(CreateTableTest, RolledBack_LeavesNothingAndCanBeRepeated) {
  Commit();
  Begin();
  std::string const before = DumpDatabase();
  Create(u"T", Columns().Long(u"a"));
  Rollback();
  Begin();
  EXPECT_EQ(before, DumpDatabase());
  Create(u"T", Columns().Double(u"b"));
  ExpectKernelAgrees(u"T");
}

TEST_F(CreateTableTest, SpecifierOfADroppedChild_IsNotUsedAgain) {
  Create(u"Parent");
  Create(u"First", {}, u"Parent");
  std::string const dropped = SetspecOfTable(View(u"First"));
  ExpectOk(lorv_drop_table_by_name(context(), u"First", false, false));
  Create(u"First", {}, u"Parent");
  EXPECT_NE(dropped, SetspecOfTable(View(u"First")));
}

TEST_F(CreateTableTest, ByReference_LimitCountsTheBasesColumns) {
  Create(u"Base", LongColumns(100));
  RawView const base = View(u"Base");
  LS_OBJ_REF const number = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(3);
  std::vector<LORV_COLUMN_DEFINITION> columns;
  for (int i = 100; i < 113; ++i) columns.push_back({number, 0, ColumnName(i)});
  columns.push_back({db_util::null_obj_ref, 0, nullptr});
  auto const create = [&] {
    return lorv_create_table(context(), u"T", base.oid, base.addr, columns.data(), nullptr,
                             nullptr);
  };
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT,
                         u"Number of columns for table T exceeds the limit of 112.", create);
  columns.erase(columns.begin());
  ExpectOk(create());
  EXPECT_EQ(115u, ColumnsOf(u"T").size());
}

TEST_F(CreateTableTest, ByReference_RefusedCallLeavesTheOutputsAlone) {
  Create(u"Other", Columns().Long(u"a"));
  CreateIndex(u"I", u"Other", {u"a"});
  metalayer::Index const no_type = metalayer::Index::ByIndexPK(u"I");
  LORV_COLUMN_DEFINITION const columns[] = {{no_type, 1, u"r"},
                                            {db_util::null_obj_ref, 0, nullptr}};
  uint64_t oid = 77;
  uint64_t addr = 78;
  ExpectRefused(SAGLEME_TARGET_NOT_FOUND, u"Refernce type for column r is not one of RawView.",
                lorv_create_table(context(), u"T", 0, 0, columns, &oid, &addr));
  EXPECT_EQ(77u, oid);
  EXPECT_EQ(78u, addr);
  EXPECT_FALSE(View(u"T").is_null());
}

// Whether the type must be nullable is asked of definitions by name alone.
TEST_F(CreateTableTest, ByReference_NullabilityIsTheCallers) {
  LS_OBJ_REF const string = metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(1);
  LORV_COLUMN_DEFINITION const columns[] = {{string, 0, u"s"}, {db_util::null_obj_ref, 0, nullptr}};
  ExpectOk(lorv_create_table(context(), u"T", 0, 0, columns, nullptr, nullptr));
  EXPECT_EQ(WithRootColumns({"3 s string"}), ColumnsOf(u"T"));
  ExpectRefused(SAGLEME_COLUMN_NOT_NULLABLE, u"Column s must be nullable.",
                ByNames(u"U", Columns().Add(SAGLEME_TYPE_TEXT, u"s", false)));
}

// Columns are written without being looked up: a name that fits no key makes one that no call by
// name reaches.
TEST_F(CreateTableTest, ColumnNameTooLongForAKey_CannotBeAskedForLater) {
  std::u16string const name(5000, u'x');
  Create(u"T", Columns().Long(u"a").Long(name.c_str()));
  EXPECT_EQ(5u, ColumnsOf(u"T").size());
  PropertyAccessInfo* handle = nullptr;
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"",
                lorv_crud_GetPropertyHandle(context(), u"T", name.c_str(), &handle));
  ExpectOk(lorv_drop_table_by_name(context(), u"T", false, false));
}

TEST_F(CreateTableTest, SameColumnTwice_IsTheKernelsRefusal) {
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, ByNames(u"T", Columns().Long(u"a").String(u"a")));
}

TEST_F(CreateTableTest, ColumnOfTheBasesName_IsTheKernelsRefusal) {
  Create(u"Base", Columns().Long(u"a"));
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, ByNames(u"T", Columns().Long(u"a"), u"Base"));
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, ByNames(u"U", Columns().Long(u"__id")));
}

TEST_F(CreateTableTest, NameThatDiffersByADotAtItsEnd_IsTheKernelsRefusal) {
  Create(u"T");
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, ByNames(u"T.", {}));
}

}  // namespace
}  // namespace sagleme_test
