#include "bootstrap/bootstrap_test.h"

#include <fstream>

namespace sagleme_test {

namespace {

// Makes the database's context the thread's for the length of a scope.
class Installed {
 public:
  explicit Installed(Database& database) {
    *metalayer::TlsMetalayerContext::Current() = database.context();
  }
  Installed(Installed const&) = delete;
  Installed& operator=(Installed const&) = delete;
  ~Installed() { *metalayer::TlsMetalayerContext::Current() = 0; }
};

Lines ToLines(Outcome const& outcome) {
  return {std::to_string(outcome.status), std::to_string(outcome.yields), outcome.text};
}

Outcome ToOutcome(Lines const& lines) {
  if (lines.size() != 3) return {~0u, -1, "the process gave no answer"};
  return {static_cast<uint32_t>(std::stoul(lines[0])), std::stoi(lines[1]), lines[2]};
}

// Every leg in a transaction that refuses writes.
Outcome RunReadOnly(Database& database) {
  Outcome outcome;
  continuation_context* handle = nullptr;
  bool more = false;
  lscoredb_begin(database.context(), LSCOREDB_READ_ONLY_TRANSACTION);
  outcome.status = lorv_create_metadata(database.context(), &handle, &more);
  while (outcome.status == 0 && more) {
    ++outcome.yields;
    lscoredb_rollback(database.context());
    lscoredb_begin(database.context(), LSCOREDB_READ_ONLY_TRANSACTION);
    continuation_context* next = nullptr;
    outcome.status = run_continuation(handle, &next, &more);
    free_continuation_handle(handle);
    handle = next;
  }
  outcome.text = Utf8(LastText(database.context()));
  lscoredb_rollback(database.context());
  return outcome;
}

Outcome StartUpIn(Database& database) {
  Outcome outcome;
  lscoredb_begin(database.context(), LSCOREDB_READ_ONLY_TRANSACTION);
  outcome.status = lorv_init_metalayer(database.context());
  outcome.text = Utf8(LastText(database.context()));
  lscoredb_rollback(database.context());
  return outcome;
}

// Fills the classes as far as the database goes, without the checks of start-up.
void ReadyClasses() {
  metalayer::MetaschemaInit const metaschema;
  metalayer::TokenMain::Init();
  auto const ready = [](std::string const& table, auto init) {
    init(Utf16(Defined(table).setspec), 0ul);
  };
  ready("MotherOfAllLayouts", metalayer::MotherOfAllLayouts::Init);
  ready("SetSpecifier", metalayer::SetSpecifier::Init);
  metalayer::PrepareGeneratedMetaClassesForReading();
}

}  // namespace

int BootstrapTest::Run(std::function<void(Database&)> const& work) {
  return InChildProcess([this, &work] {
    Database database(place_);
    work(database);
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
}

Lines BootstrapTest::Ask(std::function<Lines(Database&)> const& question) {
  std::string const path = directory_.path() + "/answer";
  int const status = Run([&](Database& database) {
    Lines const answer = question(database);
    std::ofstream file(path);
    for (std::string const& line : answer) file << line << '\n';
  });
  EXPECT_EQ(0, status);
  std::ifstream file(path);
  Lines answer;
  for (std::string line; std::getline(file, line);) answer.push_back(line);
  return status == 0 ? answer : Lines();
}

Outcome BootstrapTest::Bootstrap() {
  return ToOutcome(Ask([](Database& database) {
    Outcome outcome;
    outcome.status = database.Bootstrap(&outcome.yields);
    outcome.text = Utf8(LastText(database.context()));
    return ToLines(outcome);
  }));
}

Outcome BootstrapTest::BootstrapReadOnly() {
  return ToOutcome(Ask([](Database& database) { return ToLines(RunReadOnly(database)); }));
}

Outcome BootstrapTest::StartUp() {
  return ToOutcome(Ask([](Database& database) { return ToLines(StartUpIn(database)); }));
}

void BootstrapTest::BootstrapUpTo(int yields) {
  EXPECT_EQ(0,
            Run([yields](Database& database) { EXPECT_EQ(0u, database.BootstrapUpTo(yields)); }));
}

void BootstrapTest::Change(std::function<void()> const& change) {
  EXPECT_EQ(0, Run([&change](Database& database) {
              database.Begin();
              EXPECT_EQ(0u, lorv_init_metalayer(database.context()));
              Installed const installed(database);
              change();
              database.Commit();
            }));
}

void BootstrapTest::ChangeRaw(std::function<void()> const& change) {
  EXPECT_EQ(0, Run([&change](Database& database) {
              database.Begin();
              Installed const installed(database);
              ReadyClasses();
              change();
              database.Commit();
            }));
}

Lines BootstrapTest::Catalogue() {
  return Ask([](Database& database) {
    database.Begin();
    EXPECT_EQ(0u, lorv_init_metalayer(database.context()));
    Installed const installed(database);
    return DescribeCatalogue();
  });
}

Lines BootstrapTest::Objects() {
  return Ask([](Database& database) {
    database.Begin();
    Installed const installed(database);
    ReadyClasses();
    return DumpObjects();
  });
}

void BootstrapTest::ExpectCurrent() {
  EXPECT_EQ("", Differences(ExpectedCatalogue(), Catalogue()));
}

void BootstrapTest::ExpectRepaired(int yields) {
  Outcome const outcome = Bootstrap();
  EXPECT_EQ(0u, outcome.status) << outcome.text;
  EXPECT_EQ(yields, outcome.yields);
  ExpectCurrent();
}

}  // namespace sagleme_test
