// Entries that are taken from the ends of a tree again and again, in every store.

#include <deque>
#include <random>

#include "bytes.h"
#include "stores.h"

namespace lscore {
namespace {

constexpr Tree kTree = Tree::kIndex;

std::string Key(std::uint32_t number) {
  std::string key = "k";
  AppendBig(key, number);
  return key;
}

class StoreQueueTest : public testing::TestWithParam<TestedStore> {
 protected:
  StoreQueueTest() {
    StoreOptions options;
    options.sync = false;
    options.max_readers = 64;
    store_ = GetParam().make(options);
  }

  std::unique_ptr<Store> store_;
};

// As a queue does it: the ends of what is left lie behind ever more deleted entries.
TEST_P(StoreQueueTest, EntriesTakenFromBothEnds_AgreeWithAModel) {
  std::map<std::string, std::string> model;
  for (std::uint32_t i = 0; i < 600; ++i) model[Key(i)] = "entry";
  Fill(*store_, kTree, model);
  std::mt19937 random(3);
  std::deque<std::pair<std::unique_ptr<Reading>, Entries>> older;
  for (int round = 0; round < 500; ++round) {
    if (round % 50 == 10) {
      older.emplace_back(std::make_unique<Reading>(*store_), Entries(model.begin(), model.end()));
    }
    if (older.size() == 3) {
      EXPECT_EQ(older.front().second, AllOf(**older.front().first, kTree));
      older.pop_front();
    }
    std::string taken;
    {
      Reading const now(*store_);
      Cursor cursor;
      cursor.Open(*now, kTree);
      bool const first = random() % 3 != 0;
      ASSERT_TRUE(first ? cursor.First() : cursor.Last());
      taken = cursor.key();
      ASSERT_EQ(first ? model.begin()->first : model.rbegin()->first, taken);
      cursor.Close();
    }
    std::string const added = Key(static_cast<std::uint32_t>(random() % 600));
    bool const adds = random() % 20 == 0;
    std::unique_ptr<Batch> const batch = store_->BeginBatch();
    batch->Delete(kTree, taken);
    if (adds) batch->Put(kTree, added, "added");
    batch->Commit();
    model.erase(taken);
    if (adds) model[added] = "added";
    if (round % 25 != 0) continue;
    Reading const now(*store_);
    EXPECT_EQ(Entries(model.begin(), model.end()), AllOf(*now, kTree));
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreQueueTest, testing::ValuesIn(NewStores()),
                         [](auto const& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace lscore
