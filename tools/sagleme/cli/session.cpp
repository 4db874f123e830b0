#include "cli/session.h"

#include <sagleme/host/duplicates.hpp>

#include "base/failure.h"
#include "base/watch.h"

namespace tool {
namespace {

constexpr std::uint64_t kRowMemory = std::uint64_t{64} << 20;

}  // namespace

sagleme::Database& Session::OpenOnce(std::uint32_t log, std::uint64_t log_limit) {
  if (database_) return *database_;
  try {
    // Commands read many rows once; the cache serves references and indexes.
    sagleme::Options const options{.row_memory = kRowMemory, .log = log, .log_limit = log_limit};
    database_.emplace(sagleme::Database::Open(directory_, options));
  } catch (sagleme::Error const& error) {
    bool const missing =
        error.status() == LSCOREDB_NOT_A_DATABASE && !sagleme::Database::ExistsIn(directory_);
    throw Failure(Exit::kCannotOpen, error.what(),
                  missing ? "Create one with: sagleme create " + shown() : "");
  }
  return *database_;
}

sagleme::Context& Session::context() {
  if (!context_) context_.emplace(database());
  return *context_;
}

void Session::Read(Work const& work) {
  Watch const watch;
  if (open_) return work(*open_);
  database_to_read();
  sagleme::Transaction transaction(context(), sagleme::Access::kReadOnly);
  work(transaction);
}

void Session::Write(Work const& work) {
  Watch const watch;
  if (open_) {
    sagleme::Savepoint statement(*open_);
    work(*open_);
    statement.Release();
    return;
  }
  sagleme::Transaction transaction(context());
  work(transaction);
  sagleme::Commit(transaction, context());
}

void Session::Begin() {
  if (open_)
    throw Failure(Exit::kRefused, "a transaction is already open",
                  "End it with commit or rollback.");
  Watch const watch;
  open_.emplace(context());
}

sagleme::Transaction& Session::Open() {
  if (!open_) throw Failure(Exit::kRefused, "no transaction is open", "Open one with begin.");
  return *open_;
}

void Session::Commit() {
  sagleme::Transaction& transaction = Open();
  try {
    sagleme::Commit(transaction, context());
  } catch (...) {
    open_.reset();  // a refused commit has ended the transaction too
    throw;
  }
  open_.reset();
}

void Session::Rollback() {
  Open().Rollback();
  open_.reset();
}

void Session::RequireNoTransaction(std::string const& command) const {
  if (!open_) return;
  throw Failure(Exit::kRefused, command + " needs transactions of its own",
                "End the open one with commit or rollback first.");
}

}  // namespace tool
