// Several contexts at once in one thread, in a seeded random order, against a model of what each
// has to see and of which commits have to fail; with savepoints, which take the model's state back
// as they do the kernel's.

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

// What a transaction is to see, and what it has changed.
struct Writes {
  State seen;
  std::set<Oid> inserted;
  std::set<Oid> touched;  // rows that were there at the begin
  std::set<Oid> required;
  std::vector<IndexId> indexes;  // over the number
};

// One context with its open transaction.
struct Actor {
  explicit Actor(Database const& database) : session(database) {}

  Session session;
  bool open = false;
  Writes now;
  std::vector<std::pair<std::uint64_t, Writes>> savepoints;
  std::uint64_t began = 0;
};

class TransactionModelTest : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr int kActors = 4;

  void SetUp() override {
    Session session(database_);
    session.Begin();
    layout_ = session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}});
    wide_ = session.CreateLayout(
        50, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, kNumberToken + 1}});
    index_ = session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    session.Commit();
    for (int i = 0; i < kActors; ++i) actors_.push_back(std::make_unique<Actor>(database_));
  }

  int Random(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  void Begin(Actor& actor) {
    actor.session.Begin();
    actor.open = true;
    actor.now = Writes{committed_, {}, {}, {}, {index_}};
    actor.savepoints.clear();
    actor.began = commits_;
  }

  void Insert(Actor& actor) {
    Oid const oid = actor.session.Insert(layout_);
    EXPECT_TRUE(all_.insert(oid).second) << oid << " was given out before";
    actor.now.inserted.insert(oid);
    Write(actor, oid);
  }

  // Values never repeat, so that every write is a change.
  void Write(Actor& actor, Oid oid) {
    std::int64_t const value = (Random(100) - 50) * 1000000 + ++writes_;
    actor.session.PutLong(oid, kNumber, value);
    actor.now.seen[oid] = value;
    Touch(actor, oid);
  }

  void Delete(Actor& actor, Oid oid) {
    actor.session.Delete(oid);
    actor.now.seen.erase(oid);
    Touch(actor, oid);
  }

  // A row as a whole; its values stay.
  void Move(Actor& actor, Oid oid) {
    LayoutId const to = actor.session.LayoutOf(oid) == layout_ ? wide_ : layout_;
    Check("move", lscoredb_move_object(actor.session.context(), oid, to));
    Touch(actor, oid);
  }

  void Require(Actor& actor, Oid oid) {
    Check("require", lscoredb_require(actor.session.context(), oid));
    if (!actor.now.inserted.contains(oid)) actor.now.required.insert(oid);
  }

  // It goes before the commit, so that the model of conflicts stays one of rows.
  void CreateIndex(Actor& actor) {
    IndexId const made =
        actor.session.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kNumberToken}}, {false, 1});
    EXPECT_TRUE(all_indexes_.insert(made).second) << made << " was given out before";
    actor.now.indexes.push_back(made);
  }

  void DropIndex(Actor& actor) {
    actor.session.DropIndex(actor.now.indexes.back());
    actor.now.indexes.pop_back();
  }

  void SetSavepoint(Actor& actor) {
    std::uint64_t number = 0;
    Check("savepoint", lscoredb_savepoint(actor.session.context(), &number));
    actor.savepoints.emplace_back(number, actor.now);
  }

  void RollbackTo(Actor& actor) {
    auto const at = static_cast<std::size_t>(Random(static_cast<int>(actor.savepoints.size())));
    auto const [number, writes] = actor.savepoints[at];
    Check("rollback_to", lscoredb_rollback_to(actor.session.context(), number));
    actor.now = writes;
    actor.savepoints.resize(at + 1);
  }

  void Release(Actor& actor) {
    auto const at = static_cast<std::size_t>(Random(static_cast<int>(actor.savepoints.size())));
    Check("release", lscoredb_release(actor.session.context(), actor.savepoints[at].first));
    actor.savepoints.resize(at);
  }

  void StepSavepoints(Actor& actor) {
    int const what = Random(5);
    if (what < 2 || actor.savepoints.empty()) return SetSavepoint(actor);
    what == 2 ? Release(actor) : RollbackTo(actor);
  }

  void StepIndexes(Actor& actor) {
    actor.now.indexes.size() < 3 ? CreateIndex(actor) : DropIndex(actor);
  }

  static void Touch(Actor& actor, Oid oid) {
    if (!actor.now.inserted.contains(oid)) actor.now.touched.insert(oid);
  }

  bool HasConflict(Actor const& actor) const {
    auto const is_changed = [&](Oid oid) {
      auto const changed = changed_.find(oid);
      return changed != changed_.end() && changed->second > actor.began;
    };
    return std::any_of(actor.now.touched.begin(), actor.now.touched.end(), is_changed) ||
           std::any_of(actor.now.required.begin(), actor.now.required.end(), is_changed);
  }

  void Commit(Actor& actor) {
    while (actor.now.indexes.size() > 1) DropIndex(actor);
    actor.open = false;
    if (HasConflict(actor)) {
      EXPECT_STATUS(LSCOREDB_CONFLICT, actor.session.TryCommit());
      return;
    }
    EXPECT_STATUS(0, actor.session.TryCommit());
    ++commits_;
    for (Oid const oid : actor.now.touched) Publish(actor, oid);
    for (Oid const oid : actor.now.inserted) Publish(actor, oid);
  }

  void Publish(Actor const& actor, Oid oid) {
    changed_[oid] = commits_;
    auto const seen = actor.now.seen.find(oid);
    if (seen == actor.now.seen.end()) {
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
    int const what = Random(30);
    if (what == 0) return Rollback(actor);
    if (what < 3) return Commit(actor);
    if (what >= 22) return StepSavepoints(actor);
    if (what == 21) return StepIndexes(actor);
    if (what < 7 || actor.now.seen.empty()) return Insert(actor);
    Oid const oid =
        std::next(actor.now.seen.begin(), Random(static_cast<int>(actor.now.seen.size())))->first;
    if (what < 15) return Write(actor, oid);
    if (what < 17) return Move(actor, oid);
    what < 18 ? Require(actor, oid) : Delete(actor, oid);
  }

  void ExpectSeen(Actor& actor) {
    std::vector<std::pair<std::int64_t, Oid>> ordered;
    for (auto const& [oid, value] : actor.now.seen) {
      EXPECT_EQ(actor.session.Long(oid, kNumber), value);
      ordered.emplace_back(value, oid);
    }
    std::sort(ordered.begin(), ordered.end());
    Oids expected;
    for (auto const& [value, oid] : ordered) expected.push_back(oid);
    EXPECT_EQ(actor.session.Scan(index_), expected);
    std::reverse(expected.begin(), expected.end());
    for (std::size_t i = 1; i < actor.now.indexes.size(); ++i) {
      EXPECT_EQ(actor.session.Scan(actor.now.indexes[i]), expected);
    }
    for (Oid const oid : all_) EXPECT_EQ(actor.session.Exists(oid), actor.now.seen.contains(oid));
  }

  Database database_;
  std::mt19937 random_{GetParam()};
  std::vector<std::unique_ptr<Actor>> actors_;
  State committed_;
  std::map<Oid, std::uint64_t> changed_;  // the commit that changed a row last
  std::set<Oid> all_;
  std::set<IndexId> all_indexes_;
  std::uint64_t commits_ = 0;
  std::int64_t writes_ = 0;
  LayoutId layout_ = 0;
  LayoutId wide_ = 0;
  IndexId index_ = 0;
};

TEST_P(TransactionModelTest, Transaction_SeesItsSnapshotAndItsOwnWrites) {
  for (int i = 0; i < 900 && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    Actor& actor = *actors_[static_cast<std::size_t>(Random(kActors))];
    Step(actor);
    if (actor.open && i % 3 == 0) ExpectSeen(actor);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, TransactionModelTest, testing::Range(1U, 11U));

}  // namespace
}  // namespace lscoredb_test
