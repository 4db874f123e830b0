#include "crash/bank.h"

#include <gtest/gtest.h>

#include <map>
#include <sagleme/changes.hpp>
#include <sagleme/check.hpp>
#include <sagleme/durability.hpp>
#include <set>
#include <utility>
#include <vector>

namespace crash_test {

using namespace sagleme;

namespace {

constexpr char16_t kAccount[] = u"Bank.Account";
constexpr char16_t kTransfer[] = u"Bank.Transfer";
constexpr char16_t kLine[] = u"Bank.Line";
constexpr char16_t kTeller[] = u"Bank.Teller";
constexpr char16_t kByNumber[] = u"AccountByNumber";
constexpr char16_t kByBalance[] = u"AccountByBalance";
constexpr char16_t kByKey[] = u"TransferByKey";
constexpr char16_t kByTransfer[] = u"LineByTransfer";
constexpr char16_t kTellerByNumber[] = u"TellerByNumber";
constexpr int kExtras = 3;

std::uint64_t Mix(std::uint64_t value) {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

// All that there is to know of one transfer.
struct Plan {
  std::int64_t from;
  std::int64_t to;
  std::int64_t amount;
  std::u16string memo;
  std::size_t lines;
};

// Most memos fit a page, some take pages of their own, a few more than one record of the store.
std::size_t MemoLength(std::uint64_t random) {
  if (random % 61 == 0) return 70000;
  return random % 7 == 0 ? 6000 : random % 200;
}

Plan PlanOf(std::uint64_t seed, int teller, std::int64_t step) {
  std::uint64_t const random =
      Mix(seed * 1000003 + static_cast<std::uint64_t>(step * (kTellers + 1) + teller));
  Plan plan;
  plan.from = static_cast<std::int64_t>(random % kAccounts);
  plan.to = (plan.from + 1 + static_cast<std::int64_t>(random / 8 % (kAccounts - 1))) % kAccounts;
  plan.amount = static_cast<std::int64_t>(random / 64 % 50);
  plan.memo.assign(MemoLength(random / 4096), static_cast<char16_t>(u'a' + random / 512 % 26));
  if (!plan.memo.empty() && random % 5 == 0) plan.memo.back() = u'\u03A9';
  plan.lines = random / 128 % 4;
  return plan;
}

std::uint64_t KeyOf(int teller, std::int64_t step) {
  return static_cast<std::uint64_t>(teller) << 32 | static_cast<std::uint64_t>(step);
}

std::u16string LineText(std::uint64_t key, std::size_t position) {
  return ToUtf16("line " + std::to_string(key) + "/" + std::to_string(position));
}

std::u16string ExtraTable(std::int64_t cycle) {
  return u"Bank.Extra" + ToUtf16(std::to_string(cycle));
}
std::u16string ExtraIndex(std::int64_t cycle) {
  return u"ExtraByA" + ToUtf16(std::to_string(cycle));
}

Index FindIndex(Transaction& transaction, std::u16string_view name) {
  std::optional<Index> found = transaction.FindIndex(name);
  if (!found.has_value()) throw std::runtime_error("no index " + ToUtf8(name));
  return *found;
}

std::vector<Object> All(Range range) {
  std::vector<Object> objects;
  for (Object const& object : range) objects.push_back(object);
  return objects;
}

std::vector<Object> AllAt(Transaction& transaction, std::u16string_view index, Value const& key) {
  return All(Range::Matching(transaction, FindIndex(transaction, index), {key}));
}

Object OneAt(Transaction& transaction, std::u16string_view index, Value const& key) {
  std::vector<Object> const found = AllAt(transaction, index, key);
  if (found.size() != 1) throw std::runtime_error("not one object in " + ToUtf8(index));
  return found[0];
}

std::int64_t LongOf(Object const& object, std::u16string_view column) {
  return std::get<std::int64_t>(object.Get(column));
}

void MakeIndex(Transaction& transaction, std::u16string const& name, char16_t const* table,
               std::vector<IndexColumnSpec> const& columns, Uniqueness uniqueness) {
  CreateIndex(transaction, name, table, columns, uniqueness);
}

void MakeTables(Transaction& transaction) {
  std::vector<ColumnSpec> const account{{u"Number", Type::kLong, false},
                                        {u"Balance", Type::kLong, false}};
  CreateTable(transaction, kAccount, u"", account);
  std::vector<ColumnSpec> const transfer{{u"Key", Type::kULong, false},
                                         {u"Memo", Type::kString},
                                         {u"From", Type::kReference, true, kAccount}};
  CreateTable(transaction, kTransfer, u"", transfer);
  std::vector<ColumnSpec> const line{{u"Transfer", Type::kReference, true, kTransfer},
                                     {u"Position", Type::kLong, false},
                                     {u"Text", Type::kString}};
  CreateTable(transaction, kLine, u"", line);
  std::vector<ColumnSpec> const teller{{u"Number", Type::kLong, false},
                                       {u"Done", Type::kLong, false}};
  CreateTable(transaction, kTeller, u"", teller);
}

void MakeIndexes(Transaction& transaction) {
  MakeIndex(transaction, kByNumber, kAccount, {{u"Number"}}, Uniqueness::kUnique);
  MakeIndex(transaction, kByBalance, kAccount, {{u"Balance"}, {u"Number"}}, Uniqueness::kAny);
  MakeIndex(transaction, kByKey, kTransfer, {{u"Key"}}, Uniqueness::kUnique);
  MakeIndex(transaction, kByTransfer, kLine, {{u"Transfer"}, {u"Position"}}, Uniqueness::kUnique);
  MakeIndex(transaction, kTellerByNumber, kTeller, {{u"Number"}}, Uniqueness::kUnique);
}

void MakeAccount(Transaction& transaction, std::u16string const& table, std::int64_t number,
                 std::int64_t balance) {
  TablePtr const found = transaction.table(table);
  Object account = Object::Create(transaction, *found);
  account.Set(*found, found->GetColumn(u"Number"), number);
  account.Set(*found, found->GetColumn(u"Balance"), balance);
}

std::uint32_t ReportFinding(void*, lscoredb_finding const* finding) {
  ADD_FAILURE() << finding->text << " object " << finding->object << ", index " << finding->index
                << ", layout " << finding->layout;
  return 0;
}

std::unique_ptr<Database> OpenOrCreate(std::string const& directory, Options const& options) {
  if (Database::ExistsIn(directory)) {
    try {
      return std::make_unique<Database>(Database::Open(directory, options));
    } catch (Error const& failure) {
      if (failure.status() != sagleme::detail::kPartialCatalogue) throw;
    }
  }
  return std::make_unique<Database>(Database::Create(directory, {}, options));
}

}  // namespace

// ---- the bank -----------------------------------------------------------------------------------

Options UnsyncedOptions(bool log) {
  Options options{.no_sync = true, .log = LSCOREDB_NO_LOG};
  if (!log) return options;
  options.log = LSCOREDB_LOG;
  options.log_limit = 64 * 1024;
  return options;
}

Bank::Bank(std::string const& directory, std::uint64_t seed, Options const& options)
    : owned_(OpenOrCreate(directory, options)), database_(owned_.get()), seed_(seed) {
  Found();
}

Bank::Bank(Database& database, std::uint64_t seed) : database_(&database), seed_(seed) { Found(); }

// In one transaction, so that the bank is there or not.
void Bank::Found() {
  Context const context(*database_);
  Transaction transaction(context);
  if (transaction.Find(kAccount) != nullptr) return;
  MakeTables(transaction);
  MakeIndexes(transaction);
  for (std::int64_t number = 0; number < kAccounts; ++number) {
    MakeAccount(transaction, kAccount, number, kOpening);
  }
  for (std::int64_t number = 0; number <= kTellers; ++number) {
    Object teller = Object::Create(transaction, *transaction.table(kTeller));
    teller.Set(u"Number", number);
  }
  transaction.Commit();
}

Progress Bank::Done() {
  Context const context(*database_);
  Transaction transaction(context, Access::kReadOnly);
  return Done(transaction);
}

Progress Bank::Done(Transaction& transaction) {
  Progress done{};
  for (std::size_t i = 0; i < done.size(); ++i) {
    done[i] = LongOf(OneAt(transaction, kTellerByNumber, static_cast<std::int64_t>(i)), u"Done");
  }
  return done;
}

std::int64_t Bank::Step(Context const& context, int teller) {
  for (;;) {
    try {
      Transaction transaction(context);
      std::int64_t const step = Work(transaction, teller);
      if (Syncs(step)) RequireSync(transaction);
      transaction.Commit();
      return step;
    } catch (Error const& failure) {
      if (failure.status() != LSCOREDB_CONFLICT) throw;
    }
  }
}

std::int64_t Bank::Work(Transaction& transaction, int teller) {
  Object row = OneAt(transaction, kTellerByNumber, std::int64_t{teller});
  std::int64_t const step = LongOf(row, u"Done") + 1;
  if (teller == kArchitect) {
    ChangeSchema(transaction, step - 1);
  } else {
    Transfer(transaction, teller, step);
  }
  row.Set(u"Done", step);
  return step;
}

void Bank::Transfer(Transaction& transaction, int teller, std::int64_t step) {
  Plan const plan = PlanOf(seed_, teller, step);
  Object from = OneAt(transaction, kByNumber, plan.from);
  Object to = OneAt(transaction, kByNumber, plan.to);
  from.Set(u"Balance", LongOf(from, u"Balance") - plan.amount);
  to.Set(u"Balance", LongOf(to, u"Balance") + plan.amount);
  std::uint64_t const key = KeyOf(teller, step);
  Object transfer = Object::Create(transaction, *transaction.table(kTransfer));
  transfer.Set(u"Key", key);
  transfer.Set(u"Memo", plan.memo);
  transfer.Set(u"From", from.id());
  for (std::size_t i = 0; i < plan.lines; ++i) {
    Object line = Object::Create(transaction, *transaction.table(kLine));
    line.Set(u"Transfer", transfer.id());
    line.Set(u"Position", static_cast<std::int64_t>(i));
    line.Set(u"Text", LineText(key, i));
  }
  if (step <= kKept) return;
  Object old = OneAt(transaction, kByKey, KeyOf(teller, step - kKept));
  for (Object& line : AllAt(transaction, kByTransfer, old.id())) line.Delete();
  old.Delete();
}

void Bank::ChangeSchema(Transaction& transaction, std::int64_t step) {
  std::int64_t const cycle = step / kSchemaSteps;
  std::u16string const table = ExtraTable(cycle);
  std::vector<ColumnSpec> const columns{{u"A", Type::kLong, false}, {u"B", Type::kString}};
  std::vector<ColumnSpec> const note{{u"Note", Type::kString}};
  switch (step % kSchemaSteps) {
    case 0:
      CreateTable(transaction, table, kAccount, columns);
      break;
    case 1:
      for (std::int64_t i = 0; i < kExtras; ++i) MakeAccount(transaction, table, 1000 + i, 0);
      break;
    case 2:
      MakeIndex(transaction, ExtraIndex(cycle), table.c_str(), {{u"A"}}, Uniqueness::kAny);
      break;
    case 3:
      AddColumns(transaction, kAccount, note);
      OneAt(transaction, kByNumber, std::int64_t{0}).Set(u"Note", std::u16string(u"noted"));
      break;
    case 4:
      DropColumn(transaction, kAccount, u"Note");
      break;
    default:
      for (Object& object : All(Range::Only(transaction, *transaction.table(table)))) {
        object.Delete();
      }
      DropIndex(transaction, ExtraIndex(cycle));
      DropTable(transaction, table);
  }
}

// ---- what is expected ---------------------------------------------------------------------------

void Bank::ExpectWhole() {
  Context const context(*database_);
  Transaction transaction(context, Access::kReadOnly);
  Progress const done = Done(transaction);
  ExpectAccounts(transaction, done);
  ExpectTransfers(transaction, done);
  ExpectSchema(transaction, done[kArchitect]);
  ExpectFeed(transaction, done);
  EXPECT_EQ(0U, lscoredb_check(database_->handle(), 0, ReportFinding, nullptr));
  CheckCatalogue(transaction, {}, [](Finding const& finding) {
    ADD_FAILURE() << finding.rule << " " << finding.table << " " << finding.object << ": "
                  << finding.what;
  });
}

void Bank::KeepChanges() { sagleme::KeepChanges(*database_, {.bytes = std::uint64_t{1} << 40}); }

// Each step changes its teller's row once.
void Bank::ExpectFeed(Transaction& transaction, Progress const& done) {
  lscoredb_kept_changes kept{};
  kept.size = sizeof kept;
  if (lscoredb_kept(database_->handle(), &kept) != 0) return;
  std::map<std::uint64_t, std::int64_t> told;
  Changes changes(*database_, {kept.first - 1});
  for (DataChange const& change : changes) {
    if (change.table == kTeller) ++told[change.object.value];
  }
  for (std::size_t i = 0; i < done.size(); ++i) {
    Object const row = OneAt(transaction, kTellerByNumber, static_cast<std::int64_t>(i));
    EXPECT_EQ(done[i], told[row.id().value]) << "teller " << i << " in the feed";
  }
}

void Bank::ExpectAccounts(Transaction& transaction, Progress const& done) {
  std::vector<std::int64_t> balances(kAccounts, kOpening);
  for (int teller = 0; teller < kTellers; ++teller) {
    for (std::int64_t step = 1; step <= done[static_cast<std::size_t>(teller)]; ++step) {
      Plan const plan = PlanOf(seed_, teller, step);
      balances[static_cast<std::size_t>(plan.from)] -= plan.amount;
      balances[static_cast<std::size_t>(plan.to)] += plan.amount;
    }
  }
  for (std::int64_t number = 0; number < kAccounts; ++number) {
    EXPECT_EQ(balances[static_cast<std::size_t>(number)],
              LongOf(OneAt(transaction, kByNumber, number), u"Balance"));
  }
  std::set<std::uint64_t> by_table;
  std::set<std::uint64_t> by_balance;
  std::int64_t last = INT64_MIN;
  for (Object const& account : Range::Subtree(transaction, *transaction.table(kAccount))) {
    by_table.insert(account.id().value);
  }
  for (Object const& account :
       All(Range::Matching(transaction, FindIndex(transaction, kByBalance), {}))) {
    EXPECT_TRUE(by_balance.insert(account.id().value).second);
    EXPECT_LE(last, LongOf(account, u"Balance"));
    last = LongOf(account, u"Balance");
  }
  EXPECT_EQ(by_table, by_balance);
}

void Bank::ExpectTransfers(Transaction& transaction, Progress const& done) {
  std::set<std::uint64_t> expected;
  std::size_t lines = 0;
  for (int teller = 0; teller < kTellers; ++teller) {
    std::int64_t const last = done[static_cast<std::size_t>(teller)];
    for (std::int64_t step = std::max<std::int64_t>(1, last - kKept + 1); step <= last; ++step) {
      Plan const plan = PlanOf(seed_, teller, step);
      std::uint64_t const key = KeyOf(teller, step);
      SCOPED_TRACE("transfer " + std::to_string(step) + " of teller " + std::to_string(teller));
      Object const transfer = OneAt(transaction, kByKey, key);
      expected.insert(transfer.id().value);
      EXPECT_TRUE(std::get<std::u16string>(transfer.Get(u"Memo")) == plan.memo);
      std::vector<Object> const found = AllAt(transaction, kByTransfer, transfer.id());
      EXPECT_EQ(plan.lines, found.size());
      for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_TRUE(std::get<std::u16string>(found[i].Get(u"Text")) == LineText(key, i));
      }
      lines += plan.lines;
    }
  }
  std::set<std::uint64_t> there;
  for (Object const& object : Range::Only(transaction, *transaction.table(kTransfer))) {
    there.insert(object.id().value);
  }
  EXPECT_EQ(expected, there);
  EXPECT_EQ(lines, All(Range::Only(transaction, *transaction.table(kLine))).size());
}

void Bank::ExpectSchema(Transaction& transaction, std::int64_t done) {
  std::int64_t const cycle = done / kSchemaSteps;
  std::int64_t const phase = done % kSchemaSteps;
  TablePtr const extra = transaction.Find(ExtraTable(cycle));
  EXPECT_EQ(phase >= 1, extra != nullptr);
  EXPECT_EQ(phase >= 3, transaction.FindIndex(ExtraIndex(cycle)).has_value());
  EXPECT_EQ(phase == 4, transaction.table(kAccount)->FindColumn(u"Note") != nullptr);
  if (cycle > 0) {
    EXPECT_EQ(nullptr, transaction.Find(ExtraTable(cycle - 1)));
  }
  EXPECT_EQ(nullptr, transaction.Find(ExtraTable(cycle + 1)));
  if (extra == nullptr) return;
  std::size_t const objects = phase >= 2 ? kExtras : 0;
  EXPECT_EQ(objects, All(Range::Only(transaction, *extra)).size());
  if (phase < 3) return;
  Index const index = FindIndex(transaction, ExtraIndex(cycle));
  EXPECT_EQ(objects, All(Range::Matching(transaction, index, {})).size());
}

}  // namespace crash_test
