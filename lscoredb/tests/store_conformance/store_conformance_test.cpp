// What a store must do, by the words of store.h. Every store passes all of it.

#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "bytes.h"
#include "format.h"
#include "status.h"
#include "stores.h"

namespace lscore {
namespace {

constexpr Tree kTree = Tree::kIndex;

std::string Numbered(std::uint32_t number) {
  std::string key = "k";
  AppendBig(key, number);
  return key;
}

// Values of all sizes, such as do not fit into a page among them.
std::string Sized(std::uint32_t number) {
  std::size_t const size = number % 23 == 0 ? 9000 + number : number % 200;
  return std::string(size, static_cast<char>('a' + number % 26));
}

std::map<std::string, std::string> NumberedEntries(std::uint32_t count) {
  std::map<std::string, std::string> entries;
  for (std::uint32_t i = 0; i < count; ++i) entries[Numbered(i)] = Sized(i);
  return entries;
}

class StoreConformanceTest : public testing::TestWithParam<TestedStore> {
 protected:
  StoreConformanceTest() {
    options_.sync = false;
    options_.max_readers = 64;
    store_ = GetParam().make(options_);
  }

  Status CommitStatus(std::function<void(Batch&)> const& work) {
    return Guarded([&] {
      std::unique_ptr<Batch> const batch = store_->BeginBatch();
      work(*batch);
      batch->Commit();
      return LORV_STATUS_OK;
    });
  }

  StoreOptions options_;
  std::unique_ptr<Store> store_;
};

// ---- snapshots ---------------------------------------------------------------------------------

TEST_P(StoreConformanceTest, NewStore_HoldsItsFormatAndNothingElse) {
  Reading const now(*store_);
  for (Tree const tree : {Tree::kRows, Tree::kOverflow, Tree::kIndex, Tree::kDefinitions}) {
    EXPECT_TRUE(AllOf(*now, tree).empty());
  }
  Entries const meta = AllOf(*now, Tree::kMeta);
  ASSERT_EQ(1u, meta.size());
  EXPECT_EQ(format::kFormatKey, meta[0].first);
}

TEST_P(StoreConformanceTest, Snapshot_StaysAsItWasWhileOthersCommit) {
  Fill(*store_, kTree, {{"a", "1"}, {"b", "2"}});
  Reading const before(*store_);
  std::string_view held;
  ASSERT_TRUE(before->Get(kTree, "a", &held));
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(LORV_STATUS_OK, CommitStatus([&](Batch& batch) {
                batch.Put(kTree, "a", std::string(100, static_cast<char>('A' + round)));
                batch.Put(kTree, "c" + std::to_string(round), "new");
                batch.Delete(kTree, "b");
              }));
  }
  EXPECT_EQ("1", held);
  EXPECT_EQ((Entries{{"a", "1"}, {"b", "2"}}), AllOf(*before, kTree));
  Reading const after(*store_);
  EXPECT_EQ("(none)", ValueIn(*after, kTree, "b"));
  EXPECT_EQ(21u, AllOf(*after, kTree).size());
}

TEST_P(StoreConformanceTest, States_AreNumberedConsecutively) {
  Fill(*store_, kTree, {{"a", "1"}});
  CommitId first{0};
  {
    Reading const now(*store_);
    first = now->id();
  }
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  EXPECT_EQ(Raw(first) + 1, Raw(batch->id()));
  batch->Put(kTree, "a", "2");
  batch->Commit();
  EXPECT_EQ(Raw(first) + 1, Raw(Reading(*store_)->id()));
  EXPECT_EQ(Raw(first) + 1, Raw(store_->Statistics().last_commit));
}

TEST_P(StoreConformanceTest, OwnCommits_AreNotForeign) {
  {
    Reading const at_first(*store_);
    store_->Notice(*at_first);
  }
  CommitId const unlisted = store_->foreign_commits().unlisted();
  Fill(*store_, kTree, {{"a", "1"}});
  Reading const now(*store_);
  EXPECT_TRUE(store_->Notice(*now));
  EXPECT_EQ(unlisted, store_->foreign_commits().unlisted());
}

TEST_P(StoreConformanceTest, ReservedLayoutNumber_IsNoLongerFree) {
  LayoutReservations& reservations = *store_->layout_reservations();
  EXPECT_TRUE(reservations.Reserve(LayoutNumber{7}));
  EXPECT_FALSE(reservations.Reserve(LayoutNumber{7}));
  EXPECT_FALSE(reservations.Reserve(kNoLayout));
  EXPECT_EQ(LayoutNumber{8}, reservations.ReserveFrom(7));
  EXPECT_EQ(LayoutNumber{1}, reservations.ReserveFrom(0));
}

TEST_P(StoreConformanceTest, LayoutNumbers_EndWithTheLast) {
  LayoutReservations& reservations = *store_->layout_reservations();
  EXPECT_EQ(LayoutNumber{65535}, reservations.ReserveFrom(65535));
  EXPECT_EQ(kNoLayout, reservations.ReserveFrom(65535));
  EXPECT_EQ(kNoLayout, reservations.ReserveFrom(65536));
}

TEST_P(StoreConformanceTest, ReservationWord_ChangesOnlyFromTheExpectedValue) {
  LayoutReservations& reservations = *store_->layout_reservations();
  EXPECT_EQ(0U, reservations.word());
  EXPECT_TRUE(reservations.ReplaceWord(0, 300));
  EXPECT_FALSE(reservations.ReplaceWord(0, 400));
  EXPECT_EQ(300U, reservations.word());
}

TEST_P(StoreConformanceTest, Statistics_NameTheOldestStateRead) {
  Fill(*store_, kTree, {{"a", "1"}});
  Reading const old(*store_);
  Fill(*store_, kTree, {{"a", "2"}});
  Fill(*store_, kTree, {{"a", "3"}});
  StoreStatistics const found = store_->Statistics();
  EXPECT_EQ(old->id(), found.oldest_commit);
  EXPECT_EQ(Raw(old->id()) + 2, Raw(found.last_commit));
  EXPECT_EQ(64u, found.max_readers);
}

TEST_P(StoreConformanceTest, TooManyReaders_AreRefusedUntilOneEnds) {
  std::vector<std::unique_ptr<Snapshot>> open;
  Status const status = Guarded([&] {
    for (int i = 0; i < 1000; ++i) open.push_back(store_->Begin());
    return LORV_STATUS_OK;
  });
  EXPECT_EQ(LSCOREDB_TOO_MANY_READERS, status);
  ASSERT_FALSE(open.empty());
  store_->End(std::move(open.back()));
  open.back() = store_->Begin();
  for (std::unique_ptr<Snapshot>& snapshot : open) store_->End(std::move(snapshot));
}

TEST_P(StoreConformanceTest, ReadersOnManyThreads_SeeWholeCommits) {
  std::atomic<bool> done = false;
  std::atomic<int> looked = 0;
  Fill(*store_, kTree, {{"a", "0"}, {"b", "0"}});
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      do {
        Reading const now(*store_);
        EXPECT_EQ(ValueIn(*now, kTree, "a"), ValueIn(*now, kTree, "b"));
        ++looked;
      } while (!done);
    });
  }
  for (int i = 1; i <= 200; ++i) {
    Fill(*store_, kTree, {{"a", std::to_string(i)}, {"b", std::to_string(i)}});
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_GE(looked, 3);
  Reading const now(*store_);
  EXPECT_EQ("200", ValueIn(*now, kTree, "a"));
}

TEST_P(StoreConformanceTest, VerifiedSnapshotOfASoundStore_ReportsNothing) {
  Fill(*store_, kTree, NumberedEntries(500));
  int faults = 0;
  std::unique_ptr<Snapshot> snapshot = store_->BeginVerified([&](StoreFault const&) { ++faults; });
  EXPECT_EQ(0, faults);
  EXPECT_EQ(500u, AllOf(*snapshot, kTree).size());
  store_->End(std::move(snapshot));
  EXPECT_NO_THROW(store_->Verify());
}

// ---- ranges and announced seeks -----------------------------------------------------------------

TEST_P(StoreConformanceTest, RemovedRange_IsGoneInItsBatchAndAfterIt) {
  Fill(*store_, kTree, NumberedEntries(100));
  Entries const left{{Numbered(9), Sized(9)}, {Numbered(12), "new"}, {Numbered(90), Sized(90)}};
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  batch->Put(kTree, Numbered(11), "written before");
  batch->RemoveRange(kTree, Numbered(91), Numbered(1000));
  batch->RemoveRange(kTree, Numbered(10), Numbered(90));
  batch->RemoveRange(kTree, Numbered(0), Numbered(9));
  batch->Put(kTree, Numbered(12), "new");
  EXPECT_EQ("(none)", ValueIn(*batch, kTree, Numbered(11)));
  EXPECT_EQ(left, AllOf(*batch, kTree));
  {
    Cursor cursor;
    cursor.Open(*batch, kTree);
    ASSERT_TRUE(cursor.Last());
    EXPECT_EQ(Numbered(90), cursor.key());
    ASSERT_TRUE(cursor.Previous());
    EXPECT_EQ(Numbered(12), cursor.key());
    ASSERT_TRUE(cursor.Previous());
    EXPECT_EQ(Numbered(9), cursor.key());
    EXPECT_FALSE(cursor.Previous());
    EXPECT_FALSE(cursor.Seek(Numbered(91)));
  }
  batch->Commit();
  EXPECT_EQ(left, AllOf(*Reading(*store_), kTree));
}

TEST_P(StoreConformanceTest, AnnouncedSeeks_FindWhatOthersFind) {
  Fill(*store_, kTree, NumberedEntries(50));
  Reading const now(*store_);
  std::vector<std::string> const keys{Numbered(3), Numbered(3) + "x", Numbered(49), Numbered(50)};
  now->PrefetchSeeks(kTree, keys);
  Cursor cursor;
  cursor.Open(*now, kTree);
  for (std::size_t const at : {3u, 4u, 49u}) {
    ASSERT_TRUE(cursor.Seek(keys[at == 49 ? 2 : at - 3]));
    for (std::size_t i = at; i < 50; ++i) {
      EXPECT_EQ(Numbered(static_cast<std::uint32_t>(i)), cursor.key());
      EXPECT_EQ(i + 1 < 50, cursor.Next());
    }
  }
  EXPECT_FALSE(cursor.Seek(keys[3]));
}

// ---- reading -----------------------------------------------------------------------------------

TEST_P(StoreConformanceTest, Trees_DoNotMix) {
  std::uint64_t const id = 7;
  for (Tree const tree : {Tree::kOverflow, Tree::kIndex, Tree::kDefinitions, Tree::kMeta}) {
    Fill(*store_, tree, {{"same", std::to_string(static_cast<int>(tree))}});
  }
  Fill(*store_, Tree::kRows, {{std::string(BytesOf(id)), "row"}});
  Reading const now(*store_);
  for (Tree const tree : {Tree::kOverflow, Tree::kIndex, Tree::kDefinitions, Tree::kMeta}) {
    EXPECT_EQ(std::to_string(static_cast<int>(tree)), ValueIn(*now, tree, "same"));
  }
  EXPECT_EQ("row", ValueIn(*now, Tree::kRows, BytesOf(id)));
}

TEST_P(StoreConformanceTest, Keys_AreInTheOrderOfTheirBytes) {
  Fill(*store_, kTree,
       {{"b", ""}, {"ab", ""}, {"a", ""}, {"\xFF", ""}, {std::string("a\0", 2), ""}, {"\x7F", ""}});
  Reading const now(*store_);
  std::vector<std::string> keys;
  for (auto const& [key, value] : AllOf(*now, kTree)) keys.push_back(key);
  EXPECT_EQ((std::vector<std::string>{"a", std::string("a\0", 2), "ab", "b", "\x7F", "\xFF"}),
            keys);
}

TEST_P(StoreConformanceTest, Rows_AreInTheOrderOfTheirNumbers) {
  std::set<std::uint64_t> const ids = {1, 255, 256, 65536, 1ull << 40, ~0ull};
  std::map<std::string, std::string> entries;
  for (std::uint64_t const& id : ids) entries[std::string(BytesOf(id))] = std::to_string(id);
  Fill(*store_, Tree::kRows, entries);
  Reading const now(*store_);
  std::vector<std::string> values;
  for (auto const& [key, value] : AllOf(*now, Tree::kRows)) values.push_back(value);
  std::vector<std::string> expected;
  for (std::uint64_t const id : ids) expected.push_back(std::to_string(id));
  EXPECT_EQ(expected, values);
}

TEST_P(StoreConformanceTest, GetMany_GivesWhatGetGives) {
  Fill(*store_, kTree, NumberedEntries(300));
  std::vector<std::string> keys;
  for (std::uint32_t i = 0; i < 600; i += 7) keys.push_back(Numbered(i));
  std::vector<std::string_view> const asked(keys.begin(), keys.end());
  std::vector<std::optional<std::string_view>> found(asked.size(), "stale");
  Reading const now(*store_);
  now->GetMany(kTree, asked, found);
  for (std::size_t i = 0; i < asked.size(); ++i) {
    std::string_view value;
    ASSERT_EQ(now->Get(kTree, asked[i], &value), found[i].has_value());
    EXPECT_EQ(value, found[i].value_or(std::string_view()));
  }
}

TEST_P(StoreConformanceTest, KeysAndValuesOfAllSizes_ComeBack) {
  std::map<std::string, std::string> entries;
  entries["empty"] = "";
  entries[std::string(kMaxKeySize, 'k')] = "longest key";
  entries["large"] = std::string(std::size_t{16} << 20, 'x');
  entries["zeros"] = std::string(5000, '\0');
  Fill(*store_, kTree, entries);
  Reading const now(*store_);
  for (auto const& [key, value] : entries) EXPECT_EQ(value, ValueIn(*now, kTree, key));
}

TEST_P(StoreConformanceTest, TooLongKey_IsRefusedAndNothingOfTheBatchIsKept) {
  EXPECT_EQ(LSCOREDB_TOO_LARGE, CommitStatus([](Batch& batch) {
              batch.Put(kTree, "a", "1");
              batch.Put(kTree, std::string(kMaxKeySize + 1, 'k'), "2");
            }));
  Reading const now(*store_);
  EXPECT_TRUE(AllOf(*now, kTree).empty());
}

// ---- cursors -----------------------------------------------------------------------------------

TEST_P(StoreConformanceTest, Cursor_GivesEveryEntryOnceInBothDirections) {
  std::map<std::string, std::string> const entries = NumberedEntries(2000);
  Fill(*store_, kTree, entries);
  Reading const now(*store_);
  EXPECT_EQ(Entries(entries.begin(), entries.end()), AllOf(*now, kTree));
  Cursor cursor;
  cursor.Open(*now, kTree);
  Entries backwards;
  for (bool on = cursor.Last(); on; on = cursor.Previous()) {
    backwards.emplace_back(cursor.key(), cursor.value());
  }
  EXPECT_EQ(Entries(entries.rbegin(), entries.rend()), backwards);
}

TEST_P(StoreConformanceTest, Seek_FindsTheFirstEntryNotBelow) {
  Fill(*store_, kTree, {{"b", "1"}, {"d", "2"}});
  Reading const now(*store_);
  Cursor cursor;
  cursor.Open(*now, kTree);
  std::map<std::string, std::string> const expected = {
      {"a", "b"}, {"b", "b"}, {"ba", "d"}, {"c", "d"}, {"d", "d"}};
  for (auto const& [sought, found] : expected) {
    ASSERT_TRUE(cursor.Seek(sought));
    EXPECT_EQ(found, cursor.key());
  }
  EXPECT_FALSE(cursor.Seek("e"));
  ASSERT_TRUE(cursor.Last());
  EXPECT_EQ("d", cursor.key());
}

TEST_P(StoreConformanceTest, CursorOverAnEmptyTree_StandsOnNothing) {
  Reading const now(*store_);
  Cursor cursor;
  cursor.Open(*now, kTree);
  EXPECT_FALSE(cursor.First());
  EXPECT_FALSE(cursor.Last());
  EXPECT_FALSE(cursor.Seek("a"));
}

// Turns, jumps and steps across both ends, over a snapshot and over a batch at once.
TEST_P(StoreConformanceTest, Cursors_AgreeWithAnOrderedMap) {
  std::map<std::string, std::string> const model = NumberedEntries(700);
  Fill(*store_, kTree, model);
  Reading const now(*store_);
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  Cursor of_snapshot;
  Cursor of_batch;
  of_snapshot.Open(*now, kTree);
  of_batch.Open(*batch, kTree);
  std::mt19937 random(5);
  auto at = model.end();
  for (int step = 0; step < 20000; ++step) {
    auto const choice = static_cast<std::uint32_t>(random() % 40);
    bool on = false;
    bool on_in_batch = false;
    if (at == model.end() || choice == 0) {
      std::string const key = Numbered(static_cast<std::uint32_t>(random() % 701));
      at = model.lower_bound(key);
      on = of_snapshot.Seek(key);
      on_in_batch = of_batch.Seek(key);
    } else if ((step / 50) % 2 == 0 ? choice < 30 : choice < 10) {
      ++at;
      on = of_snapshot.Next();
      on_in_batch = of_batch.Next();
    } else {
      at = at == model.begin() ? model.end() : std::prev(at);
      on = of_snapshot.Previous();
      on_in_batch = of_batch.Previous();
    }
    ASSERT_EQ(at != model.end(), on);
    ASSERT_EQ(on, on_in_batch);
    if (!on) continue;
    ASSERT_EQ(at->first, of_snapshot.key());
    ASSERT_EQ(at->second, of_snapshot.value());
    ASSERT_EQ(at->first, of_batch.key());
    ASSERT_EQ(at->second, of_batch.value());
  }
  of_batch.Close();
}

TEST_P(StoreConformanceTest, EntriesOfACursor_StayWhileItsSnapshotLives) {
  std::map<std::string, std::string> const entries = NumberedEntries(200);
  Fill(*store_, kTree, entries);
  Reading const now(*store_);
  std::vector<KeyValue> given;
  {
    Cursor cursor;
    cursor.Open(*now, kTree);
    for (bool on = cursor.First(); on; on = cursor.Next()) {
      given.push_back({cursor.key(), cursor.value()});
    }
  }
  Fill(*store_, kTree, {{Numbered(3), "changed"}, {Numbered(150), "changed"}});
  ASSERT_EQ(entries.size(), given.size());
  std::size_t i = 0;
  for (auto const& [key, value] : entries) {
    EXPECT_EQ(key, given[i].key);
    EXPECT_EQ(value, given[i++].value);
  }
}

TEST_P(StoreConformanceTest, Cursor_OpensAgainOverAnotherSnapshotAndAnotherTree) {
  Fill(*store_, kTree, {{"a", "1"}});
  Fill(*store_, Tree::kMeta, {{"m", "meta"}});
  Cursor cursor;
  {
    Reading const now(*store_);
    cursor.Open(*now, kTree);
    ASSERT_TRUE(cursor.First());
    EXPECT_EQ("1", cursor.value());
  }
  Fill(*store_, kTree, {{"a", "2"}});
  Reading const now(*store_);
  cursor.Open(*now, kTree);
  ASSERT_TRUE(cursor.First());
  EXPECT_EQ("2", cursor.value());
  cursor.Open(*now, Tree::kMeta);
  ASSERT_TRUE(cursor.Seek("m"));
  EXPECT_EQ("meta", cursor.value());
}

TEST_P(StoreConformanceTest, Peek_GivesTheEntryThatSteppingGives) {
  Fill(*store_, kTree, NumberedEntries(300));
  Reading const now(*store_);
  Cursor cursor;
  Cursor ahead;
  cursor.Open(*now, kTree);
  ahead.Open(*now, kTree);
  int peeked = 0;
  for (bool on = cursor.First(); on; on = cursor.Next()) {
    KeyValue seen;
    if (!cursor.Peek(3, true, &seen)) continue;
    ++peeked;
    ASSERT_TRUE(ahead.Seek(cursor.key()));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(ahead.Next());
    EXPECT_EQ(ahead.key(), seen.key);
    EXPECT_EQ(ahead.value(), seen.value);
  }
  EXPECT_GT(peeked, 0);
}

// ---- batches -----------------------------------------------------------------------------------

TEST_P(StoreConformanceTest, Batch_ReadsItsOwnWritesAndOthersDoNot) {
  Fill(*store_, kTree, {{"a", "1"}, {"b", "2"}});
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  batch->Put(kTree, "a", "changed");
  EXPECT_TRUE(batch->Delete(kTree, "b"));
  batch->Put(kTree, "c", "new");
  EXPECT_EQ((Entries{{"a", "changed"}, {"c", "new"}}), AllOf(*batch, kTree));
  EXPECT_EQ("(none)", ValueIn(*batch, kTree, "b"));
  EXPECT_EQ((Entries{{"a", "1"}, {"b", "2"}}), AllOf(*Reading(*store_), kTree));
  batch->Commit();
  EXPECT_EQ((Entries{{"a", "changed"}, {"c", "new"}}), AllOf(*Reading(*store_), kTree));
}

TEST_P(StoreConformanceTest, UncommittedBatch_LeavesNothing) {
  Fill(*store_, kTree, {{"a", "1"}});
  CommitId const before = store_->Statistics().last_commit;
  {
    std::unique_ptr<Batch> const batch = store_->BeginBatch();
    batch->Put(kTree, "a", "2");
    batch->Put(Tree::kMeta, "m", "2");
    batch->Delete(kTree, "a");
  }
  Reading const now(*store_);
  EXPECT_EQ("1", ValueIn(*now, kTree, "a"));
  EXPECT_EQ("(none)", ValueIn(*now, Tree::kMeta, "m"));
  EXPECT_EQ(before, now->id());
}

TEST_P(StoreConformanceTest, PutNew_LeavesAnExistingEntry) {
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  EXPECT_TRUE(batch->PutNew(kTree, "a", "1"));
  EXPECT_FALSE(batch->PutNew(kTree, "a", "2"));
  EXPECT_TRUE(batch->Delete(kTree, "a"));
  EXPECT_FALSE(batch->Delete(kTree, "a"));
  EXPECT_TRUE(batch->PutNew(kTree, "a", "3"));
  batch->Commit();
  EXPECT_EQ("3", ValueIn(*Reading(*store_), kTree, "a"));
}

TEST_P(StoreConformanceTest, Remove_RemovesTheEntryAndNothingElse) {
  Fill(*store_, kTree, {{"a", "1"}, {"b", "2"}});
  EXPECT_EQ(LORV_STATUS_OK, CommitStatus([](Batch& batch) {
              batch.Remove(kTree, "a");
              batch.Remove(kTree, "missing");
              EXPECT_EQ("(none)", ValueIn(batch, kTree, "a"));
            }));
  Reading const now(*store_);
  EXPECT_EQ((Entries{{"b", "2"}}), AllOf(*now, kTree));
}

TEST_P(StoreConformanceTest, BatchWithHints_ReadsLikeOneWithout) {
  std::uint64_t const id = 7;
  Fill(*store_, kTree, {{"a", "1"}});
  Fill(*store_, Tree::kRows, {{std::string(BytesOf(id)), "row"}});
  std::unique_ptr<Batch> const batch = store_->BeginBatch(
      {{kTree, "a"}, {kTree, "missing"}, {Tree::kRows, std::string(BytesOf(id))}});
  EXPECT_EQ("1", ValueIn(*batch, kTree, "a"));
  EXPECT_EQ("(none)", ValueIn(*batch, kTree, "missing"));
  EXPECT_EQ("row", ValueIn(*batch, Tree::kRows, BytesOf(id)));
  EXPECT_FALSE(batch->PutNew(kTree, "a", "2"));
  EXPECT_TRUE(batch->PutNew(kTree, "missing", "2"));
}

TEST_P(StoreConformanceTest, Append_PutsBehindTheLastKey) {
  std::map<std::string, std::string> const entries = NumberedEntries(300);
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  for (auto const& [key, value] : entries) batch->Append(kTree, key, value);
  batch->Commit();
  EXPECT_EQ(Entries(entries.begin(), entries.end()), AllOf(*Reading(*store_), kTree));
}

TEST_P(StoreConformanceTest, CursorOpenedAfterAWrite_SeesIt) {
  Fill(*store_, kTree, NumberedEntries(100));
  std::unique_ptr<Batch> const batch = store_->BeginBatch();
  for (std::uint32_t i = 0; i < 100; i += 2) {
    Cursor cursor;
    cursor.Open(*batch, kTree);
    ASSERT_TRUE(cursor.Seek(Numbered(i)));
    ASSERT_EQ(Numbered(i), cursor.key());
    cursor.Close();
    ASSERT_TRUE(batch->Delete(kTree, Numbered(i)));
  }
  EXPECT_EQ(50u, AllOf(*batch, kTree).size());
  batch->Commit();
  EXPECT_EQ(50u, AllOf(*Reading(*store_), kTree).size());
}

TEST_P(StoreConformanceTest, BatchesOfManyThreads_FollowOneAnother) {
  Fill(*store_, kTree, {{"count", "0"}});
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        std::unique_ptr<Batch> const batch = store_->BeginBatch();
        int const count = std::stoi(ValueIn(*batch, kTree, "count"));
        batch->Put(kTree, "count", std::to_string(count + 1));
        batch->Commit();
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ("200", ValueIn(*Reading(*store_), kTree, "count"));
}

// Many commits with a model, snapshots of several states kept open meanwhile.
TEST_P(StoreConformanceTest, ManyCommits_AgreeWithAModel) {
  std::mt19937 random(11);
  std::map<std::string, std::string> model;
  std::vector<std::pair<std::unique_ptr<Reading>, std::map<std::string, std::string>>> kept;
  for (int commit = 0; commit < 60; ++commit) {
    std::map<std::string, std::string> changed = model;
    std::unique_ptr<Batch> const batch = store_->BeginBatch();
    for (int i = 0; i < 40; ++i) {
      auto const number = static_cast<std::uint32_t>(random() % 400);
      if (random() % 3 == 0) {
        EXPECT_EQ(changed.erase(Numbered(number)) != 0, batch->Delete(kTree, Numbered(number)));
      } else {
        std::string const value = Sized(static_cast<std::uint32_t>(random() % 1000));
        changed[Numbered(number)] = value;
        batch->Put(kTree, Numbered(number), value);
      }
    }
    if (commit % 4 == 3) continue;  // given up
    batch->Commit();
    model = changed;
    if (commit % 10 == 0) kept.emplace_back(std::make_unique<Reading>(*store_), model);
  }
  EXPECT_EQ(6u, kept.size());
  for (auto const& [reading, state] : kept) {
    EXPECT_EQ(Entries(state.begin(), state.end()), AllOf(**reading, kTree));
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreConformanceTest, testing::ValuesIn(NewStores()),
                         [](auto const& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace lscore
