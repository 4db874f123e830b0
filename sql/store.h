#ifndef SAGLEME_SQL_STORE_H
#define SAGLEME_SQL_STORE_H

// An open database, shared by all connections of the process that have it attached.
//
// Threads may use a store at the same time; a connection works in a context of its own.

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <unordered_map>

#include "schema.h"

namespace sagleme::sql {

class Store {
 public:
  // The store that is already open, or a new one. Throws Failure for a directory without a
  // database.
  static std::shared_ptr<Store> Open(std::string const& directory);

  // The store of the database that somebody else has open, for those who join its transactions.
  static std::shared_ptr<Store> Joined(OpenTransaction of, std::string const& place);

  explicit Store(std::string directory);
  // Of a database that somebody else has open.
  Store(std::string place, pid_t process);

  std::string const& directory() const { return directory_; }
  // REQUIRES: the store did not join.
  Database const& database() const { return *database_; }
  // Throws Failure in a process forked since: it must not use what the parent has open.
  void RequireOwnProcess() const;

  // The schema as a transaction without schema changes sees it.
  SchemaPtr SchemaOf(Transaction& transaction);
  // About how many objects a table holds.
  std::uint64_t Estimate(std::uint64_t context, Shape const& shape);

 private:
  bool CountsAreFresh();
  void RefreshCounts(std::uint64_t context);

  std::string directory_;
  pid_t process_;
  std::optional<Database> database_;
  std::mutex mutex_;
  SchemaPtr newest_;
  std::unordered_map<std::uint64_t, std::uint64_t> counts_;  // by token of layouts
  std::uint64_t counted_at_ = 0;                             // the commit, or the question
  std::uint64_t questions_ = 0;                              // of those who joined
};

}  // namespace sagleme::sql

#endif
