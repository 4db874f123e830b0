// The directories of backups and of what is restored: what else lies there, damage, full disks, and
// work that is stopped.

#include <fcntl.h>
#include <lscoredb/durability.h>
#include <lscoredb/watch.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <random>

#include "backup_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

class BackupFolderTest : public BackupTest {};

// ---- folders -----------------------------------------------------------------------------------

TEST_F(BackupFolderTest, OtherDirectories_AreRefusedAndLeftAlone) {
  fs::create_directory(backup());
  std::ofstream(backup() + "/letter.txt") << "Dear";
  EXPECT_STATUS(LSCOREDB_NOT_A_BACKUP, TryBackup());
  EXPECT_TRUE(ErrorNames("letter.txt")) << lscoredb_open_error();
  EXPECT_EQ((std::set<std::string>{"letter.txt"}), NamesIn(backup()));
  EXPECT_STATUS(LSCOREDB_NOT_A_BACKUP, TryRestore(Until(0)));
  std::string const file = backup() + "/letter.txt";
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, lscoredb_backup(database_->get(), file.c_str(), 0, nullptr));
  std::string const missing = directory_ / "missing/backup";
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN,
                lscoredb_backup(database_->get(), missing.c_str(), 0, nullptr));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, Verify(missing));
  std::string const own = directory_ / "db";
  EXPECT_STATUS(LSCOREDB_NOT_A_BACKUP, lscoredb_backup(database_->get(), own.c_str(), 0, nullptr));
}

TEST_F(BackupFolderTest, PartsWithoutAManifest_AreNotRemoved) {
  Backup();
  fs::remove(backup() + "/manifest");
  EXPECT_STATUS(LSCOREDB_NOT_A_BACKUP, TryBackup());
  EXPECT_TRUE(fs::exists(backup() + "/part-00000001.full"));
}

TEST_F(BackupFolderTest, SecondWriter_IsRefused) {
  Backup();
  int const held = open((backup() + "/lock").c_str(), O_RDWR);
  ASSERT_EQ(0, flock(held, LOCK_EX));
  AddCommitted(1);
  EXPECT_STATUS(LSCOREDB_BACKUP_BUSY, TryBackup());
  EXPECT_STATUS(0, Verify(backup()));
  Restored();
  close(held);
  EXPECT_EQ(LSCOREDB_BACKUP_INCREMENT, Backup().kind);
}

TEST_F(BackupFolderTest, Leftovers_AreRemoved) {
  Backup();
  for (char const* const name : {"part.new", "manifest.new", "part-00000009.increment"}) {
    std::ofstream(backup() + "/" + name) << "rest";
  }
  fs::create_directory(backup() + "/copy.new");
  std::ofstream(backup() + "/copy.new/data.mdb") << "rest";
  std::ofstream(backup() + "/notes.txt") << "of the user";
  AddCommitted(1);
  Backup();
  EXPECT_EQ((std::set<std::string>{"lock", "manifest", "notes.txt", "part-00000001.full",
                                   "part-00000002.increment"}),
            NamesIn(backup()));
}

TEST_F(BackupFolderTest, RestoreTargets_AreNotOverwritten) {
  AddCommitted(1);
  Backup();
  fs::create_directory(restored());
  EXPECT_STATUS(0, TryRestore(Until(0)));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryRestore(Until(0)));
  EXPECT_EQ(StateOf(*database_), StateOf(Database(restored())));
  fs::remove_all(restored());
  std::ofstream(restored()) << "a file";
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryRestore(Until(0)));
  fs::remove(restored());
  // What lies in the way and is not of a database stays.
  fs::create_directory(restored() + ".restoring");
  std::ofstream(restored() + ".restoring/letter.txt") << "Dear";
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryRestore(Until(0)));
  EXPECT_TRUE(fs::exists(restored() + ".restoring/letter.txt"));
  fs::remove(restored() + ".restoring/letter.txt");
  std::ofstream(restored() + ".restoring/data.mdb") << "of one who died";
  EXPECT_STATUS(0, TryRestore(Until(0)));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                lscoredb_restore(backup().c_str(), nullptr, "postgresql://db/shop", nullptr));
}

TEST_F(BackupFolderTest, SecondRestoreToTheSamePlace_IsRefused) {
  Backup();
  fs::create_directory(restored() + ".restoring");
  int const held = open((restored() + ".restoring/restore.lock").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(0, flock(held, LOCK_EX));
  EXPECT_STATUS(LSCOREDB_BACKUP_BUSY, TryRestore(Until(0)));
  close(held);
  EXPECT_STATUS(0, TryRestore(Until(0)));
}

// ---- damage ------------------------------------------------------------------------------------

void FlipByte(std::string const& path, std::uint64_t at) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(static_cast<std::streamoff>(at));
  char const byte = static_cast<char>(file.get() ^ 0x40);
  file.seekp(static_cast<std::streamoff>(at));
  file.put(byte);
}

// No flipped byte of any file goes unnoticed, and none leaves a database behind.
TEST_F(BackupFolderTest, DamagedBytes_AreNeverRestored) {
  AddCommitted(1);
  Backup();
  for (int i = 2; i < 6; ++i) AddCommitted(i, 300);
  Backup();
  std::mt19937_64 random(5);
  for (std::string const& name : NamesIn(backup())) {
    std::string const path = backup() + "/" + name;
    std::uint64_t const size = fs::file_size(path);
    for (int i = 0; i < 40 && size > 0; ++i) {
      std::uint64_t const at = i == 0 ? 0 : i == 1 ? size - 1 : random() % size;
      SCOPED_TRACE(name + ", byte " + std::to_string(at));
      FlipByte(path, at);
      std::uint32_t const status = TryRestore(Until(0));
      EXPECT_TRUE(status == LSCOREDB_BACKUP_DAMAGED || status == LSCOREDB_NEWER_FORMAT) << status;
      EXPECT_NE("", std::string(lscoredb_open_error()));
      std::uint32_t const verified = Verify(backup());
      EXPECT_TRUE(verified == LSCOREDB_BACKUP_DAMAGED || verified == LSCOREDB_NEWER_FORMAT);
      EXPECT_FALSE(fs::exists(restored()));
      EXPECT_FALSE(fs::exists(restored() + ".restoring"));
      FlipByte(path, at);
    }
  }
  EXPECT_EQ(StateOf(*database_), Restored());
}

TEST_F(BackupFolderTest, TruncatedAndMissingParts_AreNamed) {
  Backup();
  AddCommitted(1);
  Backup();
  std::string const part = backup() + "/part-00000002.increment";
  fs::resize_file(part, fs::file_size(part) - 8);
  EXPECT_STATUS(LSCOREDB_BACKUP_DAMAGED, TryRestore(Until(0)));
  EXPECT_TRUE(ErrorNames("part-00000002.increment")) << lscoredb_open_error();
  fs::remove(part);
  EXPECT_STATUS(LSCOREDB_BACKUP_DAMAGED, TryRestore(Until(0)));
  EXPECT_TRUE(ErrorNames("missing")) << lscoredb_open_error();
  EXPECT_STATUS(LSCOREDB_BACKUP_DAMAGED, Verify(backup()));
  // What is before it is still there.
  EXPECT_STATUS(0, TryRestore(Until(PartsOf(backup()).front().last)));
}

// ---- failures and stops ------------------------------------------------------------------------

TEST_F(BackupFolderTest, FullDisk_LeavesTheBackupAsItWas) {
  AddCommitted(1);
  Backup();
  State const before = StateOf(*database_);
  for (int i = 2; i < 20; ++i) AddCommitted(i, 20'000);
  Check("checkpoint", lscoredb_checkpoint(database_->get()));
  std::set<std::string> const names = NamesIn(backup());
  auto const previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  for (std::uint32_t const flags : {0u, LSCOREDB_BACKUP_FULL}) {
    rlimit const small{64 * 1024, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    std::uint32_t const status = TryBackup(flags);
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_STATUS(LSCOREDB_DISK_FULL, status);
    EXPECT_EQ(names, NamesIn(backup()));
  }
  rlimit const small{64 * 1024, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  std::uint32_t const status = TryRestore(Until(0));
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, previous);
  EXPECT_STATUS(LSCOREDB_DISK_FULL, status);
  EXPECT_FALSE(fs::exists(restored() + ".restoring"));
  EXPECT_EQ(before, Restored());
  Backup();
  EXPECT_EQ(StateOf(*database_), Restored());
}

// What the watch of a thread is told, and when it stops the work.
struct Stopper {
  int calls_left = 0;
  std::uint64_t done = 0;
  bool decreased = false;

  static std::uint32_t Report(void* user, std::uint64_t done, std::uint64_t total) {
    auto& self = *static_cast<Stopper*>(user);
    self.decreased |= done < self.done || done > total;
    self.done = done;
    return self.calls_left-- <= 0 ? 1 : 0;
  }
};

TEST_F(BackupFolderTest, StoppedAtAnyTime_LeavesNoTrace) {
  for (int i = 1; i < 300; ++i) AddCommitted(i, 2000);
  Backup();
  for (int i = 300; i < 600; ++i) AddCommitted(i, 2000);
  std::set<std::string> const names = NamesIn(backup());
  auto const work = [&](int which) {
    if (which == 0) return TryBackup(LSCOREDB_BACKUP_FULL);
    return which == 1 ? TryBackup() : TryRestore(Until(0));
  };
  for (int which : {0, 1, 2}) {
    std::uint32_t status = LSCOREDB_STOPPED;
    for (int calls = 0; status == LSCOREDB_STOPPED; calls = calls * 2 + 1) {
      Stopper stopper{calls};
      lscoredb_watch(&Stopper::Report, &stopper);
      status = work(which);
      lscoredb_watch(nullptr, nullptr);
      EXPECT_FALSE(stopper.decreased);
      if (status != LSCOREDB_STOPPED) break;
      EXPECT_FALSE(fs::exists(restored()));
      EXPECT_FALSE(fs::exists(restored() + ".restoring"));
      EXPECT_TRUE(which != 0 || names == NamesIn(backup()));
    }
    EXPECT_STATUS(0, status);
  }
}

TEST_F(BackupFolderTest, Arguments_AreChecked) {
  lscoredb_backup_part part{};
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_backup(nullptr, backup().c_str(), 0, &part));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_backup(database_->get(), nullptr, 0, &part));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryBackup(4));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryBackup(0, &part));  // its size is 0
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_backup_list("x", 0, nullptr, nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_restore(nullptr, nullptr, "x", nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_restore("x", nullptr, nullptr, nullptr));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_restore("x", nullptr, "", nullptr));
  EXPECT_FALSE(fs::exists(backup()));
}

TEST_F(BackupFolderTest, ForkedChild_CannotBackUpTheParents) {
  lscoredb* const parents = database_->get();
  InAnotherProcess([&] {
    EXPECT_STATUS(LSCOREDB_OF_PARENT, lscoredb_backup(parents, backup().c_str(), 0, nullptr));
  });
  Backup();
}

}  // namespace
}  // namespace lscoredb_test
