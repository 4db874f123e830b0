// Required sets: a commit fails when another transaction changed an object of the set.

#include <lscoredb/require.h>

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

}  // namespace
}  // namespace lscoredb_test
