// Changes of the schema: what they cost does not grow with the tables or objects that are there.
// And what a database costs to make, to have and to open. Nothing is synced here.

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "schema_database.h"
#include "sections.h"
#include "turns.h"
#include "worker.h"

namespace bench {
namespace {

constexpr unsigned kFew = 10;  // tables
constexpr double kGoal = 1.3;

// Tables for that many objects, few in a run that is only to show that all works.
unsigned TablesFor(Settings const& settings, unsigned most) {
  return std::clamp<unsigned>(settings.objects / 100, kFew, most);
}

// ---- few tables and many ------------------------------------------------------------------------

Worker::Task PrepareTables(std::string const& directory, unsigned tables) {
  auto const database = std::make_shared<SchemaDatabase>(directory, false);
  database->MakeTables(0, tables, 5);
  return [database, tables](int change) {
    return database->Time(static_cast<Change>(change), tables / 2, kTurnTimes);
  };
}

// ---- an empty table and a full one --------------------------------------------------------------

Worker::Task PrepareObjects(std::string const& directory, Number objects) {
  auto const database = std::make_shared<SchemaDatabase>(directory, false);
  database->MakeTables(0, 2, 5);
  database->Fill(1, objects);
  return [database](int command) {
    return database->Time(static_cast<Change>(command / 2), static_cast<unsigned>(command % 2),
                          kTurnTimes);
  };
}

// ---- opening ------------------------------------------------------------------------------------

// Up to the first name, in a process that never opened it before.
double TimeToOpen(std::string const& directory) {
  lscoredb_options options{};
  options.size = sizeof options;
  options.durability = LSCOREDB_NO_SYNC;
  return Nanoseconds([&] {
    lscoredb* database = nullptr;
    std::uint64_t context = 0;
    sagleme::detail::CheckKernel(lscoredb_open(directory.c_str(), &options, &database));
    sagleme::detail::CheckKernel(lscoredb_context_open(database, &context));
    sagleme::detail::CheckKernel(lscoredb_begin(context, LSCOREDB_READ_ONLY_TRANSACTION));
    sagleme::detail::CheckLayer(context, lorv_init_metalayer(context));
    PropertyAccessInfo* property = nullptr;
    sagleme::detail::CheckLayer(
        context, lorv_crud_GetPropertyHandle(context, SchemaDatabase::TableName(5).c_str(),
                                             u"Column1", &property));
  });
}

double TimeToOpenInOwnProcess(std::string const& directory) {
  Worker worker([&] { return [&](int) { return TimeToOpen(directory); }; });
  return worker.Run(0);
}

void MakeDatabase(std::string const& directory, unsigned tables, unsigned columns) {
  Worker worker([&] {
    return [&](int) {
      SchemaDatabase(directory, false).MakeTables(0, tables, columns);
      return 0.0;
    };
  });
  worker.Run(0);
}

// ---- a database in memory -----------------------------------------------------------------------

// Command 0 makes the database, 1 the tables.
Worker::Task PrepareMemory() {
  auto const database = std::make_shared<std::unique_ptr<SchemaDatabase>>();
  return [database](int command) {
    return Nanoseconds([&] {
      if (command == 0) {
        *database = std::make_unique<SchemaDatabase>("", false);
      } else {
        for (unsigned i = 0; i < 50; ++i) (*database)->MakeTable(SchemaDatabase::TableName(i));
      }
    });
  };
}

// What is in memory for this process, with its share of what several have: the process's own bytes,
// and the pages of the libraries and of the data file that it has touched.
double ResidentBytes() {
  std::ifstream in("/proc/self/smaps_rollup");
  for (std::string word; in >> word;) {
    double kilobytes = 0;
    if (word == "Pss:" && in >> kilobytes) return kilobytes * 1024;
  }
  throw std::runtime_error("no figure of the process's memory");
}

double BytesToOpen(std::string const& directory) {
  double const before = ResidentBytes();
  TimeToOpen(directory);  // and stays open
  return ResidentBytes() - before;
}

}  // namespace

std::vector<Result> MeasureSchemaTables(Settings const& settings) {
  StayOnOneProcessor();
  unsigned const many = TablesFor(settings, 10000);
  std::string const other = fmt::format("{} tables", kFew);
  std::string const directory = settings.Directory("schema-many");
  std::string const few_directory = settings.Directory("schema-few");
  Worker own([&] { return PrepareTables(directory, many); });
  Worker few([&] { return PrepareTables(few_directory, kFew); });
  std::vector<Result> results;
  for (Change const change : kChanges) {
    int const command = static_cast<int>(change);
    Result result =
        MakeComparison(fmt::format("{}, in a database of {} tables, no sync", NameOf(change), many),
                       "ns", other, kGoal);
    for (int round = 0; round < settings.rounds; ++round) {
      MeasureRound(
          result, [&] { return own.Run(command); }, [&] { return few.Run(command); });
    }
    results.push_back(std::move(result));
  }
  return results;
}

std::vector<Result> MeasureSchemaObjects(Settings const& settings) {
  StayOnOneProcessor();
  std::string const directory = settings.Directory("schema-objects");
  Worker worker([&] { return PrepareObjects(directory, settings.objects); });
  std::vector<Result> results;
  for (Change const change : {Change::kAddColumn, Change::kDropColumn, Change::kRenameColumn}) {
    int const command = static_cast<int>(change) * 2;
    Result result = MakeComparison(
        fmt::format("{}, in a table of {} objects, no sync", NameOf(change), settings.objects),
        "ns", "empty table", kGoal);
    for (int round = 0; round < settings.rounds; ++round) {
      MeasureRound(
          result, [&] { return worker.Run(command + 1); }, [&] { return worker.Run(command); });
    }
    results.push_back(std::move(result));
  }
  return results;
}

std::vector<Result> MeasureBootstrap(Settings const& settings) {
  StayOnOneProcessor();
  Result result = MakeComparison("make a database in memory", "ns", "50 tables created", 1);
  for (int round = 0; round < settings.rounds; ++round) {
    Worker worker(&PrepareMemory);
    for (int i = 0; i < 2; ++i) {
      result.series[static_cast<std::size_t>(i)].values.push_back(worker.Run(i));
    }
  }
  return {result};
}

std::vector<Result> MeasureOpening(Settings const& settings) {
  StayOnOneProcessor();
  constexpr double kMost = 16 * 1024 * 1024;
  unsigned const many = TablesFor(settings, 5000);
  std::string const directory = settings.Directory("opening-many");
  std::string const few_directory = settings.Directory("opening-few");
  MakeDatabase(directory, many, 20);
  MakeDatabase(few_directory, kFew, 20);
  Result time = MakeComparison(
      fmt::format("open a database of {} tables and {} columns and find one", many, many * 20),
      "ns", fmt::format("{} tables", kFew), kGoal);
  Result memory = MakeComparison(
      "memory that opening a database of 10 tables and finding one takes (share of the "
      "process, with touched pages of file and libraries)",
      "bytes", "16 MiB", 1);
  for (int round = 0; round < settings.rounds; ++round) {
    MeasureRound(
        time, [&] { return TimeToOpenInOwnProcess(directory); },
        [&] { return TimeToOpenInOwnProcess(few_directory); });
    Worker worker([&] { return [&](int) { return BytesToOpen(few_directory); }; });
    memory.series[0].values.push_back(worker.Run(0));
    memory.series[1].values.push_back(kMost);
  }
  return {time, memory};
}

}  // namespace bench
