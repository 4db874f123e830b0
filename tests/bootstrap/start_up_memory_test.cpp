// Memory that runs out at every request of start-up and bootstrap, and the second try that follows:
// it succeeds, and what it leaves works.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>
#include <new>

#include "crash/failing_memory.h"
#include "support/database.h"

namespace {

using sagleme_test::Columns;
using sagleme_test::Database;
using sagleme_test::TemporaryDirectory;

// Whether the work met a request that was refused; it must have said so.
template <typename Work>
bool MeetsRefusal(int nth, Work&& work) {
  failing_memory::FailNth(nth);
  uint32_t status = 0;
  try {
    status = work();
  } catch (std::bad_alloc const&) {
    status = LSCOREDB_NO_MEMORY;
  }
  bool const refused = failing_memory::Failed();
  failing_memory::FailNth(0);
  EXPECT_TRUE(status == 0 || status == LSCOREDB_NO_MEMORY) << status;
  EXPECT_TRUE(refused || status == 0);
  return refused;
}

// A table, an object and an index, and what the exported variables say.
void ExpectWorking(Database& database) {
  uint64_t const context = database.context();
  *metalayer::TlsMetalayerContext::Current() = context;
  uint16_t layout = 0;
  ASSERT_EQ(0u, lorv_create_table_by_names(context, u"App.Thing", nullptr, Columns().Long(u"Size"),
                                           &layout));
  CreateInfo* handle = nullptr;
  ASSERT_EQ(0u, lorv_crud_GetCreateHandle(context, u"App.Thing", &handle));
  uint64_t oid = 0;
  uint64_t addr = 0;
  ASSERT_EQ(0u, lorv_crud_CreateObject(context, handle, &oid, &addr));
  uint64_t type_id = 0;
  ASSERT_EQ(0u, lorv_crud_GetObjectTypeId(context, oid, addr, &type_id));
  EXPECT_NE(0u, type_id);
  EXPECT_NE(0u, metalayer::Token::g_table_id_) << "the first database has the exported variables";
  *metalayer::TlsMetalayerContext::Current() = 0;
}

TEST(StartUpMemoryTest, StartUp_SucceedsAtTheSecondTry) {
  TemporaryDirectory directory;
  ASSERT_EQ(0u, Database(directory.path()).Bootstrap());
  int nth = 1;
  for (bool refused = true; refused && !::testing::Test::HasFailure(); ++nth) {
    SCOPED_TRACE("request " + std::to_string(nth));
    Database database(directory.path());
    database.Begin();
    auto const start_up = [&] { return lorv_init_metalayer(database.context()); };
    refused = MeetsRefusal(nth, start_up);
    ASSERT_EQ(0u, start_up());
    ExpectWorking(database);
    database.Rollback();
  }
  EXPECT_LT(20, nth);
}

// The same where the second try is made in a transaction and a context of its own.
TEST(StartUpMemoryTest, StartUp_SucceedsInAnotherContext) {
  TemporaryDirectory directory;
  ASSERT_EQ(0u, Database(directory.path()).Bootstrap());
  int nth = 1;
  for (bool refused = true; refused && !::testing::Test::HasFailure(); ++nth) {
    SCOPED_TRACE("request " + std::to_string(nth));
    Database database(directory.path());
    {
      Database other(directory.path());
      other.Begin();
      refused = MeetsRefusal(nth, [&] { return lorv_init_metalayer(other.context()); });
    }
    database.Begin();
    ASSERT_EQ(0u, lorv_init_metalayer(database.context()));
    ExpectWorking(database);
    database.Rollback();
  }
}

struct FreeContinuation {
  void operator()(continuation_context* handle) const { free_continuation_handle(handle); }
};

// With a commit behind each step. A failure leaves no transaction.
uint32_t Bootstrap(uint64_t context) {
  uint32_t status = lscoredb_begin(context, LSCOREDB_READ_WRITE);
  if (status != 0) return status;
  continuation_context* next = nullptr;
  bool more = false;
  status = lorv_prepare_system_tables(context, &next, &more);
  std::unique_ptr<continuation_context, FreeContinuation> held(next);
  while (status == 0 && more) {
    status = lscoredb_commit(context);
    if (status == 0) status = lscoredb_begin(context, LSCOREDB_READ_WRITE);
    if (status != 0) return status;
    status = run_continuation(held.get(), &next, &more);
    held.reset(next);
  }
  return status == 0 ? lscoredb_commit(context) : status;
}

// Each of the first requests fails, and then one in every step of a growing stride, which stays 1
// with SAGLEME_LONG_TESTS in the environment. The second try goes on from what was committed.
TEST(StartUpMemoryTest, Bootstrap_SucceedsAtTheSecondTry) {
  constexpr int kDense = 64;
  int const growth = std::getenv("SAGLEME_LONG_TESTS") != nullptr ? INT_MAX : 16;
  int tries = 0;
  bool refused = true;
  for (int nth = 1; refused && !::testing::Test::HasFailure();
       nth += 1 + std::max(0, nth - kDense) / growth) {
    SCOPED_TRACE("request " + std::to_string(nth));
    Database database;
    refused = MeetsRefusal(nth, [&] { return Bootstrap(database.context()); });
    lscoredb_rollback(database.context());
    ASSERT_EQ(0u, Bootstrap(database.context()));
    database.Begin();
    ExpectWorking(database);
    database.Rollback();
    ++tries;
  }
  EXPECT_LT(kDense, tries);
}

}  // namespace
