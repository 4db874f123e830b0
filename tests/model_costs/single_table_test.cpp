// What each schema change costs on few tables, to the call.

#include "model_costs/costs.h"

namespace sagleme_costs {

namespace {

using sagleme_test::Columns;

TEST_F(CostTest, CreateTable_GrowsWithInheritedAndOwnColumns) {
  for (std::size_t own : {0u, 1u, 7u}) {
    std::string const name = "T" + std::to_string(own);
    std::vector<std::u16string> names;
    for (std::size_t i = 0; i < own; ++i) names.push_back(u"c" + std::u16string(i + 1, u'x'));
    Columns columns;
    for (std::u16string const& column : names) columns.Long(column.c_str());
    Cost const cost = CostOf([&] {
      return lorv_create_table_by_names(context(), sagleme_test::Utf16(name).c_str(),
                                        u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts",
                                        columns, nullptr);
    });
    EXPECT_EQ(CreateTable(3, own), cost) << own << " own columns";
  }
}

TEST_F(CostTest, CreateTable_UnderATable_CopiesItsColumns) {
  Create("Base", "", 9);
  Columns columns;
  columns.Long(u"a").Long(u"b");
  Cost const cost = CostOf(
      [&] { return lorv_create_table_by_names(context(), u"Child", u"Base", columns, nullptr); });
  EXPECT_EQ(CreateTable(12, 2), cost);
}

TEST_F(CostTest, AddColumns_GrowsWithOwnAndNewColumns) {
  Create("A", "", 1);
  Create("B", "", 6);
  EXPECT_EQ(AddColumnsTop(1, 1, Pending::kNothing), Add("A", {"x"}));
  EXPECT_EQ(AddColumnsTop(6, 3, Pending::kNothing), Add("B", {"x", "y", "z"}));
  EXPECT_EQ(AddColumnsTop(2, 1, Pending::kRequest), Add("A", {"y"}));
}

TEST_F(CostTest, DropColumn_GrowsWithColumnsBehindIt) {
  Create("A", "", 1);
  Create("B", "", 6);
  EXPECT_EQ(DropColumnTop(1, 0, Pending::kNothing), Drop("A", "A_0"));
  EXPECT_EQ(DropColumnTop(6, 4, Pending::kNothing), Drop("B", "B_1"));
  EXPECT_EQ(DropColumnTop(5, 4, Pending::kRequest), Drop("B", "B_0"));
}

TEST_F(CostTest, RenameTable_GrowsWithReferringColumns) {
  Create("Target", "", 1);
  Create("Other", "", 1);
  Columns columns;
  columns.Ref(u"one", u"Target").Ref(u"two", u"Target").Ref(u"three", u"Other");
  ExpectOk(lorv_create_table_by_names(context(), u"Source", nullptr, columns, nullptr));
  ExpectOk(lorv_create_table_by_names(context(), u"Child", u"Source", Columns(), nullptr));
  EXPECT_EQ(RenameTable(4),
            CostOf([&] { return lorv_rename_table(context(), u"Target", u"Renamed"); }));
  EXPECT_EQ(RenameTable(0),
            CostOf([&] { return lorv_rename_table(context(), u"Child", u"Grown"); }));
}

TEST_F(CostTest, DropTable_GrowsWithColumns) {
  Create("A", "", 1);
  Create("B", "", 6);
  Create("C", "", 2);
  // Whether there are children is asked in either case.
  Cost plain = DropTableCall();
  plain += DropTableEach(4, 0, Pending::kNothing, false);
  EXPECT_EQ(plain, DropTable("A", false, false));
  Cost with_children = DropTableCall();
  with_children += DropTableEach(9, 0, Pending::kNothing, false);
  EXPECT_EQ(with_children, DropTable("B", true, false));
  Add("C", {"x"});
  Cost forced = DropTableCall();
  forced += DropTableEach(6, 0, Pending::kRequest, true);
  EXPECT_EQ(forced, DropTable("C", true, true));
}

TEST_F(CostTest, Indexes_GrowWithTheirColumns) {
  Create("A", "", 4);
  LORV_INDEXED_COLUMN const one[] = {{u"A_0", 1}, {nullptr, 0}};
  LORV_INDEXED_COLUMN const three[] = {{u"A_0", 1}, {u"A_1", 0}, {u"A_3", 1}, {nullptr, 0}};
  EXPECT_EQ(CreateIndex(1), CostOf([&] {
              return lorv_create_index_by_names(context(), u"One", u"A", one, false);
            }));
  EXPECT_EQ(CreateIndex(3), CostOf([&] {
              return lorv_create_index_by_names(context(), u"Three", u"A", three, true);
            }));
  EXPECT_EQ(DropIndex(1), CostOf([&] { return lorv_drop_index_by_name(context(), u"One"); }));
  EXPECT_EQ(DropIndex(3), CostOf([&] { return lorv_drop_index_by_name(context(), u"Three"); }));
}

TEST_F(CostTest, Indexes_MakeDropsOfTheirTableAndItsColumnsDearer) {
  Create("A", "", 3);
  LORV_INDEXED_COLUMN const one[] = {{u"A_0", 1}, {nullptr, 0}};
  LORV_INDEXED_COLUMN const two[] = {{u"A_0", 1}, {u"A_1", 0}, {nullptr, 0}};
  ExpectOk(lorv_create_index_by_names(context(), u"One", u"A", one, false));
  ExpectOk(lorv_create_index_by_names(context(), u"Two", u"A", two, false));
  Cost column = DropColumnTop(3, 0, Pending::kNothing);
  column.calls += 2 * 4;
  EXPECT_EQ(column, Drop("A", "A_2"));
  Cost table = DropTableCall();
  table += DropTableEach(5, 0, Pending::kRequest, false);
  table += {9 + 2 + 9 + 4, 0, 2 + 3, 0};
  EXPECT_EQ(table, DropTable("A", false, false));
}

TEST_F(CostTest, CreateTable_UnderAKnownNameAndWithoutBase_NeedsNoTokenAndNoLookUp) {
  Columns columns;
  columns.Long(u"a");
  ExpectOk(lorv_create_table_by_names(context(), u"A", nullptr, columns, nullptr));
  DropTable("A", false, false);
  Cost expected = CreateTable(3, 1);
  expected.calls -= 7 + 3;
  expected.inserted -= 1;
  EXPECT_EQ(expected, CostOf([&] {
              return lorv_create_table_by_names(context(), u"A", nullptr, columns, nullptr);
            }));
}

TEST_F(CostTest, ReferenceColumns_CostACallMoreInEachTable) {
  Create("Target", "", 0);
  Create("A", "", 2);
  Create("B", "A", 1);
  Columns reference;
  reference.Ref(u"next", u"Target");
  Cost add = AddColumnsTop(2, 1, Pending::kNothing);
  add += AddColumnsBelow(1, 1, 1, Pending::kNothing);
  add.calls += 2;
  EXPECT_EQ(add, CostOf([&] {
              return lorv_alter_table_add_columns(context(), u"A", reference, nullptr);
            }));
  Cost create = CreateTable(6, 0);
  create.calls += 3;
  EXPECT_EQ(create, CostOf([&] {
              return lorv_create_table_by_names(context(), u"C", u"A", Columns(), nullptr);
            }));
}

// The objects of a table are no part of any of these sums, but for the index over them.
TEST_F(CostTest, SchemaChanges_DoNotTouchObjects) {
  Create("A", "", 2);
  CreateInfo* handle = nullptr;
  ExpectOk(lorv_crud_GetCreateHandle(context(), u"A", &handle));
  for (int i = 0; i < 500; ++i) {
    uint64_t oid = 0;
    uint64_t addr = 0;
    ExpectOk(lorv_crud_CreateObject(context(), handle, &oid, &addr));
  }
  EXPECT_EQ(AddColumnsTop(2, 1, Pending::kNothing), Add("A", {"x"}));
  EXPECT_EQ(RenameColumnTop(), Rename("A", "x", "y"));
  EXPECT_EQ(DropColumnTop(3, 0, Pending::kRequest), Drop("A", "y"));
  Cost drop = DropTableCall();
  drop += DropTableEach(5, 0, Pending::kRequest, false);
  EXPECT_EQ(drop, DropTable("A", true, false));
}

}  // namespace

}  // namespace sagleme_costs
