#include <fmt/format.h>

#include <memory>
#include <sagleme/host/export.hpp>

#include "commands/commands.h"
#include "output/progress.h"
#include "output/text.h"
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
    return {{"export shop Customer > customers.csv",
             "customers and objects of derived tables, with all columns"},
            {"export shop Customer --only --output customers.jsonl",
             "without derived tables, one JSON object a line"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of its name may be omitted")
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
    bool const json = json_ || file_.ends_with(".jsonl");
    return json ? sagleme::FileForm::kJsonLines : sagleme::FileForm::kCsv;
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
  Progress progress(report, "objects");
  auto const print = [&](std::string_view text) { to.Print(text); };
  auto const done = sagleme::Export(transaction, *table, print, {Form(), only_, progress.report()});
  progress.Finish(done.objects);
  if (done.left_out == 0) return;
  report.Note(fmt::format("{} of derived tables left out, because of --only\n",
                          Counted(done.left_out, "objects")));
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
