// Changes of the schema beside those of PostgreSQL, with the same durability on both sides.

#include <fmt/format.h>

#include <iostream>
#include <stdexcept>

#include "postgres.h"
#include "schema_database.h"
#include "sections.h"
#include "turns.h"
#include "worker.h"

namespace bench {
namespace {

constexpr unsigned kTables = 10;

std::string CreateTable(std::string const& name) {
  return "CREATE TABLE " + name + " (c0 bigint, c1 bigint, c2 double precision, c3 text, c4 text)";
}

struct Statements {
  std::string timed;
  std::string undo;
};

Statements StatementsOf(Change change) {
  switch (change) {
    case Change::kCreateTable:
      return {CreateTable("made"), "DROP TABLE made"};
    case Change::kAddColumn:
      return {"ALTER TABLE target ADD COLUMN added bigint", "ALTER TABLE target DROP COLUMN added"};
    case Change::kRenameColumn:
      return {"ALTER TABLE target RENAME COLUMN c2 TO renamed",
              "ALTER TABLE target RENAME COLUMN renamed TO c2"};
    default:
      throw std::logic_error("no goal for this change");
  }
}

// The table is new in each turn: columns that were dropped count among those it may have.
double Time(PostgresServer& server, Change change) {
  Statements const statements = StatementsOf(change);
  server.Run(CreateTable("target"));
  std::vector<double> times;
  for (int i = 0; i < kTurnTimes; ++i) {
    times.push_back(Nanoseconds([&] { server.Run(statements.timed); }));
    server.Run(statements.undo);
  }
  server.Run("DROP TABLE target");
  return Median(times);
}

std::vector<Result> MeasureBeside(Settings const& settings, PostgresCluster const& cluster,
                                  bool sync) {
  std::string const directory =
      settings.Directory(sync ? "schema-beside-synced" : "schema-beside-unsynced");
  Worker own([&] {
    auto const database = std::make_shared<SchemaDatabase>(directory, sync);
    database->MakeTables(0, kTables, 5);
    return [database](int change) {
      return database->Time(static_cast<Change>(change), kTables / 2, kTurnTimes);
    };
  });
  PostgresServer server(cluster, sync);
  std::vector<Result> results;
  for (auto const& [change, goal] :
       {std::pair{Change::kCreateTable, 0.5}, std::pair{Change::kAddColumn, 1.0},
        std::pair{Change::kRenameColumn, 1.0}}) {
    Result result = MakeComparison(
        fmt::format("{}, {}", NameOf(change),
                    sync ? "synced (PostgreSQL with fsync)" : "no sync (PostgreSQL without fsync)"),
        "ns", kPostgres, goal);
    for (int round = 0; round < settings.rounds; ++round) {
      MeasureRound(
          result, [&] { return own.Run(static_cast<int>(change)); },
          [&] { return Time(server, change); });
    }
    results.push_back(std::move(result));
  }
  return results;
}

}  // namespace

std::vector<Result> MeasureSchemaBesidePostgres(Settings const& settings) {
  std::unique_ptr<PostgresCluster> cluster;
  try {
    cluster = std::make_unique<PostgresCluster>(settings.Directory("postgres"));
  } catch (std::runtime_error const& reason) {
    std::cerr << "left out: schema beside PostgreSQL; " << reason.what() << std::endl;
    return {};
  }
  std::vector<Result> results;
  for (bool const sync : {true, false}) {
    std::vector<Result> const some = MeasureBeside(settings, *cluster, sync);
    results.insert(results.end(), some.begin(), some.end());
  }
  return results;
}

}  // namespace bench
