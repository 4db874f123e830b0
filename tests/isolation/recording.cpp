#include "recording.h"

#include <algorithm>
#include <exception>

#include "postgres_url.h"

namespace sagleme_isolation {

std::size_t Recorder::Count(Outcome outcome) const {
  return static_cast<std::size_t>(
      std::count_if(history_.begin(), history_.end(),
                    [&](Record const& record) { return record.outcome == outcome; }));
}

namespace {

Record Started(Recorder& recorder) {
  Record record;
  record.number = recorder.NewNumber();
  record.begin_called = recorder.Now();
  return record;
}

// The newest layout of the object's own table, which the object itself need not have reached.
sagleme::Property<std::uint64_t> VersionOf(sagleme::Object const& object) {
  return {*object.table(), kVersion};
}

}  // namespace

Recorded::Recorded(Recorder& recorder, sagleme::Context const& context, sagleme::Access access)
    : recorder_(recorder), record_(Started(recorder)), transaction_(context, access) {
  record_.begin_returned = recorder_.Now();
}

Recorded::~Recorded() {
  if (record_.end_called == 0) record_.end_called = recorder_.Now();
  if (transaction_.open()) transaction_.Rollback();
  record_.end_returned = recorder_.Now();
  recorder_.Add(std::move(record_));
}

void Recorded::Saw(sagleme::Object const& object) {
  Oid const oid = object.id().value;
  if (written_.contains(oid)) return;
  Number const version = VersionOf(object).Get(object).value_or(kBefore);
  record_.reads.push_back({oid, version});
  seen_[oid] = version;
}

void Recorded::NoteWrite(Oid object) {
  if (written_.emplace(object, true).second) record_.writes.push_back({object, seen_[object]});
}

void Recorded::Wrote(sagleme::Object const& object) {
  VersionOf(object).Set(object, record_.number);
  NoteWrite(object.id().value);
}

void Recorded::Deletes(sagleme::Object const& object) { NoteWrite(object.id().value); }

void Recorded::TakeBack(std::function<void()> const& body) {
  auto const writes = record_.writes;
  auto const written = written_;
  sagleme::Savepoint savepoint(transaction_);
  body();
  savepoint.Rollback();
  record_.writes = writes;
  written_ = written;
}

bool Recorded::Commit() {
  record_.end_called = recorder_.Now();
  try {
    transaction_.Commit();
    record_.outcome = Outcome::kCommitted;
  } catch (sagleme::Error const& refused) {
    if (refused.status() != LSCOREDB_CONFLICT) throw;
    record_.outcome = Outcome::kConflict;
  }
  return record_.outcome == Outcome::kCommitted;
}

void Retry(Recorder& recorder, sagleme::Context const& context,
           std::function<void(Recorded&)> const& body) {
  for (bool committed = false; !committed;) {
    Recorded attempt(recorder, context);
    body(attempt);
    committed = attempt.Commit();
  }
}

void Retry(sagleme::Context const& context, std::function<void(sagleme::Transaction&)> const& body,
           std::set<std::uint32_t> const& again) {
  for (bool committed = false; !committed;) {
    try {
      sagleme::Transaction transaction(context);
      body(transaction);
      transaction.Commit();
      committed = true;
    } catch (sagleme::Error const& refused) {
      if (!again.contains(refused.status())) throw;
    }
  }
}

SharedDatabase::SharedDatabase()
    : place_(lscore::NewPlace("")),
      database_(place_.empty() ? sagleme::Database::InMemory()
                               : sagleme::Database::Create(place_)) {}

std::optional<sagleme::Database> SharedDatabase::OpenApart(int number) const {
  if (place_.empty()) return std::nullopt;
  // Another URL is another place to the kernel.
  return sagleme::Database::Open(place_ + "&timeout=" + std::to_string(60 + number));
}

void Together(SharedDatabase const& database, int count,
              std::function<void(int, sagleme::Context&)> const& work) {
  std::barrier start(count);
  std::mutex mutex;
  std::exception_ptr failure;
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      try {
        std::optional<sagleme::Database> const apart = database.OpenApart(i);
        sagleme::Context context(apart ? *apart : static_cast<sagleme::Database const&>(database));
        start.arrive_and_wait();
        work(i, context);
      } catch (...) {
        std::lock_guard const lock(mutex);
        failure = std::current_exception();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace sagleme_isolation
