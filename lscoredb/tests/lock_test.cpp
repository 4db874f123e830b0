// The locks among processes that have one directory open, also when a host opens the files of its
// own database, and when a process ends while it opens one.

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>

#include "other_process.h"
#include "process_world.h"

namespace lscoredb_test {
namespace {

class LockTest : public testing::Test {
 protected:
  static constexpr int kPairs = 200;

  std::string Path() const { return directory_ / "db"; }

  // As a backup does that copies the directory.
  void ReadEveryFile() const {
    for (auto const& file : std::filesystem::directory_iterator(Path())) {
      std::ifstream in(file.path(), std::ios::binary);
      std::string const all(std::istreambuf_iterator<char>(in), {});
      EXPECT_FALSE(all.empty()) << file.path();
    }
  }

  void ChangeElsewhere(Oids const& rows) const {
    InAnotherProcess([&] {
      Database database(Path());
      Session session(database);
      for (int round = 0; round < 20; ++round) {
        session.Begin();
        for (Oid const row : rows) session.PutLong(row, kPairValue, -round);
        session.Commit();
      }
    });
  }

  TemporaryDirectory directory_;
};

TEST_F(LockTest, HostThatReadsTheFiles_KeepsItsSnapshots) {
  Database database(Path());
  Session session(database);
  Oids rows;
  for (int i = 1; i <= kPairs; ++i) rows.push_back(CommitPair(session, i));
  session.BeginReadOnly();
  ReadEveryFile();
  ChangeElsewhere(rows);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(session.Long(rows[i], kPairValue), static_cast<std::int64_t>(i) + 1);
  }
  session.Rollback();
  CommitPair(session, 7);
}

TEST_F(LockTest, HostThatReadsTheFiles_StaysCounted) {
  auto database = std::make_unique<Database>(Path());
  auto session = std::make_unique<Session>(*database);
  CommitPair(*session, 1);
  session->BeginReadOnly();
  ReadEveryFile();
  lscoredb_statistics statistics{};
  statistics.size = sizeof statistics;
  InAnotherProcess([&] {
    Database other(Path());
    Check("stats", lscoredb_stats(other.get(), &statistics));
    EXPECT_EQ(1U, statistics.transactions);
  });
  Check("stats", lscoredb_stats(database->get(), &statistics));
  EXPECT_EQ(1U, statistics.transactions);
}

// What it holds is of no use to anyone when no process has the directory open.
TEST_F(LockTest, LockFileWithAnyContent_IsReplaced) {
  for (std::size_t const size : {0U, 3U, 64U, 8192U, 100000U}) {
    for (char const byte : {'\0', '\xFF', 'x'}) {
      {
        Database database(Path());
        Session session(database);
        CommitPair(session, 1);
      }
      std::ofstream(Path() + "/lock.mdb", std::ios::binary | std::ios::trunc)
          << std::string(size, byte);
      Database database(Path());
      Session session(database);
      CommitPair(session, 1);
    }
  }
}

// Openers of one directory that are killed at any moment: the next one, or one that waits, opens
// it.
TEST_F(LockTest, KilledOpeners_HinderNoOne) {
  constexpr int kRounds = 60;
  constexpr unsigned kPatience = 60;
  std::mt19937 random(11);
  auto const open_for_ever = [&](OtherProcess& test) {
    alarm(kPatience);
    test.Say();
    for (;;) Database const database(Path());
  };
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    std::filesystem::remove(Path() + "/lock.mdb");
    OtherProcess first(open_for_ever);
    OtherProcess second(open_for_ever);
    first.Hear();
    second.Hear();
    usleep(static_cast<useconds_t>(random() % 3000));
    first.Kill();
    InAnotherProcess([&] {
      alarm(kPatience);
      for (int i = 0; i < 3; ++i) EXPECT_NO_THROW(Database{Path()});
    });
    second.Kill();
  }
  Database database(Path());
  Session session(database);
  CommitPair(session, 1);
}

constexpr std::size_t kPageSize = 4096;
constexpr std::streamoff kTreesOfHeader = 16 + 72;

// While a process has the database open a header may be half written. An opener reads it again.
TEST_F(LockTest, HeaderBeingWritten_IsNoDamage) {
  Database database(Path());
  Session session(database);
  CommitPair(session, 1);
  std::string const path = Path() + "/data.mdb";
  std::string sound(2 * kPageSize, '\0');
  std::ifstream(path, std::ios::binary).read(sound.data(), 2 * kPageSize);
  int const file = open(path.c_str(), O_RDWR | O_CLOEXEC);
  std::string const torn(40, '\x77');
  for (std::size_t const page : {0U, 1U}) {
    auto const at = static_cast<off_t>(page * kPageSize) + kTreesOfHeader;
    ASSERT_EQ(40, pwrite(file, torn.data(), torn.size(), at));
  }
  OtherProcess opener([&](OtherProcess& test) {
    test.Say();
    EXPECT_NO_THROW(Database{Path()});
  });
  opener.Hear();
  int const line = open(Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  while (flock(line, LOCK_EX | LOCK_NB) == 0) flock(line, LOCK_UN);
  usleep(20000);
  EXPECT_EQ(2 * kPageSize, pwrite(file, sound.data(), sound.size(), 0));
  opener.ExpectGoodEnd();
  close(line);
  close(file);
}

// This process takes all slots for transactions.
class FullTableTest : public LockTest, public testing::WithParamInterface<std::uint32_t> {
 protected:
  FullTableTest() {
    lscoredb_options options = NoSync();
    options.max_readers = 4;
    options.log = GetParam();
    database_ = std::make_unique<Database>(Path(), options);
    for (std::uint32_t status = 0; status == 0;) {
      sessions_.push_back(std::make_unique<Session>(*database_));
      CommitWhilePossible(*sessions_.back());
      status = lscoredb_begin(sessions_.back()->context(), LSCOREDB_READ_ONLY_TRANSACTION);
    }
  }

  void CommitWhilePossible(Session& session) {
    if (sessions_.size() == 1) CommitPair(session, 1);
  }

  std::unique_ptr<Database> database_;
  std::vector<std::unique_ptr<Session>> sessions_;
};

TEST_P(FullTableTest, AnotherProcess_OpensAndChecksTheDatabase) {
  InAnotherProcess([&] {
    lscoredb* other = nullptr;
    ASSERT_EQ(0U, lscoredb_open(Path().c_str(), nullptr, &other));
    EXPECT_STATUS(0, lscoredb_check(other, 0, nullptr, nullptr));
    std::uint64_t context = 0;
    Check("context", lscoredb_context_open(other, &context));
    if (GetParam() == LSCOREDB_NO_LOG) {  // a log has a few slots more
      EXPECT_STATUS(LSCOREDB_TOO_MANY_READERS, lscoredb_begin(context, LSCOREDB_READ_WRITE));
    }
    Check("close", lscoredb_context_close(context));
    EXPECT_STATUS(0, lscoredb_close(other));
  });
  EXPECT_STATUS(0, lscoredb_check(database_->get(), 0, nullptr, nullptr));
  sessions_.front()->Rollback();
  CommitPair(*sessions_.front(), 2);
}

INSTANTIATE_TEST_SUITE_P(Logs, FullTableTest, testing::Values(LSCOREDB_NO_LOG, LSCOREDB_LOG));

}  // namespace
}  // namespace lscoredb_test
