// Measures sagleme beside LMDB, SQLite and a table in memory, on the same objects in one run.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>

#include "page.h"
#include "pictures.h"
#include "results.h"
#include "sections.h"

namespace bench {
namespace {

struct Outputs {
  std::string json;
  std::string table;
  std::string page;
};

// Figures of an earlier run, of which those that are measured again are replaced.
std::vector<Result> ResultsIn(std::string const& path) {
  if (path.empty()) return {};
  std::ifstream in(path);
  std::string const text{std::istreambuf_iterator<char>(in), {}};
  if (!in) throw std::runtime_error("cannot read " + path);
  return ResultsOf(text);
}
std::vector<Result> Renewed(std::vector<Result> earlier, std::vector<Result> const& now) {
  for (Result const& result : now) {
    auto const there = std::find_if(earlier.begin(), earlier.end(),
                                    [&](Result const& one) { return one.work == result.work; });
    if (there == earlier.end()) {
      earlier.push_back(result);
    } else {
      *there = result;
    }
  }
  return earlier;
}

void WriteFile(std::string const& path, std::string const& text) {
  if (path.empty()) return;
  std::ofstream out(path);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

struct Section {
  std::string name;
  std::function<std::vector<Result>(Settings const&)> measure;
};

std::vector<Section> Sections() {
  return {{"objects", &MeasureObjects},
          {"handles", &MeasureHandles},
          {"writes of the host library", &MeasureHostWrites},
          {"abandoned index builds", &MeasureIndexAbandon},
          {"commits of 1 thread", [](Settings const& s) { return MeasureCommits(s, 1); }},
          {"commits of 8 threads", [](Settings const& s) { return MeasureCommits(s, 8); }},
          {"log", &MeasureLog},
          {"two processes", &MeasureTwoProcesses},
          {"schema with many tables", &MeasureSchemaTables},
          {"schema with many objects", &MeasureSchemaObjects},
          {"schema beside PostgreSQL", &MeasureSchemaBesidePostgres},
          {"server", &MeasureServer},
          {"bootstrap", &MeasureBootstrap},
          {"opening", &MeasureOpening},
          {"queries", &MeasureSql},
          {"transfer", &MeasureTransfer}};
}

// Of the sections whose names hold `word`.
std::vector<Result> MeasureAll(Settings const& settings, std::string const& word) {
  std::vector<Result> all;
  for (Section const& section : Sections()) {
    if (section.name.find(word) == std::string::npos) continue;
    std::vector<Result> const some = InOwnProcess([&] { return section.measure(settings); });
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

int Main(int argc, char** argv) {
  CLI::App app("Measures sagleme beside LMDB, SQLite and a table in memory.");
  Settings settings;
  Outputs outputs;
  std::string only;
  std::string earlier;
  app.add_option("directory", settings.directory, "where the databases go; made, and left there")
      ->required();
  app.add_option("--objects", settings.objects, "how many")->check(CLI::Range(1000, 100000000));
  app.add_option("--rounds", settings.rounds, "how often each work is done")
      ->check(CLI::Range(1, 100));
  app.add_option("--only", only, "only sections whose names hold this word");
  app.add_option("--earlier", earlier,
                 "a file of --json, for the figures that are not measured with --only");
  app.add_option("--json", outputs.json, "a file for all figures");
  app.add_option("--table", outputs.table, "a file for the table");
  app.add_option("--page", outputs.page, "a file for the page of the documentation");
  CLI11_PARSE(app, argc, argv);
  std::vector<Result> const before = ResultsIn(earlier);
  std::vector<Result> const now = MeasureAll(settings, only);
  std::cout << TableOf(now);
  std::vector<Result> const results = Renewed(before, now);
  WriteFile(outputs.json, JsonOf(results));
  WriteFile(outputs.table, TableOf(results));
  WriteFile(outputs.page, PageOf(results, settings));
  if (outputs.page.empty()) return 0;
  std::filesystem::path const beside = std::filesystem::path(outputs.page).parent_path();
  for (Picture const& picture : PicturesOf(results)) {
    WriteFile((beside / picture.name).string(), picture.svg);
  }
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  try {
    return bench::Main(argc, argv);
  } catch (std::exception const& error) {
    std::cerr << "bench: " << error.what() << '\n';
    return 1;
  }
}
