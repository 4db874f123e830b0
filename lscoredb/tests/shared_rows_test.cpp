// Rows that a process keeps in memory while another one commits, or commits of its own fail. Both
// processes do the same things in turn; each scene is played with the parts given either way.

#include <sys/resource.h>

#include <csignal>
#include <memory>
#include <random>
#include <tuple>

#include "kernel_test.h"
#include "other_process.h"

namespace lscoredb_test {
namespace {

constexpr std::uint64_t kTable = 50;
constexpr std::uint32_t kValue = 2;
constexpr std::uint32_t kText = 3;
constexpr std::uint64_t kRows = 1500;
constexpr std::uint64_t kShares = 3;  // a row belongs to the part of its number's rest
constexpr std::int64_t kDeleted = -1;

// What a state holds, row by row.
using World = std::vector<std::int64_t>;

Text TextOf(std::int64_t value) {
  return Text(static_cast<std::size_t>(value % 40), static_cast<char16_t>(u'a' + value % 26));
}

std::uint64_t Digest(World const& world) {
  std::uint64_t digest = 14695981039346656037U;
  for (std::int64_t const value : world) {
    digest = (digest ^ static_cast<std::uint64_t>(value)) * 1099511628211U;
  }
  return digest;
}

// No page of a file can be written meanwhile.
class NoRoomOnDisk {
 public:
  NoRoomOnDisk() {
    handler_ = std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = 1;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~NoRoomOnDisk() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  NoRoomOnDisk(NoRoomOnDisk const&) = delete;
  NoRoomOnDisk& operator=(NoRoomOnDisk const&) = delete;

 private:
  rlimit before_{};
  void (*handler_)(int);
};

enum class Deed : std::uint64_t {
  kWrite,         // a part of the rows, and commits; gives the status
  kPrepare,       // the same without the commit
  kCommit,        // what is prepared; gives the status
  kDelete,        // one row, and commits; gives the status
  kFailAtDisk,    // as kWrite, without room on the disk
  kFailAtMap,     // as kWrite, without room in the file
  kRead,          // in a new transaction; gives a digest
  kStay,          // begins the transaction that stays
  kReadStaying,   // in that; gives a digest
  kReadAsWriter,  // in a transaction that writes a part first and is rolled back
  kEnd,
};

struct Order {
  Deed deed;
  std::uint64_t part = 0;  // or a row
  std::int64_t value = 0;
};

lscoredb_options OptionsOf(std::uint64_t row_memory) {
  lscoredb_options options = NoSync();
  options.row_memory = row_memory;
  options.max_file_size = 8 << 20;
  return options;
}

// One process at work.
class Party {
 public:
  Party(std::string const& directory, std::uint64_t row_memory)
      : database_(directory, OptionsOf(row_memory)) {
    session_.Begin();
    if (session_.LayoutsByToken(kTable).empty()) Found();
    IndexId const index = session_.IndexesByToken(kTable)[0];
    rows_ = session_.Scan(index);
    session_.Commit();
  }

  std::uint64_t Do(Order const& order) {
    switch (order.deed) {
      case Deed::kWrite:
        return Write(order);
      case Deed::kPrepare:
        return Put(order);
      case Deed::kCommit:
        return session_.TryCommit();
      case Deed::kDelete:
        return Delete(order);
      case Deed::kFailAtDisk:
        return FailAtDisk(order);
      case Deed::kFailAtMap:
        return FailAtMap(order);
      case Deed::kRead:
        return Read();
      case Deed::kStay:
        return Stay();
      case Deed::kReadStaying:
        return Digest(WorldOf(staying_));
      case Deed::kReadAsWriter:
        return ReadAsWriter(order);
      case Deed::kEnd:
        break;
    }
    return 0;
  }

 private:
  void Found() {
    LayoutId const layout =
        session_.CreateLayout(kTable, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}});
    session_.CreateIndex(kTable, kSet, {});
    for (std::uint64_t i = 0; i < kRows; ++i) {
      Oid const row = session_.Insert(layout);
      session_.PutLong(row, kValue, 0);
      session_.PutString(row, kText, TextOf(0));
    }
  }
  World WorldOf(Session& session) {
    World world;
    for (Oid const row : rows_) {
      world.push_back(session.Exists(row) ? *session.Long(row, kValue) : kDeleted);
      if (world.back() == kDeleted) continue;
      EXPECT_EQ(TextOf(world.back()), *session.String(row, kText));
    }
    return world;
  }
  std::uint64_t Put(Order const& order) {
    session_.Begin();
    for (std::uint64_t i = order.part; i < kRows; i += kShares) {
      if (!session_.Exists(rows_[i])) continue;
      session_.PutLong(rows_[i], kValue, order.value);
      session_.PutString(rows_[i], kText, TextOf(order.value));
    }
    return 0;
  }
  std::uint64_t Write(Order const& order) {
    Put(order);
    return session_.TryCommit();
  }
  std::uint64_t Delete(Order const& order) {
    session_.Begin();
    session_.Delete(rows_[order.part]);
    return session_.TryCommit();
  }
  std::uint64_t FailAtDisk(Order const& order) {
    Put(order);
    NoRoomOnDisk const no_room;
    return session_.TryCommit();
  }
  std::uint64_t FailAtMap(Order const& order) {
    Put(order);
    Oid const large = session_.Insert(session_.LayoutsByToken(kTable)[0]);
    session_.PutString(large, kText, Text(10 << 20, u'x'));
    return session_.TryCommit();
  }
  std::uint64_t Read() {
    session_.BeginReadOnly();
    World const world = WorldOf(session_);
    session_.Rollback();
    return Digest(world);
  }
  std::uint64_t Stay() {
    if (stays_) staying_.Rollback();
    staying_.BeginReadOnly();
    stays_ = true;
    return 0;
  }
  std::uint64_t ReadAsWriter(Order const& order) {
    Put(order);
    World const world = WorldOf(session_);
    session_.Rollback();
    return Digest(world);
  }

  Database database_;
  Session session_{database_};
  Session staying_{database_};
  bool stays_ = false;
  Oids rows_;
};

constexpr int kA = 0;
constexpr int kB = 1;

class SharedRowsTest : public testing::TestWithParam<std::tuple<std::uint64_t, bool>> {
 protected:
  // The other process begins before this one opens anything.
  SharedRowsTest()
      : other_([this](OtherProcess& test) { Obey(test); }),
        here_(std::make_unique<Party>(directory_.path(), Memory())) {
    other_.Say();
    other_.Hear();
  }
  ~SharedRowsTest() override {
    Send({Deed::kEnd});
    other_.ExpectGoodEnd();
  }

  // `who`: one of the two parts of a scene, which this process or the other one plays.
  std::uint64_t Do(int who, Order const& order) {
    bool const here = (who == kA) == std::get<1>(GetParam());
    return here ? here_->Do(order) : Send(order);
  }

  void WriteAs(int who, std::uint64_t part, std::int64_t value) {
    EXPECT_STATUS(LORV_STATUS_OK, static_cast<std::uint32_t>(Do(who, {Deed::kWrite, part, value})));
    world_ = With(part, value);
  }
  // What was prepared with these.
  void CommitAs(int who, std::uint64_t part, std::int64_t value) {
    EXPECT_STATUS(LORV_STATUS_OK, static_cast<std::uint32_t>(Do(who, {Deed::kCommit})));
    world_ = With(part, value);
  }
  void DeleteAs(int who, std::uint64_t row) {
    EXPECT_STATUS(LORV_STATUS_OK, static_cast<std::uint32_t>(Do(who, {Deed::kDelete, row})));
    world_[row] = kDeleted;
  }
  void StayAs(int who) {
    Do(who, {Deed::kStay});
    stayed_[who] = world_;
  }
  void FailAs(int who, Deed deed, std::uint64_t part, std::int64_t value) {
    std::uint32_t const expected =
        deed == Deed::kFailAtDisk ? LSCOREDB_DISK_FULL : LSCOREDB_MAP_FULL;
    EXPECT_STATUS(expected, static_cast<std::uint32_t>(Do(who, {deed, part, value})));
  }
  void ExpectNewestSeenBy(int who) {
    EXPECT_EQ(Digest(world_), Do(who, {Deed::kRead})) << "process " << who;
  }
  void ExpectStayingSeenBy(int who) {
    EXPECT_EQ(Digest(stayed_[who]), Do(who, {Deed::kReadStaying})) << "process " << who;
  }
  void ExpectOwnWritesSeenBy(int who, std::uint64_t part, std::int64_t value) {
    EXPECT_EQ(Digest(With(part, value)), Do(who, {Deed::kReadAsWriter, part, value}))
        << "process " << who;
  }
  // Twice each: as rows are found, and as they are kept.
  void ExpectAllSeenBy(int who) {
    for (int round = 0; round < 2; ++round) {
      ExpectStayingSeenBy(who);
      ExpectNewestSeenBy(who);
    }
  }
  World With(std::uint64_t part, std::int64_t value) const {
    World world = world_;
    for (std::uint64_t i = part; i < kRows; i += kShares) {
      if (world[i] != kDeleted) world[i] = value;
    }
    return world;
  }

 private:
  static std::uint64_t Memory() { return std::get<0>(GetParam()); }
  void Obey(OtherProcess& test) {
    test.Hear();
    Party party(directory_.path(), Memory());
    test.Say();
    for (;;) {
      auto const deed = static_cast<Deed>(test.Hear());
      std::uint64_t const part = test.Hear();
      auto const value = static_cast<std::int64_t>(test.Hear());
      test.Say(party.Do({deed, part, value}));
      if (deed == Deed::kEnd) return;
    }
  }
  std::uint64_t Send(Order const& order) {
    other_.Say(static_cast<std::uint64_t>(order.deed));
    other_.Say(order.part);
    other_.Say(static_cast<std::uint64_t>(order.value));
    return other_.Hear();
  }

  TemporaryDirectory directory_;
  OtherProcess other_;
  std::unique_ptr<Party> here_;
  World world_ = World(kRows, 0);
  World stayed_[2];
};

TEST_P(SharedRowsTest, RowsReplacedByAnotherProcess_AreNewForLaterTransactionsOnly) {
  StayAs(kA);
  ExpectAllSeenBy(kA);
  WriteAs(kB, 0, 11);
  ExpectAllSeenBy(kA);
  WriteAs(kB, 0, 12);
  WriteAs(kB, 1, 13);
  ExpectAllSeenBy(kA);
  StayAs(kA);
  ExpectAllSeenBy(kA);
  ExpectNewestSeenBy(kB);
}

TEST_P(SharedRowsTest, RowsDeletedByAnotherProcess_AreGoneForLaterTransactionsOnly) {
  StayAs(kA);
  ExpectAllSeenBy(kA);
  for (std::uint64_t row = 0; row < kRows; row += 100) DeleteAs(kB, row);
  ExpectAllSeenBy(kA);
  StayAs(kA);
  ExpectAllSeenBy(kA);
}

TEST_P(SharedRowsTest, OwnCommitsBeforeBetweenAndAfterForeignOnes_AreAllSeen) {
  WriteAs(kA, 0, 1);
  StayAs(kA);
  ExpectAllSeenBy(kA);
  WriteAs(kB, 0, 2);
  WriteAs(kA, 1, 3);
  ExpectAllSeenBy(kA);
  WriteAs(kB, 1, 4);
  WriteAs(kA, 0, 5);
  WriteAs(kB, 2, 6);
  ExpectAllSeenBy(kA);
  WriteAs(kA, 2, 7);
  ExpectAllSeenBy(kA);
  ExpectOwnWritesSeenBy(kA, 1, 8);
  ExpectNewestSeenBy(kB);
}

// Its transaction began before, so that only the numbers of the states show the other process's
// commits.
TEST_P(SharedRowsTest, OwnCommitRightAfterAForeignOne_MakesNoOldRowNew) {
  StayAs(kA);
  ExpectAllSeenBy(kA);
  Do(kA, {Deed::kPrepare, 1, 22});
  DeleteAs(kB, 0);
  WriteAs(kB, 0, 21);
  CommitAs(kA, 1, 22);
  ExpectAllSeenBy(kA);
  WriteAs(kA, 2, 23);
  ExpectAllSeenBy(kA);
}

TEST_P(SharedRowsTest, RowsOfAFailedCommit_AreReadAsBefore) {
  for (Deed const deed : {Deed::kFailAtDisk, Deed::kFailAtMap}) {
    StayAs(kA);
    ExpectAllSeenBy(kA);
    FailAs(kA, deed, 0, 31);
    ExpectAllSeenBy(kA);
    FailAs(kA, deed, 0, 32);
    WriteAs(kA, 1, 33);
    ExpectAllSeenBy(kA);
    WriteAs(kA, 0, 34);
    ExpectAllSeenBy(kA);
    ExpectNewestSeenBy(kB);
  }
}

// The other process's commit makes the state that the one that failed would have made.
TEST_P(SharedRowsTest, ForeignCommitInsteadOfAFailedOne_IsSeen) {
  for (Deed const deed : {Deed::kFailAtDisk, Deed::kFailAtMap}) {
    StayAs(kA);
    ExpectAllSeenBy(kA);
    FailAs(kA, deed, 0, 41);
    WriteAs(kB, 0, 42);
    ExpectAllSeenBy(kA);
    FailAs(kA, deed, 1, 43);
    WriteAs(kB, 2, 44);
    WriteAs(kA, 1, 45);
    ExpectAllSeenBy(kA);
    ExpectNewestSeenBy(kB);
  }
}

TEST_P(SharedRowsTest, AnyOrderOfDeedsOfBoth_ShowsEachStateAsItWas) {
  std::mt19937 random(20);
  auto const below = [&](std::uint64_t bound) { return random() % bound; };
  StayAs(kA);
  StayAs(kB);
  for (std::int64_t step = 1; step <= 150; ++step) {
    int const who = below(2) == 0 ? kA : kB;
    std::uint64_t const part = below(kShares);
    switch (below(8)) {
      case 0:
        StayAs(who);
        break;
      case 1:
        WriteAs(who, part, step);
        break;
      case 2:
        WriteAs(who, part, step);
        break;
      case 3:
        FailAs(who, Deed::kFailAtDisk, part, step);
        break;
      case 4:
        ExpectOwnWritesSeenBy(who, part, step);
        break;
      case 5:
        ExpectStayingSeenBy(who);
        break;
      default:
        ExpectNewestSeenBy(who);
        break;
    }
    if (step % 40 == 0) DeleteAs(who, static_cast<std::uint64_t>(step));
  }
  for (int const who : {kA, kB}) ExpectAllSeenBy(who);
}

std::string NameOf(testing::TestParamInfo<std::tuple<std::uint64_t, bool>> const& tested) {
  bool const usual = std::get<0>(tested.param) == 0;
  return std::string(usual ? "Usual" : "Little") + (std::get<1>(tested.param) ? "Here" : "There");
}

// Room for all rows or for a few; the first part is played in this process, or in the other.
INSTANTIATE_TEST_SUITE_P(Memory, SharedRowsTest,
                         testing::Combine(testing::Values(0, 65536), testing::Bool()), NameOf);

}  // namespace
}  // namespace lscoredb_test
