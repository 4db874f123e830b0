// Which directories get a log: new and older ones, by default, on request, or never.

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "kernel_test.h"
#include "other_process.h"
#include "step_kills.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kTableToken = 61;
constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kFirstVersion = 1;
constexpr std::uint32_t kLogVersion = 4;

lscoredb_options With(std::uint32_t log) {
  lscoredb_options options = NoSync();
  options.log = log;
  return options;
}

std::uint64_t LogOf(Database const& database) {
  lscoredb_statistics statistics{};
  statistics.size = sizeof statistics;
  Check("stats", lscoredb_stats(database.get(), &statistics));
  return statistics.log;
}

void CommitRow(Session& session, std::int64_t number) {
  session.Begin();
  std::vector<LayoutId> const layouts = session.LayoutsByToken(kTableToken);
  LayoutId const layout =
      layouts.empty() ? session.CreateLayout(kTableToken, {{LORV_TYPE_LONG, 62}}) : layouts[0];
  session.PutLong(session.Insert(layout), kNumber, number);
  session.Commit();
}

std::uint64_t CountRows(Session& session) {
  session.BeginReadOnly();
  LayoutId const layout = session.LayoutsByToken(kTableToken).at(0);
  std::uint32_t count = 16;
  std::vector<lscoredb_layout_statistics> layouts(count);
  Check("layout_stats", lscoredb_layout_stats(session.context(), &count, layouts.data()));
  session.Rollback();
  for (auto const& each : layouts) {
    if (each.layout == layout) return each.objects;
  }
  return 0;
}

class LogDefaultTest : public testing::Test {
 protected:
  LogDefaultTest() {
    std::filesystem::permissions(directory_.path(), std::filesystem::perms{0755});
  }

  // Opens, commits a row and closes. Returns which log there was.
  std::uint64_t Use(std::uint32_t log) const {
    Database const database(place_, With(log));
    Session session(database);
    CommitRow(session, 1);
    return LogOf(database);
  }
  std::uint32_t TryOpen(lscoredb_options const& options) const {
    lscoredb* database = nullptr;
    std::uint32_t const status = lscoredb_open(place_.c_str(), &options, &database);
    if (database != nullptr) Check("close", lscoredb_close(database));
    return status;
  }
  std::uint64_t FormatVersion() const {
    StoredTree meta(place_, "meta");
    return FromLittle(meta.Get("format").substr(std::string("lscoredb").size(), 4));
  }
  // One that an earlier program made, with a row in it.
  void MakeOlder() const { EXPECT_EQ(LSCOREDB_DEFAULT_LOG, Use(LSCOREDB_SAME_LOG)); }

  void ExpectRows(std::uint64_t rows, std::uint64_t log) const {
    Database const database(place_);
    Session session(database);
    EXPECT_EQ(rows, CountRows(session));
    EXPECT_EQ(log, LogOf(database));
  }

  TemporaryDirectory directory_;
  std::string place_ = directory_ / "db";
};

TEST_F(LogDefaultTest, NewDirectory_GetsALog) {
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_DEFAULT_LOG));
  EXPECT_EQ(kLogVersion, FormatVersion());
}

TEST_F(LogDefaultTest, Memory_HasNoLog) {
  EXPECT_EQ(LSCOREDB_NO_LOG, LogOf(Database(With(LSCOREDB_DEFAULT_LOG))));
  EXPECT_EQ(LSCOREDB_NO_LOG, LogOf(Database(With(LSCOREDB_LOG))));
}

TEST_F(LogDefaultTest, OlderDirectory_GetsALogAndKeepsItsRows) {
  MakeOlder();
  EXPECT_EQ(kFirstVersion, FormatVersion());
  ExpectRows(1, LSCOREDB_LOG);
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_DEFAULT_LOG));
  EXPECT_EQ(kLogVersion, FormatVersion());
  ExpectRows(2, LSCOREDB_LOG);
}

TEST_F(LogDefaultTest, SameLog_ChangesNothing) {
  MakeOlder();
  EXPECT_EQ(LSCOREDB_DEFAULT_LOG, Use(LSCOREDB_SAME_LOG));
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_LOG));
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_SAME_LOG));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, TryOpen(With(LSCOREDB_SAME_LOG + 1)));
}

TEST_F(LogDefaultTest, NoLog_IsRememberedUntilALogIsAskedFor) {
  EXPECT_EQ(LSCOREDB_NO_LOG, Use(LSCOREDB_NO_LOG));
  EXPECT_EQ(LSCOREDB_NO_LOG, Use(LSCOREDB_DEFAULT_LOG));
  EXPECT_EQ(LSCOREDB_NO_LOG, Use(LSCOREDB_SAME_LOG));
  EXPECT_EQ(kFirstVersion, FormatVersion());
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_LOG));
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_DEFAULT_LOG));
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_NO_LOG)) << "a directory keeps its log";
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_DEFAULT_LOG));
}

TEST_F(LogDefaultTest, NoLog_IsRememberedByAnOlderDirectory) {
  MakeOlder();
  EXPECT_EQ(LSCOREDB_NO_LOG, Use(LSCOREDB_NO_LOG));
  ExpectRows(2, LSCOREDB_NO_LOG);
  EXPECT_EQ(kFirstVersion, FormatVersion());
}

TEST_F(LogDefaultTest, NoLog_IsRememberedWhenTheDirectoryIsOpenAlready) {
  MakeOlder();
  {
    Database const first(place_, With(LSCOREDB_SAME_LOG));
    EXPECT_EQ(LSCOREDB_NO_LOG, LogOf(Database(place_, With(LSCOREDB_NO_LOG))));
  }
  ExpectRows(1, LSCOREDB_NO_LOG);
}

TEST_F(LogDefaultTest, NoLog_IsRememberedByCopies) {
  EXPECT_EQ(LSCOREDB_NO_LOG, Use(LSCOREDB_NO_LOG));
  std::string const copy = directory_ / "copy";
  Check("copy", lscoredb_copy(Database(place_).get(), copy.c_str()));
  EXPECT_EQ(LSCOREDB_NO_LOG, LogOf(Database(copy)));
}

TEST_F(LogDefaultTest, CopyOfADirectoryWithALog_GetsItsOwnWhenItIsOpened) {
  EXPECT_EQ(LSCOREDB_LOG, Use(LSCOREDB_DEFAULT_LOG));
  std::string const copy = directory_ / "copy";
  Check("copy", lscoredb_copy(Database(place_).get(), copy.c_str()));
  EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(copy, With(LSCOREDB_SAME_LOG))));
  EXPECT_EQ(LSCOREDB_LOG, LogOf(Database(copy)));
}

TEST_F(LogDefaultTest, DirectoryOfAnotherProcess_StaysAsItIs) {
  MakeOlder();
  OtherProcess other([&](OtherProcess& test) {
    Database const database(place_, With(LSCOREDB_SAME_LOG));
    test.Say();
    test.Hear();
    Session session(database);
    CommitRow(session, 2);
    EXPECT_EQ(2u, CountRows(session));
  });
  other.Hear();
  EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(place_)));
  EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(place_, With(LSCOREDB_LOG))));
  other.Say();
  other.ExpectGoodEnd();
  ExpectRows(2, LSCOREDB_LOG);
}

TEST_F(LogDefaultTest, ReadersOfAnOlderDirectory_LeaveItAsItIs) {
  MakeOlder();
  lscoredb_options options = NoSync();
  options.access = LSCOREDB_ACCESS_READ;
  EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(place_, options)));
  options.log = LSCOREDB_NO_LOG;
  EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(place_, options)));
  for (auto const& file : std::filesystem::directory_iterator(place_)) {
    std::filesystem::permissions(file, std::filesystem::perms{0444});
  }
  InAnotherProcess([&] {
    constexpr uid_t kNobody = 65534;
    EXPECT_TRUE(geteuid() != 0 || seteuid(kNobody) == 0);
    EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(place_)));
  });
  EXPECT_EQ(kFirstVersion, FormatVersion());
}

// Who may write the files, but make none.
TEST_F(LogDefaultTest, DirectoryThatTakesNoFiles_StaysAsItIs) {
  MakeOlder();
  for (auto const& file : std::filesystem::directory_iterator(place_)) {
    std::filesystem::permissions(file, std::filesystem::perms{0666});
  }
  std::filesystem::permissions(place_, std::filesystem::perms{0555});
  InAnotherProcess([&] {
    constexpr uid_t kNobody = 65534;
    EXPECT_TRUE(geteuid() != 0 || seteuid(kNobody) == 0);
    Database const database(place_);
    EXPECT_STREQ("", lscoredb_open_error());
    EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(database));
    Session session(database);
    CommitRow(session, 2);
  });
  std::filesystem::permissions(place_, std::filesystem::perms{0755});
  ExpectRows(2, LSCOREDB_LOG);
}

// The first page or two of a file may still be written.
void AllowFilesOf(rlim_t bytes) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit const limit{bytes, RLIM_INFINITY};
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

TEST_F(LogDefaultTest, FullDisk_LeavesAnOlderDirectoryAsItIs) {
  MakeOlder();
  lscoredb_options many = With(LSCOREDB_SAME_LOG);
  many.max_readers = 2000;
  EXPECT_STATUS(0, TryOpen(many)) << "the files of locks need no more room from now on";
  for (rlim_t const bytes : {rlim_t{0}, rlim_t{8192}}) {
    InAnotherProcess([&] {
      AllowFilesOf(bytes);
      EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(place_)));
      EXPECT_EQ(LSCOREDB_DEFAULT_LOG, LogOf(Database(place_, With(LSCOREDB_NO_LOG))));
      EXPECT_STATUS(LSCOREDB_DISK_FULL, TryOpen(With(LSCOREDB_LOG)));
    });
    EXPECT_EQ(kFirstVersion, FormatVersion());
  }
  ExpectRows(1, LSCOREDB_LOG);
}

TEST_F(LogDefaultTest, DeathAtAnyStepOfAnOpening_LeavesADirectoryWithOrWithoutALog) {
  for (std::uint32_t const log : {LSCOREDB_DEFAULT_LOG, LSCOREDB_NO_LOG}) {
    bool killed = true;
    for (int step = 1; killed; ++step) {
      SCOPED_TRACE(step);
      std::filesystem::remove_all(place_);
      MakeOlder();
      OtherProcess opener([&](OtherProcess&) {
        KillAtStep(step);
        Database const database(place_, With(log));
      });
      killed = opener.EndsKilled();
      std::uint64_t const version = FormatVersion();
      EXPECT_TRUE(version == kFirstVersion || (version == kLogVersion && log != LSCOREDB_NO_LOG));
      EXPECT_EQ(log == LSCOREDB_NO_LOG ? LSCOREDB_NO_LOG : LSCOREDB_LOG, Use(log));
      ExpectRows(2, log == LSCOREDB_NO_LOG ? LSCOREDB_NO_LOG : LSCOREDB_LOG);
      ASSERT_LT(step, 100);
    }
  }
}

TEST_F(LogDefaultTest, TwoProcessesAtOnce_LoseNothing) {
  constexpr int kRounds = 20;
  constexpr int kRows = 20;
  auto const work = [&](OtherProcess& test) {
    test.Say();
    test.Hear();
    Database const database(place_);
    Session session(database);
    for (int i = 0; i < kRows; ++i) CommitRow(session, i);
  };
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    std::filesystem::remove_all(place_);
    InAnotherProcess([&] { MakeOlder(); });
    OtherProcess one(work);
    OtherProcess two(work);
    one.Hear();
    two.Hear();
    one.Say();
    two.Say();
    one.ExpectGoodEnd();
    two.ExpectGoodEnd();
    InAnotherProcess([&] { ExpectRows(1 + 2 * kRows, LSCOREDB_LOG); });
  }
}

mode_t PermissionsOf(std::string const& path) {
  struct stat status {};
  EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
  return status.st_mode & 0777;
}

// Users who share a directory may all write its log.
TEST_F(LogDefaultTest, FilesOfALog_HaveThePermissionsOfTheDataFile) {
  MakeOlder();
  chmod((place_ + "/data.mdb").c_str(), 0660);
  Database const database(place_);
  Session session(database);
  CommitRow(session, 2);
  for (char const* const file : {"/log.lock", "/log-0", "/log-1"}) {
    EXPECT_EQ(mode_t{0660}, PermissionsOf(place_ + file)) << file;
  }
}

}  // namespace
}  // namespace lscoredb_test
