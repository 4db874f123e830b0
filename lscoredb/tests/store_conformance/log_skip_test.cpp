// Steps over many entries at once in a store with a log: as many as single steps meet.

#include <filesystem>
#include <map>
#include <random>

#include "log_of_tests.h"
#include "stores.h"

namespace lscore {
namespace {

constexpr Tree kTree = Tree::kIndex;

class LogSkipTest : public testing::Test {
 protected:
  static constexpr std::size_t kKeys = 20000;  // that there may be

  LogSkipTest() {
    std::string path = testing::TempDir() + "/skip-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no directory for the test");
    directory_ = path;
    options_.sync = false;
    options_.log_limit = std::uint64_t{40} << 10;
    store_ = OpenLogStore(directory_, options_);
  }
  ~LogSkipTest() override {
    store_.reset();
    std::filesystem::remove_all(directory_);
  }

  static std::string KeyOf(std::size_t number) { return "key" + std::to_string(kKeys + number); }

  // Every third change removes a key.
  void Change(std::size_t changes) {
    std::unique_ptr<Batch> const batch = store_->BeginBatch();
    for (std::size_t i = 0; i < changes; ++i) {
      std::string const key = KeyOf(random_() % kKeys);
      if (i % 3 == 2) {
        batch->Delete(kTree, key);
        model_.erase(key);
      } else {
        std::string const value(random_() % 40, 'v');
        batch->Put(kTree, key, value);
        model_[key] = value;
      }
    }
    batch->Commit();
  }
  void RemoveBetween(std::size_t first, std::size_t last) {
    std::unique_ptr<Batch> const batch = store_->BeginBatch();
    for (std::size_t i = first; i < last; ++i) {
      batch->Delete(kTree, KeyOf(i));
      model_.erase(KeyOf(i));
    }
    batch->Commit();
  }

  // Walks through all keys by steps and leaps, and turns now and then.
  void Walk(View const& view) {
    std::vector<std::string> keys;
    for (auto const& [key, value] : model_) keys.push_back(key);
    Cursor cursor;
    cursor.Open(view, kTree);
    bool forward = true;
    std::size_t at = random_() % keys.size();
    ASSERT_TRUE(cursor.Seek(keys[at]));
    for (int moves = 0; moves < 3000; ++moves) {
      ASSERT_EQ(keys[at], cursor.key());
      ASSERT_EQ(model_[keys[at]], cursor.value());
      if (random_() % 50 == 0) forward = !forward;
      std::size_t const ahead = forward ? keys.size() - 1 - at : at;
      std::size_t const most = random_() % 400;
      std::string const& end = keys[random_() % keys.size()];
      auto const within = [&](std::string_view key) { return forward ? key <= end : key >= end; };
      std::size_t steps = 1;
      std::size_t skipped = 0;
      bool on = ahead > 0;
      if (random_() % 3 != 0 && cursor.SkipAhead(forward, most, within, &skipped, &on)) {
        ASSERT_GE(most, skipped);
        ASSERT_GE(ahead, skipped);
        if (skipped > 0) {
          ASSERT_TRUE(within(keys[forward ? at + skipped : at - skipped]));
        }
        steps += skipped;
        ++leaps_;
      } else {
        ASSERT_EQ(on, forward ? cursor.Next() : cursor.Previous());
      }
      ASSERT_EQ(on, steps <= ahead);
      if (on) {
        at = forward ? at + steps : at - steps;
      } else {
        at = random_() % keys.size();
        ASSERT_TRUE(cursor.Seek(keys[at]));
        forward = true;
      }
    }
  }

  std::string directory_;
  StoreOptions options_;
  std::unique_ptr<Store> store_;
  std::map<std::string, std::string> model_;
  std::mt19937 random_{5};
  int leaps_ = 0;
};

// Without upkeep the layer that was frozen last stays beside the active one.
TEST_F(LogSkipTest, LeapsOverLayers_MeetWhatStepsMeet) {
  for (int round = 0; round < 8; ++round) {
    Change(4000);
    store_->Checkpoint();
    for (int commit = 0; commit < 12; ++commit) {
      Change(20 << round);
      Reading const now(*store_);
      Walk(*now);
      if (HasFatalFailure()) return;
    }
  }
  EXPECT_LT(1000, leaps_);
}

TEST_F(LogSkipTest, LeapsOverRemovedRanges_MeetWhatStepsMeet) {
  Change(8000);
  store_->Checkpoint();
  RemoveBetween(1000, 1100);
  RemoveBetween(5000, 8000);
  RemoveBetween(kKeys - 500, kKeys);
  for (int walk = 0; walk < 5; ++walk) {
    Reading const now(*store_);
    Walk(*now);
    if (HasFatalFailure()) return;
    Change(30);
  }
  EXPECT_LT(100, leaps_);
}

}  // namespace
}  // namespace lscore
