// Databases shared with, and survived by, another process. The other process is KERNEL_CHILD.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <optional>
#include <set>
#include <utility>

#include "process_world.h"

namespace lscoredb_test {
namespace {

// A running child, whose output can be read line by line, and which can be resumed or killed.
class Child {
 public:
  Child(char const* command, std::string const& directory, int argument = 0) {
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0)
      throw std::runtime_error("no pipe");
    std::string const number = std::to_string(argument);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(input[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      execl(KERNEL_CHILD, KERNEL_CHILD, command, directory.c_str(), number.c_str(), nullptr);
      _exit(127);
    }
    close(input[0]);
    close(output[1]);
    input_ = input[1];
    said_ = fdopen(output[0], "r");
  }

  ~Child() {
    if (pid_ > 0) Kill();
    CloseInput();
    std::fclose(said_);
  }

  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;

  // The next number that it says, or nothing when it has ended.
  std::optional<std::uint64_t> Next() {
    unsigned long long number = 0;
    if (std::fscanf(said_, "%llu", &number) != 1) return std::nullopt;
    return number;
  }

  Oids Rest() {
    Oids said;
    while (std::optional<std::uint64_t> const number = Next()) said.push_back(*number);
    return said;
  }

  void GoOn() { CloseInput(); }

  void Kill() {
    kill(pid_, SIGKILL);
    waitpid(std::exchange(pid_, -1), nullptr, 0);
  }

  int ExitStatus() {
    int status = -1;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  void CloseInput() {
    if (input_ >= 0) close(std::exchange(input_, -1));
  }

  pid_t pid_ = -1;
  int input_ = -1;
  std::FILE* said_ = nullptr;
};

class ProcessTest : public testing::Test {
 protected:
  // All pairs are whole, the index agrees with the rows, and the rows named are there.
  static void ExpectWhole(Session& session, Oids const& named) {
    PairWorld const world(session);
    Oids const rows = session.Scan(world.index);
    std::int64_t sum = 0;
    std::int64_t previous = std::numeric_limits<std::int64_t>::min();
    for (Oid const row : rows) {
      std::int64_t const value = *session.Long(row, kPairValue);
      EXPECT_LE(previous, value);
      previous = value;
      sum += value;
    }
    EXPECT_EQ(sum, 0);
    EXPECT_EQ(rows.size() % 2, 0U);
    std::set<Oid> const all(rows.begin(), rows.end());
    EXPECT_EQ(all.size(), rows.size());
    for (Oid const row : named) EXPECT_TRUE(all.contains(row)) << row;
  }

  TemporaryDirectory directory_;
};

TEST_F(ProcessTest, CommitsOfTwoProcesses_AreReadByEachOther) {
  {
    Database database(directory_.path());
    Session session(database);
    CommitPair(session, 1000);
  }
  Child child("fill", directory_.path(), 5);
  Oids const named = child.Rest();
  EXPECT_EQ(child.ExitStatus(), 0);
  EXPECT_EQ(named.size(), 5U);
  Database database(directory_.path());
  Session session(database);
  session.Begin();
  ExpectWhole(session, named);
  EXPECT_EQ(session.Scan(PairWorld(session).index).size(), 12U);
}

TEST_F(ProcessTest, TwoProcesses_ShareAnOpenDatabase) {
  Database database(directory_.path());
  Session session(database);
  Oids named{CommitPair(session, 1)};
  Child child("fill", directory_.path(), 50);
  for (std::int64_t i = 100; i < 150; ++i) named.push_back(CommitPair(session, i));
  for (Oid const oid : child.Rest()) named.push_back(oid);
  EXPECT_EQ(child.ExitStatus(), 0);
  session.Begin();
  ExpectWhole(session, named);
  EXPECT_EQ(std::set<Oid>(named.begin(), named.end()).size(), 101U) << "no id was given out twice";
}

TEST_F(ProcessTest, CommitOfAnotherProcess_IsSeenByTheNextTransactionAndNoEarlier) {
  Database database(directory_.path());
  Session session(database);
  Oid const row = CommitPair(session, 7);
  session.Begin();
  EXPECT_EQ(session.Long(row, kPairValue), 7);
  {
    Child child("add", directory_.path(), 1000);
    child.Rest();
    EXPECT_EQ(child.ExitStatus(), 0);
  }
  EXPECT_EQ(session.Long(row, kPairValue), 7);
  session.Commit();
  session.Begin();
  EXPECT_EQ(session.Long(row, kPairValue), 1007);
  PairWorld const world(session);
  EXPECT_EQ(session.At(world.index, Key().Long(1007)), Oids{row});
}

TEST_F(ProcessTest, ConflictWithAnotherProcess_IsSeenAtTheCommit) {
  Database database(directory_.path());
  Session session(database);
  Oid const row = CommitPair(session, 7);
  session.Begin();
  session.PutLong(row, kPairValue, 8);
  {
    Child child("add", directory_.path(), 1000);
    child.Rest();
    EXPECT_EQ(child.ExitStatus(), 0);
  }
  EXPECT_STATUS(LSCOREDB_CONFLICT, session.TryCommit());
}

TEST_F(ProcessTest, SnapshotOfAnotherProcess_StandsWhileThisOneCommits) {
  Database database(directory_.path());
  Session session(database);
  CommitPair(session, 1);
  Child child("hold", directory_.path());
  EXPECT_EQ(child.Next(), 2U);
  CommitPair(session, 2);
  child.GoOn();
  EXPECT_EQ(child.Next(), 4U);
  EXPECT_EQ(child.ExitStatus(), 0);
}

TEST_F(ProcessTest, KilledWriter_LeavesWholeTransactionsAndAllThatItReported) {
  Oids named;
  for (std::size_t round = 1; round <= 6; ++round) {
    {
      Child child("fill", directory_.path());
      for (std::size_t i = 0; i < round * 7; ++i) named.push_back(child.Next().value());
      child.Kill();
    }
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    ExpectWhole(session, named);
    session.Rollback();
    named.push_back(CommitPair(session, 1));
  }
}

TEST_F(ProcessTest, KilledReaders_FreeTheirSlots) {
  lscoredb_options options = NoSync();
  options.max_readers = 3;
  Database database(directory_.path(), options);
  Session session(database);
  CommitPair(session, 1);
  for (int i = 0; i < 8; ++i) {
    Child child("hold", directory_.path());
    EXPECT_EQ(child.Next(), 2U);
    child.Kill();
  }
  Session another(database);
  session.Begin();
  another.Begin();
  EXPECT_EQ(another.Scan(PairWorld(another).index).size(), 2U);
}

}  // namespace
}  // namespace lscoredb_test
