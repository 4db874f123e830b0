#ifndef SAGLEME_TESTS_ISOLATION_RECORDING_H
#define SAGLEME_TESTS_ISOLATION_RECORDING_H

// Transactions that write down what they do, for the checker of histories.
//
// A Recorder belongs to a test and is shared by its threads. A Recorded is one transaction, used by
// one thread; it goes into the history when it ends. Objects that take part have a column Version,
// an unsigned number, that says who wrote them last.

#include <atomic>
#include <barrier>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <sagleme/host.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "history.h"

namespace sagleme_isolation {

inline constexpr char16_t kVersion[] = u"Version";

class Recorder {
 public:
  Tick Now() { return ++clock_; }
  Number NewNumber() { return ++numbers_; }
  void Add(Record record) {
    std::lock_guard const lock(mutex_);
    history_.push_back(std::move(record));
  }
  // REQUIRES: the threads have ended.
  History const& history() const { return history_; }
  std::size_t Count(Outcome outcome) const;

 private:
  std::atomic<Tick> clock_{0};
  std::atomic<Number> numbers_{0};
  std::mutex mutex_;
  History history_;
};

class Recorded {
 public:
  Recorded(Recorder& recorder, sagleme::Context const& context,
           sagleme::Access access = sagleme::Access::kReadWrite);
  ~Recorded();
  Recorded(Recorded const&) = delete;
  Recorded& operator=(Recorded const&) = delete;

  sagleme::Transaction& transaction() { return transaction_; }

  // Notes that the object is seen, and by whom it was written. To be called before anything is read
  // from an object, and before it is written or deleted.
  void Saw(sagleme::Object const& object);
  // Notes a write; the object gets this transaction's number. REQUIRES: it was seen, or is new.
  void Wrote(sagleme::Object const& object);
  // Notes a deletion. REQUIRES: the object was seen.
  void Deletes(sagleme::Object const& object);

  // Runs `body` behind a savepoint and takes back what it wrote: it is as if it had only read.
  void TakeBack(std::function<void()> const& body);

  // Whether it was committed; false after a conflict. Any other refusal is thrown.
  bool Commit();

 private:
  void NoteWrite(Oid object);

  Recorder& recorder_;
  Record record_;
  sagleme::Transaction transaction_;
  std::map<Oid, Number> seen_;
  std::map<Oid, bool> written_;
};

// Runs `body`, which fills a transaction, until one is committed.
void Retry(Recorder& recorder, sagleme::Context const& context,
           std::function<void(Recorded&)> const& body);

// The same for what no history is to know of. `again` are the statuses that ask for another
// attempt.
void Retry(sagleme::Context const& context, std::function<void(sagleme::Transaction&)> const& body,
           std::set<std::uint32_t> const& again = {LSCOREDB_CONFLICT});

// The database of a test: in memory, or where suites run on a server, there.
class SharedDatabase {
 public:
  SharedDatabase();

  operator sagleme::Database const&() const { return database_; }
  // On a server, the database opened once more: it shares nothing with the others in this process,
  // as if it were used on another machine. In memory, nothing.
  std::optional<sagleme::Database> OpenApart(int number) const;

 private:
  std::string place_;
  sagleme::Database database_;
};

// Runs `work` in `count` threads that begin it together, each with a context of its own, and on a
// server as if each thread were on a machine of its own. What one of them throws is thrown on.
void Together(SharedDatabase const& database, int count,
              std::function<void(int, sagleme::Context&)> const& work);

}  // namespace sagleme_isolation

#endif
