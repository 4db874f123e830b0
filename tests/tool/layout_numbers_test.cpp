// Layout numbers over the life of a schema: what changes use up, vacuum and the end of the
// processes give back. Every step runs in a process of its own, as what a process knows it knows
// for life.

#include <array>
#include <cstdlib>
#include <filesystem>
#include <sagleme/host.hpp>
#include <sagleme/vacuum.hpp>
#include <set>

#include "other_process.h"
#include "run_tool.h"

namespace tool_test {
namespace {

using lscoredb_test::InAnotherProcess;
using sagleme::ColumnSpec;
using sagleme::Object;
using sagleme::Transaction;
using sagleme::Type;

using Layouts = std::set<std::uint16_t>;
using Number = sagleme::Property<std::int64_t>;

constexpr std::uint32_t kExhausted = LSCOREDB_LAYOUTS_EXHAUSTED;

constexpr int kRounds = 6;

// Two tables change each time: from 6,000 on no database could bear it that gives nothing back.
std::size_t ChangesInARound() {
  char const* const wanted = std::getenv("SAGLEME_LAYOUT_CHANGES");
  return wanted == nullptr ? 10 : std::strtoull(wanted, nullptr, 10);
}

Layouts LayoutsOf(Transaction& transaction) {
  std::uint32_t count = 0;
  sagleme::detail::CheckKernel(lscoredb_layout_stats(transaction.context(), &count, nullptr));
  std::vector<lscoredb_layout_statistics> statistics(count);
  sagleme::detail::CheckKernel(
      lscoredb_layout_stats(transaction.context(), &count, statistics.data()));
  Layouts layouts;
  for (auto const& layout : statistics) layouts.insert(layout.layout);
  return layouts;
}

// Creates layouts that no table has until the numbers run out.
void TakeAllNumbers(std::uint64_t context) {
  LORVI_COLUMN_DEFINITION const none{};
  std::uint32_t status = 0;
  std::uint16_t layout = 0;
  while (status == 0) status = lorvi_context_create_layout(context, 1, 0, &none, 0, &layout);
  EXPECT_EQ(kExhausted, status);
}

class LayoutNumbersTest : public ToolTest {
 protected:
  void SetUp() override {
    InAnotherProcess([&] {
      auto database = sagleme::Database::Create(this->database());
      sagleme::Context const context(database);
      Transaction transaction(context);
      std::array const base{ColumnSpec{u"Size", Type::kLong}};
      std::array const derived{ColumnSpec{u"Weight", Type::kLong}};
      sagleme::CreateTable(transaction, u"App.Thing", u"", base);
      sagleme::CreateTable(transaction, u"App.Tool", u"App.Thing", derived);
      auto object = Object::Create(transaction, *transaction.table(u"App.Tool"));
      object.Set(u"Size", std::int64_t{1});
      object.Set(u"Weight", std::int64_t{2});
      transaction.Commit();
    });
  }

  // In a process of its own, on the database.
  void InProcess(std::function<void(sagleme::Context const&)> const& work) {
    InAnotherProcess([&] {
      auto database = sagleme::Database::Open(this->database());
      sagleme::Context const context(database);
      work(context);
    });
  }
  // In a process and a committed transaction of its own.
  void InTransaction(std::function<void(Transaction&)> const& work) {
    InProcess([&](sagleme::Context const& context) {
      Transaction transaction(context);
      work(transaction);
      transaction.Commit();
    });
  }
  // Runs vacuum in a process of its own; the number of layouts released.
  void ExpectReleased(std::uint64_t layouts) {
    InProcess([&](sagleme::Context const& context) {
      EXPECT_EQ(layouts, sagleme::RunVacuum(context).released);
      EXPECT_EQ(0u, sagleme::RunVacuum(context).released) << "once is enough";
    });
  }
  Layouts AllLayouts() {
    Layouts layouts;
    lscoredb_test::OtherProcess process([&](lscoredb_test::OtherProcess& test) {
      auto database = sagleme::Database::Open(this->database());
      sagleme::Context const context(database);
      Transaction transaction(context);
      for (std::uint16_t const layout : LayoutsOf(transaction)) test.Say(layout);
      test.Say(0);
    });
    while (std::uint64_t const layout = process.Hear()) {
      layouts.insert(static_cast<std::uint16_t>(layout));
    }
    process.ExpectGoodEnd();
    return layouts;
  }
  static void AddColumn(Transaction& transaction, std::u16string const& table,
                        std::u16string const& column) {
    std::array const columns{ColumnSpec{column, Type::kLong}};
    sagleme::AddColumns(transaction, table, columns);
  }
  static void ExpectTool(Transaction& transaction) {
    sagleme::TablePtr const table = transaction.table(u"App.Tool");
    int seen = 0;
    for (Object const& object : sagleme::Range::Only(transaction, *table)) {
      EXPECT_EQ(1, Number(*table, u"Size").GetOr(object, 0));
      EXPECT_EQ(2, Number(*table, u"Weight").GetOr(object, 0));
      ++seen;
    }
    EXPECT_EQ(1, seen);
  }
};

TEST_F(LayoutNumbersTest, NewDatabase_HasNothingToRelease) { ExpectReleased(0); }

TEST_F(LayoutNumbersTest, ChangedTables_GiveTheirNumbersToLaterChanges) {
  Layouts const before = AllLayouts();
  std::size_t const changes = ChangesInARound();
  for (int round = 0; round < kRounds; ++round) {
    InProcess([&](sagleme::Context const& context) {
      {
        Transaction transaction(context);
        for (std::size_t i = 0; i < changes; i += 2) {
          AddColumn(transaction, u"App.Thing", u"More");
          sagleme::DropColumn(transaction, u"App.Thing", u"More");
        }
        EXPECT_EQ(before.size() + 2 * changes, LayoutsOf(transaction).size());
        transaction.Commit();
      }
      EXPECT_EQ(2 * changes, sagleme::RunVacuum(context).released);
    });
    InTransaction([&](Transaction& transaction) {
      ExpectTool(transaction);
      Layouts const now = LayoutsOf(transaction);
      EXPECT_EQ(before.size(), now.size());
      EXPECT_LE(*now.rbegin(), *before.rbegin() + 2 * changes) << "in round " << round;
    });
  }
  On("check");
}

TEST_F(LayoutNumbersTest, RenamedTableWithoutObjects_KeepsItsLayoutWhenAnotherTakesItsName) {
  std::array const columns{ColumnSpec{u"Colour", Type::kLong}};
  InTransaction([&](Transaction& transaction) {
    sagleme::CreateTable(transaction, u"App.First", u"", columns);
    sagleme::RenameTable(transaction, u"App.First", u"App.Second");
    sagleme::CreateTable(transaction, u"App.First", u"", columns);
    AddColumn(transaction, u"App.First", u"More");
  });
  ExpectReleased(1);
  InTransaction([&](Transaction& transaction) {
    for (char16_t const* const name : {u"App.First", u"App.Second"}) {
      sagleme::TablePtr const table = transaction.table(name);
      auto object = Object::Create(transaction, *table);
      Number(*table, u"Colour").Set(object, 3);
      EXPECT_EQ(3, Number(*table, u"Colour").GetOr(object, 0));
    }
  });
  On("check");
}

TEST_F(LayoutNumbersTest, DroppedTables_GiveTheirNumbersBackWhenTheirObjectsAreGone) {
  Layouts const before = AllLayouts();
  std::uint16_t tool = 0;
  std::uint16_t thing = 0;
  lscoredb_test::OtherProcess process([&](lscoredb_test::OtherProcess& test) {
    auto database = sagleme::Database::Open(this->database());
    sagleme::Context const context(database);
    Transaction transaction(context);
    test.Say(transaction.table(u"App.Tool")->layout);
    test.Say(transaction.table(u"App.Thing")->layout);
    sagleme::DropTable(transaction, u"App.Thing", {.children = true});
    transaction.Commit();
  });
  tool = static_cast<std::uint16_t>(process.Hear());
  thing = static_cast<std::uint16_t>(process.Hear());
  process.ExpectGoodEnd();
  EXPECT_EQ(before, AllLayouts()) << "the object of one keeps both";
  ExpectReleased(2);
  Layouts expected = before;
  expected.erase(tool);
  expected.erase(thing);
  EXPECT_EQ(expected, AllLayouts());
  InTransaction([&](Transaction& transaction) {
    std::array const columns{ColumnSpec{u"Colour", Type::kString}};
    sagleme::TablePtr const table = sagleme::CreateTable(transaction, u"App.New", u"", columns);
    EXPECT_EQ(std::min(tool, thing), table->layout);
    Object::Create(transaction, *table).Set(u"Colour", std::u16string(u"red"));
  });
  InTransaction([](Transaction& transaction) {
    sagleme::TablePtr const table = transaction.table(u"App.New");
    sagleme::Property<std::u16string> const colour(*table, u"Colour");
    std::u16string colours;
    for (Object const& object : sagleme::Range::Only(transaction, *table)) {
      EXPECT_EQ(table, object.table());
      colours += colour.GetOr(object, u"none");
    }
    EXPECT_EQ(u"red", colours);
  });
  On("check");
}

TEST_F(LayoutNumbersTest, LayoutThatAHostMadeBesideTheTables_IsLeftToIt) {
  InTransaction([](Transaction& transaction) {
    LORVI_COLUMN_DEFINITION const none{};
    std::uint16_t layout = 0;
    EXPECT_EQ(0u, lorvi_context_create_layout(transaction.context(), 1, 0, &none, 0, &layout));
  });
  ExpectReleased(0);
}

TEST_F(LayoutNumbersTest, ChangeThatFindsNoNumber_LeavesAllElseAndSucceedsInALaterProcess) {
  InProcess([](sagleme::Context const& context) {
    {
      Transaction transaction(context);
      TakeAllNumbers(transaction.context());
    }
    {
      Transaction transaction(context);
      std::uint32_t status = 0;
      try {
        AddColumn(transaction, u"App.Thing", u"More");
      } catch (sagleme::Error const& error) {
        status = error.status();
      }
      EXPECT_EQ(kExhausted, status);
      ExpectTool(transaction);
    }
    Transaction transaction(context);
    ExpectTool(transaction);
    Object::Create(transaction, *transaction.table(u"App.Thing"));
    transaction.Commit();
  });
  InTransaction([](Transaction& transaction) {
    AddColumn(transaction, u"App.Thing", u"More");
    ExpectTool(transaction);
  });
  On("check");
}

}  // namespace
}  // namespace tool_test
