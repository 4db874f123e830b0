// Several databases in one process: each has what the layer knows of it for itself, and gives it
// back at its last close.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

#include "support/database.h"

namespace {

using namespace metalayer;
using sagleme_test::Columns;
using sagleme_test::Database;
using sagleme_test::LastText;
using sagleme_test::TemporaryDirectory;
using sagleme_test::Utf8;

constexpr char16_t kForeignHandle[] = u"The handle belongs to another database than the context.";

// A bootstrapped database with a table and the handles to use it.
class Shop {
 public:
  explicit Shop(char16_t const* table, std::string const& directory = "", bool bootstrap = true)
      : database_(directory) {
    if (!bootstrap) return;
    EXPECT_EQ(0u, database_.Bootstrap());
    Make(table);
  }

  void Make(char16_t const* table) {
    database_.Begin();
    uint16_t layout = 0;
    EXPECT_EQ(0u, lorv_create_table_by_names(context(), table, nullptr,
                                             Columns().Long(u"Price").Ref(u"Next", table), &layout))
        << Utf8(LastText(context()));
    EXPECT_EQ(0u, lorv_update_reference_columns_types(context()));
    EXPECT_EQ(0u, lorv_crud_GetCreateHandle(context(), table, &create));
    EXPECT_EQ(0u, lorv_crud_GetPropertyHandle(context(), table, u"Price", &price));
    EXPECT_EQ(0u, lorv_crud_GetPropertyHandle(context(), table, u"Next", &next));
    EXPECT_EQ(0u, lorv_crud_GetTypeId(context(), table, &type_id));
    database_.Commit();
  }

  uint64_t Add(int64_t value) {
    uint64_t oid = 0;
    uint64_t addr = 0;
    EXPECT_EQ(0u, lorv_crud_CreateObject(context(), create, &oid, &addr));
    EXPECT_EQ(0u, lorv_crud_WriteLong(context(), price, oid, addr, value));
    return oid;
  }

  int64_t PriceOf(uint64_t oid) {
    uint64_t addr = 0;
    uint64_t found_type = 0;
    int64_t value = 0;
    EXPECT_EQ(0u, lorv_crud_Lookup(context(), oid, &addr, &found_type));
    EXPECT_EQ(type_id, found_type);
    EXPECT_EQ(0u, lorv_crud_ReadLong(context(), price, oid, addr, &value));
    return value;
  }

  uint64_t context() const { return database_.context(); }
  Database& database() { return database_; }

  CreateInfo* create = nullptr;
  PropertyAccessInfo* price = nullptr;
  PropertyAccessInfo* next = nullptr;
  uint64_t type_id = 0;

 private:
  Database database_;
};

// Runs `work` in the thread's context.
template <typename Work>
auto In(uint64_t context, Work&& work) {
  unsigned long const before = std::exchange(*TlsMetalayerContext::Current(), context);
  auto const result = work();
  *TlsMetalayerContext::Current() = before;
  return result;
}

TEST(ManyDatabasesTest, EachDatabase_HasItsOwnTablesTypesAndObjects) {
  Shop first(u"App.Book");
  Shop second(u"App.Other");
  second.Make(u"App.Book");
  first.database().Begin();
  second.database().Begin();
  uint64_t const book = first.Add(7);
  uint64_t const other = second.Add(11);
  EXPECT_EQ(7, first.PriceOf(book));
  EXPECT_EQ(11, second.PriceOf(other));
  EXPECT_NE(first.type_id, second.type_id);
  first.database().Commit();
  second.database().Commit();
}

TEST(ManyDatabasesTest, Answers_AreThoseOfTheContextsDatabase) {
  Shop first(u"App.Book");
  Shop second(u"App.Other");
  second.Make(u"App.Book");
  for (Shop* const shop : {&first, &second}) {
    shop->database().Begin();
    bool const right = In(shop->context(), [&] {
      EXPECT_TRUE(IsMetalayerInitialized());
      EXPECT_NE(0u, MomRawView().oid);
      return lorv_get_metaschema_generation() == (shop == &first ? 1u : 2u);
    });
    EXPECT_TRUE(right);
    shop->database().Rollback();
  }
}

TEST(ManyDatabasesTest, DatabaseNotStartedUp_KnowsNothingOfTheOther) {
  Shop const started(u"App.Book");
  Database fresh;
  EXPECT_FALSE(In(fresh.context(), [] { return IsMetalayerInitialized(); }));
  EXPECT_EQ(0, In(fresh.context(), [] { return RawView::metaclass_layout_handle(); }));
  fresh.Begin();
  EXPECT_EQ(SAGLEME_NOT_PREPARED, lorv_init_metalayer(fresh.context()));
  fresh.Rollback();
}

TEST(ManyDatabasesTest, ForeignHandle_IsRefusedAndWritesNothing) {
  Shop first(u"App.Book");
  Shop second(u"App.Other");
  second.database().Begin();
  uint64_t oid = 77;
  uint64_t addr = 78;
  EXPECT_EQ(LORV_STATUS_FOREIGN_DATABASE,
            lorv_crud_CreateObject(second.context(), first.create, &oid, &addr));
  EXPECT_EQ(kForeignHandle, LastText(second.context()));
  EXPECT_EQ(LORV_STATUS_FOREIGN_DATABASE,
            lorv_crud_CreateObjectWithId(second.context(), first.create, 1u << 30, &addr));
  EXPECT_EQ(77u, oid);
  EXPECT_EQ(78u, addr);
  uint64_t const row = second.Add(3);
  LS_OBJ_REF reference{};
  uint64_t type = 0;
  EXPECT_EQ(LORV_STATUS_FOREIGN_DATABASE,
            lorv_crud_ReadRefAndType(second.context(), first.next, row, 0, &reference, &type));
  second.database().Commit();
}

// ---- continuations ------------------------------------------------------------------------------

struct Steps {
  explicit Steps(Database& of) : database(of) {}
  ~Steps() { free_continuation_handle(handle); }
  Steps(Steps const&) = delete;
  Steps& operator=(Steps const&) = delete;

  uint32_t Start() {
    database.Begin();
    return Took(lorv_prepare_system_tables(database.context(), &next, &more));
  }
  uint32_t GoOn() { return Took(run_continuation(handle, &next, &more)); }
  void RunToTheEnd() {
    while (more) {
      database.Commit();
      database.Begin();
      ASSERT_EQ(0u, GoOn());
    }
    database.Commit();
  }

  Database& database;
  continuation_context* handle = nullptr;
  bool more = false;

 private:
  // A step that was refused leaves the handle as it was.
  uint32_t Took(uint32_t status) {
    if (status == LORV_STATUS_FOREIGN_DATABASE) {
      more = true;
      return status;
    }
    free_continuation_handle(std::exchange(handle, next));
    return status;
  }

  continuation_context* next = nullptr;
};

TEST(ManyDatabasesTest, TwoBootstraps_DoNotMixAndTheLastBegunGoesFirst) {
  Database first;
  Database second;
  Steps outer(first);
  Steps inner(second);
  ASSERT_EQ(0u, outer.Start());
  ASSERT_EQ(0u, inner.Start());
  EXPECT_EQ(LORV_STATUS_FOREIGN_DATABASE, outer.GoOn());
  EXPECT_NE(u"", LastText(second.context()));
  inner.RunToTheEnd();
  outer.RunToTheEnd();
  EXPECT_TRUE(In(first.context(), [] { return IsMetalayerInitialized(); }));
  EXPECT_TRUE(In(second.context(), [] { return IsMetalayerInitialized(); }));
}

TEST(ManyDatabasesTest, Bootstrap_OutlivesItsDatabaseHarmlessly) {
  auto database = std::make_unique<Database>();
  std::optional<Steps> steps(std::in_place, *database);
  ASSERT_EQ(0u, steps->Start());
  uint64_t const context = database->context();
  database.reset();
  EXPECT_NE(0u, steps->GoOn());
  steps.reset();
  EXPECT_NE(context, *TlsMetalayerContext::Current());
}

// ---- the end of a database ----------------------------------------------------------------------

TEST(ManyDatabasesTest, ReopenedDatabase_StartsAnew) {
  TemporaryDirectory const place;
  for (int i = 0; i < 3; ++i) {
    std::string const directory = sagleme_test::NewPlace(place.path() + "/db");
    uint64_t book = 0;
    {
      Shop shop(u"App.Book", directory);
      shop.database().Begin();
      book = shop.Add(i);
      shop.database().Commit();
    }
    {
      Database again(directory);
      EXPECT_FALSE(In(again.context(), [] { return IsMetalayerInitialized(); }));
      EXPECT_EQ(u"", In(again.context(), [] { return RawView::setspec(); }));
      again.Begin();
      ASSERT_EQ(0u, lorv_init_metalayer(again.context()));
      uint64_t addr = 0;
      uint64_t type = 0;
      EXPECT_EQ(0u, lorv_crud_Lookup(again.context(), book, &addr, &type));
      EXPECT_NE(0u, type);
      again.Commit();
    }
    std::filesystem::remove_all(directory);
  }
}

TEST(ManyDatabasesTest, ExportedVariables_AreThoseOfTheFirstOpenedThenOfTheNext) {
  auto first = std::make_unique<Shop>(u"App.Book");
  Shop second(u"App.Other");
  LS_OBJ_REF const of_first = In(first->context(), [] { return SchemaGeneration(); });
  EXPECT_EQ(of_first.oid, g_schema_generation.oid);
  EXPECT_EQ(RawView::g_table_id_,
            In(first->context(), [] { return RawView::metaclass_layout_handle(); }));
  first.reset();
  EXPECT_EQ(0u, g_schema_generation.oid);
  EXPECT_EQ(0u, g_mom_rv.oid);
  EXPECT_EQ(0u, RawView::g_table_id_);
  EXPECT_TRUE(std::all_of(std::begin(g_layouts), std::end(g_layouts),
                          [](LayoutEntry const& entry) { return entry.type_id == 0; }));
  EXPECT_TRUE(std::all_of(std::begin(g_raw_views), std::end(g_raw_views),
                          [](LS_OBJ_REF const& view) { return view.oid == 0; }));
  EXPECT_NE(0u, In(second.context(), [] { return RawView::metaclass_layout_handle(); }));
  Shop third(u"App.Third");
  EXPECT_EQ(In(third.context(), [] { return SchemaGeneration(); }).oid, g_schema_generation.oid);
}

TEST(ManyDatabasesTest, TextOfAFailure_EndsWithItsContext) {
  Database database;
  uint64_t context = 0;
  ASSERT_EQ(0u, lscoredb_context_open(database.handle(), &context));
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, lorv_setspec_name_by_setspec_ref(context, 0, 0, nullptr));
  EXPECT_NE(u"", LastText(context));
  EXPECT_EQ(u"", LastText(database.context()));
  ASSERT_EQ(0u, lscoredb_context_close(context));
  ASSERT_EQ(0u, lscoredb_context_open(database.handle(), &context));
  EXPECT_EQ(u"", LastText(context));
  ASSERT_EQ(0u, lscoredb_context_close(context));
}

// ---- many ---------------------------------------------------------------------------------------

int FromEnvironment(char const* name, int fallback) {
  char const* const given = std::getenv(name);
  return given == nullptr ? fallback : std::atoi(given);
}

// A sanitizer keeps what was freed, and has memory of its own besides.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsOurs = false;
#else
constexpr bool kMemoryIsOurs = true;
#endif

struct Taken {
  long descriptors = 0;
  long mappings = 0;
  long anonymous_kib = 0;
};

Taken TakenNow() {
  Taken taken;
  taken.descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                    std::filesystem::directory_iterator());
  std::ifstream maps("/proc/self/maps");
  taken.mappings =
      std::count(std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>(), '\n');
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) taken.anonymous_kib = std::stol(line.substr(8));
  }
  return taken;
}

// What a process has after ten times as many databases is what it had before: SAGLEME_DATABASES of
// them in all, 10,000 for the full measure.
TEST(ManyDatabasesTest, ClosedDatabases_LeaveNothing) {
  int const all = FromEnvironment("SAGLEME_DATABASES", 200);
  auto const use = [](int count) {
    for (int i = 0; i < count; ++i) {
      Shop shop(u"App.Book");
      shop.database().Begin();
      shop.PriceOf(shop.Add(i));
      shop.database().Commit();
      EXPECT_NE(0u, lorv_crud_GetTypeId(shop.context(), u"App.None", &shop.type_id));
    }
  };
  use(all / 10);
  Taken const before = TakenNow();
  use(all - all / 10);
  Taken const after = TakenNow();
  EXPECT_EQ(before.descriptors, after.descriptors);
  if (kMemoryIsOurs) {
    EXPECT_LE(after.mappings, before.mappings + 4);
    EXPECT_LE(after.anonymous_kib, before.anonymous_kib + 1024);
  }
  RecordProperty("anonymous_kib", std::to_string(after.anonymous_kib));
}

// SAGLEME_OPEN_DATABASES of them at the same time, 1,000 for the full measure.
TEST(ManyDatabasesTest, ManyDatabases_AreOpenAndInUseAtTheSameTime) {
  int const count = FromEnvironment("SAGLEME_OPEN_DATABASES", 60);
  std::vector<std::unique_ptr<Shop>> shops;
  std::vector<uint64_t> objects;
  for (int i = 0; i < count; ++i) {
    shops.push_back(std::make_unique<Shop>(i % 2 == 0 ? u"App.Book" : u"App.Pen"));
    shops.back()->database().Begin();
    objects.push_back(shops.back()->Add(i));
  }
  for (int i = count - 1; i >= 0; --i) {
    Shop& shop = *shops[static_cast<std::size_t>(i)];
    EXPECT_EQ(i, shop.PriceOf(objects[static_cast<std::size_t>(i)]));
    shop.database().Commit();
  }
}

}  // namespace
