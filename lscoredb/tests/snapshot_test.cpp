// Snapshots taken while commits go on. Every commit leaves its own number in the store, so that a
// snapshot's number can be compared with what it shows.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "bytes.h"
#include "open_store.h"

namespace lscore {
namespace {

constexpr std::string_view kKey = "newest";

std::unique_ptr<Store> NewStore() {
  StoreOptions options;
  options.sync = false;
  return OpenStore(nullptr, options);
}

void CommitNumber(Store& store) {
  std::unique_ptr<Batch> const batch = store.BeginBatch();
  std::string number;
  Append(number, Raw(batch->id()));
  batch->Put(Tree::kMeta, kKey, number);
  batch->Commit();
}

std::uint64_t NumberIn(Snapshot const& snapshot) {
  std::string_view number;
  if (!snapshot.Get(Tree::kMeta, kKey, &number)) return 0;
  return Load<std::uint64_t>(number.data());
}

TEST(SnapshotTest, Number_IsThatOfTheStateShown) {
  std::unique_ptr<Store> const store = NewStore();
  CommitNumber(*store);
  std::atomic<int> readers = 3;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50000; ++round) {
        std::unique_ptr<Snapshot> snapshot = store->Begin();
        EXPECT_EQ(Raw(snapshot->id()), NumberIn(*snapshot));
        store->End(std::move(snapshot));
      }
      --readers;
    });
  }
  threads.emplace_back([&] {
    while (readers > 0) CommitNumber(*store);
  });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace lscore
