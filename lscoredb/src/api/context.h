#ifndef LSCOREDB_SRC_CONTEXT_H
#define LSCOREDB_SRC_CONTEXT_H

// A context, which a host knows by its handle. One thread at a time. It owns its transaction and
// its iterators, which are used over and over.

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "database.h"
#include "fork.h"
#include "handles.h"
#include "index_builder.h"
#include "iterator.h"
#include "transaction.h"

// What the host knows as an open database: a share of it, and the number of contexts opened on it.
struct lscoredb {
  std::shared_ptr<lscore::Database> database;
  std::atomic<std::uint32_t> contexts{0};
  std::uint64_t process = lscore::ProcessNumber();  // that opened it
  std::shared_ptr<void> creation;                   // the lock, while it is held
};

namespace lscore {

class Context;

// Whether this process was forked off the one that opened the database.
bool IsOfParent(lscoredb const& database);

// An iterator and the handle that it was last known by.
struct OpenIterator {
  Context* context = nullptr;
  std::uint64_t handle = 0;
  Iterator iterator;
};

extern NeverDestroyedHandleTable<Context> contexts;
extern NeverDestroyedHandleTable<OpenIterator> iterators;
inline HandleTable<Context>& Contexts() { return contexts.table; }
inline HandleTable<OpenIterator>& Iterators() { return iterators.table; }

// An index that is being built, as a host may see it.
struct ListedBuild {
  IndexBuilder::Listed of;
  std::vector<LORVI_COLUMN_DEFINITION> columns;
};

class Context {
 public:
  explicit Context(lscoredb& owner);
  ~Context();
  Context(Context const&) = delete;
  Context& operator=(Context const&) = delete;

  lscoredb& owner() { return owner_; }
  Transaction& transaction() { return transaction_; }
  Database& database() { return *owner_.database; }
  Attachments& attachments() { return attachments_; }
  // Created when it is first needed.
  IndexBuilder& index_builder();
  // What the last list of builds points to.
  std::vector<ListedBuild>& listed_builds() { return listed_builds_; }

  Status CreateIterator(IndexId index, bool reverse, void const* first_key, void const* last_key,
                        std::uint64_t* out);
  void FreeIterator(OpenIterator& iterator);

 private:
  OpenIterator& TakeIterator();

  lscoredb& owner_;
  Transaction transaction_;
  std::vector<std::unique_ptr<OpenIterator>> iterators_;
  std::vector<OpenIterator*> free_iterators_;
  Attachments attachments_;
  std::unique_ptr<IndexBuilder> index_builder_;
  std::vector<ListedBuild> listed_builds_;
};

}  // namespace lscore

#endif
