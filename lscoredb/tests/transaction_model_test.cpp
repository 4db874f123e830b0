// Several contexts at once in one thread, in a seeded random order, against a model of what each
// has to see and of which commits have to fail.

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint64_t kNumberToken = 100;

using State = std::map<Oid, std::int64_t>;

// One context with what its open transaction is to see, and what it has changed.
struct Actor {
  explicit Actor(Database const& database) : session(database) {}

  Session session;
  bool open = false;
  State seen;
  std::set<Oid> inserted;
  std::set<Oid> touched;  // rows that were there at the begin
  std::uint64_t began = 0;
};

class TransactionModelTest : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr int kActors = 4;

  void SetUp() override {
    Session session(database_);
    session.Begin();
    layout_ = session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    index_ = session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    session.Commit();
    for (int i = 0; i < kActors; ++i) actors_.push_back(std::make_unique<Actor>(database_));
  }

  int Random(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  void Begin(Actor& actor) {
    actor.session.Begin();
    actor.open = true;
    actor.seen = committed_;
    actor.inserted.clear();
    actor.touched.clear();
    actor.began = commits_;
  }

  void Insert(Actor& actor) {
    Oid const oid = actor.session.Insert(layout_);
    EXPECT_TRUE(all_.insert(oid).second) << oid << " was given out before";
    actor.inserted.insert(oid);
    Write(actor, oid);
  }

  // Values never repeat, so that every write is a change.
  void Write(Actor& actor, Oid oid) {
    std::int64_t const value = (Random(100) - 50) * 1000000 + ++writes_;
    actor.session.PutLong(oid, kNumber, value);
    actor.seen[oid] = value;
    Touch(actor, oid);
  }

  void Delete(Actor& actor, Oid oid) {
    actor.session.Delete(oid);
    actor.seen.erase(oid);
    Touch(actor, oid);
  }

  static void Touch(Actor& actor, Oid oid) {
    if (!actor.inserted.contains(oid)) actor.touched.insert(oid);
  }

  bool HasConflict(Actor const& actor) const {
    return std::any_of(actor.touched.begin(), actor.touched.end(), [&](Oid oid) {
      auto const changed = changed_.find(oid);
      return changed != changed_.end() && changed->second > actor.began;
    });
  }

  void Commit(Actor& actor) {
    actor.open = false;
    if (HasConflict(actor)) {
      EXPECT_STATUS(LSCOREDB_CONFLICT, actor.session.TryCommit());
      return;
    }
    EXPECT_STATUS(0, actor.session.TryCommit());
    ++commits_;
    for (Oid const oid : actor.touched) Publish(actor, oid);
    for (Oid const oid : actor.inserted) Publish(actor, oid);
  }

  void Publish(Actor const& actor, Oid oid) {
    changed_[oid] = commits_;
    auto const seen = actor.seen.find(oid);
    if (seen == actor.seen.end()) {
      committed_.erase(oid);
    } else {
      committed_[oid] = seen->second;
    }
  }

  void Rollback(Actor& actor) {
    actor.session.Rollback();
    actor.open = false;
  }

  void Step(Actor& actor) {
    if (!actor.open) return Begin(actor);
    int const what = Random(20);
    if (what == 0) return Rollback(actor);
    if (what < 3) return Commit(actor);
    if (what < 7 || actor.seen.empty()) return Insert(actor);
    Oid const oid =
        std::next(actor.seen.begin(), Random(static_cast<int>(actor.seen.size())))->first;
    what < 17 ? Write(actor, oid) : Delete(actor, oid);
  }

  void ExpectSeen(Actor& actor) {
    std::vector<std::pair<std::int64_t, Oid>> ordered;
    for (auto const& [oid, value] : actor.seen) {
      EXPECT_EQ(actor.session.Long(oid, kNumber), value);
      ordered.emplace_back(value, oid);
    }
    std::sort(ordered.begin(), ordered.end());
    Oids expected;
    for (auto const& [value, oid] : ordered) expected.push_back(oid);
    EXPECT_EQ(actor.session.Walk(index_), expected);
    for (Oid const oid : all_) EXPECT_EQ(actor.session.Exists(oid), actor.seen.contains(oid));
  }

  Database database_;
  std::mt19937 random_{GetParam()};
  std::vector<std::unique_ptr<Actor>> actors_;
  State committed_;
  std::map<Oid, std::uint64_t> changed_;  // the commit that changed a row last
  std::set<Oid> all_;
  std::uint64_t commits_ = 0;
  std::int64_t writes_ = 0;
  LayoutId layout_ = 0;
  IndexId index_ = 0;
};

TEST_P(TransactionModelTest, EachTransactionSeesItsSnapshotAndItsOwnWrites) {
  for (int i = 0; i < 600 && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    Actor& actor = *actors_[static_cast<std::size_t>(Random(kActors))];
    Step(actor);
    if (actor.open && i % 3 == 0) ExpectSeen(actor);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, TransactionModelTest, testing::Range(1U, 11U));

}  // namespace
}  // namespace lscoredb_test
