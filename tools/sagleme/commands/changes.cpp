#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <sagleme/changes.hpp>

#include "base/interrupt.h"
#include "commands/commands.h"
#include "output/text.h"
#include "output/time_text.h"

namespace tool {
namespace {

constexpr std::uint64_t kSinceOldest = UINT64_MAX;

class ShowChanges : public Command {
 public:
  std::string name() const override { return "changes"; }
  std::string summary() const override { return "Print what commits changed, as lines of JSON"; }
  std::string details() const override {
    return "A database with a log or on a server keeps changes once --keep says for how long. "
           "Each line is an object that was created, changed, deleted or moved to another table, "
           "or says that the "
           "schema changed. \"commit\" is the number for --since; \"last\" marks the last change "
           "of a transaction.";
  }
  std::vector<Example> examples() const override {
    return {{"changes shop --keep 256M,7d", "keep what is newer than a week, in 256 MiB"},
            {"changes shop --since 4711 --follow", "what came after commit 4711, and what comes"},
            {"changes shop --keep off", "keep no changes any more"}};
  }
  void Declare(CLI::App& app) override {
    AddCount(app, "--since", since_, "Print what came after this commit; default: all that is kept",
             "COMMIT");
    app.add_flag("--follow", follow_, "Wait for more until Ctrl-C");
    app.add_option("--keep", keep_,
                   "Print nothing; keep changes from now on: as many as fit into BYTES (K, M, G), "
                   "as old as AGE (s, h, d, w), both with a comma between, or off")
        ->type_name("BYTES|AGE");
    app.add_flag("--log", log_,
                 "With --keep: give the database a log if it has none. Versions of sagleme that "
                 "know no logs cannot open it then");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  void Keep(Session& session, Output& output) const;
  void Print(Session& session, Output& output) const;
  void PrintNew(sagleme::Changes& changes, Output& output) const;

  std::uint64_t since_ = kSinceOldest;
  bool follow_ = false;
  std::string keep_;
  bool log_ = false;
};

// ---- retention ---------------------------------------------------------------------------------

struct Unit {
  char letter;
  std::uint64_t factor;
  bool of_time;
};

constexpr std::array<Unit, 8> kUnits = {{{'K', std::uint64_t{1} << 10, false},
                                         {'M', std::uint64_t{1} << 20, false},
                                         {'G', std::uint64_t{1} << 30, false},
                                         {'T', std::uint64_t{1} << 40, false},
                                         {'s', 1, true},
                                         {'h', 3600, true},
                                         {'d', 86400, true},
                                         {'w', 604800, true}}};

[[noreturn]] void RefuseKeep(std::string_view part) {
  throw Failure(Exit::kUsage, fmt::format("the option --keep does not take \"{}\"", part),
                "It takes bytes such as 256M, an age such as 7d, both as 256M,7d, or off.");
}

Unit UnitOf(std::string_view part, std::string_view letter) {
  if (letter.empty()) return {' ', 1, false};
  for (Unit const& unit : kUnits) {
    if (letter.size() == 1 && unit.letter == letter.front()) return unit;
  }
  RefuseKeep(part);
}

void AddBound(std::string_view part, sagleme::ChangeRetention& retention) {
  std::uint64_t number = 0;
  auto const [end, error] = std::from_chars(part.data(), part.data() + part.size(), number);
  if (error != std::errc() || number == 0) RefuseKeep(part);
  auto const digits = static_cast<std::size_t>(end - part.data());
  Unit const unit = UnitOf(part, part.substr(digits));
  std::uint64_t& bound = unit.of_time ? retention.seconds : retention.bytes;
  if (bound != 0 || number > UINT64_MAX / unit.factor) RefuseKeep(part);
  bound = number * unit.factor;
}

sagleme::ChangeRetention RetentionOf(std::string_view text) {
  sagleme::ChangeRetention retention;
  if (text == "off") return retention;
  auto const comma = text.find(',');
  AddBound(text.substr(0, comma), retention);
  if (comma != std::string_view::npos) AddBound(text.substr(comma + 1), retention);
  return retention;
}

[[noreturn]] void RefuseWithoutLog(Session const& session) {
  throw Failure(Exit::kRefused,
                fmt::format("{} has no log, which keeps the changes", session.shown()),
                fmt::format("Give it one, while nobody else has it open, with: "
                            "sagleme changes {} --keep 256M --log",
                            session.shown()));
}

void ShowChanges::Keep(Session& session, Output& output) const {
  sagleme::ChangeRetention const retention = RetentionOf(keep_);
  std::optional<sagleme::Database> with_log;
  if (log_ && !sagleme::IsServerUrl(session.directory())) {
    sagleme::Options options;
    options.log = LSCOREDB_LOG;
    with_log.emplace(sagleme::Database::Open(session.directory(), options));
  }
  sagleme::Database const& database = with_log.has_value() ? *with_log : session.database();
  try {
    sagleme::KeepChanges(database, retention);
  } catch (sagleme::Error const& error) {
    if (error.status() == LSCOREDB_CHANGES_UNSUPPORTED) RefuseWithoutLog(session);
    throw;
  }
  output.Note(keep_ == "off" ? std::string("keeps no changes\n")
                             : fmt::format("keeps the changes after commit {}\n",
                                           sagleme::Kept(database).last));
}

// ---- lines -------------------------------------------------------------------------------------

char const* KindText(sagleme::ChangeKind kind) {
  switch (kind) {
    case sagleme::ChangeKind::kCreated:
      return "created";
    case sagleme::ChangeKind::kChanged:
      return "changed";
    case sagleme::ChangeKind::kDeleted:
      return "deleted";
    case sagleme::ChangeKind::kMoved:
      return "moved";
    case sagleme::ChangeKind::kSchema:
      break;
  }
  return "schema";
}

std::string TableText(std::u16string const& table) {
  return table.empty() ? "null" : JsonString(sagleme::ToUtf8(table));
}

std::string LineOf(sagleme::DataChange const& change) {
  std::string line = fmt::format(
      R"({{"commit": {}, "place": {}, "transaction": {}, "last": {}, "time": "{}", "kind": "{}")",
      change.position.commit, change.position.place, change.transaction, change.last,
      TimeText(change.time), KindText(change.kind));
  if (change.kind != sagleme::ChangeKind::kSchema) {
    line +=
        fmt::format(R"(, "object": {}, "table": {})", change.object.value, TableText(change.table));
  }
  if (!change.former_table.empty()) line += ", \"from\": " + TableText(change.former_table);
  if (!change.columns.empty()) {
    std::string columns;
    for (std::u16string const& column : change.columns) {
      columns += (columns.empty() ? "" : ", ") + JsonString(sagleme::ToUtf8(column));
    }
    line += ", \"columns\": [" + columns + "]";
  }
  return line + "}\n";
}

// ---- printing ----------------------------------------------------------------------------------

[[noreturn]] void RefuseGone(sagleme::KeptChanges const& kept) {
  throw Failure(
      Exit::kRefused,
      fmt::format("the next changes are not kept any more; the oldest are those of "
                  "commit {}",
                  kept.first),
      fmt::format("Read the database afresh, then follow it with --since {}.", kept.last));
}

sagleme::KeptChanges KeptBy(Session& session) {
  try {
    return sagleme::Kept(session.database_to_read());
  } catch (sagleme::Error const& error) {
    if (error.status() == LSCOREDB_CHANGES_UNSUPPORTED) RefuseWithoutLog(session);
    if (error.status() != LSCOREDB_NO_CHANGES) throw;
    throw Failure(
        Exit::kRefused, fmt::format("{} keeps no changes", session.shown()),
        fmt::format("Switch that on with: sagleme changes {} --keep 256M", session.shown()));
  }
}

// Also ends when nobody reads the output any more, which no write would tell before the next
// change.
void WaitForMore(sagleme::Changes& changes) {
  constexpr std::chrono::milliseconds kPause(200);
  int file = -1;
  try {
    file = changes.file();
  } catch (sagleme::Error const&) {  // the system has no more of them
    changes.Wait(kPause);
    return CheckInterrupt();
  }
  if (!WaitForInput(file, STDOUT_FILENO)) {
    CheckInterrupt();
    throw OutputClosed();
  }
}

// A server that is lost may come back, and the reader is where it was.
void ShowChanges::PrintNew(sagleme::Changes& changes, Output& output) const {
  try {
    for (sagleme::DataChange const& change : changes) output.Print(LineOf(change));
  } catch (sagleme::Error const& error) {
    if (!follow_ || error.status() != LSCOREDB_SERVER_LOST) throw;
  }
  output.Flush();
}

void ShowChanges::Print(Session& session, Output& output) const {
  sagleme::KeptChanges const kept = KeptBy(session);
  std::uint64_t const since = since_ == kSinceOldest ? kept.first - 1 : since_;
  if (since > kept.last) {
    throw Failure(Exit::kUsage, fmt::format("--since: there is no commit {} yet", since),
                  fmt::format("The newest one is {}.", kept.last));
  }
  InterruptGuard const guard;
  try {
    sagleme::Changes changes(session.database_to_read(), {since});
    for (;;) {
      PrintNew(changes, output);
      if (!follow_) return;
      WaitForMore(changes);
    }
  } catch (sagleme::Error const& error) {
    bool const off = error.status() == LSCOREDB_NO_CHANGES;  // since it began
    if (!off && error.status() != LSCOREDB_CHANGES_GONE) throw;
    output.Flush();
    RefuseGone(KeptBy(session));
  }
}

Exit ShowChanges::Run(Session& session, Output& output) {
  bool const prints = since_ != kSinceOldest || follow_;
  if (!keep_.empty() && prints) {
    throw Failure(Exit::kUsage, "--keep stands alone", "Leave out --since and --follow.");
  }
  if (log_ && keep_.empty()) {
    throw Failure(Exit::kUsage, "--log needs --keep", "Say for how long: --keep 256M --log.");
  }
  if (keep_.empty()) {
    Print(session, output);
  } else {
    session.RequireNoTransaction("changes");
    Keep(session, output);
  }
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeChanges() { return std::make_unique<ShowChanges>(); }

}  // namespace tool
