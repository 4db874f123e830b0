// Required sets: a commit fails when another transaction changed an object of the set. And when a
// set was changed last.

#include <lscoredb/require.h>

#include <utility>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr char16_t kBelow[] = u"set/below/";
constexpr char16_t kBeside[] = u"tes/";

class RequireSetTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
    inside_ = session_.Insert(layout_);
    beside_ = session_.Insert(layout_, kBeside);
    session_.Commit();
  }

  // The status of a commit that requires the set, after another one that did `work`.
  std::uint32_t CommitBeside(std::function<void(Session&)> const& work) {
    session_.Begin();
    EXPECT_STATUS(0u, lscoredb_require_set(session_.context(), kSet));
    Session other(database_);
    other.Begin();
    work(other);
    other.Commit();
    return session_.TryCommit();
  }

  LayoutId layout_ = 0;
  Oid inside_ = 0;
  Oid beside_ = 0;
};

TEST_F(RequireSetTest, ChangesOfTheSet_Conflict) {
  EXPECT_STATUS(LSCOREDB_CONFLICT, CommitBeside([&](Session& other) { other.Insert(layout_); }));
  EXPECT_STATUS(LSCOREDB_CONFLICT,
                CommitBeside([&](Session& other) { other.PutLong(inside_, kNumber, 1); }));
  EXPECT_STATUS(LSCOREDB_CONFLICT,
                CommitBeside([&](Session& other) { other.Insert(layout_, kBelow); }));
  EXPECT_STATUS(LSCOREDB_CONFLICT, CommitBeside([&](Session& other) { other.Delete(inside_); }));
}

TEST_F(RequireSetTest, ChangesElsewhere_AndBeforeTheSnapshot_DoNot) {
  EXPECT_STATUS(0u, CommitBeside([&](Session& other) { other.PutLong(beside_, kNumber, 1); }));
  EXPECT_STATUS(0u, CommitBeside([&](Session& other) {
                  EXPECT_STATUS(0u, lscoredb_require_set(other.context(), kSet));
                }));
  session_.Begin();
  EXPECT_STATUS(0u, lscoredb_require_set(session_.context(), kSet));
  session_.PutLong(inside_, kNumber, 2);
  session_.Commit();
}

TEST_F(RequireSetTest, RolledBackToASavepoint_IsNoLongerRequired) {
  session_.Begin();
  std::uint64_t savepoint = 0;
  EXPECT_STATUS(0u, lscoredb_savepoint(session_.context(), &savepoint));
  EXPECT_STATUS(0u, lscoredb_require_set(session_.context(), kSet));
  EXPECT_STATUS(0u, lscoredb_rollback_to(session_.context(), savepoint));
  Session other(database_);
  other.Begin();
  other.PutLong(inside_, kNumber, 3);
  other.Commit();
  session_.PutLong(beside_, kNumber, 3);
  EXPECT_STATUS(0u, session_.TryCommit());
}

class SetChangedTest : public RequireSetTest {
 protected:
  // As of a new snapshot.
  std::uint64_t Changed(char16_t const* setspec) {
    Session reader(database_);
    reader.BeginReadOnly();
    std::uint64_t commit = 0;
    EXPECT_STATUS(0u, lscoredb_set_changed(reader.context(), setspec, &commit));
    return commit;
  }
};

TEST_F(SetChangedTest, ChangesOfTheSet_AdvanceIt) {
  EXPECT_EQ(0u, Changed(u"unknown/"));
  std::uint64_t last = Changed(kSet);
  EXPECT_LT(0u, last);
  auto const advances = [&](std::function<void()> const& work) {
    session_.Begin();
    work();
    session_.Commit();
    std::uint64_t const before = std::exchange(last, Changed(kSet));
    EXPECT_EQ(last, Changed(kSet));
    return last > before;
  };
  EXPECT_TRUE(advances([&] { session_.PutLong(inside_, kNumber, 1); }));
  EXPECT_TRUE(advances([&] { session_.Insert(layout_, kBelow); }));
  EXPECT_TRUE(advances([&] { session_.PutSetspec(inside_, kBeside); }));
  EXPECT_TRUE(advances([&] { session_.PutSetspec(inside_, kSet); }));
  EXPECT_TRUE(advances([&] { session_.Delete(inside_); }));
  EXPECT_FALSE(advances([&] { session_.PutLong(beside_, kNumber, 1); }));
  EXPECT_GT(last, Changed(kBelow));
}

TEST_F(SetChangedTest, OwnAndLaterChanges_DoNotCount) {
  std::uint64_t const before = Changed(kSet);
  session_.Begin();
  session_.PutLong(inside_, kNumber, 1);
  Session other(database_);
  other.Begin();
  other.Insert(layout_);
  other.Commit();
  std::uint64_t commit = 0;
  EXPECT_STATUS(0u, lscoredb_set_changed(session_.context(), kSet, &commit));
  EXPECT_EQ(before, commit);
  session_.Commit();
  EXPECT_LT(before, Changed(kSet));
}

TEST_F(SetChangedTest, BadArguments_AreRefused) {
  std::uint64_t commit = 0;
  EXPECT_STATUS(LSCOREDB_NO_TRANSACTION, lscoredb_set_changed(session_.context(), kSet, &commit));
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_set_changed(session_.context(), nullptr, &commit));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_set_changed(session_.context(), kSet, nullptr));
  session_.Rollback();
}

}  // namespace
}  // namespace lscoredb_test
