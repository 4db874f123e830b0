// An index over many objects: in one transaction, beside writers, abandoned, and SQLite's CREATE
// INDEX on the same values, each with its time and memory. A second thread commits a change of one
// object after another meanwhile, where that is possible, and tells the longest time that a commit
// took.
//
//   bench_index_build DIRECTORY OBJECTS
//
// The directory is made, and has to be removed afterwards. Nothing is synced by either side.

#include <lscoredb/host.h>
#include <lscoredb/index_build.h>

#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "index_abandon.h"
#include "measure.h"
#include "sqlite.h"

namespace {

using bench::Measure;
using Clock = std::chrono::steady_clock;

constexpr char16_t kSet[] = u"all/";
constexpr std::uint64_t kName = 101;
constexpr std::uint64_t kBatch = 5000;
constexpr std::uint64_t kLoaded = 10000;  // objects in a transaction

void Check(std::uint32_t status) {
  if (status != 0) throw std::runtime_error(lscoredb_status_text(status));
}

std::string NameOf(std::uint64_t number) {
  std::uint64_t mixed = (number ^ (number >> 31)) * 0x9E3779B97F4A7C15;
  mixed ^= mixed >> 29;
  return std::string("object ").append(std::to_string(mixed % 1000000007));
}

class Context {
 public:
  explicit Context(lscoredb* database) { Check(lscoredb_context_open(database, &id_)); }
  ~Context() { lscoredb_context_close(id_); }
  Context(Context const&) = delete;
  Context& operator=(Context const&) = delete;
  std::uint64_t id() const { return id_; }

 private:
  std::uint64_t id_ = 0;
};

// ---- ours ---------------------------------------------------------------------------------------

lscoredb* Open(std::string const& directory) {
  lscoredb_options options{};
  options.size = sizeof options;
  options.durability = LSCOREDB_NO_SYNC;
  options.row_memory = LSCOREDB_NO_ROW_MEMORY;  // so that memory is what the work needs
  lscoredb* database = nullptr;
  Check(lscoredb_open(directory.c_str(), &options, &database));
  return database;
}

// Returns an object for the writer.
std::uint64_t Load(lscoredb* database, std::uint64_t count) {
  Context const context(database);
  std::vector<LORVI_COLUMN_DEFINITION> const columns{
      {LORV_TYPE_LONG, 1, 100}, {LORV_TYPE_STRING, 1, kName}, {}};
  std::uint16_t layout = 0;
  std::uint64_t object = 0;
  Check(lscoredb_begin(context.id(), LSCOREDB_READ_WRITE));
  Check(lorvi_context_create_layout(context.id(), 50, 0, columns.data(), 0, &layout));
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string const name = NameOf(i);
    Check(lorv_context_insert(context.id(), layout, &object));
    Check(lorv_context_put_setspec(context.id(), object, 0, kSet));
    Check(lorv_context_put_long(context.id(), object, 0, 2, static_cast<std::int64_t>(i)));
    Check(lorv_context_put_string(context.id(), object, 0, 3,
                                  std::u16string(name.begin(), name.end()).c_str()));
    if ((i + 1) % kLoaded != 0) continue;
    Check(lscoredb_commit(context.id()));
    Check(lscoredb_begin(context.id(), LSCOREDB_READ_WRITE));
  }
  Check(lscoredb_commit(context.id()));
  return object;
}

// Commits changes of one object until it is destroyed.
class Writer {
 public:
  Writer(lscoredb* database, std::uint64_t object)
      : thread_([this, database, object] {
          Context const context(database);
          while (!over_) {
            Check(lscoredb_begin(context.id(), LSCOREDB_READ_WRITE));
            Check(lorv_context_put_long(context.id(), object, 0, 2,
                                        static_cast<std::int64_t>(commits_)));
            Clock::time_point const begin = Clock::now();
            Check(lscoredb_commit(context.id()));
            longest_ =
                std::max(longest_, std::chrono::duration<double>(Clock::now() - begin).count());
            ++commits_;
            usleep(200);
          }
        }) {}
  void Report() {
    over_ = true;
    thread_.join();
    std::printf("%-44s %9llu, the longest %.1f ms\n", "commits of a writer meanwhile",
                static_cast<unsigned long long>(commits_), 1000 * longest_);
  }

 private:
  std::atomic<bool> over_{false};
  std::uint64_t commits_ = 0;
  double longest_ = 0;
  std::thread thread_;
};

LORVI_COLUMN_DEFINITION const kColumns[] = {{LORV_TYPE_STRING, 1, kName}, {}};

void Drop(Context const& context, std::uint64_t index) {
  Check(lscoredb_begin(context.id(), LSCOREDB_READ_WRITE));
  Check(lorvi_context_drop_index(context.id(), index));
  Check(lscoredb_commit(context.id()));
}

void BuildInOneTransaction(lscoredb* database) {
  Context const context(database);
  std::uint64_t index = 0;
  Measure("in one transaction", [&] {
    Check(lscoredb_begin(context.id(), LSCOREDB_READ_WRITE));
    Check(lorvi_context_create_index(context.id(), 61, kSet, kColumns, 0, 0, &index));
    Check(lscoredb_commit(context.id()));
  });
  Drop(context, index);
}

// Returns the index.
std::uint64_t BuildBeside(Context const& context, char const* what) {
  std::uint64_t index = 0;
  Measure(what, [&] {
    lscoredb_index_build build{};
    build.size = sizeof build;
    Check(lscoredb_prepare_index(context.id(), u"", kSet, kColumns, 0, 0, &index));
    while (build.state != LSCOREDB_INDEX_READY) {
      Check(lscoredb_build_index(context.id(), index, kBatch, &build));
    }
    Check(lscoredb_begin(context.id(), LSCOREDB_READ_WRITE));
    Check(lorvi_context_create_index(context.id(), 61, kSet, kColumns, 0, 0, &index));
    Check(lscoredb_commit(context.id()));
  });
  return index;
}

// All entries are there when it is abandoned.
void BuildAndAbandon(Context const& context) {
  std::uint64_t index = 0;
  Check(lscoredb_prepare_index(context.id(), u"", kSet, kColumns, 0, 0, &index));
  bench::BuildIndexTimed(context.id(), index);
  bench::CommitTimes times;
  Measure("abandoned", [&] { times = bench::AbandonIndexTimed(context.id(), index); });
  std::printf("%-44s %9llu, the longest %.1f ms\n", "commits of the abandonment",
              static_cast<unsigned long long>(times.count()), times.longest() / 1e6);
}

void RunOurs(std::string const& directory, std::uint64_t count) {
  lscoredb* const database = Open(directory);
  std::uint64_t object = 0;
  Measure("load", [&] { object = Load(database, count); });
  {
    Context const context(database);
    Drop(context, BuildBeside(context, "beside writers, of whom there are none"));
    BuildAndAbandon(context);
    Writer writer(database, object);
    std::uint64_t const index = BuildBeside(context, "beside a writer");
    writer.Report();
    Drop(context, index);
  }
  BuildInOneTransaction(database);
  Check(lscoredb_close(database));
}

// ---- SQLite -------------------------------------------------------------------------------------

void Run(sqlite3* database, char const* text) { bench::sqlite::Statement(database, text).Run(); }

void LoadSqlite(sqlite3* database, std::uint64_t count) {
  Run(database, "CREATE TABLE thing (id INTEGER PRIMARY KEY, number INTEGER, name TEXT)");
  bench::sqlite::Statement insert(database, "INSERT INTO thing (number, name) VALUES (?, ?)");
  Run(database, "BEGIN");
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string const name = NameOf(i);
    insert.Bind(1, static_cast<std::int64_t>(i)).Bind(2, name).Run();
    if ((i + 1) % kLoaded != 0) continue;
    Run(database, "COMMIT");
    Run(database, "BEGIN");
  }
  Run(database, "COMMIT");
}

void RunSqlite(std::string const& path, std::uint64_t count) {
  sqlite3* database = nullptr;
  bench::sqlite::Check(sqlite3_open(path.c_str(), &database));
  Run(database, "PRAGMA journal_mode = WAL");
  Run(database, "PRAGMA synchronous = OFF");
  Measure("SQLite: load", [&] { LoadSqlite(database, count); });
  Measure("SQLite: CREATE INDEX", [&] { Run(database, "CREATE INDEX by_name ON thing (name)"); });
  bench::sqlite::Check(sqlite3_close(database));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_index_build DIRECTORY OBJECTS\n");
    return 2;
  }
  try {
    std::string const directory = argv[1];
    std::uint64_t const count = std::strtoull(argv[2], nullptr, 10);
    RunOurs(directory, count);
    RunSqlite(directory + "/sqlite.db", count);
    return 0;
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "bench_index_build: %s\n", failure.what());
    return 1;
  }
}
