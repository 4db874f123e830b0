#include <lscoredb/durability.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kName = 3;
constexpr std::uint64_t kNumberToken = 100;
constexpr std::uint64_t kIndexToken = 60;

lscoredb_statistics StatisticsOf(Database const& database) {
  lscoredb_statistics statistics{};
  statistics.size = sizeof statistics;
  Check("stats", lscoredb_stats(database.get(), &statistics));
  return statistics;
}

// A database in a directory, whose numbers are indexed.
class CopyTest : public testing::Test {
 protected:
  CopyTest() {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, 101}});
    index_ = session_.CreateIndex(kIndexToken, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique);
    session_.Commit();
  }

  Oid Add(std::int64_t number, std::size_t units) {
    Oid const oid = session_.Insert(layout_);
    session_.PutLong(oid, kNumber, number);
    session_.PutString(oid, kName, Text(units, u'n'));
    return oid;
  }
  std::uint32_t Copy(char const* name) {
    return lscoredb_copy(database_.get(), (directory_ / name).c_str());
  }

  TemporaryDirectory directory_;
  Database database_{directory_ / "db"};
  Session session_{database_};
  LayoutId layout_ = 0;
  IndexId index_ = 0;
};

TEST_F(CopyTest, Copy_HoldsExactlyWhatWasCommitted) {
  session_.Begin();
  Oid const kept = Add(1, 2000);
  session_.Commit();
  session_.Begin();
  Oid const open = Add(2, 3);
  EXPECT_STATUS(0, Copy("copy"));

  Database copied(directory_ / "copy");
  Session session(copied);
  session.BeginReadOnly();
  EXPECT_EQ(Text(2000, u'n'), session.String(kept, kName));
  EXPECT_FALSE(session.Exists(open));
  EXPECT_EQ(Oids{kept}, session.Scan(index_));
}

// Rows bear the number of the commit that wrote them, and a packed file counts its own anew.
TEST_F(CopyTest, RowsOfACopyAndOfItsCopy_CanBeWritten) {
  Oid oid = 0;
  for (int i = 0; i < 40; ++i) {
    session_.Begin();
    oid = Add(i, 1);
    session_.Commit();
  }
  EXPECT_STATUS(0, Copy("copy"));
  Database copied(directory_ / "copy");
  EXPECT_GT(StatisticsOf(copied).last_commit, StatisticsOf(database_).last_commit);
  EXPECT_STATUS(0, lscoredb_copy(copied.get(), (directory_ / "second").c_str()));
  Database second(directory_ / "second");
  for (Database const* each : {&copied, &second}) {
    Session session(*each);
    session.Begin();
    session.PutLong(oid, kNumber, 1000);
    EXPECT_STATUS(0, session.TryCommit());
    session.Begin();
    EXPECT_EQ(Oids{oid}, session.At(index_, Key().Long(1000)));
    EXPECT_NE(oid, session.Insert(session.LayoutOf(oid)));
  }
}

TEST_F(CopyTest, Copy_LeavesFreePagesBehind) {
  session_.Begin();
  Oids all;
  for (int i = 0; i < 100; ++i) all.push_back(Add(i, 10'000));
  session_.Commit();
  EXPECT_STATUS(0, lscoredb_checkpoint(database_.get()));
  session_.Begin();
  for (std::size_t i = 1; i < all.size(); ++i) session_.Delete(all[i]);
  session_.Commit();
  EXPECT_STATUS(0, lscoredb_checkpoint(database_.get()));
  EXPECT_STATUS(0, Copy("copy"));
  EXPECT_LT(StatisticsOf(Database(directory_ / "copy")).file_size,
            StatisticsOf(database_).file_size / 4);
}

// More than one batch of the copying, and a value in parts among it.
TEST_F(CopyTest, LargeDatabase_IsCopiedWhole) {
  LayoutId layout = 0;
  session_.Begin();
  layout = session_.CreateLayout(51, {{LORV_TYPE_BINARY, 300}});
  Oids all;
  for (std::size_t i = 0; i < 3; ++i) {
    all.push_back(session_.Insert(layout));
    session_.PutBinary(all.back(), kNumber, Bytes(20'000'000 + i, static_cast<std::uint8_t>(i)));
  }
  session_.Commit();
  EXPECT_STATUS(0, Copy("copy"));
  Database copied(directory_ / "copy");
  Session reader(copied);
  reader.BeginReadOnly();
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(reader.Binary(all[i], kNumber) ==
                Bytes(20'000'000 + i, static_cast<std::uint8_t>(i)));
  }
}

// Files of this process grow no further than this while it lives.
class FileLimit {
 public:
  explicit FileLimit(rlim_t bytes) {
    old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit const limit{bytes, old_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, old_handler_);
  }

 private:
  rlimit old_{};
  void (*old_handler_)(int);
};

TEST_F(CopyTest, FailedCopy_IsNoDatabase) {
  session_.Begin();
  for (int i = 0; i < 50; ++i) Add(i, 20'000);
  session_.Commit();
  {
    FileLimit const limit(256 * 1024);
    EXPECT_STATUS(LSCOREDB_DISK_FULL, Copy("copy"));
  }
  lscoredb* opened = nullptr;
  EXPECT_STATUS(LSCOREDB_NOT_A_DATABASE,
                lscoredb_open((directory_ / "copy").c_str(), nullptr, &opened));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, Copy("copy"));  // what is there is not touched
  std::filesystem::remove_all(directory_ / "copy");
  EXPECT_STATUS(0, Copy("copy"));
}

TEST_F(CopyTest, DatabaseInMemory_IsCopiedIntoADirectory) {
  Database memory;
  Session session(memory);
  session.Begin();
  Oid const oid = session.Insert(session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}}));
  session.PutLong(oid, kNumber, 7);
  session.Commit();
  EXPECT_STATUS(0, lscoredb_copy(memory.get(), (directory_ / "copy").c_str()));
  Database copied(directory_ / "copy");
  Session reader(copied);
  reader.BeginReadOnly();
  EXPECT_EQ(7, reader.Long(oid, kNumber));
}

TEST_F(CopyTest, TakenTargets_AreRefusedAndLeftAlone) {
  std::ofstream(directory_ / "file") << "mine";
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, Copy("file"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, Copy("db"));
  EXPECT_STATUS(LSCOREDB_CANNOT_OPEN, Copy("no/such/place"));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_copy(database_.get(), nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_copy(nullptr, (directory_ / "x").c_str()));
  EXPECT_EQ(4u, std::filesystem::file_size(directory_ / "file"));
}

TEST_F(CopyTest, Statistics_CountOpenTransactionsAndNameTheOldestStateRead) {
  lscoredb_statistics const before = StatisticsOf(database_);
  EXPECT_EQ(0u, before.transactions);
  EXPECT_EQ(before.last_commit, before.oldest_commit);
  EXPECT_LT(before.file_size, before.max_file_size);

  Session reader(database_);
  reader.BeginReadOnly();
  for (int i = 0; i < 3; ++i) {
    session_.Begin();
    Add(i, 1);
    session_.Commit();
  }
  lscoredb_statistics const meanwhile = StatisticsOf(database_);
  EXPECT_EQ(1u, meanwhile.transactions);
  EXPECT_EQ(before.last_commit, meanwhile.oldest_commit);
  EXPECT_EQ(before.last_commit + 3, meanwhile.last_commit);
  reader.Rollback();
  EXPECT_EQ(meanwhile.last_commit, StatisticsOf(database_).oldest_commit);
}

TEST_F(CopyTest, Statistics_OfAShorterStruct_WriteNoFurther) {
  lscoredb_statistics statistics{};
  statistics.size = offsetof(lscoredb_statistics, last_commit);
  EXPECT_STATUS(0, lscoredb_stats(database_.get(), &statistics));
  EXPECT_NE(0u, statistics.max_file_size);
  EXPECT_EQ(0u, statistics.last_commit);
  statistics.size = 1;
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_stats(database_.get(), &statistics));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_stats(database_.get(), nullptr));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_stats(nullptr, &statistics));
}

}  // namespace
}  // namespace lscoredb_test
