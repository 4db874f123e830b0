#include <fmt/format.h>

#include <memory>
#include <sagleme/counts.hpp>
#include <sagleme/host/export.hpp>

#include "commands/commands.h"
#include "output/progress.h"
#include "query/names.h"

namespace tool {
namespace {

class Export : public Command {
 public:
  std::string name() const override { return "export"; }
  std::string summary() const override {
    return "Write the objects of a table as CSV or JSON Lines";
  }
  std::vector<Example> examples() const override {
    return {{"export shop Customer > customers.csv", "customers and objects of derived tables"},
            {"export shop Customer --only --output customers.jsonl",
             "without derived tables, one JSON object a line"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of its name can be left out")
        ->required()
        ->type_name("");
    app.add_flag("--only", only_, "Leave out the objects of derived tables");
    app.add_flag("--jsonl", json_, "Write JSON Lines, as for an output file named .jsonl");
    app.add_option("--output", file_, "Write to FILE instead of standard output")
        ->type_name("FILE");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  sagleme::FileForm Form() const {
    return json_ || file_.ends_with(".jsonl") ? sagleme::FileForm::kJsonLines
                                              : sagleme::FileForm::kCsv;
  }
  void WriteAll(sagleme::Transaction& transaction, Output const& to, Output const& report) const;

  std::string table_;
  bool only_ = false;
  bool json_ = false;
  std::string file_;
};

void Export::WriteAll(sagleme::Transaction& transaction, Output const& to,
                      Output const& report) const {
  sagleme::TablePtr const table = TableNamed(transaction, table_);
  sagleme::ObjectCounts const counts(transaction);
  std::uint64_t const total = only_ ? counts.Own(*table) : counts.Subtree(*table);
  Progress progress(report, "objects", total);
  if (Form() == sagleme::FileForm::kCsv) to.Print(sagleme::CsvHeading(*table, !only_));
  auto const line = Form() == sagleme::FileForm::kCsv ? sagleme::CsvLine : sagleme::JsonLine;
  std::uint64_t count = 0;
  for (sagleme::Object const& object : only_ ? sagleme::Range::Only(transaction, *table)
                                             : sagleme::Range::Subtree(transaction, *table)) {
    sagleme::ReadScope const scope(transaction.context());
    // JSON lines have the columns of the object's own table, so that nothing of a descendant is
    // lost.
    sagleme::TablePtr const own = Form() == sagleme::FileForm::kCsv ? table : object.table();
    if (own != nullptr) to.Print(line(object, *own, !only_));
    ++count;
    progress.Update(count, count);
  }
  progress.Finish(count);
}

Exit Export::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    if (file_.empty()) return WriteAll(transaction, output, output);
    TableNamed(transaction, table_);  // before a file is made
    Output to = output;
    to.out = std::make_shared<NewFileWriter>(file_);
    WriteAll(transaction, to, output);
    to.Flush();
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeExport() { return std::make_unique<Export>(); }

}  // namespace tool
