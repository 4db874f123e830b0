#ifndef LSCOREDB_TESTS_BACKUP_TEST_H
#define LSCOREDB_TESTS_BACKUP_TEST_H

// A database that keeps its changes, its backup, and what is restored from it.

#include <lscoredb/backup.h>
#include <lscoredb/changes.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "backup_states.h"
#include "kernel_test.h"

namespace lscoredb_test {

namespace fs = std::filesystem;

inline lscoredb_options WithoutLog() {
  lscoredb_options options = NoSync();
  options.log = LSCOREDB_NO_LOG;
  return options;
}

inline std::uint64_t LastCommit(Database const& database) {
  lscoredb_statistics statistics{};
  statistics.size = sizeof statistics;
  Check("stats", lscoredb_stats(database.get(), &statistics));
  return statistics.last_commit;
}

inline std::uint64_t IdentityOf(Database const& database) {
  Session const session(database);
  std::uint64_t identity = 0;
  Check("identity", lscoredb_identity(session.context(), &identity));
  return identity;
}

inline lscoredb_restore_options Until(std::uint64_t commit, std::uint64_t time = 0) {
  lscoredb_restore_options options{};
  options.size = sizeof options;
  options.until_commit = commit;
  options.until_time = time;
  return options;
}

inline std::vector<lscoredb_backup_part> PartsOf(std::string const& directory,
                                                 std::uint32_t flags = 0) {
  std::vector<lscoredb_backup_part> parts;
  auto const add = [](void* to, lscoredb_backup_part const* part) -> std::uint32_t {
    static_cast<std::vector<lscoredb_backup_part>*>(to)->push_back(*part);
    return 0;
  };
  Check("list", lscoredb_backup_list(directory.c_str(), flags, add, &parts));
  return parts;
}
inline std::uint32_t Verify(std::string const& directory) {
  auto const ignore = [](void*, lscoredb_backup_part const*) -> std::uint32_t { return 0; };
  return lscoredb_backup_list(directory.c_str(), LSCOREDB_BACKUP_VERIFY, ignore, nullptr);
}

inline std::set<std::string> NamesIn(std::string const& directory) {
  std::set<std::string> names;
  for (auto const& entry : fs::directory_iterator(directory)) {
    names.insert(entry.path().filename());
  }
  return names;
}

// A database that keeps its changes, with a backup to be made of it.
class BackupTest : public testing::Test {
 protected:
  BackupTest() { Open(WithSmallLog(), true); }

  void Open(lscoredb_options const& options, bool keep) {
    session_.reset();
    database_.reset();
    database_.emplace(directory_ / "db", options);
    session_.emplace(*database_);
    if (keep) Check("keep", lscoredb_keep_changes(database_->get(), kLots, 0));
    layout_ = MakeLayout(*session_);
  }

  Oid Add(std::int64_t number, std::size_t units = 5) {
    Oid const oid = session_->Insert(layout_);
    session_->PutLong(oid, 2, number);
    session_->PutString(oid, 3, Text(units, u'n'));
    return oid;
  }
  Oid AddCommitted(std::int64_t number, std::size_t units = 5) {
    session_->Begin();
    Oid const oid = Add(number, units);
    session_->Commit();
    return oid;
  }

  std::uint32_t TryBackup(std::uint32_t flags = 0, lscoredb_backup_part* out = nullptr) {
    return lscoredb_backup(database_->get(), backup().c_str(), flags, out);
  }
  lscoredb_backup_part Backup(std::uint32_t flags = 0) {
    lscoredb_backup_part part{};
    part.size = sizeof part;
    Check("backup", TryBackup(flags, &part));
    return part;
  }
  std::string backup() const { return directory_ / "backup"; }
  std::string restored() const { return directory_ / "restored"; }

  std::uint32_t TryRestore(lscoredb_restore_options const& options,
                           lscoredb_restored* out = nullptr) const {
    return lscoredb_restore(backup().c_str(), &options, restored().c_str(), out);
  }
  // Restores, and gives what the restored database holds.
  State Restored(lscoredb_restore_options const& options = Until(0)) {
    fs::remove_all(restored());
    Check("restore", TryRestore(options));
    Database const database(restored(), WithSmallLog());
    EXPECT_EQ((std::vector<Finding>{}), Findings(database.get()));
    return StateOf(database);
  }
  static bool ErrorNames(std::string const& text) {
    return std::string(lscoredb_open_error()).find(text) != std::string::npos;
  }

  TemporaryDirectory directory_;
  std::optional<Database> database_;
  std::optional<Session> session_;
  LayoutId layout_ = 0;
};

}  // namespace lscoredb_test

#endif
