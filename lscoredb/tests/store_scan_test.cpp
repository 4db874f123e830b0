// Scans over a snapshot, which step through pages by themselves, beside scans over a batch, which
// the store's library makes.

#include <gtest/gtest.h>

#include <random>

#include "bytes.h"
#include "open_store.h"

namespace lscore {
namespace {

std::string KeyOf(std::uint32_t number) {
  std::string key;
  AppendBig(key, number);
  return key + std::string(number % 37, 'k');
}

// Values of all sizes: none, small ones, and such as lie on pages of their own.
std::string ValueOf(std::uint32_t number) {
  std::size_t const size = number % 23 == 0 ? 9000 + number : number % 200;
  return std::string(size, static_cast<char>('a' + number % 26));
}

class StoreScanTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  StoreScanTest() {
    StoreOptions options;
    options.sync = false;
    store_ = OpenStore(nullptr, options);
    std::unique_ptr<Batch> const batch = store_->BeginBatch();
    for (std::uint32_t i = 0; i < GetParam(); ++i) {
      batch->Put(Tree::kOverflow, KeyOf(i), ValueOf(i));
    }
    batch->Put(Tree::kMeta, "state", "one");
    batch->Commit();
    snapshot_ = store_->Begin();
  }
  ~StoreScanTest() override { store_->End(std::move(snapshot_)); }

  std::unique_ptr<Store> store_;
  std::unique_ptr<Snapshot> snapshot_;
};

TEST_P(StoreScanTest, Scan_GivesEveryEntryOnceInBothDirections) {
  Cursor cursor;
  cursor.Open(*snapshot_, Tree::kOverflow);
  std::uint32_t met = 0;
  for (bool on = cursor.First(); on; on = cursor.Next(), ++met) {
    ASSERT_EQ(KeyOf(met), cursor.key());
    ASSERT_EQ(ValueOf(met), cursor.value());
  }
  EXPECT_EQ(GetParam(), met);
  for (bool on = cursor.Last(); on; on = cursor.Previous()) {
    ASSERT_EQ(KeyOf(--met), cursor.key());
    ASSERT_EQ(ValueOf(met), cursor.value());
  }
  EXPECT_EQ(0u, met);
}

// Turns, jumps and steps across both ends.
TEST_P(StoreScanTest, Scan_AgreesWithTheStoresOwnCursor) {
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  Cursor own;
  own.Open(*snapshot_, Tree::kOverflow);
  Cursor stores;
  stores.Open(*batch, Tree::kOverflow);
  std::mt19937 random(5);
  bool on = own.First();
  ASSERT_EQ(stores.First(), on);
  for (int step = 0; step < 20000; ++step) {
    auto const choice = static_cast<std::uint32_t>(random() % 40);
    if (!on || choice == 0) {
      std::string const key = KeyOf(static_cast<std::uint32_t>(random() % (GetParam() + 1)));
      on = own.Seek(key);
      ASSERT_EQ(stores.Seek(key), on);
    } else {
      bool const forward = (step / 50) % 2 == 0 ? choice < 30 : choice < 10;
      on = forward ? own.Next() : own.Previous();
      ASSERT_EQ(forward ? stores.Next() : stores.Previous(), on);
    }
    if (!on) continue;
    ASSERT_EQ(stores.key(), own.key());
    ASSERT_EQ(stores.value(), own.value());
  }
  stores.Close();
}

INSTANTIATE_TEST_SUITE_P(Sizes, StoreScanTest, testing::Values(1u, 7u, 300u, 3000u));

}  // namespace
}  // namespace lscore
