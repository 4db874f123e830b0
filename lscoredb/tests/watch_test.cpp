// Long work reports its progress to the thread's watch, and stops when the watch says so.

#include <lscoredb/watch.h>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint64_t kNumberToken = 100;
constexpr int kRows = 3000;

// Sets the thread's watch for as long as it lives.
class Observer {
 public:
  static constexpr std::uint64_t kNever = ~std::uint64_t{0};

  // Stops the work at that report, 0 for never, or when that much is done.
  explicit Observer(int stop_at = 0, std::uint64_t stop_when = kNever)
      : stop_at_(stop_at), stop_when_(stop_when) {
    lscoredb_watch(&Observer::Report, this);
  }
  ~Observer() { lscoredb_watch(nullptr, nullptr); }

  int reported() const { return reported_; }
  bool rose() const { return rose_; }
  std::uint64_t last() const { return last_; }
  std::uint64_t total() const { return total_; }

 private:
  static std::uint32_t Report(void* self, std::uint64_t done, std::uint64_t total) {
    auto& observer = *static_cast<Observer*>(self);
    observer.rose_ = observer.rose_ && done >= observer.last_ && (total == 0 || done <= total);
    observer.last_ = done;
    observer.total_ = total;
    return ++observer.reported_ == observer.stop_at_ || done >= observer.stop_when_ ? 1 : 0;
  }

  int stop_at_;
  std::uint64_t stop_when_;
  int reported_ = 0;
  bool rose_ = true;
  std::uint64_t last_ = 0;
  std::uint64_t total_ = 0;
};

class WatchTest : public testing::Test {
 protected:
  WatchTest() {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    AddRows();
    session_.Commit();
  }
  void AddRows() {
    for (int i = 0; i < kRows; ++i) session_.PutLong(session_.Insert(layout_), kNumber, i);
  }
  std::uint32_t Check() { return lscoredb_check(database_.get(), 0, nullptr, nullptr); }
  std::uint32_t Copy(char const* name) {
    return lscoredb_copy(database_.get(), (directory_ / name).c_str());
  }

  TemporaryDirectory directory_;
  Database database_{directory_ / "db"};
  Session session_{database_};
  LayoutId layout_ = 0;
};

TEST_F(WatchTest, Check_ReportsItsParts) {
  Observer const observer;
  EXPECT_STATUS(0, Check());
  EXPECT_TRUE(observer.rose());
  EXPECT_EQ(1000u, observer.total());
  EXPECT_GT(observer.last(), 900u);
}

TEST_F(WatchTest, Check_IsStoppedInEachOfItsParts) {
  Observer counting;
  EXPECT_STATUS(0, Check());
  for (int stop = 1; stop <= counting.reported(); stop += 3) {
    Observer const observer(stop);
    EXPECT_STATUS(LSCOREDB_STOPPED, Check()) << stop;
  }
  lscoredb_watch(nullptr, nullptr);
  EXPECT_STATUS(0, Check());
}

// Enough objects for several threads, all of which stop.
TEST_F(WatchTest, Check_IsStoppedAmongItsObjects) {
  session_.Begin();
  for (int i = 0; i < 8; ++i) AddRows();
  session_.Commit();
  for (std::uint64_t const share : {201u, 500u, 840u}) {
    Observer const observer(0, share);
    EXPECT_STATUS(LSCOREDB_STOPPED, Check()) << share;
    EXPECT_TRUE(observer.rose());
    EXPECT_LE(observer.last(), 850u);
  }
  lscoredb_watch(nullptr, nullptr);
  EXPECT_STATUS(0, Check());
}

TEST_F(WatchTest, Copy_IsReportedAndStopped) {
  {
    Observer const observer;
    EXPECT_STATUS(0, Copy("whole"));
    EXPECT_TRUE(observer.rose());
    EXPECT_EQ(1000u, observer.total());
    EXPECT_GT(observer.reported(), 10);
  }
  Observer const observer(5);
  EXPECT_STATUS(LSCOREDB_STOPPED, Copy("part"));
}

TEST_F(WatchTest, IndexThatWasStopped_IsNotThereAndTheTransactionGoesOn) {
  session_.Begin();
  Oid const before = session_.Insert(layout_);
  {
    Observer const observer(2);
    IndexId index = 0;
    EXPECT_STATUS(LSCOREDB_STOPPED,
                  session_.TryCreateIndex(61, kSet, {{LORV_TYPE_LONG, kNumberToken}}, {}, &index));
  }
  EXPECT_TRUE(session_.IndexesByToken(61).empty());
  session_.CreateIndex(62, kSet, {{LORV_TYPE_LONG, kNumberToken}});
  session_.Commit();
  session_.BeginReadOnly();
  EXPECT_TRUE(session_.Exists(before));
  EXPECT_EQ(kRows + 1u, session_.Scan(session_.IndexesByToken(62).at(0)).size());
}

// Objects are read, then their entries sorted, and equal ones looked for. Only while objects are
// read more and more is done.
TEST_F(WatchTest, IndexBuild_IsStoppedAnywhere) {
  session_.Begin();
  auto const build = [this] {
    IndexId index = 0;
    return session_.TryCreateIndex(61, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique, &index);
  };
  int reported = 0;
  int told_of_all = 0;
  {
    Observer const observer;
    EXPECT_STATUS(0, build());
    reported = observer.reported();
    EXPECT_TRUE(observer.rose());
    EXPECT_EQ(static_cast<std::uint64_t>(kRows), observer.last());
  }
  EXPECT_GE(reported, 3 * kRows / 256 - 3);
  session_.DropIndex(session_.IndexesByToken(61).at(0));
  for (int stop = 1; stop <= reported; ++stop) {
    Observer const observer(stop);
    EXPECT_STATUS(LSCOREDB_STOPPED, build());
    if (observer.last() == kRows) ++told_of_all;
    EXPECT_TRUE(session_.IndexesByToken(61).empty());
  }
  EXPECT_GE(told_of_all, 2 * kRows / 256 - 2);
  session_.Commit();
}

TEST_F(WatchTest, Watch_BelongsToItsThread) {
  Observer const observer(1);
  InParallel(1, [this](int) { EXPECT_STATUS(0, Check()); });
  EXPECT_EQ(0, observer.reported());
}

}  // namespace
}  // namespace lscoredb_test
