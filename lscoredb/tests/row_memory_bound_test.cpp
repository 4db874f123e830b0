// How much memory the table of rows takes, counted where it takes it from: this executable stands
// between the table and the functions that give memory.

#include <gtest/gtest.h>
#include <lscoredb/lscoredb.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "shared_row_cache.h"

namespace lscore {
namespace {

// Blocks taken since the process began, and not given back.
class Taken {
 public:
  void Add(void* block, std::size_t size) {
    std::lock_guard const lock(mutex_);
    sizes_[block] = size;
    now_ += size;
    most_ = std::max(most_, now_);
  }
  void Remove(void* block) {
    std::lock_guard const lock(mutex_);
    auto const found = sizes_.find(block);
    if (found == sizes_.end()) return;
    now_ -= found->second;
    sizes_.erase(found);
  }
  std::size_t now() const { return now_; }
  std::size_t most() const { return most_; }
  void ForgetMost() { most_ = now_; }

 private:
  std::mutex mutex_;
  std::unordered_map<void*, std::size_t> sizes_;
  std::size_t now_ = 0;
  std::size_t most_ = 0;
};

Taken& TheTaken() {
  static auto* const taken = new Taken;  // blocks are given back until the very end
  return *taken;
}

}  // namespace

// The linker calls what the rest of the executable calls by the names behind these.
void* RealAlignedAlloc(std::size_t alignment, std::size_t size) __asm__("__real_aligned_alloc");
void RealFree(void* block) __asm__("__real_free");
void* CountedAlignedAlloc(std::size_t alignment, std::size_t size) __asm__("__wrap_aligned_alloc");
void CountedFree(void* block) __asm__("__wrap_free");

void* CountedAlignedAlloc(std::size_t alignment, std::size_t size) {
  void* const block = RealAlignedAlloc(alignment, size);
  if (block != nullptr) TheTaken().Add(block, size);
  return block;
}

void CountedFree(void* block) {
  if (block != nullptr) TheTaken().Remove(block);
  RealFree(block);
}

namespace {

constexpr std::uint64_t kMemory = 65536;
constexpr std::uint64_t kRowsForAll = 20000;  // far more than there is room for
constexpr std::uint64_t kFirstState = 5;
constexpr std::size_t kLargestRow = 448;
// While transactions last it may be a quarter more, and a row that comes in and those that it
// drives out.
constexpr std::size_t kMost = kMemory + kMemory / 4 + 4 * kLargestRow;

bool ListNone(CommitId, std::vector<ObjectId>*) { return false; }

class RowMemoryBoundTest : public testing::Test {
 protected:
  RowMemoryBoundTest() {
    TheTaken().ForgetMost();
    foreign_commits_.Notice(State(kFirstState), ListNone);
  }

  static CommitId State(std::uint64_t number) { return CommitId{number}; }
  static std::uint64_t ValueOf(std::uint64_t id, std::uint64_t state) { return id * 1000 + state; }
  // Of very different sizes, so that the memory is full before the slots for rows are.
  std::string ImageOf(std::uint64_t id, std::uint64_t state) {
    std::string const filling(id % 300, 'x');
    Cell const cells[] = {{ValueOf(id, state), nullptr, 0, true, false},
                          {0, filling.data(), filling.size(), true, false}};
    return std::string(builder_.Build(ObjectId{id}, layout_, State(state), {}, cells));
  }
  std::uint64_t ValueIn(CachedRow const& row) const {
    return RowImage(row.bytes()).Fixed(layout_, layout_.column(kFirstStoredColumn));
  }
  // As a transaction reads; whether the row was in the table. `stored`: the row in its state.
  bool Read(SharedRowCache::Reader& reader, std::uint64_t id, std::uint64_t state,
            std::string const& stored) {
    CachedRow const* const row = reader.Find(ObjectId{id});
    if (row == nullptr) {
      reader.Keep(ObjectId{id}, layout_, stored);
      return false;
    }
    EXPECT_EQ(ValueOf(id, state), ValueIn(*row));
    return true;
  }
  bool Read(SharedRowCache::Reader& reader, std::uint64_t id, std::uint64_t state) {
    return Read(reader, id, state, ImageOf(id, state));
  }
  // As a commit replaces rows.
  void Replace(std::uint64_t id, std::uint64_t state) {
    CachedRowPtr newer;
    if (table_.Holds(ObjectId{id})) {
      newer = table_.Prepare(ObjectId{id}, layout_, ImageOf(id, state), State(state));
    }
    table_.TakeOut(ObjectId{id}, State(state));
    foreign_commits_.BeginCommit(State(state), ListNone);
    foreign_commits_.EndCommit(State(state), true);
    if (newer != nullptr) table_.PutBack(std::move(newer));
  }

  Layout layout_{LayoutNumber{1},
                 kNoLayout,
                 Token{50},
                 {CommitId{1}, 0},
                 {{Token{100}, LORV_TYPE_LONG, true, true, 0},
                  {Token{101}, LORV_TYPE_BINARY, true, false, 0}}};
  ImageBuilder builder_;
  ForeignCommits foreign_commits_;
  std::size_t const before_ = TheTaken().now();
  SharedRowCache table_{foreign_commits_, kMemory};
};

TEST_F(RowMemoryBoundTest, MillionReadsOfManyRows_StayWithinTheBound) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr int kReads = 200'000;
#else
  constexpr int kReads = 1'000'000;
#endif
  std::vector<std::string> stored;
  for (std::uint64_t id = 0; id < kRowsForAll; ++id) stored.push_back(ImageOf(id, kFirstState));
  std::mt19937 random(3);
  SharedRowCache::Reader reader(table_);
  int found = 0;
  for (int i = 0; i < kReads; ++i) {
    if (i % 1000 == 0) reader.End();
    if (i % 1000 == 0) reader.Begin(State(kFirstState), true);
    // Half of the reads are of a few.
    std::uint64_t const id = 1 + random() % (i % 2 == 0 ? 100 : kRowsForAll - 1);
    if (Read(reader, id, kFirstState, stored[id])) ++found;
  }
  EXPECT_LT(kReads / 10, found);
  EXPECT_LT(kMemory / 2, TheTaken().most() - before_);
  EXPECT_GT(kMost, TheTaken().most() - before_);
}

// The old reader has every version of the first state in use.
TEST_F(RowMemoryBoundTest, RowsPinnedByAnOldReader_StopTheFillingUntilItEnds) {
  constexpr std::uint64_t kBusy = 200;
  SharedRowCache::Reader old(table_);
  old.Begin(State(kFirstState), true);
  std::vector<CachedRow const*> pinned;
  for (std::uint64_t id = 1; id <= kBusy; ++id) Read(old, id, kFirstState);
  for (std::uint64_t id = 1; id <= kBusy; ++id) {
    CachedRow const* const row = old.Find(ObjectId{id});
    if (row != nullptr) pinned.push_back(row);
  }
  ASSERT_LT(kBusy / 2, pinned.size());
  std::uint64_t state = kFirstState;
  SharedRowCache::Reader reader(table_);
  for (int round = 0; round < 20; ++round) {
    for (std::uint64_t id = 1; id <= kBusy; ++id) {
      Replace(id, ++state);
      reader.Begin(State(state), true);
      Read(reader, id, state);
      reader.End();
    }
  }
  for (CachedRow const* const row : pinned) {
    EXPECT_EQ(ValueOf(Raw(row->id), kFirstState), ValueIn(*row));
  }
  reader.Begin(State(state), true);
  EXPECT_FALSE(Read(reader, kBusy + 1, kFirstState));
  EXPECT_FALSE(Read(reader, kBusy + 1, kFirstState)) << "no row comes in";
  EXPECT_GT(kMost, TheTaken().most() - before_);
  reader.End();
  old.End();
  reader.Begin(State(state), true);
  EXPECT_FALSE(Read(reader, kBusy + 1, kFirstState));
  EXPECT_TRUE(Read(reader, kBusy + 1, kFirstState));
  EXPECT_GT(kMemory / 2, TheTaken().now() - before_) << "what was pinned is free";
}

// The table and all that left it go with it.
TEST_F(RowMemoryBoundTest, ClosedTable_LeavesNothing) {
  {
    SharedRowCache table(foreign_commits_, kMemory);
    SharedRowCache::Reader reader(table);
    reader.Begin(State(kFirstState), true);
    for (std::uint64_t id = 1; id < 2000; ++id) {
      reader.Keep(ObjectId{id}, layout_, ImageOf(id, kFirstState));
    }
    EXPECT_LT(kMemory / 2, TheTaken().now() - before_);
  }
  EXPECT_EQ(before_, TheTaken().now());
}

}  // namespace
}  // namespace lscore
