#ifndef SAGLEME_BENCH_SECTIONS_H
#define SAGLEME_BENCH_SECTIONS_H

// The parts of the benchmark. Each runs in a process of its own, since the layer's handles and
// caches are the process's and belong to one database.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "dataset.h"
#include "results.h"

namespace bench {

inline constexpr char kSagleme[] = "sagleme";
inline constexpr char kLmdb[] = "LMDB";
inline constexpr char kSqliteMemory[] = "SQLite in memory";
inline constexpr char kSqliteWal[] = "SQLite WAL";
inline constexpr char kHash[] = "hash table";
inline constexpr char kPostgres[] = "PostgreSQL";

// Rows that a picture shows too.
inline constexpr char kLongestWith[] = "longest durable commit of one object, with checkpoints";
inline constexpr char kLongestWithout[] = "longest durable commit of one object, no checkpoint";
inline constexpr char kMedianCommit[] = "median commit";

struct Settings {
  Number objects = 1000000;
  int rounds = 5;
  std::string directory;  // for databases

  // Made for the section.
  std::string Directory(std::string const& name) const;
};

template <typename Work>
double Nanoseconds(Work&& work) {
  auto const begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count();
}

// Objects in all engines: reads, scans, changes, opening, sizes.
std::vector<Result> MeasureObjects(Settings const& settings);
// Reads through property handles beside the kernel's call.
std::vector<Result> MeasureHandles(Settings const& settings);
// Objects that the host library makes, changes and deletes beside the kernel's calls.
std::vector<Result> MeasureHostWrites(Settings const& settings);
// Commits of an index build that is abandoned beside those that built it.
std::vector<Result> MeasureIndexAbandon(Settings const& settings);
// Durable commits of one object by so many threads.
std::vector<Result> MeasureCommits(Settings const& settings, int threads);

// Commits whose sync comes later, commits of a database that keeps changes, and the longest of many
// durable ones.
std::vector<Result> MeasureLog(Settings const& settings);
// Reads of a process beside another one that commits.
std::vector<Result> MeasureTwoProcesses(Settings const& settings);

// Changes of the schema with few and many tables, and with few and many objects.
std::vector<Result> MeasureSchemaTables(Settings const& settings);
std::vector<Result> MeasureSchemaObjects(Settings const& settings);
// Changes of the schema beside those of PostgreSQL. Nothing, and a line that says why, where there
// is none.
std::vector<Result> MeasureSchemaBesidePostgres(Settings const& settings);
// sagleme on a PostgreSQL server beside tables there, with a delay on the way to the server.
// Nothing, and a line that says why, where there is no server.
std::vector<Result> MeasureServer(Settings const& settings);
// Making a database in memory.
std::vector<Result> MeasureBootstrap(Settings const& settings);
// Opening databases of few and many tables, in time and memory.
std::vector<Result> MeasureOpening(Settings const& settings);

// Queries and inserts through SQLite's engine, beside its own tables.
std::vector<Result> MeasureSql(Settings const& settings);

// Import and load beside the shell of SQLite, by processes of their own. Nothing, and a line that
// says why, where there is none.
std::vector<Result> MeasureTransfer(Settings const& settings);

// What `section` measures, in a child process. Throws what went wrong there as a runtime_error.
std::vector<Result> InOwnProcess(std::function<std::vector<Result>()> const& section);

}  // namespace bench

#endif
