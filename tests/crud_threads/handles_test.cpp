// Handles shared by threads, each in a context of its own.

#include "crud/handles.h"

#include <atomic>
#include <barrier>
#include <set>
#include <thread>

#include "crud/crud_test.h"

namespace sagleme_test {
namespace {

constexpr int kThreads = 4;

// A context of one thread.
class ThreadContext {
 public:
  explicit ThreadContext(lscoredb* database) {
    EXPECT_EQ(0u, lscoredb_context_open(database, &id_));
  }
  ~ThreadContext() { EXPECT_EQ(0u, lscoredb_context_close(id_)); }
  ThreadContext(ThreadContext const&) = delete;
  ThreadContext& operator=(ThreadContext const&) = delete;

  uint64_t id() const { return id_; }
  void Begin(uint32_t flags = LSCOREDB_READ_ONLY_TRANSACTION) {
    EXPECT_EQ(0u, lscoredb_begin(id_, flags));
  }
  uint32_t Commit() { return lscoredb_commit(id_); }
  void Rollback() { EXPECT_EQ(0u, lscoredb_rollback(id_)); }

 private:
  uint64_t id_ = 0;
};

class HandlesThreadsTest : public CrudTest {
 protected:
  void SetUp() override {
    CrudTest::SetUp();
    CreateTable(u"Article", Columns().Long(u"Weight").Long(u"Price"));
    CreateTable(u"Book", Columns().Long(u"Pages"), u"Article");
    for (int i = 0; i < kThreads; ++i) objects_.push_back(CreateObject(u"Book"));
    Commit();
  }

  // Runs `work` in threads that begin it together.
  template <typename Work>
  void Together(Work&& work) {
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        ThreadContext context(database().handle());
        start.arrive_and_wait();
        work(i, context);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  std::vector<LS_OBJ_REF> objects_;
};

TEST_F(HandlesThreadsTest, SameNames_GiveTheSameHandles) {
  std::vector<std::set<void const*>> seen(kThreads);
  Together([&](int index, ThreadContext& context) {
    context.Begin();
    for (char16_t const* const table : {u"Article", u"Book"}) {
      CreateInfo* creator = nullptr;
      PropertyAccessInfo* property = nullptr;
      EXPECT_EQ(0u, lorv_crud_GetCreateHandle(context.id(), table, &creator));
      EXPECT_EQ(0u, lorv_crud_GetPropertyHandle(context.id(), table, u"Price", &property));
      seen[static_cast<std::size_t>(index)].insert({creator, property});
    }
    context.Rollback();
  });
  EXPECT_EQ(4u, seen[0].size());
  for (auto const& handles : seen) EXPECT_EQ(seen[0], handles);
}

TEST_F(HandlesThreadsTest, ColdLayouts_GiveEveryThreadTheType) {
  Begin();
  uint64_t const type_id = TypeId(u"Book");
  Rollback();
  Together([&](int, ThreadContext& context) {
    context.Begin();
    for (LS_OBJ_REF const& object : objects_) {
      uint64_t found = 0;
      EXPECT_EQ(0u, lorv_crud_GetObjectTypeId(context.id(), object.oid, object.addr, &found));
      EXPECT_EQ(type_id, found);
    }
    context.Rollback();
  });
}

TEST_F(HandlesThreadsTest, ObjectsOfAllThreads_AreKept) {
  Begin();
  CreateInfo* const creator = Creator(u"Book");
  PropertyAccessInfo* const pages = Property(u"Book", u"Pages");
  Rollback();
  std::vector<LS_OBJ_REF> made(kThreads);
  Together([&](int index, ThreadContext& context) {
    context.Begin(LSCOREDB_READ_WRITE);
    LS_OBJ_REF& object = made[static_cast<std::size_t>(index)];
    EXPECT_EQ(0u, lorv_crud_CreateObject(context.id(), creator, &object.oid, &object.addr));
    EXPECT_EQ(0u, lorv_crud_WriteLong(context.id(), pages, object.oid, object.addr, index));
    EXPECT_EQ(0u, context.Commit());
  });
  Begin();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(i, ReadLong(pages, made[static_cast<std::size_t>(i)]));
  }
}

// A refresh swaps layout and column of a handle together: a reader gets the property's own value or
// is refused, because its snapshot is older than the layout; it never gets another column's.
TEST_F(HandlesThreadsTest, RefreshUnderReaders_NeverShowsAnotherColumn) {
  Begin();
  PropertyAccessInfo* const price = Property(u"Book", u"Price");
  LS_OBJ_REF const book = objects_.front();
  WriteLong(Property(u"Book", u"Weight"), book, 1);
  WriteLong(price, book, 2);
  WriteLong(Property(u"Book", u"Pages"), book, 3);
  Commit();
  std::atomic<int> readers = kThreads - 1;
  Together([&](int index, ThreadContext& context) {
    if (index == 0) {
      context.Begin(LSCOREDB_READ_WRITE);
      EXPECT_EQ(
          0u, lorv_alter_table_drop_column_by_names(context.id(), u"Article", u"Weight", nullptr));
      EXPECT_EQ(0u, context.Commit());
      while (readers.load() > 0) {
        context.Begin();
        EXPECT_EQ(0u, lorv_crud_RefreshIssuedHandles(context.id()));
        context.Rollback();
      }
      return;
    }
    for (int i = 0; i < 2000; ++i) {
      context.Begin();
      int64_t value = 0;
      uint32_t const status = lorv_crud_ReadLong(context.id(), price, book.oid, book.addr, &value);
      if (status == 0) {
        EXPECT_EQ(2, value);
      } else {
        EXPECT_EQ(LSCOREDB_UNKNOWN_LAYOUT, status);
      }
      context.Rollback();
    }
    --readers;
  });
  Begin();
  EXPECT_EQ(2, ReadLong(price, book));
}

}  // namespace
}  // namespace sagleme_test
