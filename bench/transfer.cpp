// Import and load by the command beside the shell of SQLite: the same rows, the same two indexes,
// a process of its own for each.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

#include "sections.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr char kShell[] = "sqlite3 shell";
constexpr char kLimit[] = "limit";
constexpr double kMostTime = 1.2;
constexpr double kMostMemory = 192.0 * 1024 * 1024;

constexpr char kSchema[] = R"({"schema": 1, "tables": [{"name": "Person", "columns": [
  {"name": "Name", "type": "string"}, {"name": "Email", "type": "string"},
  {"name": "City", "type": "string"}, {"name": "Age", "type": "long"},
  {"name": "Balance", "type": "decimal"}, {"name": "Score", "type": "double"},
  {"name": "Note", "type": "string"}],
  "indexes": [{"name": "PersonByEmail", "unique": true, "columns": ["Email"]},
              {"name": "PersonByCity", "columns": ["City", "Name"]}]}]})";

constexpr char kShellScript[] =
    "create table Person(Name text, Email text, City text, Age integer, Balance real, Score real, "
    "Note text);\n"
    "create unique index PersonByEmail on Person(Email);\n"
    "create index PersonByCity on Person(City, Name);\n"
    ".mode csv\n";

struct Ended {
  double nanoseconds = 0;
  double memory = 0;  // the most anonymous bytes that were seen
};

// Of a process; 0 when it has none any more.
double AnonymousBytes(pid_t process) {
  std::ifstream status(fmt::format("/proc/{}/status", process));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) return std::stod(line.substr(8)) * 1024;
  }
  return 0;
}

// Runs a program with files as its standard streams; empty: none.
Ended RunProgram(std::vector<std::string> words, std::string const& in, std::string const& out) {
  Ended ended;
  ended.nanoseconds = Nanoseconds([&] {
    pid_t const child = fork();
    if (child == 0) {
      std::vector<char*> arguments;
      for (std::string& word : words) arguments.push_back(word.data());
      arguments.push_back(nullptr);
      int const from = open(in.empty() ? "/dev/null" : in.c_str(), O_RDONLY);
      int const to =
          open(out.empty() ? "/dev/null" : out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int const errors = open("/dev/null", O_WRONLY);
      if (dup2(from, 0) < 0 || dup2(to, 1) < 0 || dup2(errors, 2) < 0) _exit(126);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    int state = 0;
    while (waitpid(child, &state, WNOHANG) == 0) {
      ended.memory = std::max(ended.memory, AnonymousBytes(child));
      usleep(5000);
    }
    if (!WIFEXITED(state) || WEXITSTATUS(state) != 0) {
      throw std::runtime_error(fmt::format("{} failed", fmt::join(words, " ")));
    }
  });
  return ended;
}

void Write(std::string const& path, std::string const& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

// About 116 bytes a row; addresses come in no order, names in theirs.
void WriteRows(std::string const& path, Number count) {
  constexpr char const* kCities[] = {"Lyon",   "Bern",   "Porto", "Graz",  "Turku",
                                     "Gdansk", "Leiden", "Cork",  "Malmo", "Brno"};
  std::mt19937_64 random(7);
  std::ofstream out(path, std::ios::binary);
  out << "Name,Email,City,Age,Balance,Score,Note\n";
  for (Number i = 0; i < count; ++i) {
    auto const r = random() >> 24;
    char const* const city = kCities[r % 10];
    out << fmt::format(
        "Person {:07},u{:010x}.{}@mail.example,{},{},{:.2f},{:.6f},note {} of person "
        "{} lives in {}\n",
        i, r, i, city, 18 + r % 70, static_cast<double>((r >> 8) % 1000000) / 100,
        static_cast<double>((r >> 4) % 100000) / 7, r % 977, i, city);
  }
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

class Transfer {
 public:
  explicit Transfer(Settings const& settings)
      : directory_(settings.Directory("transfer")), rows_(static_cast<double>(settings.objects)) {
    WriteRows(In("rows.csv"), settings.objects);
    Write(In("schema.json"), kSchema);
    Write(In("import.sql"), kShellScript + (".import --skip 1 " + In("rows.csv") + " Person\n"));
  }

  void Round() {
    fs::remove_all(In("own"));
    fs::remove(In("shell.db"));
    RunProgram({BENCH_TOOL, "create", In("own")}, "", "");
    RunProgram({BENCH_TOOL, "apply", In("own"), In("schema.json")}, "", "");
    Note(import_, RunProgram({BENCH_TOOL, "import", In("own"), "Person", In("rows.csv")}, "", ""),
         RunProgram({"sqlite3", In("shell.db")}, In("import.sql"), ""), import_memory_);
    RunProgram({"sqlite3", In("shell.db"), ".dump"}, "", In("shell.sql"));
    RunProgram({BENCH_TOOL, "dump", In("own")}, "", In("own.dump"));
    fs::remove_all(In("own"));
    fs::remove(In("shell.db"));
    Note(load_, RunProgram({BENCH_TOOL, "load", In("own"), In("own.dump")}, "", ""),
         RunProgram({"sqlite3", In("shell.db")}, In("shell.sql"), ""), load_memory_);
  }

  std::vector<Result> Results() const { return {import_, load_, import_memory_, load_memory_}; }

 private:
  std::string In(std::string const& name) const { return directory_ + "/" + name; }
  void Note(Result& time, Ended const& own, Ended const& shell, Result& memory) const {
    time.series[0].values.push_back(own.nanoseconds / rows_);
    time.series[1].values.push_back(shell.nanoseconds / rows_);
    memory.series[0].values.push_back(own.memory);
    memory.series[1].values.push_back(kMostMemory);
  }
  static Result Time(std::string const& work) {
    return {work, "ns", false, {{kSagleme, {}}, {kShell, {}}}, {{kShell, kMostTime}}};
  }
  static Result Memory(std::string const& work) {
    return {work, "bytes", false, {{kSagleme, {}}, {kLimit, {}}}, {{kLimit, 1}}};
  }

  std::string directory_;
  double rows_;
  Result import_ = Time("import a row of CSV, two indexes");
  Result load_ = Time("load a row of a dump, two indexes");
  Result import_memory_ = Memory("anonymous memory of an import");
  Result load_memory_ = Memory("anonymous memory of a load");
};

bool HasShell() { return std::system("command -v sqlite3 >/dev/null 2>&1") == 0; }

}  // namespace

std::vector<Result> MeasureTransfer(Settings const& settings) {
  if (!HasShell()) {
    std::cout << "There is no sqlite3 to import and load beside: left out.\n";
    return {};
  }
  Transfer transfer(settings);
  for (int round = 0; round < settings.rounds; ++round) transfer.Round();
  return transfer.Results();
}

}  // namespace bench
