// Threads that create, use and close databases of their own at the same time, and one that all of
// them open.

#include <atomic>
#include <thread>

#include "support/database.h"

namespace {

using sagleme_test::Columns;
using sagleme_test::Database;
using sagleme_test::TemporaryDirectory;

constexpr int kThreads = 4;

void UseOne(int64_t value) {
  Database database;
  ASSERT_EQ(0u, database.Bootstrap());
  uint64_t const context = database.context();
  database.Begin();
  uint16_t layout = 0;
  ASSERT_EQ(0u, lorv_create_table_by_names(context, u"App.Book", nullptr, Columns().Long(u"Price"),
                                           &layout));
  CreateInfo* create = nullptr;
  PropertyAccessInfo* price = nullptr;
  ASSERT_EQ(0u, lorv_crud_GetCreateHandle(context, u"App.Book", &create));
  ASSERT_EQ(0u, lorv_crud_GetPropertyHandle(context, u"App.Book", u"Price", &price));
  for (int i = 0; i < 20; ++i) {
    uint64_t oid = 0;
    uint64_t addr = 0;
    uint64_t type = 0;
    int64_t read = 0;
    ASSERT_EQ(0u, lorv_crud_CreateObject(context, create, &oid, &addr));
    ASSERT_EQ(0u, lorv_crud_WriteLong(context, price, oid, addr, value + i));
    ASSERT_EQ(0u, lorv_crud_Lookup(context, oid, &addr, &type));
    ASSERT_EQ(0u, lorv_crud_ReadLong(context, price, oid, addr, &read));
    ASSERT_EQ(value + i, read);
  }
  ASSERT_NE(0u, lorv_crud_GetCreateHandle(context, u"App.None", &create));
  database.Commit();
}

TEST(DatabasesInThreadsTest, EachThread_HasItsOwnDatabase) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      for (int round = 0; round < 5; ++round) UseOne(1000 * thread + round);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(DatabasesInThreadsTest, AllThreads_StartOneDatabaseUpAtTheSameTime) {
  TemporaryDirectory const directory;
  std::string const place = sagleme_test::NewPlace(directory.path());
  {
    Database made(place);
    ASSERT_EQ(0u, made.Bootstrap());
  }
  Database const stays(place);
  std::atomic<int> started{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&] {
      Database database(place);
      database.Begin();
      EXPECT_EQ(0u, lorv_init_metalayer(database.context()));
      ++started;
      while (started < kThreads) std::this_thread::yield();
      uint64_t type = 0;
      EXPECT_EQ(0u,
                lorv_crud_GetTypeId(database.context(), u"Lorvenstack.Metadata.RawView", &type));
      EXPECT_EQ(4u, type);
      database.Rollback();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
