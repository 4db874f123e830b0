// Backups and restores that are killed, or run out of disk, at every call that changes files. Each
// part runs in a process of its own, since the test itself must not have a database open.

#include <lscoredb/backup.h>
#include <lscoredb/changes.h>

#include <filesystem>

#include "backup_states.h"
#include "file_calls.h"
#include "kernel_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

namespace fs = std::filesystem;

class BackupKillTest : public testing::Test {
 protected:
  // Ten objects in a first part, ten more after it.
  BackupKillTest() {
    InAnotherProcess([&] {
      Database const database(place_, WithSmallLog());
      Check("keep", lscoredb_keep_changes(database.get(), kLots, 0));
      Session session(database);
      layout_ = MakeLayout(session);
      AddTen(session, 0);
      Check("backup", lscoredb_backup(database.get(), base_.c_str(), 0, nullptr));
      AddTen(session, 10);
    });
  }

  void AddTen(Session& session, std::int64_t first) const {
    for (std::int64_t i = first; i < first + 10; ++i) {
      session.Begin();
      Oid const oid = session.Insert(layout_);
      session.PutLong(oid, 2, i);
      session.PutString(oid, 3, Text(500, u'n'));
      session.Commit();
    }
  }

  void ResetBackup(bool begun) const {
    fs::remove_all(backup_);
    if (begun) fs::copy(base_, backup_, fs::copy_options::recursive);
  }
  void Restore() const {
    Check("restore", lscoredb_restore(backup_.c_str(), nullptr, restored_.c_str(), nullptr));
  }
  std::size_t ObjectsRestored() const {
    fs::remove_all(restored_);
    Restore();
    return StateOf(Database(restored_)).size();
  }

  // The backup is what it was or has the new part, and goes on from there.
  void ExpectWhole(bool begun) const {
    if (begun) {
      std::size_t const objects = ObjectsRestored();
      EXPECT_TRUE(objects == 10 || objects == 20) << objects;
    }
    Database const database(place_, WithSmallLog());
    Check("backup", lscoredb_backup(database.get(), backup_.c_str(), 0, nullptr));
    fs::remove_all(restored_);
    Restore();
    EXPECT_EQ(StateOf(database), StateOf(Database(restored_)));
    EXPECT_FALSE(fs::exists(backup_ + "/part.new"));
    EXPECT_FALSE(fs::exists(backup_ + "/copy.new"));
  }

  // Returns whether the process was killed before it was done.
  bool BackUpAndDie(std::uint32_t flags, int call) const {
    OtherProcess writer([&](OtherProcess&) {
      Database const database(place_, WithSmallLog());
      KillAtFileCall(call);
      Check("backup", lscoredb_backup(database.get(), backup_.c_str(), flags, nullptr));
      KillAtFileCall(0);
    });
    return writer.EndsKilled();
  }

  // Returns whether the disk was full before it was done.
  bool BackUpWithFullDisk(std::uint32_t flags, int call) const {
    bool was_full = false;
    OtherProcess writer([&](OtherProcess& test) {
      Database const database(place_, WithSmallLog());
      FillDiskAtFileCall(call);
      std::uint32_t const status = lscoredb_backup(database.get(), backup_.c_str(), flags, nullptr);
      test.Say(DiskWasFull() ? 1 : 0);
      EXPECT_TRUE(status == 0 || status == LSCOREDB_DISK_FULL) << status;
      FillDiskAtFileCall(0);
    });
    was_full = writer.Hear() != 0;
    writer.ExpectGoodEnd();
    return was_full;
  }

  void KillEverywhere(bool begun, std::uint32_t flags) const {
    int call = 1;
    for (bool killed = true; killed; ++call) {
      SCOPED_TRACE("call " + std::to_string(call));
      ResetBackup(begun);
      killed = BackUpAndDie(flags, call);
      InAnotherProcess([&] { ExpectWhole(begun); });
      if (HasFailure()) return;
    }
    EXPECT_LT(8, call);
  }

  TemporaryDirectory directory_;
  std::string const place_ = directory_ / "db";
  std::string const base_ = directory_ / "base";
  std::string const backup_ = directory_ / "backup";
  std::string const restored_ = directory_ / "restored";
  LayoutId layout_ = 0;
};

TEST_F(BackupKillTest, FirstPart_IsWholeOrNotThere) { KillEverywhere(false, 0); }

TEST_F(BackupKillTest, Increment_IsWholeOrNotThere) { KillEverywhere(true, 0); }

TEST_F(BackupKillTest, FullPartThatPrunes_LeavesOneOrTheOther) {
  KillEverywhere(true, LSCOREDB_BACKUP_FULL | LSCOREDB_BACKUP_PRUNE);
}

TEST_F(BackupKillTest, FullDisk_LeavesTheBackupWhole) {
  for (std::uint32_t const flags : {0u, LSCOREDB_BACKUP_FULL | LSCOREDB_BACKUP_PRUNE}) {
    int call = 1;
    for (bool full = true; full && !HasFailure(); ++call) {
      SCOPED_TRACE("call " + std::to_string(call));
      ResetBackup(true);
      full = BackUpWithFullDisk(flags, call);
      InAnotherProcess([&] { ExpectWhole(true); });
    }
    EXPECT_LT(8, call);
  }
}

TEST_F(BackupKillTest, Restore_GivesAWholeDatabaseOrNone) {
  ResetBackup(true);
  BackUpAndDie(0, 0);
  int call = 1;
  for (bool killed = true; killed && !HasFailure(); ++call) {
    SCOPED_TRACE("call " + std::to_string(call));
    fs::remove_all(restored_);
    OtherProcess process([&](OtherProcess&) {
      KillAtFileCall(call);
      Restore();
      KillAtFileCall(0);
    });
    killed = process.EndsKilled();
    InAnotherProcess([&] {
      if (!fs::exists(restored_)) Restore();
      EXPECT_EQ(20u, StateOf(Database(restored_)).size());
      EXPECT_FALSE(fs::exists(restored_ + ".restoring"));
    });
  }
  EXPECT_LT(20, call);
}

}  // namespace
}  // namespace lscoredb_test
