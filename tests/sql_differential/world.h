#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_WORLD_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_WORLD_H

// The two databases that statements run over, and what they answer.

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

#include "choices.h"
#include "dual.h"
#include "sagleme/host.hpp"

namespace sql_differential {

struct Cell {
  int type = SQLITE_NULL;
  std::int64_t integer = 0;
  double real = 0;
  std::string bytes;
};
using Row = std::vector<Cell>;

// Below 0, 0, above 0 in SQLite's order of values; numbers are equal when they are nearly so.
int Compare(Cell const& a, Cell const& b);
std::string ToText(Row const& row);

struct Answer {
  int code = SQLITE_OK;
  std::string error;
  std::vector<Row> rows;
  std::int64_t changes = 0;
  bool given_up = false;  // took too many steps
};

class Side {
 public:
  Side();
  ~Side() { sqlite3_close(handle_); }
  Side(Side const&) = delete;
  Side& operator=(Side const&) = delete;

  sqlite3* handle() const { return handle_; }
  Answer Run(std::string const& sql);
  // Gives up what takes too long.
  Answer RunLimited(std::string const& sql);
  // Throws when it fails.
  Answer Require(std::string const& sql);
  bool in_transaction() const { return sqlite3_get_autocommit(handle_) == 0; }

 private:
  static int CountStep(void* self);

  sqlite3* handle_ = nullptr;
  bool limited_ = false;
  int steps_ = 0;
};

// A directory that goes with the object.
class Directory {
 public:
  Directory();
  ~Directory();
  Directory(Directory const&) = delete;
  Directory& operator=(Directory const&) = delete;
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

class World {
 public:
  // With some of the indexes.
  explicit World(Choices& choices);

  Side& ours() { return ours_; }
  Side& native() { return native_; }
  // How the tables differ; empty when they do not.
  std::string Difference();
  // As native().Run, for a statement that our side refuses for a reference to nothing; SQLite's
  // copies take it. The same refusal, and nothing done, when it would leave such a reference.
  Answer RunUnlessReferenceToNothing(std::string const& sql);
  // Whether a statement would leave such a reference in SQLite's copies. Changes nothing.
  bool MakesReferenceToNothing(std::string const& sql);
  // An INSERT may have ended the transaction before.
  void CommitBoth();
  // An id that no object had.
  std::int64_t NextId() { return next_id_++; }
  // A span of as many ids as a statement can need.
  std::int64_t NextIds();
  // Those of the objects in a table, in rising order.
  std::vector<std::int64_t> IdsOf(std::string const& table);

 private:
  std::vector<Row> ReferencesToNothing();
  // Whether there are references to nothing that were not there before.
  bool HasOthersThan(std::vector<Row> const& before);

  Directory directory_;
  sagleme::Database database_;
  Side ours_;
  Side native_;
  std::int64_t next_id_ = 1'000'000'000'000;
};

}  // namespace sql_differential

#endif
