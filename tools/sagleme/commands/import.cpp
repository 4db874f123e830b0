#include <fmt/format.h>

#include <sagleme/failure.hpp>
#include <sagleme/host/import.hpp>

#include "base/interrupt.h"
#include "commands/commands.h"
#include "commands/files.h"
#include "commands/objects.h"
#include "output/progress.h"
#include "output/text.h"
#include "output/writer.h"
#include "query/names.h"

namespace tool {
namespace {

using sagleme::BadRow;
using sagleme::RowSource;

constexpr char kNothing[] = "Nothing was imported.";

// Bad rows, in a file of the same form, which the first one creates.
class Rejects {
 public:
  Rejects(std::string path, std::string input, Output const& output)
      : path_(std::move(path)), input_(std::move(input)), output_(output) {}

  // `continued`: the file holds what was rejected before. Failure when the row cannot be written.
  void Add(RowSource const& rows, BadRow const& bad, bool continued);

 private:
  std::string path_;
  std::string input_;
  Output const& output_;
  std::unique_ptr<NewFileWriter> file_;
};

class Import : public Command {
 public:
  std::string name() const override { return "import"; }
  std::string summary() const override { return "Create objects from the rows of a file"; }
  std::string details() const override {
    return "Rows are committed in batches of 20,000. When a row is bad, or the import is stopped, "
           "earlier batches stay. The same import of the unchanged file then continues behind "
           "them, and "
           "so does \"sagleme jobs\"; for a file that was mended, the message says with which "
           "--skip "
           "to continue. "
           "--atomic commits all rows or none, in memory that grows with the file; inside a "
           "transaction at the prompt this is always so.\n"
           "Files compressed by gzip are unpacked. UTF-16 is recognised by its byte order mark. "
           "The "
           "values of a CSV file may be separated by commas, semicolons, tabs or bars.";
  }
  std::vector<Example> examples() const override {
    return {{"import shop Customer customers.csv", "all rows; stops at the first bad one"},
            {"import shop Customer customers.csv --skip 40000", "continues after row 40,000"},
            {"import shop Order orders.jsonl --reject bad.jsonl",
             "collects the bad rows in a file and imports the others"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of its name may be omitted")
        ->required()
        ->type_name("");
    app.add_option("FILE", file_, "CSV with a heading line, or JSON Lines; - is standard input")
        ->required()
        ->type_name("");
    app.add_flag("--jsonl", json_, "Read JSON Lines, as from a file named .jsonl");
    app.add_option("--separator", separator_, "The separator of the values in a CSV file")
        ->type_name("CHAR");
    app.add_option("--reject", reject_, "Collect bad rows in FILE and continue")->type_name("FILE");
    AddCount(app, "--skip", skip_, "Skip the first COUNT rows, which are already imported");
    AddCount(app, "--batch", batch_, "Commit COUNT rows at a time. 20000 by default");
    AddCount(app, "--pause", pause_, "Wait MS milliseconds between commits. 0 by default", "MS");
    app.add_flag("--atomic", atomic_, "Import all rows in one transaction, or none");
    app.add_flag("--keep-ids", keep_ids_, "Give the objects the ids in the file");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  sagleme::RowFormat Format() const;
  std::unique_ptr<RowSource> OpenRowsOf(std::istream& input) const;
  sagleme::TablePtr FindTable(Session& session) const;
  void ImportRows(Session& session, sagleme::Table const& table, RowSource& rows,
                  sagleme::ImportOptions const& options, sagleme::ImportResult& result) const;
  std::string Location(sagleme::FileLocation location) const {
    return fmt::format("{}:{}:{}", file_, location.line, location.column);
  }
  bool InOne(Session const& session) const { return atomic_ || session.in_transaction(); }
  std::string AdviceFor(Session const& session, sagleme::ImportResult const& result) const;
  std::string AdviceFor(BadRow const& bad, sagleme::Table const& table,
                        RowSource const& rows) const;

  std::string table_;
  std::string file_;
  std::string reject_;
  std::string separator_;
  std::uint64_t skip_ = 0;
  std::uint64_t batch_ = 20000;
  std::uint64_t pause_ = 0;
  bool json_ = false;
  bool atomic_ = false;
  bool keep_ids_ = false;
};

// The row is written before the batch around it is committed.
void Rejects::Add(RowSource const& rows, BadRow const& bad, bool continued) {
  if (file_ == nullptr) {
    file_ = std::make_unique<NewFileWriter>(path_, continued);
    if (!continued || file_->empty()) file_->Write(rows.heading());
  }
  file_->Write(rows.raw());
  file_->Flush();
  output_.Note(fmt::format("{}:{}:{}: {}\n", input_, bad.location().line, bad.location().column,
                           bad.what()));
}

sagleme::RowFormat Import::Format() const {
  bool const json = json_ || file_.ends_with(".jsonl") || file_.ends_with(".jsonl.gz");
  if (json) return {sagleme::FileForm::kJsonLines};
  if (separator_ == "\\t") return {sagleme::FileForm::kCsv, '\t'};
  if (separator_.empty()) return {};
  bool const allowed =
      separator_.size() == 1 && separator_.find_first_of("\"\n\r") == separator_.npos;
  if (allowed) return {sagleme::FileForm::kCsv, separator_[0]};
  throw Failure(Exit::kUsage, fmt::format("\"{}\" cannot separate values", separator_),
                "Name one character, for example ; or \\t for the tab.");
}

std::unique_ptr<RowSource> Import::OpenRowsOf(std::istream& input) const {
  try {
    return sagleme::OpenRows(input, Format());
  } catch (BadRow const& bad) {
    throw Failure(Exit::kProblem, fmt::format("{}: {}", Location(bad.location()), bad.what()),
                  kNothing);
  } catch (sagleme::Failure const& failure) {
    throw sagleme::Failure(failure.kind(), fmt::format("{}: {}", file_, failure.what()),
                           failure.advice().empty() ? kNothing : failure.advice());
  }
}

sagleme::TablePtr Import::FindTable(Session& session) const {
  sagleme::TablePtr table;
  session.Read(
      [&](sagleme::Transaction& transaction) { table = UserTableNamed(transaction, table_); });
  return table;
}

void Import::ImportRows(Session& session, sagleme::Table const& table, RowSource& rows,
                        sagleme::ImportOptions const& options,
                        sagleme::ImportResult& result) const {
  if (!InOne(session) && file_ == "-") {
    return sagleme::Import(session.context(), table.name, rows, options, result);
  }
  if (!InOne(session)) {
    sagleme::FileImport const file{table.name, file_, Format()};
    sagleme::ImportFile(session.context(), file, rows, options, result);
    return;
  }
  session.Write([&](sagleme::Transaction& transaction) {
    sagleme::Import(transaction, table.name, rows, options, result);
  });
}

std::string Import::AdviceFor(Session const& session, sagleme::ImportResult const& result) const {
  if (InOne(session) || result.rows <= skip_) return kNothing;
  return fmt::format("{} of the file are imported; continue with --skip {}.",
                     Counted(result.rows, "rows"), result.rows);
}

// A wrong name is wrong in every row; a bad row may be one of many.
std::string Import::AdviceFor(BadRow const& bad, sagleme::Table const& table,
                              RowSource const& rows) const {
  if (!rows.has_heading() || bad.location().line != 1) {
    return reject_.empty() ? " --reject FILE collects bad rows and imports the others." : "";
  }
  std::vector<std::string> columns;
  for (sagleme::Column const* const column : UserColumns(table)) {
    columns.push_back(sagleme::ToUtf8(column->name));
  }
  return fmt::format(" Its columns are {}.", fmt::join(columns, ", "));
}

Exit Import::Run(Session& session, Output& output) {
  session.OpenToWriteMuch();
  InterruptGuard const guard;
  sagleme::TablePtr const table = FindTable(session);
  auto const input = OpenFile(file_);
  auto const rows = OpenRowsOf(*input);
  Progress progress(output, "objects", SizeOfFile(file_));
  Rejects rejects(reject_, file_, output);
  sagleme::ImportOptions options;
  options.keep_ids = keep_ids_;
  options.skip = skip_;
  if (batch_ == 0) throw Failure(Exit::kUsage, "the option --batch needs a number from 1, not 0");
  options.batch = batch_;
  options.pause = std::chrono::milliseconds(pause_);
  options.report = [&](sagleme::TransferProgress const& so_far) {
    progress.Update(so_far.done, so_far.objects);
  };
  sagleme::ImportResult result;
  if (!reject_.empty()) {
    options.reject = [&](RowSource const& source, BadRow const& bad) {
      rejects.Add(source, bad, skip_ != 0 || result.before != 0);
    };
  }
  try {
    ImportRows(session, *table, *rows, options, result);
  } catch (BadRow const& bad) {
    throw Failure(Exit::kProblem, fmt::format("{}: {}", Location(bad.location()), bad.what()),
                  AdviceFor(session, result) + AdviceFor(bad, *table, *rows));
  } catch (Failure const& failure) {  // rejected rows that cannot be written
    throw Failure(failure.exit(), failure.what(), AdviceFor(session, result));
  } catch (sagleme::Failure const& failure) {
    throw sagleme::Failure(failure.kind(), fmt::format("{}: {}", file_, failure.what()),
                           AdviceFor(session, result));
  } catch (sagleme::Error const& error) {
    throw Failure(Exit::kRefused, error.what(), AdviceFor(session, result));
  } catch (Interrupted const&) {
    if (session.in_transaction()) throw;
    TakeInterrupt();
    throw Failure(Exit::kProblem, "interrupted", AdviceFor(session, result));
  }
  progress.Finish(result.objects);
  if (result.before != 0) {
    output.Note(fmt::format("the first {} were imported before\n", Counted(result.before, "rows")));
  }
  if (result.rejected == 0) return Exit::kDone;
  output.Note(fmt::format("{} rejected; see {}\n", Counted(result.rejected, "rows"), reject_));
  return Exit::kProblem;
}

}  // namespace

std::unique_ptr<Command> MakeImport() { return std::make_unique<Import>(); }

}  // namespace tool
