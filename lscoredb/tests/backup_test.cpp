// Backups and the states that are restored from them, through the exported functions.

#include "backup_test.h"

#include <lscoredb/durability.h>

#include <atomic>
#include <map>
#include <random>

namespace lscoredb_test {
namespace {

TEST_F(BackupTest, FirstPartIsFull_LaterOnesAreIncrements) {
  AddCommitted(1);
  lscoredb_backup_part const full = Backup();
  EXPECT_EQ(LSCOREDB_BACKUP_FULL_PART, full.kind);
  EXPECT_EQ(LastCommit(*database_), full.last);
  EXPECT_EQ(LSCOREDB_BACKUP_NOTHING, Backup().kind);
  AddCommitted(2);
  AddCommitted(3);
  lscoredb_backup_part const increment = Backup();
  EXPECT_EQ(LSCOREDB_BACKUP_INCREMENT, increment.kind);
  EXPECT_EQ(full.last + 1, increment.first);
  EXPECT_EQ(full.last + 2, increment.last);
  EXPECT_LT(increment.bytes, full.bytes);
  EXPECT_EQ(2u, PartsOf(backup(), LSCOREDB_BACKUP_VERIFY).size());
  EXPECT_EQ(StateOf(*database_), Restored());
}

// A model: what every commit left is written down, and every one of them can be had again.
TEST_F(BackupTest, EveryCommit_IsRestoredAsItWas) {
  std::mt19937_64 random(11);
  std::map<std::uint64_t, State> states;
  std::vector<Oid> objects;
  Backup();
  states[LastCommit(*database_)] = StateOf(*database_);
  std::int64_t number = 0;
  for (int step = 0; step < 60; ++step) {
    session_->Begin();
    for (std::uint64_t i = random() % 4 + 1; i > 0; --i) {
      if (objects.size() < 3 || random() % 3 == 0) {
        objects.push_back(Add(++number, random() % 20'000));
      } else if (random() % 3 == 0) {
        std::size_t const at = random() % objects.size();
        session_->Delete(objects[at]);
        objects.erase(objects.begin() + static_cast<std::ptrdiff_t>(at));
      } else {
        session_->PutLong(objects[random() % objects.size()], 2, ++number);
      }
    }
    session_->Commit();
    states[LastCommit(*database_)] = StateOf(*database_);
    if (random() % 7 == 0) Check("checkpoint", lscoredb_checkpoint(database_->get()));
    if (random() % 9 == 0) Open(WithSmallLog(), false);
    if (random() % 4 == 0) Backup();
    states[LastCommit(*database_)] = StateOf(*database_);
  }
  Backup();
  for (auto const& [commit, state] : states) {
    SCOPED_TRACE(commit);
    EXPECT_EQ(state, Restored(Until(commit)));
  }
}

TEST_F(BackupTest, Times_AreUpperBounds) {
  AddCommitted(1);
  Backup();
  State const first = StateOf(*database_);
  std::uint64_t const full = PartsOf(backup()).front().time;
  AddCommitted(2);
  State const second = StateOf(*database_);
  Backup();
  lscoredb_restored newest{};
  newest.size = sizeof newest;
  Check("restore", TryRestore(Until(0), &newest));
  EXPECT_EQ(LastCommit(*database_), newest.commit);
  EXPECT_EQ(first, Restored(Until(0, newest.time - 1)));
  EXPECT_EQ(first, Restored(Until(0, full)));
  EXPECT_EQ(second, Restored(Until(0, newest.time)));
  EXPECT_EQ(second, Restored(Until(0, PartsOf(backup()).back().time)));
}

// Nothing new is known to be nothing new up to that moment.
TEST_F(BackupTest, NothingNew_StillMovesTheTime) {
  Backup();
  std::uint64_t const before = PartsOf(backup()).back().time;
  EXPECT_EQ(LSCOREDB_BACKUP_NOTHING, Backup().kind);
  EXPECT_LT(before, PartsOf(backup()).back().time);
}

TEST_F(BackupTest, StatesThatAreNotThere_AreRefusedWithTheNearest) {
  AddCommitted(1);
  lscoredb_backup_part const full = Backup();
  AddCommitted(2);
  lscoredb_backup_part const last = Backup();
  EXPECT_STATUS(LSCOREDB_NOT_IN_BACKUP, TryRestore(Until(full.last - 1)));
  EXPECT_TRUE(ErrorNames("oldest state in it is that of commit " + std::to_string(full.last)))
      << lscoredb_open_error();
  EXPECT_STATUS(LSCOREDB_NOT_IN_BACKUP, TryRestore(Until(last.last + 1)));
  EXPECT_TRUE(ErrorNames("newest state in it is that of commit " + std::to_string(last.last)))
      << lscoredb_open_error();
  EXPECT_STATUS(LSCOREDB_NOT_IN_BACKUP, TryRestore(Until(0, full.time - 1)));
  EXPECT_STATUS(LSCOREDB_NOT_IN_BACKUP, TryRestore(Until(0, last.time + 1)));
  AddCommitted(3);
  AddCommitted(4);
  lscoredb_backup_part const second = Backup(LSCOREDB_BACKUP_FULL);
  EXPECT_STATUS(LSCOREDB_NOT_IN_BACKUP, TryRestore(Until(second.last - 1)));
  EXPECT_TRUE(ErrorNames("no state between commit " + std::to_string(last.last)))
      << lscoredb_open_error();
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryRestore(Until(full.last, full.time)));
  EXPECT_FALSE(fs::exists(restored()));
  EXPECT_FALSE(fs::exists(restored() + ".restoring"));
}

TEST_F(BackupTest, RestoredDatabase_IsAnother) {
  AddCommitted(1);
  Backup();
  AddCommitted(2);
  std::uint64_t const before = LastCommit(*database_);
  Backup();
  Restored();
  Database const database(restored(), NoSync());
  EXPECT_NE(IdentityOf(*database_), IdentityOf(database));
  EXPECT_STATUS(LSCOREDB_OTHER_BACKUP,
                lscoredb_backup(database.get(), backup().c_str(), 0, nullptr));
  // It keeps its changes as the other one did, and takes no position of that one's feed.
  lscoredb_kept_changes kept{};
  kept.size = sizeof kept;
  Check("kept", lscoredb_kept(database.get(), &kept));
  EXPECT_EQ(kLots, kept.bytes);
  EXPECT_GT(kept.last, before);
  for (std::uint64_t const position : {before, before + 100}) {
    lscoredb_changes* reader = nullptr;
    Check("open", lscoredb_changes_open(database.get(), position, UINT32_MAX, &reader));
    lscoredb_change const* change = nullptr;
    EXPECT_STATUS(LSCOREDB_CHANGES_GONE, lscoredb_changes_next(reader, &change));
    lscoredb_changes_close(reader);
  }
}

TEST_F(BackupTest, RestoredDatabase_IsWrittenAndBackedUpInTurn) {
  AddCommitted(1);
  Backup();
  Restored();
  std::string const second = directory_ / "second";
  Database database(restored(), NoSync());
  State expected;
  {
    Check("backup", lscoredb_backup(database.get(), second.c_str(), 0, nullptr));
    Session session(database);
    session.Begin();
    Oid const oid = session.Insert(session.LayoutsByToken(kLayoutToken).back());
    session.PutLong(oid, 2, 77);
    session.Commit();
    lscoredb_backup_part part{};
    part.size = sizeof part;
    Check("backup", lscoredb_backup(database.get(), second.c_str(), 0, &part));
    EXPECT_EQ(LSCOREDB_BACKUP_INCREMENT, part.kind);
    expected = StateOf(database);
  }
  std::string const again = directory_ / "again";
  Check("restore", lscoredb_restore(second.c_str(), nullptr, again.c_str(), nullptr));
  EXPECT_EQ(expected, StateOf(Database(again)));
}

TEST_F(BackupTest, FullParts_AreKeptUntilTheyArePruned) {
  AddCommitted(1);
  lscoredb_backup_part const first = Backup();
  State const old = StateOf(*database_);
  AddCommitted(2);
  Backup(LSCOREDB_BACKUP_FULL);
  AddCommitted(3);
  Backup();
  ASSERT_EQ(3u, PartsOf(backup()).size());
  EXPECT_EQ(old, Restored(Until(first.last)));
  Backup(LSCOREDB_BACKUP_FULL | LSCOREDB_BACKUP_PRUNE);
  ASSERT_EQ(1u, PartsOf(backup()).size());
  EXPECT_EQ((std::set<std::string>{"lock", "manifest", "part-00000004.full"}), NamesIn(backup()));
  EXPECT_STATUS(LSCOREDB_NOT_IN_BACKUP, TryRestore(Until(first.last)));
  EXPECT_EQ(StateOf(*database_), Restored());
}

TEST_F(BackupTest, WithoutKeptChanges_EachPartIsFull) {
  Check("keep", lscoredb_keep_changes(database_->get(), 0, 0));
  AddCommitted(1);
  Backup();
  AddCommitted(2);
  EXPECT_STATUS(LSCOREDB_NEEDS_FULL_BACKUP, TryBackup());
  EXPECT_TRUE(ErrorNames("keeps no changes")) << lscoredb_open_error();
  EXPECT_EQ(1u, PartsOf(backup()).size());
  Backup(LSCOREDB_BACKUP_FULL);
  EXPECT_EQ(StateOf(*database_), Restored());
  // From the next part on, once they are kept.
  Check("keep", lscoredb_keep_changes(database_->get(), kLots, 0));
  EXPECT_STATUS(LSCOREDB_NEEDS_FULL_BACKUP, TryBackup());
  EXPECT_TRUE(ErrorNames("not kept any more")) << lscoredb_open_error();
  Backup(LSCOREDB_BACKUP_FULL);
  AddCommitted(3);
  EXPECT_EQ(LSCOREDB_BACKUP_INCREMENT, Backup().kind);
}

TEST_F(BackupTest, WithoutALog_EachPartIsFull) {
  std::string const place = directory_ / "plain";
  State expected;
  {
    Database const plain(place, WithoutLog());
    Session session(plain);
    LayoutId const layout = MakeLayout(session);
    session.Begin();
    session.PutLong(session.Insert(layout), 2, 5);
    session.Commit();
    expected = StateOf(plain);
    Check("backup", lscoredb_backup(plain.get(), backup().c_str(), 0, nullptr));
    EXPECT_STATUS(LSCOREDB_NEEDS_FULL_BACKUP,
                  lscoredb_backup(plain.get(), backup().c_str(), 0, nullptr));
    EXPECT_TRUE(ErrorNames("no log")) << lscoredb_open_error();
  }
  Check("restore", TryRestore(Until(0)));
  Database const database(restored(), WithoutLog());
  EXPECT_EQ(expected, StateOf(database));
  lscoredb_kept_changes kept{};
  kept.size = sizeof kept;
  EXPECT_STATUS(LSCOREDB_CHANGES_UNSUPPORTED, lscoredb_kept(database.get(), &kept));
}

TEST_F(BackupTest, InMemoryAndEmpty_AreBackedUpToo) {
  Database const memory;
  EXPECT_STATUS(0, lscoredb_backup(memory.get(), backup().c_str(), 0, nullptr));
  EXPECT_STATUS(0, TryRestore(Until(0)));
  EXPECT_STATUS(LSCOREDB_OTHER_BACKUP, TryBackup());
}

TEST_F(BackupTest, OpenedOnlyToRead_IsBackedUp) {
  AddCommitted(1);
  Backup();
  AddCommitted(2);
  session_.reset();
  database_.reset();
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_READ;
  database_.emplace(directory_ / "db", options);
  EXPECT_EQ(LSCOREDB_BACKUP_INCREMENT, Backup().kind);
  EXPECT_EQ(LSCOREDB_BACKUP_FULL_PART, Backup(LSCOREDB_BACKUP_FULL).kind);
  EXPECT_EQ(StateOf(*database_), Restored());
}

// ---- databases that were put back --------------------------------------------------------------

TEST_F(BackupTest, DatabaseThatWasPutBack_IsRefused) {
  AddCommitted(1);
  Backup();
  session_.reset();
  database_.reset();
  fs::copy(directory_ / "db", directory_ / "saved", fs::copy_options::recursive);
  Open(WithSmallLog(), false);
  AddCommitted(2);
  AddCommitted(3);
  lscoredb_backup_part const part = Backup();
  session_.reset();
  database_.reset();
  fs::remove_all(directory_ / "db");
  fs::rename(directory_ / "saved", directory_ / "db");
  Open(WithSmallLog(), false);
  ASSERT_GT(part.last, LastCommit(*database_));
  EXPECT_STATUS(LSCOREDB_OTHER_BACKUP, TryBackup());
  while (LastCommit(*database_) < part.last)
    AddCommitted(static_cast<std::int64_t>(LastCommit(*database_)) + 1000);
  EXPECT_STATUS(LSCOREDB_OTHER_BACKUP, TryBackup());
  AddCommitted(5);
  EXPECT_STATUS(LSCOREDB_OTHER_BACKUP, TryBackup());
  EXPECT_EQ(2u, PartsOf(backup(), LSCOREDB_BACKUP_VERIFY).size());
  Backup(LSCOREDB_BACKUP_FULL);
  EXPECT_EQ(StateOf(*database_), Restored());
}

TEST_F(BackupTest, CommitsPastTheLog_AreGoneOnFrom) {
  Backup();
  // Larger than the log's limit: each goes straight into the data file.
  AddCommitted(1, 100'000);
  Backup();
  AddCommitted(2, 100'000);
  AddCommitted(3);
  Backup();
  AddCommitted(4);
  AddCommitted(5, 100'000);
  Backup();
  EXPECT_EQ(4u, PartsOf(backup()).size());
  EXPECT_EQ(StateOf(*database_), Restored());
}

// A writer at work the whole time: every part ends with whole commits.
TEST_F(BackupTest, BesideAWriter_EachPartIsAStateOfIts) {
  constexpr int kParts = 12;
  std::atomic<bool> over{false};
  InParallel(2, [&](int thread) {
    if (thread == 0) {
      for (int i = 0; i < kParts; ++i) Backup(i % 5 == 4 ? LSCOREDB_BACKUP_FULL : 0);
      over = true;
      return;
    }
    Session session(*database_);
    for (std::int64_t i = 1; !over; ++i) {  // two objects a commit
      session.Begin();
      for (std::int64_t const sign : {1, -1}) {
        session.PutLong(session.Insert(layout_), 2, sign * i);
      }
      session.Commit();
    }
  });
  for (lscoredb_backup_part const& part : PartsOf(backup())) {
    State const state = Restored(Until(part.last));
    std::int64_t sum = 0;
    for (auto const& [oid, values] : state) sum += values.first;
    EXPECT_EQ(0, sum);
    EXPECT_EQ(0u, state.size() % 2);
  }
}

}  // namespace
}  // namespace lscoredb_test
