// Schema changes and objects of one database in many threads at once: what the catalogue gives out
// stays unique, unique keys do, and an index that is made meanwhile covers everything.

#include <gtest/gtest.h>

#include <set>

#include "recording.h"

namespace sagleme_isolation {
namespace {

using sagleme::ColumnSpec;
using sagleme::Object;
using sagleme::Property;
using sagleme::Type;

constexpr int kThreads = 8;

class SchemaThreadsTest : public ::testing::Test {
 protected:
  SchemaThreadsTest() : context_(database_) {
    sagleme::Transaction transaction(context_);
    std::array const columns{ColumnSpec{u"Number", Type::kLong}, ColumnSpec{u"Name"}};
    sagleme::CreateTable(transaction, u"App.Thing", u"", columns);
    transaction.Commit();
  }

  static std::u16string Named(std::u16string const& stem, int number) {
    return stem + sagleme::ToUtf16(std::to_string(number));
  }

  static Object NewThing(sagleme::Transaction& transaction, std::int64_t number) {
    auto const table = transaction.table(u"App.Thing");
    Object const thing = Object::Create(transaction, *table);
    Property<std::int64_t>(*table, u"Number").Set(thing, number);
    return thing;
  }

  static void IndexNumbers(sagleme::Transaction& transaction, std::u16string const& name,
                           sagleme::Uniqueness uniqueness = sagleme::Uniqueness::kAny) {
    std::array const by_number{sagleme::IndexColumnSpec{u"Number"}};
    sagleme::CreateIndex(transaction, name, u"App.Thing", by_number, uniqueness);
  }

  // The values of a column in all rows of a system table.
  template <typename T>
  static std::vector<T> ColumnOf(sagleme::Transaction& transaction, char16_t const* table,
                                 char16_t const* column) {
    auto const found = transaction.table(table);
    Property<T> const property(*found, column);
    std::vector<T> values;
    for (Object& row : sagleme::Range::Subtree(transaction, *found)) {
      values.push_back(property.GetOr(row, T{}));
    }
    return values;
  }

  template <typename T>
  static void ExpectDistinct(char const* what, std::vector<T> const& values) {
    EXPECT_EQ(values.size(), std::set<T>(values.begin(), values.end()).size()) << what;
  }

  static void ExpectCatalogueUnique(sagleme::Transaction& transaction) {
    constexpr char16_t kTokens[] = u"Lorvenstack.Internal.Metadata.Token";
    ExpectDistinct("tokens", ColumnOf<std::uint64_t>(transaction, kTokens, u"NameToken"));
    ExpectDistinct("names of tokens",
                   ColumnOf<std::u16string>(transaction, kTokens, u"InvariantName"));
    ExpectDistinct("rows of set specifiers",
                   ColumnOf<std::u16string>(
                       transaction, u"Lorvenstack.Internal.Metadata.SetSpecifier", u"TypeId"));
    ExpectDistinct(
        "rows of type ids",
        ColumnOf<std::uint64_t>(transaction, u"Lorvenstack.Internal.Metadata.TypeIdsMeta",
                                u"TypeIdsMeta_Id"));
    std::vector<std::uint64_t> type_ids;
    std::vector<std::uint16_t> layouts;
    std::vector<std::u16string> setspecs;
    for (sagleme::TablePtr const& table : transaction.Tables(true)) {
      EXPECT_NE(0U, table->type_id) << sagleme::ToUtf8(table->name);
      type_ids.push_back(table->type_id);
      layouts.push_back(table->layout);
      setspecs.push_back(table->setspec);
    }
    ExpectDistinct("type ids", type_ids);
    ExpectDistinct("layouts", layouts);
    ExpectDistinct("set specifiers", setspecs);
  }

  SharedDatabase database_;
  sagleme::Context context_;
};

TEST_F(SchemaThreadsTest, TablesOfManyThreads_ShareNoNumberAndNoSet) {
  constexpr int kEach = 10;
  Together(database_, kThreads, [&](int thread, sagleme::Context& context) {
    for (int i = 0; i < kEach; ++i) {
      std::u16string const name = Named(u"App.Part", thread * kEach + i);
      std::u16string const base = i % 2 == 0 ? u"App.Thing" : Named(u"App.Part", thread * kEach);
      Retry(context, [&](sagleme::Transaction& transaction) {
        std::array const columns{ColumnSpec{Named(u"Own", thread), Type::kLong}};
        std::array const indexed{sagleme::IndexColumnSpec{columns[0].name}};
        if (i % 2 != 0) {
          sagleme::CreateTable(transaction, name, base, {});
          return;
        }
        sagleme::CreateTable(transaction, name, base, columns);
        sagleme::CreateIndex(transaction, Named(u"ByOwn", thread * kEach + i), name, indexed);
      });
    }
  });
  sagleme::Transaction transaction(context_);
  ExpectCatalogueUnique(transaction);
  EXPECT_EQ(std::size_t{kThreads * kEach + 1}, transaction.Tables().size());
  for (int i = 0; i < kThreads * kEach; ++i) {
    auto const table = transaction.table(Named(u"App.Part", i));
    EXPECT_TRUE(table->IsA(*transaction.table(table->base)));
    EXPECT_EQ(i % 2 == 0 ? 1U : 0U, table->indexes.size());
  }
}

// All change the same table: each change is kept, once.
TEST_F(SchemaThreadsTest, ColumnsOfManyThreads_AllCome) {
  Together(database_, kThreads, [&](int thread, sagleme::Context& context) {
    Retry(context, [&](sagleme::Transaction& transaction) {
      std::array const columns{ColumnSpec{Named(u"More", thread), Type::kLong}};
      sagleme::AddColumns(transaction, u"App.Thing", columns);
    });
  });
  sagleme::Transaction transaction(context_);
  auto const table = transaction.table(u"App.Thing");
  std::set<std::uint16_t> ordinals;
  for (int i = 0; i < kThreads; ++i) ordinals.insert(table->GetColumn(Named(u"More", i)).ordinal);
  EXPECT_EQ(std::size_t{kThreads}, ordinals.size());
  ExpectCatalogueUnique(transaction);
}

// Words take their numbers from one counter without a schema change: the second thread finds the
// number taken and gets another one.
TEST_F(SchemaThreadsTest, TokensOfManyThreads_AreDistinctAndOnePerWord) {
  constexpr int kWords = 40;
  std::vector<std::vector<std::uint64_t>> tokens(kThreads);
  Together(database_, kThreads, [&](int thread, sagleme::Context& context) {
    for (int i = 0; i < kWords; ++i) {
      // Every word is asked for by two threads.
      std::u16string const word = Named(u"word", thread / 2 * kWords + i);
      std::uint64_t token = 0;
      auto const assure = [&](sagleme::Transaction& transaction) {
        std::uint64_t const id = transaction.context();
        sagleme::detail::CheckLayer(id, lorv_assure_token(id, word.c_str(), &token));
      };
      Retry(context, assure, {LSCOREDB_CONFLICT, LSCOREDB_DUPLICATE_KEY});
      tokens[static_cast<std::size_t>(thread)].push_back(token);
    }
  });
  std::set<std::uint64_t> distinct;
  for (std::size_t i = 0; i < kThreads; i += 2) {
    EXPECT_EQ(tokens[i], tokens[i + 1]);
    distinct.insert(tokens[i].begin(), tokens[i].end());
  }
  EXPECT_EQ(std::size_t{kThreads / 2 * kWords}, distinct.size());
  sagleme::Transaction transaction(context_);
  ExpectCatalogueUnique(transaction);
}

// All have written the key before the first one commits.
TEST_F(SchemaThreadsTest, EqualUniqueKeysAtOnce_OneIsCommitted) {
  constexpr int kRounds = 50;
  {
    sagleme::Transaction transaction(context_);
    IndexNumbers(transaction, u"ByNumber", sagleme::Uniqueness::kUnique);
    transaction.Commit();
  }
  std::barrier meet(kThreads);
  std::atomic<int> committed = 0;
  std::atomic<int> refused = 0;
  Together(database_, kThreads, [&](int, sagleme::Context& context) {
    for (int round = 0; round < kRounds; ++round) {
      std::uint32_t status = 0;
      {
        sagleme::Transaction transaction(context);
        NewThing(transaction, round);
        meet.arrive_and_wait();
        try {
          transaction.Commit();
        } catch (sagleme::Error const& error) {
          status = error.status();
        }
      }
      if (status == 0) ++committed;
      if (status == LSCOREDB_DUPLICATE_KEY) ++refused;
      meet.arrive_and_wait();
    }
  });
  EXPECT_EQ(kRounds, committed);
  EXPECT_EQ(kRounds * (kThreads - 1), refused);
  sagleme::Transaction transaction(context_);
  auto const index = transaction.FindIndex(u"ByNumber");
  auto const number = Property<std::int64_t>(*transaction.table(u"App.Thing"), u"Number");
  std::vector<std::int64_t> keys;
  for (Object& thing : sagleme::Range::Matching(transaction, *index, {})) {
    keys.push_back(*number.Get(thing));
  }
  ASSERT_EQ(std::size_t{kRounds}, keys.size());
  for (int i = 0; i < kRounds; ++i) EXPECT_EQ(i, keys[static_cast<std::size_t>(i)]);
}

TEST_F(SchemaThreadsTest, IndexesMadeWhileOthersInsert_MissNothing) {
  constexpr int kIndexes = 3;
  constexpr int kEach = 200;
  Together(database_, kThreads, [&](int thread, sagleme::Context& context) {
    if (thread < kIndexes) {
      Retry(context, [&](sagleme::Transaction& transaction) {
        IndexNumbers(transaction, Named(u"ByNumber", thread));
      });
      return;
    }
    for (int i = 0; i < kEach; ++i) {
      Retry(context,
            [&](sagleme::Transaction& transaction) { NewThing(transaction, thread * kEach + i); });
    }
  });
  sagleme::Transaction transaction(context_);
  std::set<Oid> things;
  for (Object& thing : sagleme::Range::Subtree(transaction, *transaction.table(u"App.Thing"))) {
    things.insert(thing.id().value);
  }
  EXPECT_EQ(std::size_t{(kThreads - kIndexes) * kEach}, things.size());
  for (int i = 0; i < kIndexes; ++i) {
    std::vector<Oid> found;
    auto const index = transaction.FindIndex(Named(u"ByNumber", i));
    for (Object& thing : sagleme::Range::Matching(transaction, *index, {})) {
      found.push_back(thing.id().value);
    }
    EXPECT_EQ(things.size(), found.size());
    EXPECT_EQ(things, std::set<Oid>(found.begin(), found.end()));
  }
}

// Objects made by a transaction that began before the index was there, and ended after it.
TEST_F(SchemaThreadsTest, ObjectsOfOlderTransactions_EnterTheIndexAnyway) {
  sagleme::Context other(database_);
  sagleme::Transaction older(other);
  Oid const made = NewThing(older, 5).id().value;
  {
    sagleme::Transaction transaction(context_);
    IndexNumbers(transaction, u"ByNumber");
    transaction.Commit();
  }
  older.Commit();
  sagleme::Transaction transaction(context_);
  std::vector<Oid> found;
  auto const index = transaction.FindIndex(u"ByNumber");
  for (Object& thing : sagleme::Range::Matching(transaction, *index, {std::int64_t{5}})) {
    found.push_back(thing.id().value);
  }
  EXPECT_EQ(std::vector<Oid>{made}, found);
}

}  // namespace
}  // namespace sagleme_isolation
