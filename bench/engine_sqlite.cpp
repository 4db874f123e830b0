// SQLite with statements prepared once: one table with the integer primary key, an index for each
// of the others' indexes. A tree of tables is a column, as programs without inheritance have it.

#include <filesystem>
#include <utility>

#include "engine.h"
#include "sqlite.h"

namespace bench {
namespace {

using sqlite::Check;
using sqlite::Statement;

// What the text of a name holds: letters of one byte each.
std::string Letters(Thing const& thing) {
  return {thing.name.begin(), thing.name.begin() + kNameUnits};
}

class Connection {
 public:
  Connection(std::string const& directory, bool durable) {
    std::string const path = directory.empty() ? ":memory:" : directory + "/data.sqlite";
    Check(sqlite3_open_v2(path.c_str(), &handle_,
                          SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                          nullptr));
    sqlite3_busy_timeout(handle_, 60000);
    if (!directory.empty()) Execute("pragma journal_mode = wal");
    Execute(durable ? "pragma synchronous = full" : "pragma synchronous = off");
    Execute("pragma cache_size = -524288");
    Execute("pragma mmap_size = 4294967296");
    Execute("pragma temp_store = memory");
    Execute(
        "create table if not exists thing (id integer primary key, kind integer not null,"
        " plain integer, indexed integer, weight real, name text, other integer)");
    Execute("create index if not exists by_kind on thing (kind)");
    Execute("create index if not exists by_name on thing (name)");
    Execute("create index if not exists by_indexed on thing (indexed)");
  }
  ~Connection() { sqlite3_close(handle_); }
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  sqlite3* handle() { return handle_; }
  void Execute(char const* text) { Check(sqlite3_exec(handle_, text, nullptr, nullptr, nullptr)); }

 private:
  sqlite3* handle_ = nullptr;
};

class Statements {
 public:
  Statements(std::string const& directory, bool durable) : connection(directory, durable) {}

  Connection connection;
  Statement begin{connection.handle(), "begin"};
  Statement begin_writing{connection.handle(), "begin immediate"};
  Statement savepoint{connection.handle(), "savepoint s"};
  Statement rollback_to{connection.handle(), "rollback to s"};
  Statement release{connection.handle(), "release s"};
  Statement commit{connection.handle(), "commit"};
  Statement insert{connection.handle(), "insert into thing values (?, ?, ?, ?, ?, ?, ?)"};
  Statement read_one{connection.handle(), "select plain from thing where id = ?"};
  Statement read_all{connection.handle(),
                     "select plain, indexed, weight, name, other from thing where id = ?"};
  Statement find{connection.handle(), "select plain from thing where name = ?"};
  Statement scan{connection.handle(),
                 "select plain from thing indexed by by_indexed order by indexed limit ?"};
  Statement scan_ids{connection.handle(),
                     "select id from thing indexed by by_indexed order by indexed limit ?"};
  Statement update_plain{connection.handle(), "update thing set plain = ? where id = ?"};
  // SQLite has no operator for an exclusive or.
  Statement update_indexed{
      connection.handle(),
      "update thing set indexed = (indexed | ?1) - (indexed & ?1) where id = ?2"};
};

void Insert(Statements& statements, Number number) {
  Thing const thing = MakeThing(number);
  std::string const name = Letters(thing);
  statements.insert.Bind(1, std::int64_t{number} + 1)
      .Bind(2, std::int64_t{thing.table})
      .Bind(3, thing.plain)
      .Bind(4, thing.indexed)
      .Bind(5, thing.weight)
      .Bind(6, name)
      .Bind(7, std::int64_t{thing.other} + 1)
      .Run();
}

class SqliteEngine : public Engine {
 public:
  SqliteEngine(std::string directory, bool durable)
      : directory_(std::move(directory)),
        durable_(durable),
        statements_(std::make_unique<Statements>(directory_, durable)) {}

  void Create(Number first, Number count) override {
    for (Number begin = first; begin < first + count; begin += kBatch) {
      statements_->begin_writing.Run();
      Number const end = std::min<Number>(begin + kBatch, first + count);
      for (Number i = begin; i < end; ++i) Insert(*statements_, i);
      statements_->commit.Run();
    }
  }

  Sum ReadOne() override {
    Sum sum = 0;
    statements_->begin.Run();
    for (Number const i : selected()) sum += One(i);
    statements_->commit.Run();
    return sum;
  }
  Sum ReadOneAlone() override {
    Sum sum = 0;
    for (Number const i : selected()) sum += One(i);  // each statement is a transaction
    return sum;
  }
  Sum ReadAll() override {
    Sum sum = 0;
    statements_->begin.Run();
    Statement& read = statements_->read_all;
    for (Number const i : selected()) {
      read.Bind(1, std::int64_t{i} + 1).Step();
      sum += Bits(read.Long(0)) + Bits(read.Long(1)) + Bits(read.Double(2)) + read.Text(3)[7] +
             Sum{read.Long(4) != 0};
      read.Reset();
    }
    statements_->commit.Run();
    return sum;
  }
  Sum Find() override {
    Sum sum = 0;
    statements_->begin.Run();
    for (Number const i : selected()) {
      std::string const name = Letters(MakeThing(i));
      statements_->find.Bind(1, name).Step();
      sum += Bits(statements_->find.Long(0));
      statements_->find.Reset();
    }
    statements_->commit.Run();
    return sum;
  }
  Sum Scan(std::size_t count) override {
    return ScanWith(statements_->scan, count, [](std::int64_t value) { return Bits(value); });
  }
  Sum ScanIds(std::size_t count) override {
    return ScanWith(statements_->scan_ids, count,
                    [](std::int64_t value) { return Sum{value != 0}; });
  }

  void UpdatePlain(std::int64_t value) override { Update(statements_->update_plain, value); }
  void UpdateIndexed(std::int64_t flip) override { Update(statements_->update_indexed, flip); }
  void UpdateAndTakeBack(std::int64_t value) override {
    statements_->begin_writing.Run();
    for (std::size_t begin = 0; begin < selected().size(); begin += kGroup) {
      statements_->savepoint.Run();
      for (Number const i :
           selected().subspan(begin, std::min(kGroup, selected().size() - begin))) {
        statements_->update_plain.Bind(1, value).Bind(2, std::int64_t{i} + 1).Run();
      }
      statements_->rollback_to.Run();
      statements_->release.Run();
    }
    statements_->commit.Run();
  }

  void Close() override {
    if (!directory_.empty()) statements_.reset();
  }
  Sum Open() override {
    if (directory_.empty()) return 0;
    statements_ = std::make_unique<Statements>(directory_, durable_);
    return One(0);
  }
  std::uint64_t Bytes() override {
    if (directory_.empty()) return 0;
    statements_->connection.Execute("pragma wal_checkpoint(truncate)");
    return std::filesystem::file_size(directory_ + "/data.sqlite");
  }

 private:
  Sum One(Number i) {
    Statement& read = statements_->read_one;
    read.Bind(1, std::int64_t{i} + 1).Step();
    Sum const value = Bits(read.Long(0));
    read.Reset();
    return value;
  }
  template <typename Visit>
  Sum ScanWith(Statement& scan, std::size_t count, Visit&& visit) {
    Sum sum = 0;
    scan.Bind(1, static_cast<std::int64_t>(count));
    while (scan.Step()) sum += visit(scan.Long(0));
    scan.Reset();
    return sum;
  }
  void Update(Statement& update, std::int64_t value) {
    for (std::size_t begin = 0; begin < selected().size(); begin += kBatch) {
      statements_->begin_writing.Run();
      for (Number const i :
           selected().subspan(begin, std::min(kBatch, selected().size() - begin))) {
        update.Bind(1, value).Bind(2, std::int64_t{i} + 1).Run();
      }
      statements_->commit.Run();
    }
  }

  std::string directory_;
  bool durable_;
  std::unique_ptr<Statements> statements_;
};

class SqliteCommitter : public Committer {
 public:
  explicit SqliteCommitter(std::string const& directory) : statements_(directory, true) {}
  void CommitOne(Number number) override {
    statements_.begin_writing.Run();
    Insert(statements_, number);
    statements_.commit.Run();
  }

 private:
  Statements statements_;
};

}  // namespace

std::unique_ptr<Engine> MakeSqlite(std::string const& directory, bool durable) {
  return std::make_unique<SqliteEngine>(directory, durable);
}
std::unique_ptr<Committer> MakeSqliteCommitter(std::string const& directory) {
  return std::make_unique<SqliteCommitter>(directory);
}

}  // namespace bench
