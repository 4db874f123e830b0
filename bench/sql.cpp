// Queries through SQLite's engine: over sagleme's tables, which are virtual ones to it, and over
// tables of its own with the same rows and indexes. Both files are durable.

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <sagleme/host.hpp>

#include "empty_table.h"
#include "sections.h"
#include "sql/extension.h"
#include "sqlite.h"

namespace bench {
namespace {

constexpr char kEmpty[] = "empty virtual table";
constexpr char kUnion[] = "SQLite, UNION ALL of tables per class";
constexpr char kJoin[] = "SQLite, joined tables per class";
constexpr char kNative[] = "SQLite";
constexpr Number kBatch = 1000;
constexpr int kTurns = 5;

// Base, Book below it and Novel below that. All objects are books, every other one a novel.
constexpr char kOwnTables[] =
    "SELECT sagleme_exec('"
    "CREATE TABLE Item (Plain bigint, Indexed bigint, Weight double, Name text);"
    "CREATE TABLE Book (Pages bigint) UNDER Item;"
    "CREATE TABLE Novel (Other bigint) UNDER Book;"
    "CREATE INDEX ItemByIndexed ON Item (Indexed);"
    "CREATE UNIQUE INDEX ItemByName ON Item (Name)')";

// One table of all for the works that have no classes, and the two ways of mapping classes.
constexpr char kNativeTables[] =
    "CREATE TABLE Item (Plain integer, Indexed integer, Weight real, Name text, Pages integer);"
    "CREATE INDEX ItemByIndexed ON Item (Indexed);"
    "CREATE UNIQUE INDEX ItemByName ON Item (Name);"
    "CREATE TABLE Book (Plain integer, Indexed integer, Weight real, Name text, Pages integer);"
    "CREATE TABLE Novel (Plain integer, Indexed integer, Weight real, Name text, Pages integer,"
    " Other integer);"
    "CREATE VIEW Books AS SELECT Weight, Pages FROM Book UNION ALL SELECT Weight, Pages FROM Novel;"
    "CREATE TABLE Base (id integer PRIMARY KEY, Plain integer, Indexed integer, Weight real,"
    " Name text);"
    "CREATE TABLE BookPart (id integer PRIMARY KEY, Pages integer);"
    "CREATE VIEW JoinedBooks AS SELECT Weight, Pages FROM BookPart JOIN Base USING (id)";

void Execute(sqlite3* database, std::string const& text) {
  if (sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) return;
  throw std::runtime_error(fmt::format("{}: {}", text, sqlite3_errmsg(database)));
}

class Connection {
 public:
  explicit Connection(std::string const& path) {
    sqlite::Check(sqlite3_open(path.c_str(), &handle_));
  }
  ~Connection() { sqlite3_close_v2(handle_); }
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  sqlite3* handle() const { return handle_; }

 private:
  sqlite3* handle_ = nullptr;
};

std::string NameOf(Thing const& thing) {
  return {thing.name.begin(), thing.name.begin() + kNameUnits};
}

void InsertThing(sqlite::Statement& insert, Number number) {
  Thing const thing = MakeThing(number);
  std::string const name = NameOf(thing);
  insert.Bind(1, thing.plain)
      .Bind(2, thing.indexed)
      .Bind(3, thing.weight)
      .Bind(4, name)
      .Bind(5, std::int64_t{thing.other})
      .Run();
}

// One of the two databases and its statements.
class Side {
 public:
  Side(std::unique_ptr<Connection> connection, char const* insert)
      : connection_(std::move(connection)), insert_(handle(), insert) {}

  sqlite3* handle() const { return connection_->handle(); }

  void Insert(Number number) { InsertThing(insert_, number); }
  void InsertAll(Number first, Number count) {
    for (Number begin = first; begin < first + count; begin += kBatch) {
      Execute(handle(), "BEGIN");
      for (Number i = begin; i < std::min(begin + kBatch, first + count); ++i) Insert(i);
      Execute(handle(), "COMMIT");
    }
  }

  // The row ids of the objects by their numbers.
  std::vector<std::int64_t> const& RowIds(Number objects) {
    sqlite::Statement find(handle(), "SELECT rowid FROM Item WHERE Name = ?");
    for (Number i = static_cast<Number>(rows_.size()); i < objects; ++i) {
      std::string const name = NameOf(MakeThing(i));
      find.Bind(1, name).Step();
      rows_.push_back(find.Long(0));
      find.Reset();
    }
    return rows_;
  }

 private:
  std::unique_ptr<Connection> connection_;
  sqlite::Statement insert_;
  std::vector<std::int64_t> rows_;
};

std::unique_ptr<Connection> OpenOwn(std::string const& directory) {
  std::filesystem::remove_all(directory);
  sagleme::Database::Create(directory);
  auto connection = std::make_unique<Connection>(":memory:");
  sqlite::Check(sagleme::sql::Register(connection->handle(), nullptr));
  Execute(connection->handle(), "SELECT sagleme_attach('" + directory + "', 'own')");
  Execute(connection->handle(), kOwnTables);
  return connection;
}

std::unique_ptr<Connection> OpenNative(std::string const& path) {
  for (char const* const end : {"", "-wal", "-shm"}) std::filesystem::remove(path + end);
  auto connection = std::make_unique<Connection>(path);
  sqlite3* const handle = connection->handle();
  Execute(handle, "PRAGMA journal_mode = wal; PRAGMA synchronous = full");
  Execute(handle, "PRAGMA cache_size = -524288; PRAGMA mmap_size = 4294967296");
  Execute(handle, kNativeTables);
  return connection;
}

class SqlSection {
 public:
  explicit SqlSection(Settings const& settings)
      : settings_(settings), directory_(settings.Directory("sql")) {
    RegisterEmptyTable(own_.handle(), "Hollow", settings.objects);
    RegisterEmptyTable(own_.handle(), "HalfHollow", settings.objects / 2);
    Fill();
  }

  std::vector<Result> Measure() {
    PointLookUps();
    Scans();
    Aggregates();
    Counts();
    Inserts();
    return std::move(results_);
  }

 private:
  using Sum = std::int64_t;
  struct Way {
    char const* engine;
    double goal;  // of sagleme beside it; 0: none
    std::function<Sum()> work;
    bool same_answer = true;
  };

  void Fill() {
    // Books and novels by turns, so that no class lies in one piece.
    sqlite::Statement book(own_.handle(),
                           "INSERT INTO Book(Plain, Indexed, Weight, Name, Pages)"
                           " VALUES (?, ?, ?, ?, ?)");
    native_.InsertAll(0, settings_.objects);
    for (Number begin = 0; begin < settings_.objects; begin += kBatch) {
      Execute(own_.handle(), "BEGIN");
      for (Number i = begin; i < std::min(begin + kBatch, settings_.objects); ++i) {
        InsertByTurns(book, i);
      }
      Execute(own_.handle(), "COMMIT");
    }
    Execute(native_.handle(),
            "BEGIN;"
            "INSERT INTO Book SELECT * FROM Item WHERE rowid % 2 = 1;"
            "INSERT INTO Novel SELECT *, 0 FROM Item WHERE rowid % 2 = 0;"
            "INSERT INTO Base SELECT rowid, Plain, Indexed, Weight, Name FROM Item;"
            "INSERT INTO BookPart SELECT rowid, Pages FROM Item;"
            "COMMIT; ANALYZE");
  }
  void InsertByTurns(sqlite::Statement& book, Number number) {
    if (number % 2 == 1) {
      own_.Insert(number);
    } else {
      InsertThing(book, number);
    }
  }

  // Rounds of turns; what answers the same question must give the same answer.
  void Compare(std::string const& work, double operations, std::vector<Way> const& ways) {
    std::cerr << work << std::endl;
    Result result{work, "ns", false, {}, {}};
    for (Way const& way : ways) {
      result.series.push_back({way.engine, {}});
      if (way.goal > 0) result.goals.push_back({way.engine, way.goal});
    }
    for (int round = 0; round < settings_.rounds; ++round) {
      std::vector<std::vector<double>> figures(ways.size());
      for (int turn = 0; turn < kTurns; ++turn) Turn(work, operations, ways, figures);
      for (std::size_t i = 0; i < ways.size(); ++i) {
        result.series[i].values.push_back(Median(figures[i]));
      }
    }
    results_.push_back(std::move(result));
  }
  static void Turn(std::string const& work, double operations, std::vector<Way> const& ways,
                   std::vector<std::vector<double>>& figures) {
    Sum first = 0;
    for (std::size_t i = 0; i < ways.size(); ++i) {
      Sum sum = 0;
      figures[i].push_back(Nanoseconds([&] { sum = ways[i].work(); }) / operations);
      if (i == 0) first = sum;
      if (ways[i].same_answer && sum != first) {
        throw std::runtime_error(fmt::format("{}: {} found {} and {} found {}", work,
                                             ways[0].engine, first, ways[i].engine, sum));
      }
    }
  }

  // Sums the first column of what a query finds.
  static Sum Total(sqlite::Statement& query) {
    Sum sum = 0;
    while (query.Step()) sum += query.Long(0);
    query.Reset();
    return sum;
  }
  static std::function<Sum()> TotalOf(sqlite3* database, char const* query) {
    auto const statement = std::make_shared<sqlite::Statement>(database, query);
    return [statement] { return Total(*statement); };
  }

  static constexpr char kByRow[] = "SELECT Plain FROM Item WHERE rowid = ?";

  std::function<Sum()> ByRow(Side& side) {
    auto const find = std::make_shared<sqlite::Statement>(side.handle(), kByRow);
    auto const& rows = side.RowIds(settings_.objects);
    return [this, find, &rows] {
      Sum sum = 0;
      for (Number const i : Chosen()) sum += Total(find->Bind(1, rows[i]));
      return sum;
    };
  }
  std::function<Sum()> ByName(Side& side) {
    auto const find =
        std::make_shared<sqlite::Statement>(side.handle(), "SELECT Plain FROM Item WHERE Name = ?");
    return [this, find] {
      Sum sum = 0;
      for (Number const i : Chosen()) {
        std::string const name = NameOf(MakeThing(i));
        sum += Total(find->Bind(1, name));
      }
      return sum;
    };
  }
  std::function<Sum()> EmptyByRow() {
    auto const find = std::make_shared<sqlite::Statement>(
        own_.handle(), "SELECT Plain FROM Hollow WHERE rowid = ?");
    return [this, find] {
      Sum sum = 0;
      for (Number const i : Chosen()) sum += Total(find->Bind(1, std::int64_t{i} + 1));
      return sum;
    };
  }

  // The same ones for all, in no order.
  std::vector<Number> const& Chosen() {
    if (chosen_.empty()) {
      Number const count = std::min<Number>(settings_.objects, 20000);
      for (Number i = 0; i < count; ++i) {
        chosen_.push_back(static_cast<Number>(Mixed(i + std::uint64_t{7}) % settings_.objects));
      }
    }
    return chosen_;
  }

  void PointLookUps() {
    auto const count = static_cast<double>(Chosen().size());
    Compare("SQL: look-up by row id, a transaction each", count,
            {{kSagleme, 0, ByRow(own_)},
             {kNative, 1.0, ByRow(native_)},
             {kEmpty, 0, EmptyByRow(), false}});
    Compare("SQL: look-up by a text in a unique index, a transaction each", count,
            {{kSagleme, 0, ByName(own_)}, {kNative, 1.0, ByName(native_)}});
    Execute(own_.handle(), "BEGIN");
    Execute(native_.handle(), "BEGIN");
    Compare("SQL: look-up by row id, in one transaction", count,
            {{kSagleme, 0, ByRow(own_)},
             {kNative, 0, ByRow(native_)},
             {kEmpty, 0, EmptyByRow(), false}});
    Execute(own_.handle(), "COMMIT");
    Execute(native_.handle(), "COMMIT");
  }

  void Scans() {
    Compare("SQL: sum of a column of all rows, for each row", settings_.objects,
            {{kSagleme, 0, TotalOf(own_.handle(), "SELECT sum(Plain) FROM Item")},
             {kNative, 2.0, TotalOf(native_.handle(), "SELECT sum(Plain) FROM Item")},
             {kEmpty, 0, TotalOf(own_.handle(), "SELECT sum(Plain) FROM Hollow"), false}});
  }

  void Aggregates() {
    constexpr char kSums[] = "SELECT CAST(sum(Weight) + sum(Pages) AS integer) FROM ";
    auto const sums = [&](Side& side, char const* table) {
      return TotalOf(side.handle(), (kSums + std::string(table)).c_str());
    };
    Compare("SQL: sums of two columns over a table and one derived from it, for each row",
            settings_.objects,
            {{kSagleme, 0, sums(own_, "Book")},
             {kUnion, 1.5, sums(native_, "Books")},
             {kJoin, 0.8, sums(native_, "JoinedBooks")},
             {kEmpty, 0, sums(own_, "Hollow"), false}});
  }

  void Counts() {
    constexpr char kCount[] = "SELECT count(*) FROM Item WHERE Indexed >= 4611686018427387904";
    Compare("SQL: count of half of the rows by an index, for each", settings_.objects / 2.0,
            {{kSagleme, 0, TotalOf(own_.handle(), kCount)},
             {kNative, 1.0, TotalOf(native_.handle(), kCount)},
             {kEmpty, 0, TotalOf(own_.handle(), "SELECT count(*) FROM HalfHollow"), false}});
  }

  void Inserts() {
    Number next[2] = {settings_.objects, settings_.objects};
    auto const insert = [](Side& side, Number& at) {
      return [&side, &at] {
        side.InsertAll(at, kBatch);
        at += kBatch;
        return Sum{at};
      };
    };
    Compare("SQL: insert in durable transactions of 1,000", kBatch,
            {{kSagleme, 0, insert(own_, next[0])}, {kNative, 1.2, insert(native_, next[1])}});
  }

  Settings settings_;
  std::string directory_;
  Side own_{OpenOwn(directory_ + "/own"),
            "INSERT INTO Novel(Plain, Indexed, Weight, Name, Pages) VALUES (?, ?, ?, ?, ?)"};
  Side native_{OpenNative(directory_ + "/native.sqlite"),
               "INSERT INTO Item VALUES (?, ?, ?, ?, ?)"};
  std::vector<Number> chosen_;
  std::vector<Result> results_;
};

}  // namespace

std::vector<Result> MeasureSql(Settings const& settings) {
  SqlSection section(settings);
  return section.Measure();
}

}  // namespace bench
