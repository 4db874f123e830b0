// Changes of columns and of places in batches, killed at each point of a commit and at random
// moments: whatever is left is whole, and the same call goes on and ends.

#include <unistd.h>

#include <random>
#include <sagleme/check.hpp>
#include <sagleme/hierarchy.hpp>
#include <sagleme/schema_plan.hpp>

#include "crash/child.h"
#include "crash/directory.h"
#include "crash/rounds.h"
#include "crash/store_faults.h"

namespace crash_test {
namespace {

using sagleme::Context;
using sagleme::Database;
using sagleme::Object;
using sagleme::ObjectId;
using sagleme::Range;
using sagleme::Text;
using sagleme::Transaction;
using sagleme::Type;
using sagleme::Value;

constexpr std::int64_t kObjects = 90;
constexpr std::uint32_t kBatch = 20;

Object Make(Transaction& transaction, Text const& table, std::int64_t number) {
  Object object = Object::Create(transaction, *transaction.table(table));
  object.Set(u"Title", std::to_string(number));
  object.Set(u"Id", object.id().value);
  object.Set(u"Pages", number);
  return object;
}

// Each object has its identity in Id, and its number in Title and in Pages. The loan of a book has
// its number too.
void MakeLibrary(std::string const& place) {
  Database const database = Database::Create(place);
  Context const context(database);
  Transaction transaction(context);
  sagleme::CreateTable(transaction, u"Item", u"",
                       {{u"Title", Type::kString}, {u"Id", Type::kULong, false}});
  sagleme::CreateTable(transaction, u"Book", u"Item",
                       {{u"Pages", Type::kLong}, {u"Count", Type::kLong, false}});
  sagleme::CreateTable(transaction, u"Novel", u"Book", {{u"Genre", Type::kString}});
  sagleme::CreateTable(transaction, u"Film", u"Item", {{u"Pages", Type::kLong}});
  sagleme::CreateTable(transaction, u"Media", u"", {{u"Format", Type::kString}});
  sagleme::CreateTable(transaction, u"Loan", u"",
                       {{u"Number", Type::kLong}, {u"Book", Type::kReference, true, u"Book"}});
  sagleme::CreateIndex(transaction, u"ItemByTitle", u"Item", {{u"Title"}},
                       sagleme::Uniqueness::kUnique);
  sagleme::CreateIndex(transaction, u"BookByPages", u"Book", {{u"Pages"}});
  sagleme::CreateIndex(transaction, u"FilmByPages", u"Film", {{u"Pages"}, {u"Title"}});
  for (std::int64_t i = 0; i < kObjects; ++i) {
    Object const object = Make(transaction,
                               i % 3 == 0   ? u"Film"
                               : i % 3 == 1 ? u"Book"
                                            : u"Novel",
                               i);
    if (i % 3 == 0) continue;
    Object loan = Object::Create(transaction, *transaction.table(u"Loan"));
    loan.Set(u"Number", i);
    loan.Set(u"Book", object.id());
  }
  transaction.Commit();
}

std::int64_t NumberOf(Value const& value) {
  if (auto const* const number = std::get_if<std::int64_t>(&value)) return *number;
  return std::stoll(sagleme::ToUtf8(std::get<std::u16string>(value)));
}

// Every object is found once, with its identity and its values, by its table and by its indexes.
void ExpectWhole(Transaction& transaction) {
  std::set<std::int64_t> numbers;
  for (Text const& table : {Text(u"Film"), Text(u"Book"), Text(u"Novel")}) {
    for (Object const& each : Range::Only(transaction, *transaction.table(table))) {
      std::int64_t const number = NumberOf(each.Get(u"Title"));
      EXPECT_TRUE(numbers.insert(number).second) << number;
      EXPECT_EQ(number, NumberOf(each.Get(u"Pages")));
      EXPECT_EQ(Value(each.id().value), each.Get(u"Id"));
    }
  }
  EXPECT_EQ(static_cast<std::size_t>(kObjects), numbers.size());
  for (Object const& loan : Range::Only(transaction, *transaction.table(u"Loan"))) {
    auto const book = Object::Find(transaction, std::get<ObjectId>(loan.Get(u"Book")));
    ASSERT_TRUE(book);
    EXPECT_EQ(NumberOf(loan.Get(u"Number")), NumberOf(book->Get(u"Pages")));
  }
  sagleme::CheckCatalogue(transaction, {}, [](sagleme::Finding const& finding) {
    ADD_FAILURE() << finding.rule << " " << finding.table << ": " << finding.what;
  });
}

void ExpectWholeAt(std::string const& place, std::function<bool(Transaction&)> const& holds) {
  InChild([&] {
    Database const database = Database::Open(place);
    Context const context(database);
    {
      Transaction transaction(context, sagleme::Access::kReadOnly);
      ExpectWhole(transaction);
      EXPECT_TRUE(holds(transaction));
    }
    EXPECT_EQ(0u, lscoredb_check(database.handle(), 0, nullptr, nullptr));
  });
}

// ---- the jobs -----------------------------------------------------------------------------------

struct Job {
  char const* name;
  void (*run)(Context const&);
  bool (*is_done)(Transaction&);
};

sagleme::ColumnChangeOptions InBatches() {
  sagleme::ColumnChangeOptions options;
  options.batch = kBatch;
  return options;
}

bool HasNoHiddenColumn(Transaction& transaction) {
  for (auto const& table : transaction.Tables()) {
    for (sagleme::Column const& column : table->columns) {
      if (column.name.starts_with(u"__next_")) return false;
    }
  }
  return true;
}

void PullUp(Context const& context) {
  sagleme::RunPullUpColumn(context, u"Book", u"Pages", u"Item", InBatches());
}
bool IsPulledUp(Transaction& transaction) {
  auto const* const column = transaction.table(u"Item")->FindColumn(u"Pages");
  return column != nullptr && HasNoHiddenColumn(transaction);
}

void PushDown(Context const& context) {
  std::array<Text, 2> const tables{u"Film", u"Book"};
  sagleme::RunPushDownColumn(context, u"Item", u"Id", tables, InBatches());
}
bool IsPushedDown(Transaction& transaction) {
  return transaction.table(u"Item")->FindColumn(u"Id") == nullptr && HasNoHiddenColumn(transaction);
}

void ChangeType(Context const& context) {
  sagleme::RunChangeColumnType(context, u"Book", {u"Pages", Type::kString}, InBatches());
}
bool HasAnotherType(Transaction& transaction) {
  return transaction.table(u"Novel")->GetColumn(u"Pages").type == Type::kString &&
         HasNoHiddenColumn(transaction);
}

void ChangeTypeByAPlan(Context const& context) {
  sagleme::ColumnDoc before;
  before.name = "Title";
  sagleme::ColumnDoc after = before;
  after.type = Type::kLong;
  sagleme::Change const change = sagleme::change::ChangeColumn{"Item", before, after};
  sagleme::PrepareChange(context, change, InBatches());
  Transaction transaction(context);
  sagleme::ApplyPlan(transaction, {change});
  transaction.Commit();
}
bool HasNumbersAsTitles(Transaction& transaction) {
  return transaction.table(u"Novel")->GetColumn(u"Title").type == Type::kLong &&
         HasNoHiddenColumn(transaction);
}

void Relax(Context const& context) {
  sagleme::RunChangeColumnType(context, u"Book", {u"Count", Type::kLong, true}, InBatches());
}
bool IsRelaxed(Transaction& transaction) {
  auto const book = transaction.table(u"Book");
  if (!book->GetColumn(u"Count").nullable || !HasNoHiddenColumn(transaction)) return false;
  for (Object const& each : Range::Subtree(transaction, *book)) {
    EXPECT_EQ(Value(std::int64_t{0}), each.Get(u"Count"));
  }
  return true;
}

std::vector<ObjectId> ObjectsOf(Transaction& transaction, Text const& table) {
  std::vector<ObjectId> ids;
  for (Object const& each : Range::Only(transaction, *transaction.table(table))) {
    ids.push_back(each.id());
  }
  return ids;
}

void Retype(Context const& context) {
  std::vector<ObjectId> films;
  {
    Transaction transaction(context, sagleme::Access::kReadOnly);
    films = ObjectsOf(transaction, u"Film");
  }
  sagleme::RetypeOptions options;
  options.by_name = true;
  sagleme::RetypeJob job;
  job.batch = 7;
  sagleme::RetypeInBatches(context, films, u"Novel", options, job);
}
bool IsRetyped(Transaction& transaction) { return ObjectsOf(transaction, u"Film").empty(); }

void Move(Context const& context) {
  Transaction transaction(context);
  sagleme::SetBase(transaction, u"Book", u"Media");
  transaction.Commit();
}
bool IsMoved(Transaction& transaction) {
  std::int64_t count = 0;
  for (Object const& each : Range::Subtree(transaction, *transaction.table(u"Media"))) {
    EXPECT_TRUE(each.id().value != 0);
    ++count;
  }
  bool const moved = transaction.table(u"Book")->base == u"Media";
  EXPECT_EQ(moved ? kObjects / 3 * 2 : 0, count);
  return moved;
}

constexpr Job kJobs[] = {{"PullUp", PullUp, IsPulledUp},
                         {"PushDown", PushDown, IsPushedDown},
                         {"ChangeType", ChangeType, HasAnotherType},
                         {"ChangeTypeByAPlan", ChangeTypeByAPlan, HasNumbersAsTitles},
                         {"Relax", Relax, IsRelaxed},
                         {"Retype", Retype, IsRetyped},
                         {"Move", Move, IsMoved}};

// Goes on where the last one was killed; says "begun" before.
int GoOn(Channel& channel, std::string const& place, Job const& job,
         std::function<void()> const& arm) {
  Database const database = Database::Open(place);
  Context const context(database);
  bool done = false;
  {
    Transaction transaction(context, sagleme::Access::kReadOnly);
    done = job.is_done(transaction);
  }
  channel.Say("begun");
  arm();
  if (!done) job.run(context);
  store_faults::Disarm();
  return 0;
}

class HierarchyKillTest : public testing::TestWithParam<Job> {
 protected:
  void StartOver() {
    directory_.emplace();
    InChild([&] { MakeLibrary(place()); });
  }
  std::string place() const { return directory_->path() + "/db"; }

  // Whether the job was killed.
  bool RunArmed(store_faults::Point point, int nth) {
    Child child([&](Channel& channel) {
      return GoOn(channel, place(), GetParam(),
                  [&] { store_faults::Arm(point, nth, store_faults::Kill); });
    });
    int const status = child.Wait();
    EXPECT_TRUE(status == 0 || status == Child::kKilled) << status;
    ExpectWholeAt(place(), [](Transaction&) { return true; });
    return status == Child::kKilled;
  }
  void RunToItsEnd() {
    InChild([&] {
      Database const database = Database::Open(place());
      Context const context(database);
      bool done = false;
      {
        Transaction transaction(context, sagleme::Access::kReadOnly);
        done = GetParam().is_done(transaction);
      }
      if (!done) GetParam().run(context);
    });
    ExpectWholeAt(place(), GetParam().is_done);
  }

  std::optional<Directory> directory_;
};

TEST_P(HierarchyKillTest, KilledAtAnyPointOfACommit_GoesOnAndEnds) {
  int kills = 0;
  for (store_faults::Point const point : store_faults::kAllPoints) {
    SCOPED_TRACE("point " + std::to_string(static_cast<int>(point)));
    StartOver();
    for (int nth = 1; nth <= 3 && !HasFailure(); ++nth) kills += RunArmed(point, nth) ? 1 : 0;
    RunToItsEnd();
    if (HasFailure()) return;
  }
  EXPECT_LT(5, kills);
}

TEST_P(HierarchyKillTest, KilledAtRandomMoments_GoesOnAndEnds) {
  std::mt19937 random(11);
  int const rounds = Rounds(12, 3);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    if (round % 4 == 0) StartOver();
    Child child([&](Channel& channel) { return GoOn(channel, place(), GetParam(), [] {}); });
    child.Next();
    usleep(static_cast<useconds_t>(random() % 20000));
    child.Kill();
    ExpectWholeAt(place(), [](Transaction&) { return true; });
    if (round % 4 == 3) RunToItsEnd();
  }
}

INSTANTIATE_TEST_SUITE_P(Jobs, HierarchyKillTest, testing::ValuesIn(kJobs),
                         [](auto const& job) { return std::string(job.param.name); });

}  // namespace
}  // namespace crash_test
