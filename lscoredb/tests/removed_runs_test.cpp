// What a transaction removed is stepped over at once by its later scans, and nothing else is.

#include <deque>
#include <random>
#include <set>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kText = 2;
constexpr std::uint32_t kNumber = 3;

// What the keys are like: all different, all equal, or longer than what the store keeps in order.
enum class Keys { kDifferent, kEqual, kLong };

class RemovedRunsTest : public KernelTest, public testing::WithParamInterface<Keys> {
 protected:
  using Model = std::set<std::pair<std::int64_t, Oid>>;

  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_STRING, 100}, {LORV_TYPE_LONG, 101}});
    index_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_STRING, 100}, {LORV_TYPE_LONG, 101}});
    for (std::size_t i = 0; i < rows(); ++i) Add();
    Restart();
  }

  // Keys that the store does not hold as a whole are read in groups.
  static std::size_t rows() { return GetParam() == Keys::kLong ? 80 : 400; }
  std::int64_t Number() {
    return GetParam() == Keys::kEqual ? 7 : static_cast<std::int64_t>(random_() % 1000);
  }
  void Add() {
    Oid const oid = session_.Insert(layout_);
    std::int64_t const number = Number();
    session_.PutString(oid, kText, Text(GetParam() == Keys::kLong ? 600 : 3, u'x'));
    session_.PutLong(oid, kNumber, number);
    model_.emplace(number, oid);
  }
  void Remove(Model::value_type const row) {
    session_.Delete(row.second);
    model_.erase(row);
  }
  void Move(Model::value_type const row) {
    model_.erase(row);
    std::int64_t const number = Number();
    session_.PutLong(row.second, kNumber, number);
    model_.emplace(number, row.second);
  }
  static Oids InOrder(Model const& model) {
    Oids all;
    for (auto const& [number, oid] : model) all.push_back(oid);
    return all;
  }
  // The first object, or the last one.
  Oid Taken(bool first) {
    Scanner scanner(session_, index_, Key(), Key(),
                    first ? LORV_ITERATOR_FORWARD : LORV_ITERATOR_REVERSE);
    return scanner.Next();
  }
  void TakeSome() {
    bool const first = random_() % 2 == 0;
    bool const moved = random_() % 4 == 0;
    for (auto left = random_() % 30; left != 0 && !model_.empty(); --left) {
      auto const expected = first ? *model_.begin() : *model_.rbegin();
      ASSERT_EQ(expected.second, Taken(first));
      moved ? Move(expected) : Remove(expected);
    }
  }
  // A scan that is opened now, and what it has to deliver whatever is moved or added later.
  void OpenScan() {
    open_.push_back(std::make_unique<Scanner>(session_, index_));
    seen_.push_back(InOrder(model_));
  }
  void FinishScan() {
    Oids expected;
    for (Oid const oid : seen_.front()) {
      if (session_.Exists(oid)) expected.push_back(oid);
    }
    EXPECT_EQ(expected, open_.front()->Rest());
    open_.pop_front();
    seen_.pop_front();
  }
  void Step() {
    switch (random_() % 8) {
      case 0:
        for (int i = 0; i < 5; ++i) Add();
        break;
      case 1:
        if (open_.size() < 3) OpenScan();
        break;
      case 2:
        if (!open_.empty()) FinishScan();
        break;
      case 3:
        Check("savepoint", lscoredb_savepoint(session_.context(), &savepoint_));
        kept_ = model_;
        open_.clear();
        seen_.clear();
        break;
      case 4:
        if (savepoint_ == 0) break;
        open_.clear();
        seen_.clear();
        Check("rollback_to", lscoredb_rollback_to(session_.context(), savepoint_));
        model_ = kept_;
        break;
      default:
        TakeSome();
    }
  }

  std::mt19937 random_;
  LayoutId layout_ = 0;
  IndexId index_ = 0;
  Model model_;
  Model kept_;
  std::uint64_t savepoint_ = 0;
  std::deque<std::unique_ptr<Scanner>> open_;
  std::deque<Oids> seen_;
};

TEST_P(RemovedRunsTest, Scans_AgreeWithAModel) {
  for (int step = 0; step < static_cast<int>(rows()) && !HasFatalFailure(); ++step) {
    Step();
    if (step % 10 != 0) continue;
    EXPECT_EQ(InOrder(model_), session_.Scan(index_));
    Oids const all = InOrder(model_);
    EXPECT_EQ(Oids(all.rbegin(), all.rend()), session_.ScanBack(index_));
    while (model_.size() < rows() / 2) Add();
  }
  open_.clear();
  savepoint_ = 0;
  Restart();
  EXPECT_EQ(InOrder(model_), session_.Scan(index_));
}

TEST_P(RemovedRunsTest, AnEntryAddedInsideOfARun_IsFoundByLaterScans) {
  for (std::size_t i = 1; i < rows(); ++i) Remove(*model_.begin());
  OpenScan();
  EXPECT_EQ(model_.begin()->second, Taken(true));
  Add();
  EXPECT_EQ(model_.begin()->second, Taken(true));
  EXPECT_EQ(model_.rbegin()->second, Taken(false));
  FinishScan();
  EXPECT_EQ(InOrder(model_), session_.Scan(index_));
}

std::string NameOf(testing::TestParamInfo<Keys> const& parameter) {
  constexpr char const* kNames[] = {"Different", "Equal", "Long"};
  return kNames[static_cast<std::size_t>(parameter.param)];
}

INSTANTIATE_TEST_SUITE_P(Of, RemovedRunsTest,
                         testing::Values(Keys::kDifferent, Keys::kEqual, Keys::kLong), NameOf);

}  // namespace
}  // namespace lscoredb_test
