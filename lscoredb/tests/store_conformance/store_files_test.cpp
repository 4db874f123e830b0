// What a store that outlives its process must do besides.

#include <cstdlib>
#include <filesystem>

#include "copy_store.h"
#include "status.h"
#include "stores.h"

namespace lscore {
namespace {

class StoreFilesTest : public testing::TestWithParam<TestedFile> {
 protected:
  StoreFilesTest() {
    std::string path = testing::TempDir() + "/store-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    directory_ = path;
    options_.sync = false;
  }
  ~StoreFilesTest() override { std::filesystem::remove_all(directory_); }

  std::string Make(char const* name) const {
    std::string const path = directory_ + "/" + name;
    std::filesystem::create_directory(path);
    return path;
  }
  std::unique_ptr<Store> Open(std::string const& path) const {
    return GetParam().open(path.c_str(), options_);
  }

  std::string directory_;
  StoreOptions options_;
};

TEST_P(StoreFilesTest, ReopenedStore_HoldsWhatWasCommittedAndCountsOn) {
  std::string const path = Make("store");
  CommitId last{0};
  {
    std::unique_ptr<Store> const store = Open(path);
    Fill(*store, Tree::kIndex, {{"a", "1"}, {"b", std::string(100000, 'b')}});
    std::unique_ptr<Batch> const batch = store->BeginBatch();
    batch->Put(Tree::kIndex, "a", "not committed");
    last = store->Statistics().last_commit;
  }
  std::unique_ptr<Store> const store = Open(path);
  Reading const now(*store);
  EXPECT_EQ("1", ValueIn(*now, Tree::kIndex, "a"));
  EXPECT_EQ(std::string(100000, 'b'), ValueIn(*now, Tree::kIndex, "b"));
  EXPECT_EQ(last, now->id());
}

TEST_P(StoreFilesTest, Copy_HoldsTheStateAndCountsOn) {
  std::string const path = Make("store");
  std::string const copy_path = Make("copy");
  std::unique_ptr<Store> const store = Open(path);
  for (Tree const tree : {Tree::kOverflow, Tree::kIndex, Tree::kDefinitions, Tree::kMeta}) {
    for (int i = 0; i < 10; ++i) Fill(*store, tree, {{"k" + std::to_string(i), "v"}});
  }
  CopyStore(*store, copy_path.c_str());
  std::unique_ptr<Store> const copy = Open(copy_path);
  Reading const original(*store);
  Reading const copied(*copy);
  for (Tree const tree : {Tree::kOverflow, Tree::kIndex, Tree::kDefinitions}) {
    EXPECT_EQ(AllOf(*original, tree), AllOf(*copied, tree));
    EXPECT_EQ(10u, AllOf(*copied, tree).size());
  }
  EXPECT_EQ("v", ValueIn(*copied, Tree::kMeta, "k9"));
  EXPECT_GT(copied->id(), original->id());
}

TEST_P(StoreFilesTest, Damage_IsRefusedByVerifyAndAtOpening) {
  std::string const path = Make("store");
  {
    std::unique_ptr<Store> const store = Open(path);
    for (int i = 0; i < 200; ++i) Fill(*store, Tree::kIndex, {{"k" + std::to_string(i), "v"}});
    EXPECT_NO_THROW(store->Verify());
  }
  GetParam().damage(path);
  options_.verify = true;
  EXPECT_EQ(LSCOREDB_DAMAGED, Guarded([&] {
              Open(path);
              return LORV_STATUS_OK;
            }));
}

TEST_P(StoreFilesTest, MissingDirectory_IsRefused) {
  EXPECT_EQ(LSCOREDB_CANNOT_OPEN, Guarded([&] {
              Open(directory_ + "/missing");
              return LORV_STATUS_OK;
            }));
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreFilesTest, testing::ValuesIn(StoresInFiles()),
                         [](auto const& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace lscore
