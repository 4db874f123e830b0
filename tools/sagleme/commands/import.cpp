#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <sagleme/host/import.hpp>

#include "commands/commands.h"
#include "commands/files.h"
#include "commands/objects.h"
#include "output/progress.h"
#include "output/text.h"
#include "query/names.h"

namespace tool {
namespace {

class Import : public Command {
 public:
  std::string name() const override { return "import"; }
  std::string summary() const override { return "Create objects from the rows of a file"; }
  std::vector<Example> examples() const override {
    return {{"import shop Customer customers.csv", "all rows, or none if one is bad"},
            {"import shop Order orders.jsonl --reject bad.jsonl",
             "collects the bad rows in a file and imports the others"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of its name can be left out")
        ->required()
        ->type_name("");
    app.add_option("FILE", file_, "CSV with a heading line, or JSON Lines; - is standard input")
        ->required()
        ->type_name("");
    app.add_flag("--jsonl", json_, "Read JSON Lines, as from a file named .jsonl");
    app.add_option("--reject", reject_, "Collect bad rows in FILE and go on")->type_name("FILE");
    app.add_flag("--keep-ids", keep_ids_, "Give the objects the ids that stand in the file");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::unique_ptr<sagleme::RowSource> Open(std::istream& input) const;
  void Reject(sagleme::RowSource const& source, sagleme::BadRow const& bad, Output const& output);
  void CheckNames(sagleme::RowSource const& source, sagleme::Importer const& importer,
                  sagleme::Table const& table) const;
  // False at the end.
  bool ImportOne(sagleme::RowSource& source, sagleme::Importer& importer, Output const& output);
  std::string Place(sagleme::FilePlace place) const {
    return fmt::format("{}:{}:{}", file_, place.line, place.column);
  }

  std::string table_;
  std::string file_;
  std::string reject_;
  bool json_ = false;
  bool keep_ids_ = false;
  std::ofstream rejects_;
  std::uint64_t taken_ = 0;
  std::uint64_t rejected_ = 0;
};

std::unique_ptr<sagleme::RowSource> Import::Open(std::istream& input) const {
  bool const json = json_ || file_.ends_with(".jsonl");
  try {
    return json ? sagleme::MakeJsonSource(input) : sagleme::MakeCsvSource(input);
  } catch (sagleme::BadRow const& bad) {
    throw Failure(Exit::kProblem, fmt::format("{}: {}", Place(bad.place()), bad.what()));
  }
}

void Import::Reject(sagleme::RowSource const& source, sagleme::BadRow const& bad,
                    Output const& output) {
  std::string const what = fmt::format("{}: {}", Place(bad.place()), bad.what());
  if (reject_.empty()) {
    throw Failure(Exit::kProblem, what,
                  "Nothing was imported. --reject FILE collects bad rows and imports the others.");
  }
  if (rejected_++ == 0) {
    rejects_.open(reject_, std::ios::binary);
    rejects_ << source.heading();
  }
  rejects_ << source.raw();
  output.Note(what + "\n");
}

bool Import::ImportOne(sagleme::RowSource& source, sagleme::Importer& importer,
                       Output const& output) {
  std::vector<sagleme::RowField> row;
  try {
    if (!source.Next(row)) return false;
    importer.Add(row);
    ++taken_;
  } catch (sagleme::BadRow const& bad) {
    Reject(source, bad, output);
  }
  return true;
}

// A name that is wrong is wrong in every row, and told once.
void Import::CheckNames(sagleme::RowSource const& source, sagleme::Importer const& importer,
                        sagleme::Table const& table) const {
  try {
    importer.CheckNames(source.names());
  } catch (sagleme::BadRow const& bad) {
    std::vector<std::string> columns;
    for (sagleme::Column const* const column : UserColumns(table)) {
      columns.push_back(sagleme::ToUtf8(column->name));
    }
    throw Failure(
        Exit::kProblem, fmt::format("{}: {}", Place(bad.place()), bad.what()),
        fmt::format("Nothing was imported. Its columns are {}.", fmt::join(columns, ", ")));
  }
}

Exit Import::Run(Session& session, Output& output) {
  taken_ = rejected_ = 0;
  auto const input = OpenFile(file_);
  auto const source = Open(*input);
  std::uint64_t const size = file_ == "-" ? 0 : std::filesystem::file_size(file_);
  Progress progress(output, "objects", size);
  session.Write([&](sagleme::Transaction& transaction) {
    sagleme::TablePtr const table = UserTableNamed(transaction, table_);
    sagleme::Importer importer(transaction, table, keep_ids_);
    CheckNames(*source, importer, *table);
    while (true) {
      sagleme::ReadScope const scope(transaction.context());
      if (!ImportOne(*source, importer, output)) break;
      progress.Update(source->bytes(), taken_);
    }
  });
  progress.Finish(taken_);
  if (rejected_ == 0) return Exit::kDone;
  output.Note(fmt::format("{} rejected; see {}\n", Counted(rejected_, "rows"), reject_));
  return Exit::kProblem;
}

}  // namespace

std::unique_ptr<Command> MakeImport() { return std::make_unique<Import>(); }

}  // namespace tool
