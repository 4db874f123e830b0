// A table with a thousand children and a chain of a hundred tables: every change goes through, and
// costs the sum of what each table costs.

#include "model_costs/costs.h"

namespace sagleme_costs {

namespace {

constexpr std::size_t kChildren = 1000;
constexpr std::size_t kDepth = 100;

class WideTreeTest : public CostTest {
 protected:
  void SetUp() override {
    CostTest::SetUp();
    Create("Root", "", 3);
    for (std::size_t i = 0; i < kChildren; ++i) Create(Child(i), "Root", 2);
    Commit();
    Begin();
  }

  static std::string Child(std::size_t i) { return "Child" + std::to_string(i); }

  static Cost Times(Cost const& each) {
    return {kChildren * each.calls, kChildren * each.inserted, kChildren * each.deleted,
            kChildren * each.layouts};
  }

  void ExpectColumnsEverywhere(std::size_t of_root) {
    EXPECT_EQ(of_root, ColumnsOf("Root"));
    for (std::size_t i = 0; i < kChildren; ++i) ASSERT_EQ(of_root + 2, ColumnsOf(Child(i)));
  }
};

TEST_F(WideTreeTest, AddDropAndRename_CostTheSumOfAllTables) {
  std::uint64_t const before = Generation();
  Cost add = AddColumnsTop(3, 1, Pending::kNothing);
  add += Times(AddColumnsBelow(2, 2, 1, Pending::kNothing));
  EXPECT_EQ(add, Add("Root", {"x"}));
  EXPECT_EQ(before + 1, Generation());
  ExpectColumnsEverywhere(7);

  Cost rename = RenameColumnTop();
  rename += Times(RenameColumnBelow());
  EXPECT_EQ(rename, Rename("Root", "x", "y"));
  EXPECT_EQ(before + 2, Generation());

  Cost drop = DropColumnTop(4, 1, Pending::kRequest);
  drop += Times(DropColumnBelow(2, 3, Pending::kRequest));
  EXPECT_EQ(drop, Drop("Root", "Root_2"));
  EXPECT_EQ(before + 3 + kChildren, Generation());
  ExpectColumnsEverywhere(6);
}

TEST_F(WideTreeTest, DropWithChildren_CostsTheSumOfAllTables) {
  std::uint64_t const before = Generation();
  Cost cost = DropTableCall();
  cost += DropTableEach(6, kChildren, Pending::kNothing, false);
  cost += Times(DropTableEach(8, 0, Pending::kNothing, false));
  EXPECT_EQ(cost, DropTable("Root", true, false));
  EXPECT_EQ(before + 1 + kChildren, Generation());
  Commit();
  Begin();
  EXPECT_TRUE(metalayer::RawView::ByRawViewPK2fullname(u"Root").is_null());
  EXPECT_TRUE(metalayer::RawView::ByRawViewPK2fullname(u"Child999").is_null());
}

TEST_F(WideTreeTest, Cascade_CostsTheSumOfAllTables) {
  std::uint64_t const before = Generation();
  Cost cost = DropCascadeCall();
  cost += DropCascadeEach(6, kChildren);
  cost += Times(DropCascadeEach(8, 0));
  EXPECT_EQ(cost, DropCascade("Root"));
  EXPECT_EQ(before + 1, Generation());
  Commit();
  Begin();
  EXPECT_TRUE(metalayer::RawView::ByRawViewPK2fullname(u"Root").is_null());
  EXPECT_TRUE(metalayer::RawView::ByRawViewPK2fullname(u"Child0").is_null());
}

// Level n has the three columns of the root of all tables and those of the levels 0 to n.
class DeepTreeTest : public CostTest {
 protected:
  void SetUp() override {
    CostTest::SetUp();
    for (std::size_t i = 0; i < kDepth; ++i) Create(Level(i), i == 0 ? "" : Level(i - 1), 1);
    Commit();
    Begin();
  }

  static std::string Level(std::size_t i) { return "Level" + std::to_string(i); }
  static std::size_t ColumnsAt(std::size_t level) { return 4 + level; }
};

TEST_F(DeepTreeTest, AddDropAndRename_CostTheSumOfAllTables) {
  Cost add = AddColumnsTop(1, 2, Pending::kNothing);
  Cost drop = DropColumnTop(3, 2, Pending::kRequest);
  Cost rename = RenameColumnTop();
  for (std::size_t i = 1; i < kDepth; ++i) {
    add += AddColumnsBelow(1, i, 2, Pending::kNothing);
    drop += DropColumnBelow(1, 2 + i, Pending::kRequest);
    rename += RenameColumnBelow();
  }
  EXPECT_EQ(add, Add("Level0", {"x", "y"}));
  EXPECT_EQ(rename, Rename("Level0", "Level0_0", "z"));
  EXPECT_EQ(drop, Drop("Level0", "z"));
  EXPECT_EQ(ColumnsAt(kDepth - 1) + 1, ColumnsOf(Level(kDepth - 1)));
}

TEST_F(DeepTreeTest, Drops_CostTheSumOfAllTables) {
  Cost cascade = DropCascadeCall();
  Cost plain = DropTableCall();
  for (std::size_t i = 0; i < kDepth; ++i) {
    std::size_t const children = i + 1 < kDepth ? 1 : 0;
    cascade += DropCascadeEach(ColumnsAt(i), children);
    plain += DropTableEach(ColumnsAt(i), children, Pending::kNothing, false);
  }
  EXPECT_EQ(cascade, DropCascade("Level0"));
  Rollback();
  Begin();
  EXPECT_EQ(plain, DropTable("Level0", true, false));
  EXPECT_TRUE(metalayer::RawView::ByRawViewPK2fullname(u"Level99").is_null());
}

// Two layouts a cycle, and the same calls in the last one as in the first.
TEST_F(CostTest, TwoThousandCyclesOfAddAndDrop_CostTheSame) {
  constexpr int kCycles = 2000;
  Create("A", "", 2);
  Add("A", {"x"});
  Drop("A", "x");
  int const first_layout = LayoutOf("A");
  for (int i = 0; i < kCycles; ++i) {
    ASSERT_EQ(AddColumnsTop(2, 1, Pending::kRequest), Add("A", {"x"})) << "cycle " << i;
    ASSERT_EQ(DropColumnTop(3, 0, Pending::kRequest), Drop("A", "x")) << "cycle " << i;
    if (i % 100 != 99) continue;
    Commit();
    Begin();
  }
  EXPECT_EQ(first_layout + 2 * kCycles, LayoutOf("A"));
}

}  // namespace

}  // namespace sagleme_costs
