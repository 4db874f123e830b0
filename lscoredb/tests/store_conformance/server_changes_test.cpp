// The changes that a store on a server keeps: every commit once and in order, and what becomes of
// readers when some are missing.

#include "ask_server.h"
#include "postgres_store.h"
#include "status.h"
#include "stores.h"

namespace lscore {
namespace {

using Notes = std::vector<std::string>;

constexpr Retention kEverything{std::uint64_t{1} << 40, 0};
constexpr std::size_t kPart = std::size_t{8} << 20;

Notes Numbers(int from, int to) {
  Notes notes;
  for (int i = from; i <= to; ++i) notes.push_back(std::to_string(i));
  return notes;
}

void CommitNotes(Store& store, Notes const& notes) {
  std::unique_ptr<Batch> const batch = store.BeginBatch();
  batch->Put(Tree::kIndex, "key", notes.empty() ? "" : notes.front().substr(0, 40));
  if (batch->takes_notes()) {
    for (std::string const& note : notes) batch->Note(note);
  }
  batch->Commit();
}

void CommitNumbers(Store& store, int from, int to) {
  for (std::string const& note : Numbers(from, to)) CommitNotes(store, {note});
}

Notes Rest(ChangeSource& source) {
  Notes notes;
  NotedCommit commit;
  while (source.Next(&commit)) {
    for (std::string_view const note : commit.notes) notes.emplace_back(note);
  }
  return notes;
}

Status StatusOfNext(ChangeSource& source) {
  NotedCommit commit;
  return Guarded([&] { return source.Next(&commit), 0U; });
}

class ServerChangesTest : public testing::Test {
 protected:
  ServerChangesTest() { options_.sync = false; }

  std::unique_ptr<PostgresStore> Open() const {
    return std::make_unique<PostgresStore>(url_, options_);
  }
  std::unique_ptr<PostgresStore> OpenKeeping(Retention const& retention = kEverything) const {
    std::unique_ptr<PostgresStore> store = Open();
    store->KeepChanges(retention);
    return store;
  }
  // A statement about a table of the database, whose name stands in the middle.
  std::string Ask(std::string const& before, std::string const& table,
                  std::string const& after = "") const {
    return AskServer(before + " " + SchemaOf(url_) + "." + table + " " + after);
  }
  std::string Version() const { return Ask("SELECT version FROM", "state"); }
  std::string CountOf(std::string const& table) const { return Ask("SELECT count(*) FROM", table); }

  std::string const url_ = NewServerUrl();
  StoreOptions options_;
};

TEST_F(ServerChangesTest, Off_KeepsNothingAndHasNoTables) {
  std::unique_ptr<PostgresStore> const store = Open();
  CommitNumbers(*store, 1, 3);
  EXPECT_FALSE(store->BeginBatch()->takes_notes());
  EXPECT_EQ(LSCOREDB_NO_CHANGES, Guarded([&] { return store->Kept(), 0U; }));
  EXPECT_EQ(LSCOREDB_NO_CHANGES, Guarded([&] { return store->OpenChanges({}), 0U; }));
  store->KeepChanges({});
  EXPECT_EQ(Version(), "3\n");
  EXPECT_NE(CountOf("feed").find("does not exist"), std::string::npos);
}

TEST_F(ServerChangesTest, SwitchedOn_RaisesTheVersionUntilItIsSwitchedOff) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping({1000, 60});
  EXPECT_EQ(Version(), "4\n");
  CommitNumbers(*store, 1, 3);
  EXPECT_EQ(store->Kept().retention.bytes, 1000U);
  EXPECT_EQ(store->Kept().retention.seconds, 60U);
  store->KeepChanges({});
  EXPECT_EQ(Version(), "3\n");
  EXPECT_EQ(CountOf("feed_commits"), "0\n");
  CommitNumbers(*store, 4, 4);
  EXPECT_EQ(LSCOREDB_NO_CHANGES, Guarded([&] { return store->Kept(), 0U; }));
  EXPECT_EQ(CountOf("feed_commits"), "0\n");
}

TEST_F(ServerChangesTest, NewerTables_AreRefusedAlsoByWhoHasThemOpen) {
  std::unique_ptr<PostgresStore> const store = Open();
  CommitNumbers(*store, 1, 1);
  Ask("UPDATE", "state", "SET version = 9");
  EXPECT_EQ(LSCOREDB_NEWER_FORMAT, Guarded([&] { return CommitNumbers(*store, 2, 2), 0U; }));
  EXPECT_EQ(LSCOREDB_NEWER_FORMAT, Guarded([&] { return store->Kept(), 0U; }));
  EXPECT_EQ(LSCOREDB_NEWER_FORMAT, Guarded([&] { return Open(), 0U; }));
}

TEST_F(ServerChangesTest, Reader_GetsEachCommitOnceAndInOrder) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  std::unique_ptr<PostgresStore> const elsewhere = Open();
  std::unique_ptr<ChangeSource> const follower = elsewhere->OpenChanges(store->Kept().last);
  Notes followed;
  for (int i = 1; i <= 60; ++i) {
    CommitNotes(i % 2 == 0 ? *store : *elsewhere, {std::to_string(i)});
    if (i % 7 != 0) continue;
    for (std::string const& note : Rest(*follower)) followed.push_back(note);
    EXPECT_EQ(Numbers(1, i), followed);
  }
  KeptChanges const kept = store->Kept();
  EXPECT_EQ(Raw(kept.last) - Raw(kept.first), 59U);
  EXPECT_EQ(Numbers(1, 60), Rest(*store->OpenChanges(CommitId{Raw(kept.first) - 1})));
  EXPECT_EQ(Numbers(58, 60), Rest(*store->OpenChanges(CommitId{Raw(kept.last) - 3})));
}

TEST_F(ServerChangesTest, NotesOfACommit_KeepTheirOrder) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  CommitNotes(*store, {"one", std::string("t\0o", 3), std::string(100'000, 'x')});
  CommitNotes(*store, {});
  CommitNotes(*store, {"four"});
  Notes const expected = {"one", std::string("t\0o", 3), std::string(100'000, 'x'), "four"};
  EXPECT_EQ(expected, Rest(*reader));
}

TEST_F(ServerChangesTest, CommitOfManyParts_IsWholeAndGoesAsAWhole) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  std::string large(2 * kPart + 5, 'a');
  for (std::size_t i = 0; i < large.size(); i += 1000) large[i] = static_cast<char>(i / 1000);
  CommitNotes(*store, {large, "after"});
  EXPECT_EQ(CountOf("feed_parts"), "2\n");
  EXPECT_EQ((Notes{large, "after"}), Rest(*reader));
  CommitNumbers(*store, 1, 1);
  store->KeepChanges({1, 0});
  EXPECT_EQ(CountOf("feed_parts"), "0\n");
  EXPECT_EQ(CountOf("feed_commits"), "1\n") << "the newest commit stays";
}

TEST_F(ServerChangesTest, Retention_BoundsTheBytes) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping({2000, 0});
  std::unique_ptr<ChangeSource> const late = store->OpenChanges(store->Kept().last);
  std::string const note(36, 'n');  // with what a commit counts for besides, 108
  for (int i = 0; i < 300; ++i) CommitNotes(*store, {note});
  KeptChanges const kept = store->Kept();
  std::uint64_t const count = Raw(kept.last) - Raw(kept.first) + 1;
  EXPECT_EQ(CountOf("feed_commits"), std::to_string(count) + "\n");
  EXPECT_GE(count * 108, 2000U);
  EXPECT_LE(count, 2000U / 108 + 51) << "and those of 50 commits";
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, StatusOfNext(*late));
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, StatusOfNext(*late));
  EXPECT_EQ(count, Rest(*store->OpenChanges(CommitId{Raw(kept.first) - 1})).size());
  EXPECT_EQ(LSCOREDB_CHANGES_GONE,
            StatusOfNext(*store->OpenChanges(CommitId{Raw(kept.first) - 2})));
}

// The clock of a committer that is slow does not make a hole.
TEST_F(ServerChangesTest, Retention_RemovesWhatIsTooOldFromTheBeginning) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  std::uint64_t const before = Raw(store->Kept().last);
  CommitNumbers(*store, 1, 10);
  auto const age = [&](std::uint64_t first, std::uint64_t last) {
    Ask("UPDATE", "feed_commits",
        "SET time = time - 7200000000 WHERE state BETWEEN " + std::to_string(before + first) +
            " AND " + std::to_string(before + last));
  };
  age(1, 4);
  age(7, 7);
  store->KeepChanges({0, 3600});
  EXPECT_EQ(Raw(store->Kept().first), before + 5);
  EXPECT_EQ(Numbers(5, 10), Rest(*store->OpenChanges(CommitId{before + 4})));
}

// A program that was open before the feed was switched on commits without notes.
TEST_F(ServerChangesTest, CommitWithoutNotes_IsTold) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  CommitNumbers(*store, 1, 2);
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  Ask("UPDATE", "state", "SET id = id + 1");
  EXPECT_EQ(Raw(store->Kept().first), Raw(store->Kept().last) + 1);
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, StatusOfNext(*reader));
  std::unique_ptr<ChangeSource> const afresh = store->OpenChanges(store->Kept().last);
  CommitNumbers(*store, 3, 4);
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, StatusOfNext(*reader));
  EXPECT_EQ(Numbers(3, 4), Rest(*afresh));
  EXPECT_EQ(Raw(store->Kept().first) + 1, Raw(store->Kept().last));
}

// A server that took over without the newest commits gives their numbers again.
TEST_F(ServerChangesTest, CommitsThatWereTakenBack_AreTold) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  CommitNumbers(*store, 1, 3);
  std::unique_ptr<ChangeSource> const reader =
      store->OpenChanges(CommitId{Raw(store->Kept().last) - 3});
  EXPECT_EQ(Numbers(1, 3), Rest(*reader));
  std::string const last = std::to_string(Raw(store->Kept().last));
  Ask("DELETE FROM", "feed_commits", "WHERE state = " + last);
  Ask("UPDATE", "state", "SET id = id - 1");
  EXPECT_EQ(Notes{}, Rest(*reader)) << "as on a standby that is behind";
  std::unique_ptr<PostgresStore> const next = Open();
  CommitNumbers(*next, 4, 5);
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, StatusOfNext(*reader));
}

TEST_F(ServerChangesTest, SwitchedOff_ReaderIsTold) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  CommitNumbers(*store, 1, 1);
  store->KeepChanges({});
  EXPECT_EQ(LSCOREDB_NO_CHANGES, StatusOfNext(*reader));
  store->KeepChanges(kEverything);
  EXPECT_EQ(LSCOREDB_CHANGES_GONE, StatusOfNext(*reader));
}

TEST_F(ServerChangesTest, AnotherRetention_LeavesNoGap) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  CommitNumbers(*store, 1, 2);
  store->KeepChanges({0, 3600});
  CommitNumbers(*store, 3, 4);
  EXPECT_EQ(Numbers(1, 4), Rest(*reader));
}

TEST_F(ServerChangesTest, DamagedNotes_AreNeverReadAsOthers) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  std::unique_ptr<ChangeSource> const reader = store->OpenChanges(store->Kept().last);
  CommitNumbers(*store, 1, 2);
  Ask("UPDATE", "feed_commits", "SET notes = set_byte(notes, 8, 50) WHERE get_byte(notes, 8) = 49");
  EXPECT_EQ(LSCOREDB_DAMAGED, StatusOfNext(*reader));
  EXPECT_EQ(LSCOREDB_DAMAGED, StatusOfNext(*reader)) << "the reader is where it was";
  EXPECT_EQ(Numbers(2, 2), Rest(*store->OpenChanges(CommitId{Raw(store->Kept().last) - 1})));
}

TEST_F(ServerChangesTest, PositionInTheFuture_IsRefused) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping();
  CommitId const next{Raw(store->Kept().last) + 1};
  EXPECT_EQ(LSCOREDB_INVALID_ARGUMENT, Guarded([&] { return store->OpenChanges(next), 0U; }));
}

TEST_F(ServerChangesTest, BoundlessRetention_IsTaken) {
  std::unique_ptr<PostgresStore> const store = OpenKeeping({UINT64_MAX, UINT64_MAX});
  CommitNumbers(*store, 1, 60);
  EXPECT_EQ(CountOf("feed_commits"), "60\n");
}

}  // namespace
}  // namespace lscore
