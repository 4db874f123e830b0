#include <fmt/format.h>

#include <sagleme/counts.hpp>

#include "commands/commands.h"
#include "commands/objects.h"
#include "commands/selection.h"

namespace tool {
namespace {

class Scan : public Command {
 public:
  std::string name() const override { return "scan"; }
  std::string summary() const override {
    return "List the objects of a table and of the tables derived from it";
  }
  std::string details() const override { return kConditionHelp; }
  std::vector<Example> examples() const override {
    return {{"scan shop Customer", "all customers"},
            {"scan shop Customer --where City=Lyon --where \"Age>=18\"", "those that meet both"},
            {"scan shop Order --where Total=100..200 --order Total:desc --limit 10",
             "the ten largest orders between 100 and 200"}};
  }
  void Declare(CLI::App& app) override {
    selection_.Declare(app);
    app.add_option("--order", order_,
                   "Sort by a column, descending with :desc after its name. Can be repeated")
        ->allow_extra_args(false)
        ->type_name("COLUMN");
    AddCount(app, "--limit", limit_, "Show at most COUNT objects");
    app.add_flag("--all-columns", all_columns_, "Show the columns of derived tables too");
    app.add_flag("--explain", explain_, "Explain on standard error how the objects are found");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  Selection selection_;
  std::vector<std::string> order_;
  std::uint64_t limit_ = UINT64_MAX;
  bool all_columns_ = false;
  bool explain_ = false;
};

Exit Scan::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    SearchRequest request = selection_.Request(transaction);
    for (std::string const& text : order_) {
      request.order.push_back(ParseOrder(*request.table, text));
    }
    request.limit = limit_;
    Search const search(transaction, request);
    if (explain_) output.Note(search.Path() + "\n");
    ObjectList list(output, transaction, request.table,
                    all_columns_ ? Columns::kAll : Columns::kOfTable);
    search.ForEach([&](sagleme::Object const& object) { list.Add(object); });
    list.Finish();
  });
  return Exit::kDone;
}

class Count : public Command {
 public:
  std::string name() const override { return "count"; }
  std::string summary() const override {
    return "Count the objects of a table and of the tables derived from it";
  }
  std::string details() const override { return kConditionHelp; }
  std::vector<Example> examples() const override {
    return {{"count shop Customer", "all customers"},
            {"count shop Customer --where City=Lyon", "those in Lyon"}};
  }
  void Declare(CLI::App& app) override { selection_.Declare(app); }
  Exit Run(Session& session, Output& output) override;

 private:
  Selection selection_;
};

Exit Count::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    SearchRequest const request = selection_.Request(transaction);
    std::uint64_t count = 0;
    if (selection_.whole_table()) {
      sagleme::ObjectCounts const counts(transaction);
      count = request.only ? counts.Own(*request.table) : counts.Subtree(*request.table);
    } else {
      Search(transaction, request).ForEach([&](sagleme::Object const&) { ++count; });
    }
    output.Print(fmt::format("{}\n", count));
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeScan() { return std::make_unique<Scan>(); }
std::unique_ptr<Command> MakeCount() { return std::make_unique<Count>(); }

}  // namespace tool
