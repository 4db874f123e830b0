// Databases with a log that are opened only to be read, by those who may not write and by those who
// do not want to.

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "kernel_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kTableToken = 61;
constexpr std::uint32_t kNumber = 2;
constexpr int kTurning = 900;  // commits that turn the smallest log more than once

lscoredb_options ToRead() {
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_READ;
  return options;
}

lscoredb_options ToWrite() {
  lscoredb_options options = NoSync();
  options.log = LSCOREDB_LOG;
  options.log_limit = 64 * 1024;
  return options;
}

std::uint32_t TryOpen(std::string const& directory, lscoredb_options const& options) {
  lscoredb* database = nullptr;
  std::uint32_t const status = lscoredb_open(directory.c_str(), &options, &database);
  if (database != nullptr) Check("close", lscoredb_close(database));
  return status;
}

// Everything that holds data; the locks may be written by readers.
std::map<std::string, std::string> DataIn(std::string const& directory) {
  std::map<std::string, std::string> files;
  for (auto const& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".lock" || entry.path().filename() == "lock.mdb") continue;
    std::ifstream file(entry.path(), std::ios::binary);
    files[entry.path().filename()] = {std::istreambuf_iterator<char>(file), {}};
  }
  return files;
}

class ReadOnlyLogTest : public testing::Test {
 protected:
  ReadOnlyLogTest() {
    std::filesystem::permissions(directory_.path(), std::filesystem::perms{0755});
    InAnotherProcess([&] {
      Database const database(place_, ToWrite());
      Session session(database);
      session.Begin();
      LayoutId const layout = session.CreateLayout(kTableToken, {{LORV_TYPE_LONG, 62}});
      row_ = session.Insert(layout);
      session.PutLong(row_, kNumber, 0);
      session.Commit();
    });
    Database const database(place_, ToWrite());
    Session session(database);
    session.BeginReadOnly();
    row_ = 0;
    for (Oid id = 1; row_ == 0 && id < 1000; ++id) {
      if (session.Exists(id)) row_ = id;
    }
  }

  void Put(Session& session, std::int64_t value) const {
    session.Begin();
    session.PutLong(row_, kNumber, value);
    session.Commit();
  }

  // A process that commits and dies, so that its commits are in the log only.
  void LeaveInLog(std::int64_t from, std::int64_t to) const {
    OtherProcess writer([&](OtherProcess& test) {
      Database const database(place_, ToWrite());
      Session session(database);
      for (std::int64_t value = from; value <= to; ++value) Put(session, value);
      test.Say();
      test.Hear();
    });
    writer.Hear();
    writer.Kill();
  }

  void ExpectReads(std::int64_t value, lscoredb_options const& options) const {
    Database const database(place_, options);
    lscoredb_statistics statistics{};
    statistics.size = sizeof statistics;
    Check("stats", lscoredb_stats(database.get(), &statistics));
    EXPECT_EQ(1u, statistics.read_only);
    Session session(database);
    session.Begin();
    EXPECT_EQ(value, session.Long(row_, kNumber));
    EXPECT_STATUS(LSCOREDB_READ_ONLY_DATABASE,
                  lorv_context_put_long(session.context(), row_, 0, kNumber, 8));
    session.Rollback();
    EXPECT_STATUS(0, lscoredb_check(database.get(), 0, nullptr, nullptr));
  }

  // As a user to whom the permissions of files apply, and who has none but to read.
  void AsReader(std::function<void()> const& work) const {
    for (auto const& file : std::filesystem::directory_iterator(place_)) {
      std::filesystem::permissions(file, std::filesystem::perms{0444});
    }
    std::filesystem::permissions(place_, std::filesystem::perms{0555});
    InAnotherProcess([&] {
      constexpr uid_t kNobody = 65534;
      EXPECT_TRUE(geteuid() != 0 || seteuid(kNobody) == 0);
      work();
    });
    std::filesystem::permissions(place_, std::filesystem::perms{0755});
    for (auto const& file : std::filesystem::directory_iterator(place_)) {
      std::filesystem::permissions(file, std::filesystem::perms{0644});
    }
  }

  TemporaryDirectory directory_;
  std::string place_ = directory_ / "db";
  Oid row_ = 0;
};

TEST_F(ReadOnlyLogTest, LogOfADeadProcess_IsReadAndNothingIsWritten) {
  ExpectReads(0, ToRead());
  for (std::int64_t const last : {3, kTurning}) {
    LeaveInLog(1, last);
    auto const before = DataIn(place_);
    ASSERT_TRUE(before.contains("log-0"));
    ExpectReads(last, ToRead());
    lscoredb_options verified = ToRead();
    verified.verify = 1;
    ExpectReads(last, verified);
    AsReader([&] { ExpectReads(last, ToRead()); });
    AsReader([&] { ExpectReads(last, NoSync()); });
    EXPECT_TRUE(before == DataIn(place_));
  }
  Database const writer(place_, ToWrite());
  Session session(writer);
  session.BeginReadOnly();
  EXPECT_EQ(kTurning, session.Long(row_, kNumber));
}

TEST_F(ReadOnlyLogTest, LocksThatAreGone_AreMissedByNobodyWhoMayNotWrite) {
  LeaveInLog(1, 5);
  for (char const* name : {"/log.lock", "/lock.mdb", "/layouts.lock"}) {
    std::filesystem::remove(place_ + name);
  }
  AsReader([&] { ExpectReads(5, NoSync()); });
  ExpectReads(5, ToRead());
}

TEST_F(ReadOnlyLogTest, ReaderWithASlot_FollowsAWriterThroughCheckpoints) {
  OtherProcess writer([&](OtherProcess& test) {
    Database const database(place_, ToWrite());
    Session session(database);
    for (std::int64_t value = 1; value <= kTurning; ++value) {
      if (value % 30 == 1) test.Hear();
      Put(session, value);
      if (value % 30 == 0) test.Say();
    }
    test.Hear();
  });
  writer.Say();
  writer.Hear();
  Database const database(place_, ToRead());
  Session session(database);
  for (std::int64_t value = 30; value < kTurning; value += 30) {
    session.BeginReadOnly();
    EXPECT_EQ(value, session.Long(row_, kNumber));
    writer.Say();
    writer.Hear();
    EXPECT_EQ(value, session.Long(row_, kNumber));
    session.Rollback();
  }
  session.BeginReadOnly();
  EXPECT_EQ(kTurning, session.Long(row_, kNumber));
  writer.Say();
  writer.ExpectGoodEnd();
}

// The reader recovers the log, without writing it; the writer goes on where the log ends.
TEST_F(ReadOnlyLogTest, WriterThatComesAfterAReader_GoesOnWhereTheLogEnds) {
  OtherProcess writer([&](OtherProcess& test) {
    test.Hear();
    Database const database(place_, ToWrite());
    Session session(database);
    session.BeginReadOnly();
    EXPECT_EQ(9, session.Long(row_, kNumber));
    session.Rollback();
    for (std::int64_t value = 10; value <= kTurning; ++value) Put(session, value);
    test.Say();
    test.Hear();
  });
  LeaveInLog(1, 9);
  {
    Database const database(place_, ToRead());
    Session session(database);
    session.BeginReadOnly();
    EXPECT_EQ(9, session.Long(row_, kNumber));
    writer.Say();
    writer.Hear();
    EXPECT_EQ(9, session.Long(row_, kNumber));
    session.Rollback();
    session.BeginReadOnly();
    EXPECT_EQ(kTurning, session.Long(row_, kNumber));
    session.Rollback();
    writer.Say();
    writer.ExpectGoodEnd();
    session.BeginReadOnly();
    EXPECT_EQ(kTurning, session.Long(row_, kNumber));
  }
  ExpectReads(kTurning, ToRead());
}

TEST_F(ReadOnlyLogTest, ReaderWhoMayNotWriteAndAWriter_ExcludeEachOther) {
  {
    Database const writer(place_, ToWrite());
    AsReader([&] {
      EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(place_, NoSync()));
      EXPECT_EQ(place_ +
                    "/layouts.lock: Permission denied: another process has the database open"
                    " for writing",
                lscoredb_open_error());
    });
  }
  LeaveInLog(1, 4);
  AsReader([&] {
    Database const reader(place_, NoSync());
    EXPECT_EQ(0, seteuid(getuid()));
    InAnotherProcess([&] {
      EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(place_, ToWrite()));
      EXPECT_EQ(place_ + "/data.mdb: a process that may not write here is reading it",
                lscoredb_open_error());
    });
    EXPECT_EQ(0, getuid() != 0 ? 0 : seteuid(65534));
    Session session(reader);
    session.BeginReadOnly();
    EXPECT_EQ(4, session.Long(row_, kNumber));
  });
  EXPECT_STATUS(0, TryOpen(place_, ToWrite()));
}

TEST_F(ReadOnlyLogTest, WordsThatMayNotBeWritten_AreNamed) {
  std::filesystem::permissions(place_, std::filesystem::perms{0777});
  for (auto const& file : std::filesystem::directory_iterator(place_)) {
    std::filesystem::permissions(file, std::filesystem::perms{0666});
  }
  std::filesystem::permissions(place_ + "/log.lock", std::filesystem::perms{0600});
  InAnotherProcess([&] {
    if (geteuid() == 0) {
      EXPECT_EQ(0, seteuid(65534));
    } else {
      std::filesystem::permissions(place_ + "/log.lock", std::filesystem::perms{0});
    }
    for (lscoredb_options const& options : {ToRead(), ToWrite()}) {
      EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, TryOpen(place_, options));
      EXPECT_EQ(place_ + "/log.lock: Permission denied", lscoredb_open_error());
    }
  });
}

TEST_F(ReadOnlyLogTest, LogThatIsGone_IsDamage) {
  LeaveInLog(1, 4);
  std::filesystem::remove(place_ + "/log-0");
  std::filesystem::remove(place_ + "/log-1");
  EXPECT_STATUS(LSCOREDB_DAMAGED, TryOpen(place_, ToRead()));
  AsReader([&] { EXPECT_STATUS(LSCOREDB_DAMAGED, TryOpen(place_, NoSync())); });
}

}  // namespace
}  // namespace lscoredb_test
