// Processes that are forked off one that has databases open, and what they do to it: nothing.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "other_process.h"
#include "process_world.h"

namespace lscoredb_test {
namespace {

constexpr unsigned kPatience = 30;  // seconds, for a child that might wait for ever

// The files of a directory that this process has open.
std::set<std::string> OpenFilesIn(std::string const& directory) {
  std::set<std::string> found;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    std::filesystem::path const target = std::filesystem::read_symlink(entry.path(), error);
    if (!error && target.parent_path() == directory) found.insert(target.filename());
  }
  return found;
}

class ForkTest : public testing::Test {
 protected:
  static constexpr int kPairs = 200;

  ForkTest() {
    for (int i = 1; i <= kPairs; ++i) rows_.push_back(CommitPair(session_, i));
    session_.BeginReadOnly();
  }

  // The snapshot that was open before the fork shows what it showed, whatever was committed since.
  void ExpectSnapshotStands() {
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      ASSERT_EQ(session_.Long(rows_[i], kPairValue), static_cast<std::int64_t>(i) + 1);
    }
  }

  // Commits that would use the snapshot's pages again, if nobody held them.
  void ChangeElsewhere() {
    InAnotherProcess([&] {
      Database database(directory_.path());
      Session session(database);
      for (int round = 0; round < 20; ++round) {
        session.Begin();
        for (Oid const row : rows_) session.PutLong(row, kPairValue, -round);
        session.Commit();
      }
    });
  }

  TemporaryDirectory directory_;
  Database database_{directory_.path()};
  Session session_{database_};
  Oids rows_;
};

// As the destructors of a host's static objects do in a child that ends by exit.
TEST_F(ForkTest, ChildThatClosesEverything_LeavesTheParentsSnapshotAlone) {
  Scanner scanner(session_, PairWorld(session_).index);
  InAnotherProcess([&] {
    alarm(kPatience);
    EXPECT_STATUS(LSCOREDB_UNKNOWN_ITERATOR, lorv_iterator_free(scanner.handle()));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_rollback(session_.context()));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_context_close(session_.context()));
    EXPECT_STATUS(0, lscoredb_close(database_.get()));
  });
  ChangeElsewhere();
  ExpectSnapshotStands();
  EXPECT_EQ(scanner.Rest().size(), 2U * kPairs);
}

TEST_F(ForkTest, ParentsHandles_AreInvalidInTheChild) {
  InAnotherProcess([&] {
    alarm(kPatience);
    std::uint64_t out = 0;
    EXPECT_STATUS(LSCOREDB_OF_PARENT, lscoredb_context_open(database_.get(), &out));
    lscoredb_statistics statistics{};
    statistics.size = sizeof statistics;
    EXPECT_STATUS(LSCOREDB_OF_PARENT, lscoredb_stats(database_.get(), &statistics));
    EXPECT_STATUS(LSCOREDB_OF_PARENT, lscoredb_check(database_.get(), 0, nullptr, nullptr));
    TemporaryDirectory const target;
    EXPECT_STATUS(LSCOREDB_OF_PARENT, lscoredb_copy(database_.get(), target.path().c_str()));
    std::uint64_t const context = session_.context();
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_begin(context, 0));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_commit(context));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_read_scope_begin(context));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_database_number(context, &out));
    std::int64_t value = 0;
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT,
                  lorv_context_get_long(context, rows_[0], 0, kPairValue, &value));
  });
  ExpectSnapshotStands();
}

TEST_F(ForkTest, Child_OpensAnewAndGetsHandlesOfItsOwn) {
  InAnotherProcess([&] {
    alarm(kPatience);
    Database database(directory_.path());
    Session session(database);
    EXPECT_NE(session.context(), session_.context());
    CommitPair(session, 1000);
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_context_close(session_.context()));
    EXPECT_STATUS(0, lscoredb_close(database_.get()));
    CommitPair(session, 1001);
  });
  ExpectSnapshotStands();
  session_.Rollback();
  session_.Begin();
  EXPECT_EQ(session_.Scan(PairWorld(session_).index).size(), 2U * (kPairs + 2));
}

TEST_F(ForkTest, ChildOfAChild_StartsClean) {
  InAnotherProcess([&] {
    alarm(kPatience);
    Database database(directory_.path());
    Session session(database);
    CommitPair(session, 1000);
    session.Begin();
    InAnotherProcess([&] {
      EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_commit(session.context()));
      EXPECT_STATUS(0, lscoredb_close(database.get()));
      EXPECT_STATUS(0, lscoredb_close(database_.get()));
      Database third(directory_.path());
      Session own(third);
      CommitPair(own, 1001);
    });
    session.Rollback();
    CommitPair(session, 1002);
  });
  ExpectSnapshotStands();
}

TEST_F(ForkTest, Child_HoldsNoneOfTheParentsFiles) {
  std::set<std::string> const own = OpenFilesIn(directory_.path());
  for (char const* const file : {"data.mdb", "layouts.lock", "lock.mdb"}) {
    ASSERT_TRUE(own.contains(file)) << file;
  }
  InAnotherProcess([&] { EXPECT_EQ(OpenFilesIn(directory_.path()), std::set<std::string>{}); });
  EXPECT_EQ(OpenFilesIn(directory_.path()), own);
  InAnotherProcess([&] {
    Database database(directory_.path());
    Session session(database);
    CommitPair(session, 1);
    EXPECT_EQ(OpenFilesIn(directory_.path()), own);
  });
}

}  // namespace
}  // namespace lscoredb_test
