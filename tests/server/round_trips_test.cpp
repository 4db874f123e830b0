// Round trips of work on many objects: none of it asks the server object by object.

#include <gtest/gtest.h>
#include <lscoredb/bulk.h>

#include <array>
#include <functional>
#include <sagleme/annotations.hpp>
#include <sagleme/check.hpp>
#include <sagleme/column_changes.hpp>
#include <sagleme/host.hpp>
#include <sagleme/host/dump.hpp>
#include <sagleme/host/export.hpp>
#include <sagleme/host/import.hpp>
#include <sagleme/index_build.hpp>
#include <sagleme/vacuum.hpp>
#include <sstream>

#include "postgres_url.h"

namespace sagleme {
namespace {

constexpr int kFew = 100;
constexpr int kMany = 900;
// A page of entries, and rows that come together, in sizes that grow, for each of several passes.
constexpr int kObjectsForATrip = 8;

std::uint64_t TripsOf(Database const& database) {
  lscoredb_statistics now{};
  now.size = sizeof now;
  EXPECT_EQ(0u, lscoredb_stats(database.handle(), &now));
  return now.round_trips;
}

Text const kShelf = u"Shop.Shelf";
Text const kItem = u"Shop.Item";
Text const kBook = u"Shop.Book";

// Items on two shelves.
class Shop {
 public:
  explicit Shop(int items) : url_(lscore::NewServerUrl()), items_(items) {
    Database const database = Database::Create(url_);
    Context const context(database);
    Transaction transaction(context);
    CreateTable(transaction, kShelf, u"", {{u"Name", Type::kString}});
    CreateTable(transaction, kItem, u"",
                {{u"Code", Type::kString},
                 {u"Year", Type::kString},
                 {u"On", Type::kReference, true, kShelf}});
    CreateTable(transaction, kBook, kItem, {{u"Pages", Type::kLong}});
    CreateIndex(transaction, u"ItemByYear", kItem, {{u"Year"}});
    for (int i = 0; i < 2; ++i) Object::Create(transaction, *transaction.table(kShelf));
    AddItems(transaction, items, 0);
    transaction.Commit();
  }

  static void AddItems(Transaction& transaction, int count, int from) {
    TablePtr const shelves = transaction.table(kShelf);
    ObjectId shelf{};
    for (Object const each : Range::Only(transaction, *shelves)) shelf = each.id();
    TablePtr const book = transaction.table(kBook);
    for (int i = from; i < from + count; ++i) {
      Object object = Object::Create(transaction, *book);
      object.Set(u"Code", ToUtf16("item " + std::to_string(i)));
      object.Set(u"Year", ToUtf16(std::to_string(1900 + i % 100)));
      object.Set(u"Pages", std::int64_t{i});
      object.Set(u"On", shelf);
    }
  }

  int items() const { return items_; }
  Database const* used = nullptr;  // by the work that is counted
  // An opener that has nothing in memory.
  Database Open() { return Database::Open(url_ + "&timeout=" + std::to_string(++opened_ + 40)); }

 private:
  std::string const url_;
  int const items_;
  int opened_ = 0;
};

using Work = std::function<void(Shop const& shop, Context const& context)>;
using InTransaction = std::function<void(Shop const& shop, Transaction& transaction)>;

Work Committed(InTransaction const& work) {
  return [work](Shop const& shop, Context const& context) {
    Transaction transaction(context);
    work(shop, transaction);
    transaction.Commit();
  };
}

std::uint64_t TripsFor(int items, Work const& work, Work const& before) {
  Shop shop(items);
  if (before) {
    Database const first = shop.Open();
    before(shop, Context(first));
  }
  Database const database = shop.Open();
  Context const context(database);
  {
    Transaction transaction(context);  // reads the catalogue
    transaction.table(kBook);
  }
  shop.used = &database;
  std::uint64_t const begun = TripsOf(database);
  work(shop, context);
  return TripsOf(database) - begun - 1;
}

void ExpectFew(Work const& work, Work const& before = {}) {
  std::uint64_t const few = TripsFor(kFew, work, before);
  std::uint64_t const many = TripsFor(kMany, work, before);
  std::uint64_t const more = many > few ? many - few : 0;
  EXPECT_LE(more * kObjectsForATrip, static_cast<std::uint64_t>(kMany - kFew))
      << few << " round trips for " << kFew << " objects, " << many << " for " << kMany;
}

void BuildCodes(Context const& context) {
  IndexSpec index{u"ItemByCode", kItem, {{u"Code"}}, Uniqueness::kUnique};
  EXPECT_TRUE(BuildIndex(context, index));
}

TEST(RoundTripsTest, Insert_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const& shop, Transaction& transaction) {
    Shop::AddItems(transaction, shop.items(), 100000);
  }));
}

Work const kUniqueCode = Committed([](Shop const&, Transaction& transaction) {
  CreateIndex(transaction, u"ItemByCode", kItem, {{u"Code"}}, Uniqueness::kUnique);
});

TEST(RoundTripsTest, CreateUniqueIndex_TakesNoTripPerObject) { ExpectFew(kUniqueCode); }

TEST(RoundTripsTest, InsertUnique_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const& shop, Transaction& transaction) {
              Shop::AddItems(transaction, shop.items(), 100000);
            }),
            kUniqueCode);
}

TEST(RoundTripsTest, Update_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    for (Object each : Range::Subtree(transaction, *transaction.table(kItem))) {
      each.Set(u"Year", u"2000");
    }
  }));
}

// The first duplicates are refused by the write, those after many keys by the commit.
TEST(RoundTripsTest, DuplicateAmongManyKeys_IsRefusedByTheCommit) {
  Shop shop(kFew);
  Database const database = shop.Open();
  Context const context(database);
  kUniqueCode(shop, context);
  auto const status_of = [](auto const& work) {
    try {
      work();
    } catch (Error const& error) {
      return error.status();
    }
    return std::uint32_t{0};
  };
  {
    Transaction transaction(context);
    EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, status_of([&] { Shop::AddItems(transaction, 1, kFew - 1); }));
  }
  Transaction transaction(context);
  Shop::AddItems(transaction, 100, kFew);
  Shop::AddItems(transaction, 1, kFew - 1);
  EXPECT_EQ(LSCOREDB_DUPLICATE_KEY, status_of([&] { transaction.Commit(); }));
}

TEST(RoundTripsTest, ReadLongTexts_TakesNoTripPerObject) {
  auto const text = [](int i) {
    return std::u16string(20000, static_cast<char16_t>('a' + i % 26));
  };
  auto const grow = Committed([text](Shop const&, Transaction& transaction) {
    int i = 0;
    for (Object each : Range::Subtree(transaction, *transaction.table(kItem))) {
      each.Set(u"Code", text(i++));
    }
  });
  ExpectFew(Committed([text](Shop const&, Transaction& transaction) {
              int i = 0;
              for (Object each : Range::Subtree(transaction, *transaction.table(kItem))) {
                EXPECT_EQ(std::get<std::u16string>(each.Get(u"Code")), text(i++));
              }
            }),
            grow);
}

TEST(RoundTripsTest, UpdateUnique_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
              int i = 0;
              for (Object each : Range::Subtree(transaction, *transaction.table(kItem))) {
                each.Set(u"Code", ToUtf16("new " + std::to_string(++i)));
              }
            }),
            kUniqueCode);
}

TEST(RoundTripsTest, Delete_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    for (Object each : Range::Subtree(transaction, *transaction.table(kItem))) each.Delete();
  }));
}

TEST(RoundTripsTest, DropIndex_TakesNoTripPerObject) {
  ExpectFew(Committed(
      [](Shop const&, Transaction& transaction) { DropIndex(transaction, u"ItemByYear"); }));
}

TEST(RoundTripsTest, BuildIndex_TakesNoTripPerObject) {
  ExpectFew([](Shop const&, Context const& context) { BuildCodes(context); });
}

TEST(RoundTripsTest, AbandonIndexBuild_TakesNoTripPerObject) {
  ExpectFew(
      [](Shop const&, Context const& context) {
        for (IndexBuild const& build : IndexBuilds(context)) AbandonIndexBuild(context, build.id);
      },
      [](Shop const&, Context const& context) {
        IndexSpec index{u"ItemByCode", kItem, {{u"Code"}}, Uniqueness::kUnique};
        EXPECT_TRUE(PrepareIndex(context, index));
      });
}

TEST(RoundTripsTest, ChangeColumnType_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    ChangeColumnType(transaction, kItem, {u"Year", Type::kLong});
  }));
}

TEST(RoundTripsTest, PullUpColumn_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    PullUpColumn(transaction, kBook, u"Pages", kItem);
  }));
}

TEST(RoundTripsTest, PushDownColumn_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    PushDownColumn(transaction, kItem, u"Year", {kBook});
  }));
}

TEST(RoundTripsTest, AddColumns_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    AddColumns(transaction, kItem, {{u"Note", Type::kString}});
  }));
}

TEST(RoundTripsTest, Vacuum_TakesNoTripPerObject) {
  ExpectFew([](Shop const&, Context const& context) { RunVacuum(context); },
            Committed([](Shop const&, Transaction& transaction) {
              AddColumns(transaction, kItem, {{u"Note", Type::kString}});
            }));
}

TEST(RoundTripsTest, DropTableAndVacuum_TakesNoTripPerObject) {
  ExpectFew([](Shop const&, Context const& context) {
    Transaction transaction(context);
    DropTable(transaction, kItem, {.children = true});
    transaction.Commit();
    RunVacuum(context);
  });
}

TEST(RoundTripsTest, SetDefault_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    SetDefault(transaction, *transaction.table(kItem), u"Year", u"1999");
  }));
}

Work const kCascade = Committed([](Shop const&, Transaction& transaction) {
  SetOnDelete(transaction, *transaction.table(kItem), u"On", OnDelete::kCascade);
});

TEST(RoundTripsTest, SetOnDelete_TakesNoTripPerObject) { ExpectFew(kCascade); }

TEST(RoundTripsTest, DeleteWithReferrers_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
              for (Object each : Range::Only(transaction, *transaction.table(kShelf)))
                each.Delete();
            }),
            kCascade);
}

TEST(RoundTripsTest, InsertUnderRules_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const& shop, Transaction& transaction) {
              Shop::AddItems(transaction, shop.items(), 100000);
            }),
            kCascade);
}

TEST(RoundTripsTest, Import_TakesNoTripPerObject) {
  ExpectFew([](Shop const& shop, Context const& context) {
    std::stringstream text;
    text << "Code,Year,Pages\n";
    for (int i = 0; i < shop.items(); ++i) text << "new " << i << ",1990," << i << "\n";
    std::unique_ptr<RowSource> const rows = OpenRows(text, {});
    ImportResult result;
    Import(context, u"Shop.Book", *rows, {}, result);
    EXPECT_EQ(result.objects, static_cast<std::uint64_t>(shop.items()));
  });
}

TEST(RoundTripsTest, Export_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const& shop, Transaction& transaction) {
    std::string text;
    ExportResult const result = Export(transaction, *transaction.table(kItem),
                                       [&](std::string_view part) { text += part; }, {});
    EXPECT_EQ(result.objects, static_cast<std::uint64_t>(shop.items()));
  }));
}

TEST(RoundTripsTest, Dump_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    std::string text;
    Dump(transaction, [&](std::string_view part) { text += part; });
    EXPECT_NE(text, "");
  }));
}

TEST(RoundTripsTest, Check_TakesNoTripPerObject) {
  ExpectFew([](Shop const& shop, Context const&) {
    EXPECT_EQ(0u, lscoredb_check(shop.used->handle(), 0, nullptr, nullptr));
  });
}

TEST(RoundTripsTest, ReadReferences_TakesNoTripPerObject) {
  ExpectFew(Committed([](Shop const&, Transaction& transaction) {
    for (Object each : Range::Subtree(transaction, *transaction.table(kItem))) {
      Object::Find(transaction, std::get<ObjectId>(each.Get(u"On")))->Get(u"Name");
    }
  }));
}

}  // namespace
}  // namespace sagleme
