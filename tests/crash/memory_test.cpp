// Memory that runs out at every place of a call where it is asked for.

#include <filesystem>
#include <functional>
#include <set>

#include "crash/bank.h"
#include "crash/child.h"
#include "crash/failing_memory.h"
#include "crash/rounds.h"
#include "kernel_test.h"

namespace crash_test {
namespace {

using namespace lscoredb_test;

constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kName = 3;
constexpr std::uint32_t kData = 4;
constexpr std::uint64_t kTable = 50;
constexpr std::uint64_t kNumberToken = 100;
constexpr std::uint64_t kNameToken = 101;
constexpr std::uint64_t kDataToken = 102;
constexpr int kRows = 12;

// Names in two groups that agree in more than a key of the store holds, the smaller one first.
Text NameOf(std::int64_t number) {
  return Text(700, number < 3 ? u'm' : u'n') + static_cast<char16_t>(u'A' + number);
}

// What calls are given is there before memory runs out.
Text const kLongName = NameOf(30);
Bytes const kLargeData(3000000, 7);
auto const kLayoutColumns = Definitions({{LORV_TYPE_LONG, 200}});
auto const kIndexColumns = Definitions({{LORV_TYPE_LONG, kNumberToken}});

// A database of some rows and indexes over them, with an open transaction that has written.
class World {
 public:
  World() {
    session_.Begin();
    layout_ = session_.CreateLayout(kTable, {{LORV_TYPE_LONG, kNumberToken},
                                             {LORV_TYPE_STRING, kNameToken},
                                             {LORV_TYPE_BINARY, kDataToken}});
    by_number_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    by_name_ = session_.CreateIndex(61, kSet, {{LORV_TYPE_STRING, kNameToken}}, kUnique);
    spare_ = session_.CreateIndex(62, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    for (int i = 0; i < kRows; ++i) rows_.push_back(MakeRow(i));
    session_.Commit();
    session_.Begin();
    rows_.push_back(MakeRow(kRows));
  }

  Session& session() { return session_; }
  std::uint64_t context() const { return session_.context(); }
  Database const& database() const { return database_; }
  LayoutId layout() const { return layout_; }
  IndexId spare() const { return spare_; }
  IndexId by_name() const { return by_name_; }
  Oid row(std::size_t i) const { return rows_.at(i); }

  Oid MakeRow(std::int64_t number) {
    Oid const row = session_.Insert(layout_);
    session_.PutLong(row, kNumber, number);
    session_.PutString(row, kName, NameOf(number));
    return row;
  }

  // Ends the transaction: all of it or nothing is there, the indexes have each row once and in
  // order, and the context works on.
  void ExpectSoundEnd() {
    std::uint32_t const committed = session_.TryCommit();
    EXPECT_TRUE(committed == 0 || committed == LSCOREDB_NO_MEMORY) << committed;
    session_.Begin();
    EXPECT_EQ(committed == 0, session_.Exists(rows_.back()));
    ExpectIndexesAgree();
    MakeRow(20);
    EXPECT_STATUS(0, session_.TryCommit());
    session_.Begin();
    ExpectIndexesAgree();
  }

 private:
  void ExpectIndexesAgree() {
    Oids const by_number = session_.Scan(by_number_);
    std::set<Oid> const rows(by_number.begin(), by_number.end());
    EXPECT_EQ(rows.size(), by_number.size());
    for (Oid const row : rows_) EXPECT_EQ(session_.Exists(row), rows.contains(row));
    for (Oid const row : by_number) {
      Oids const same = session_.At(by_number_, Key().Long(*session_.Long(row, kNumber)));
      EXPECT_EQ(1, std::count(same.begin(), same.end(), row));
      EXPECT_EQ(session_.At(by_name_, Key().Text(*session_.String(row, kName))), Oids{row});
    }
    EXPECT_EQ(session_.Scan(by_name_).size(), by_number.size());
  }

  Database database_;
  Session session_{database_};
  LayoutId layout_ = 0;
  IndexId by_number_ = 0;
  IndexId by_name_ = 0;
  IndexId spare_ = 0;
  Oids rows_;
};

using Call = std::function<std::uint32_t(World&)>;

// Lets each request for memory of a call fail in turn. The call says so, or does without; the
// transaction comes to a sound end with the same call made again and without it.
void ExpectRefusedEverywhere(Call const& call) {
  int failures = 0;
  for (bool const again : {false, true}) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("request " + std::to_string(nth));
      World world;
      failing_memory::FailNth(nth);
      std::uint32_t const status = call(world);
      bool const failed = failing_memory::Failed();
      failing_memory::FailNth(0);
      EXPECT_TRUE(status == 0 || (failed && status == LSCOREDB_NO_MEMORY)) << status;
      if (again && status != 0) {
        EXPECT_STATUS(0, call(world));
      }
      world.ExpectSoundEnd();
      failures += failed ? 1 : 0;
      if (!failed || testing::Test::HasFailure()) break;
    }
  }
  EXPECT_LT(0, failures) << "the call asks for no memory";
}

struct NamedCall {
  char const* name;
  Call call;

  friend void PrintTo(NamedCall const& named, std::ostream* out) { *out << named.name; }
};

std::uint32_t PutSetspec(World& world) {
  return lorv_context_put_setspec(world.context(), world.row(1), 0, u"set/below/");
}

std::uint32_t PutName(World& world) {
  return lorv_context_put_string(world.context(), world.row(2), 0, kName, kLongName.c_str());
}

std::uint32_t PutData(World& world) {
  return lorv_context_put_binary(world.context(), world.row(3), 0, kData, kLargeData.data(),
                                 kLargeData.size());
}

// In one long transaction what is kept of it grows now and then.
std::uint32_t InsertMany(World& world) {
  for (int i = 0; i < 40; ++i) {
    Oid row = 0;
    std::uint32_t status = lorv_context_insert(world.context(), world.layout(), &row);
    if (status == 0) status = lorv_context_put_setspec(world.context(), row, 0, u"other/");
    if (status != 0) return status;
  }
  return 0;
}

std::uint32_t CreateLayout(World& world) {
  LayoutId made = 0;
  return lorvi_context_create_layout(world.context(), 51, world.layout(), kLayoutColumns.data(), 0,
                                     &made);
}

std::uint32_t CreateIndex(World& world) {
  IndexId made = 0;
  return lorvi_context_create_index(world.context(), 63, kSet, kIndexColumns.data(), 0, 0, &made);
}

std::uint32_t ReadName(World& world) {
  LORV_STRING* text = nullptr;
  return lorv_context_get_string(world.context(), world.row(4), 0, kName, &text);
}

std::uint32_t LookAtLayouts(World& world) {
  std::uint32_t count = 0;
  return lscoredb_layout_stats(world.context(), &count, nullptr);
}

std::uint32_t OpenContext(World& world) {
  std::uint64_t context = 0;
  std::uint32_t const status = lscoredb_context_open(world.database().get(), &context);
  return status != 0 ? status : lscoredb_context_close(context);
}

// A transaction of another context; what it writes is committed or not there.
std::uint32_t WholeTransaction(World& world) {
  std::uint64_t context = 0;
  Oid row = 0;
  std::uint32_t status = lscoredb_context_open(world.database().get(), &context);
  if (status != 0) return status;
  status = lscoredb_begin(context, LSCOREDB_READ_WRITE);
  if (status == 0) status = lorv_context_insert(context, world.layout(), &row);
  if (status == 0) status = lorv_context_put_long(context, row, 0, kNumber, 50);
  if (status == 0) status = lscoredb_commit(context);
  Check("close", lscoredb_context_close(context));
  return status;
}

class MemoryTest : public testing::TestWithParam<NamedCall> {};

TEST_P(MemoryTest, CallWithoutMemory_SaysSoAndSpoilsNothing) {
  ExpectRefusedEverywhere(GetParam().call);
}

NamedCall const kCalls[] = {
    {"Insert", InsertMany},
    {"PutSetspec", PutSetspec},
    {"PutString", PutName},
    {"PutBinary", PutData},
    {"Delete", [](World& world) { return lorv_context_delete(world.context(), world.row(5), 0); }},
    {"CreateLayout", CreateLayout},
    {"CreateIndex", CreateIndex},
    {"DropIndex",
     [](World& world) { return lorvi_context_drop_index(world.context(), world.spare()); }},
    {"ReadString", ReadName},
    {"LayoutStatistics", LookAtLayouts},
    {"ContextOpen", OpenContext},
    {"WholeTransaction", WholeTransaction},
};

INSTANTIATE_TEST_SUITE_P(Kernel, MemoryTest, testing::ValuesIn(kCalls),
                         [](auto const& tested) { return tested.param.name; });

// ---- scans --------------------------------------------------------------------------------------

// Scans on after a refusal until the end, or until it is refused again. Returns the last status.
std::uint32_t ScanOn(std::uint64_t scan, Oids* found) {
  for (;;) {
    LORV_REFERENCE next{};
    std::uint32_t const status = lorv_iterator_next(scan, &next);
    if (status != 0 || next.oid == 0) return status;
    found->push_back(next.oid);
  }
}

TEST(ScanWithoutMemoryTest, Scan_NeverLeavesARowOut) {
  World world;
  Oids const all = world.session().Scan(world.by_name());
  Bytes const keys = Key().Bytes();
  Oids found;
  found.reserve(2 * all.size());
  bool failed = true;
  for (int nth = 1; failed; ++nth) {
    SCOPED_TRACE("request " + std::to_string(nth));
    // A context of its own, so that nothing is there from the scan before.
    Session fresh(world.database());
    fresh.Begin();
    Oids const expected(all.begin(), all.end() - 1);  // the last row is not committed
    std::uint64_t scan = 0;
    found.clear();
    failing_memory::FailNth(nth);
    std::uint32_t status = lorv_context_create_iterator(
        fresh.context(), world.by_name(), LORV_ITERATOR_FORWARD, keys.data(), keys.data(), &scan);
    if (status == 0) status = ScanOn(scan, &found);
    failed = failing_memory::Failed();
    failing_memory::FailNth(0);
    EXPECT_EQ(failed ? LSCOREDB_NO_MEMORY : 0, status);
    if (scan == 0) continue;
    if (failed) status = ScanOn(scan, &found);
    if (status == 0) {
      EXPECT_EQ(expected, found);
    }
    Check("free", lorv_iterator_free(scan));
  }
}

// ---- opening ----------------------------------------------------------------------------------

class OpenWithoutMemoryTest : public testing::Test {
 protected:
  // Lets each request of a call fail in turn; `expect` looks at what is left.
  static void ForEach(std::function<std::uint32_t()> const& call,
                      std::function<void(std::uint32_t)> const& expect) {
    bool failed = true;
    int nth = 1;
    for (; failed && !HasFailure(); ++nth) {
      SCOPED_TRACE("request " + std::to_string(nth));
      failing_memory::FailNth(nth);
      std::uint32_t const status = call();
      failed = failing_memory::Failed();
      failing_memory::FailNth(0);
      EXPECT_TRUE(status == 0 || (failed && status == LSCOREDB_NO_MEMORY)) << status;
      expect(status);
    }
    EXPECT_LT(2, nth);
  }

  TemporaryDirectory directory_;
};

TEST_F(OpenWithoutMemoryTest, Directory_IsOpenedByTheNextCall) {
  lscoredb* database = nullptr;
  std::string const path = directory_.path();
  ForEach([&] { return lscoredb_open(path.c_str(), nullptr, &database); },
          [&](std::uint32_t status) {
            EXPECT_EQ(status == 0, database != nullptr);
            Database const again(path);
            if (database != nullptr) Check("close", lscoredb_close(database));
            database = nullptr;
          });
}

TEST_F(OpenWithoutMemoryTest, Memory_LeavesNoFileBehind) {
  lscoredb* database = nullptr;
  setenv("TMPDIR", directory_.path().c_str(), 1);
  ForEach([&] { return lscoredb_open(nullptr, nullptr, &database); },
          [&](std::uint32_t status) {
            EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
            if (status == 0) Check("close", lscoredb_close(database));
          });
  unsetenv("TMPDIR");
}

// ---- the layer ----------------------------------------------------------------------------------

// Lets each request of one step of everyone's work fail in turn, in the layer, the kernel and the
// code between. The step is not done then; it is done when there is memory again.
void ExpectStepRefusedEverywhere(Bank& bank, int teller) {
  sagleme::Context const context(bank.database());
  Progress done = bank.Done();
  bool failed = true;
  for (int nth = 1; failed; ++nth) {
    SCOPED_TRACE("teller " + std::to_string(teller) + ", request " + std::to_string(nth));
    failing_memory::FailNth(nth);
    try {
      done[static_cast<std::size_t>(teller)] = bank.Step(context, teller);
    } catch (std::bad_alloc const&) {
      EXPECT_TRUE(failing_memory::Failed());
    } catch (sagleme::Error const& refusal) {
      EXPECT_EQ(LSCOREDB_NO_MEMORY, refusal.status()) << refusal.what();
    }
    failed = failing_memory::Failed();
    failing_memory::FailNth(0);
    EXPECT_EQ(done, bank.Done());
  }
  bank.ExpectWhole();
}

TEST(LayerWithoutMemoryTest, StepOfAnyKind_IsRefusedInWholeAndDoneLater) {
  int const rounds = Rounds(1, 1);
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    InChild([&] {
      sagleme::Database database = sagleme::Database::InMemory();
      Bank bank(database, 41 + static_cast<std::uint64_t>(round));
      for (int i = 0; i < 6; ++i) ExpectStepRefusedEverywhere(bank, 1);
      for (int i = 0; i < 2 * kSchemaSteps; ++i) ExpectStepRefusedEverywhere(bank, kArchitect);
    });
  }
}

}  // namespace
}  // namespace crash_test
